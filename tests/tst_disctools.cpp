#include <QtTest>

#include "common/standins.h"
#include "media/disctools.h"
#include "media/drives.h"
#include "media/usbburn.h"

namespace {

OpticalDrive drive(const QString& node, int host, int target, int lun)
{
    OpticalDrive d;
    d.node = node;
    d.vendor = "ACMECORP";
    d.model = "DVDRW UNIT-100";
    d.revision = "R001";
    d.host = host;
    d.channel = host < 0 ? -1 : 0;
    d.target = target;
    d.lun = lun;
    return d;
}

const QString kOptical = "\t1,0,0\t100) 'ACMECORP' 'DVDRW UNIT-100  ' 'R001' Removable CD-ROM";

using Standins::Logged;

} // namespace

class TestDiscTools final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void parsesScanLines_data();
    void parsesScanLines();
    void matchesDrives_data();
    void matchesDrives();
    void listsScannedDrivesThenTheRest();
    void showsTheOpticalList_data();
    void showsTheOpticalList();
    void parsesProgress_data();
    void parsesProgress();
    void burnTransferText_data();
    void burnTransferText();
    void burns_data();
    void burns();
    void copies_data();
    void copies();
    void scanFillsTheListWithoutTheWriter();
    void stopEndsOnceAfterTheTool_data();
    void stopEndsOnceAfterTheTool();

private:
    QTemporaryDir m_dir;
    QString m_log;
};

void TestDiscTools::initTestCase()
{
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
}

void TestDiscTools::init()
{
    m_log = m_dir.filePath(QString("log-%1.txt").arg(QTest::currentTestFunction()) +
                           QString(QTest::currentDataTag()).replace(' ', '_'));
    qputenv("BRENTA_STANDIN_LOG", m_log.toUtf8());
    DriveSeam::SetOptical([] { return QList<OpticalDrive>{drive("/dev/sr0", 1, 0, 0)}; });
}

void TestDiscTools::cleanup()
{
    qunsetenv("BRENTA_STANDIN_MODE");
    qunsetenv("BRENTA_STANDIN_SCAN");
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
    DriveSeam::Reset();
}

void TestDiscTools::parsesScanLines_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("device");
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("optical");
    QTest::newRow("optical drive") << kOptical << true << "1,0,0"
                                   << "ACMECORP DVDRW UNIT-100 R001" << true;
    QTest::newRow("disk") << "\t0,0,0\t  0) 'ATA     ' 'ACMEDISK SSD 860' '4B6Q' Disk" << true
                          << "0,0,0"
                          << "ATA ACMEDISK SSD 860 4B6Q" << false;
    QTest::newRow("writer of once-only discs")
        << "\t2,1,0\t201) 'OLD' 'WRITER' '1' Removable WORM" << true << "2,1,0"
        << "OLD WRITER 1" << true;
    QTest::newRow("empty slot") << "\t1,1,0\t101) *" << false << ""
                                << "" << false;
    QTest::newRow("bus header") << "scsibus1:" << false << ""
                                << "" << false;
    QTest::newRow("two numbers") << "\t1,0\t100) 'A' 'B' 'C' CD-ROM" << false << ""
                                 << "" << false;
}

void TestDiscTools::parsesScanLines()
{
    QFETCH(QString, line);
    QFETCH(bool, device);
    QFETCH(QString, address);
    QFETCH(QString, name);
    QFETCH(bool, optical);
    const std::optional<DiscTools::ScanLine> scan = DiscTools::ParseScanLine(line);
    QCOMPARE(scan.has_value(), device);
    if (!scan)
        return;
    QCOMPARE(scan->address, address);
    QCOMPARE(scan->name, name);
    QCOMPARE(scan->optical, optical);
}

void TestDiscTools::matchesDrives_data()
{
    QTest::addColumn<QList<OpticalDrive>>("drives");
    QTest::addColumn<QString>("product"); // what INQUIRY answers; empty: it cannot be asked
    QTest::addColumn<QString>("node");
    QTest::newRow("same address") << QList<OpticalDrive>{drive("/dev/sr0", 0, 0, 0),
                                                         drive("/dev/sr1", 1, 0, 0)}
                                  << ""
                                  << "/dev/sr1";
    QTest::newRow("other host, same target and lun")
        << QList<OpticalDrive>{drive("/dev/sr0", 2, 0, 0)} << ""
        << "";
    QTest::newRow("address unknown, product matches")
        << QList<OpticalDrive>{drive("/dev/sr3", -1, -1, -1)} << "DVDRW  UNIT-100  "
        << "/dev/sr3";
    QTest::newRow("address unknown, other product")
        << QList<OpticalDrive>{drive("/dev/sr3", -1, -1, -1)} << "BLURAY X"
        << "";
    QTest::newRow("address unknown, no answer")
        << QList<OpticalDrive>{drive("/dev/sr3", -1, -1, -1)} << ""
        << "";
}

void TestDiscTools::matchesDrives()
{
    QFETCH(QList<OpticalDrive>, drives);
    QFETCH(QString, product);
    QFETCH(QString, node);
    const auto inquiry = [&](const QString&) -> std::optional<QByteArray> {
        return product.isEmpty() ? std::nullopt : std::optional<QByteArray>(product.toLatin1());
    };
    QCOMPARE(DiscTools::MatchDrive(*DiscTools::ParseScanLine(kOptical), drives, inquiry), node);
}

void TestDiscTools::listsScannedDrivesThenTheRest()
{
    const QList<DiscTools::ScanLine> scanned{
        *DiscTools::ParseScanLine("\t3,0,0\t300) 'B' 'SECOND' '2' CD-ROM"),
        *DiscTools::ParseScanLine(kOptical),
        *DiscTools::ParseScanLine("\t9,0,0\t900) 'X' 'NOWHERE' '1' CD-ROM")};
    const QList<OpticalDrive> drives{drive("/dev/sr0", 1, 0, 0), drive("/dev/sr1", 5, 0, 0),
                                     drive("/dev/sr2", 3, 0, 0)};
    const QList<DiscTools::ListEntry> entries = DiscTools::OpticalEntries(scanned, drives, {});
    QStringList texts;
    for (const DiscTools::ListEntry& entry : entries)
        texts << entry.node + " = " + entry.text;
    QCOMPARE(texts, (QStringList{"/dev/sr2 = /dev/sr2: B SECOND 2",
                                 "/dev/sr0 = /dev/sr0: ACMECORP DVDRW UNIT-100 R001",
                                 "/dev/sr1 = /dev/sr1: ACMECORP DVDRW UNIT-100 R001"}));
}

void TestDiscTools::showsTheOpticalList_data()
{
    QTest::addColumn<QString>("kept");
    QTest::addColumn<QStringList>("found");
    QTest::addColumn<bool>("done");
    QTest::addColumn<int>("selected");
    QTest::addColumn<bool>("saysNone");
    const QStringList two{"/dev/sr0", "/dev/sr1"};
    QTest::newRow("kept drive found second") << "/dev/sr1" << two << false << 1 << false;
    QTest::newRow("kept drive not found yet")
        << "/dev/sr1" << QStringList{"/dev/sr0"} << false << 0 << false;
    QTest::newRow("nothing kept") << "" << two << true << 0 << false;
    QTest::newRow("kept drive gone") << "/dev/sr7" << two << true << 0 << false;
    QTest::newRow("empty while scanning") << "/dev/sr0" << QStringList() << false << -1 << false;
    QTest::newRow("empty at the end") << "/dev/sr0" << QStringList() << true << -1 << true;
}

void TestDiscTools::showsTheOpticalList()
{
    QFETCH(QString, kept);
    QFETCH(QStringList, found);
    QFETCH(bool, done);
    QFETCH(int, selected);
    QFETCH(bool, saysNone);
    QList<DiscTools::ListEntry> entries;
    for (const QString& node : found)
        entries.append({node + ": ACMECORP", node});
    const DiscTools::OpticalView view = DiscTools::ShowOptical(kept, entries, done);
    QCOMPARE(view.entries.size(), entries.size());
    QCOMPARE(view.selected, selected);
    QCOMPARE(view.placeholder, saysNone ? QString("No CD/DVD drive found") : QString());
}

void TestDiscTools::parsesProgress_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("line");
    QTest::addColumn<qint64>("value"); // -1: nothing
    QTest::newRow("burn") << "burn"
                          << "Track 01:   12 of  650 MB written (fifo 100%) [buf  99%]   4.0x."
                          << qint64(1);
    QTest::newRow("burn, first figure") << "burn"
                                        << "Track 01:    0 of    3 MB written." << qint64(-1);
    QTest::newRow("burn, total 0") << "burn"
                                   << "Track 01:    0 of    0 MB written (fifo   0%)" << qint64(-1);
    QTest::newRow("burn, marker first") << "burn"
                                        << "written (fifo) of" << qint64(-1);
    QTest::newRow("burn, summary")
        << "burn"
        << "Track 01: Total bytes read/written: 3145728/3145728" << qint64(-1);
    QTest::newRow("end with line end") << "end"
                                       << "end:       300\r\n"
                                       << qint64(300);
    QTest::newRow("not end") << "end"
                             << "addr:  1000000 cnt: 32" << qint64(-1);
    QTest::newRow("address") << "addr"
                             << "addr:  1000000 cnt: 32" << qint64(1000000);
    QTest::newRow("not an address") << "addr"
                                    << "Time total: 0.000sec" << qint64(-1);
}

void TestDiscTools::burnTransferText_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<qint64>("elapsedMs");
    QTest::addColumn<QString>("text");
    QTest::newRow("a quarter in 40 s")
        << "Track 01:  150 of  600 MB written (fifo 100%) [buf  99%]   4.0x." << qint64(40'000)
        << "150 of 600 MB, 4.0x, about 2 min left";
    QTest::newRow("near the end")
        << "Track 01:  590 of  600 MB written (fifo 100%) [buf  99%]  16.5x." << qint64(59'000)
        << "590 of 600 MB, 16.5x, about 1 s left";
    QTest::newRow("no speed yet") << "Track 01:    0 of  600 MB written (fifo   0%)" << qint64(500)
                                  << "0 of 600 MB";
    QTest::newRow("done") << "Track 01:  600 of  600 MB written (fifo 100%) [buf  99%]   8.0x."
                          << qint64(60'000) << "600 of 600 MB, 8.0x";
    QTest::newRow("total 0") << "Track 01:    0 of    0 MB written (fifo   0%)" << qint64(100)
                             << QString();
    QTest::newRow("other line") << "Track 01: Total bytes read/written: 3145728/3145728"
                                << qint64(100) << QString();
}

void TestDiscTools::burnTransferText()
{
    QFETCH(QString, line);
    QFETCH(qint64, elapsedMs);
    QFETCH(QString, text);
    QCOMPARE(DiscTools::BurnTransferText(line, elapsedMs), text);
}

void TestDiscTools::parsesProgress()
{
    QFETCH(QString, kind);
    QFETCH(QString, line);
    QFETCH(qint64, value);
    std::optional<qint64> parsed;
    if (kind == "burn") {
        if (const std::optional<int> percent = DiscTools::ParseBurnProgress(line))
            parsed = *percent;
    } else if (kind == "end") {
        parsed = DiscTools::ParseReadEnd(line);
    } else {
        parsed = DiscTools::ParseReadAddress(line);
    }
    QCOMPARE(parsed.value_or(-1), value);
}

void TestDiscTools::burns_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("succeeded");
    QTest::addColumn<QString>("said");
    QTest::newRow("success") << "success" << true << "Burning disc successfully.";
    QTest::newRow("no disc") << "nodisc" << false << "There is no writable disc in the drive.";
    QTest::newRow("too small") << "small" << false << "The image does not fit on the disc";
    QTest::newRow("write error") << "fail" << false << "Writing failed part of the way through";
    QTest::newRow("drive busy") << "busy" << false << "The drive is in use";
}

void TestDiscTools::burns()
{
    QFETCH(QString, mode);
    QFETCH(bool, succeeded);
    QFETCH(QString, said);
    qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
    const QString image = m_dir.filePath("disc.iso");
    QFile(image).open(QIODevice::WriteOnly);
    CDiscBurnJob job;
    QSignalSpy progress(&job, &CDiscBurnJob::progressed);
    QSignalSpy finished(&job, &CDiscBurnJob::finished);
    job.Start(image, "/dev/sr0");
    QVERIFY(finished.wait(20000));
    QCOMPARE(finished.first().at(0).toBool(), succeeded);
    QVERIFY2(finished.first().at(1).toString().contains(said),
             qPrintable(finished.first().at(1).toString()));
    QCOMPARE(Logged(m_log),
             QStringList{"-v -eject dev=/dev/sr0 -sao driveropts=burnfree " + image});
    if (mode == "success") {
        QList<int> values;
        for (const QList<QVariant>& signal : progress)
            values << signal.first().toInt();
        QCOMPARE(values, (QList<int>{33, 66, 100}));
    }
}

void TestDiscTools::copies_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<bool>("succeeded");
    QTest::addColumn<QString>("said");
    QTest::newRow("success") << "success" << true << "Copy CD/DVD successfully!";
    QTest::newRow("no disc") << "nodisc" << false << "There is no disc in the drive";
    QTest::newRow("unreadable sector") << "readerror" << false << "could not be read";
    QTest::newRow("output not writable") << "nospace" << false << "could not be written";
}

void TestDiscTools::copies()
{
    QFETCH(QString, mode);
    QFETCH(bool, succeeded);
    QFETCH(QString, said);
    qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
    const QString output = m_dir.filePath("copy-" + mode + ".iso");
    CDiscCopyJob job;
    QSignalSpy progress(&job, &CDiscCopyJob::progressed);
    QSignalSpy finished(&job, &CDiscCopyJob::finished);
    job.Start("/dev/sr0", output);
    QVERIFY(finished.wait(20000));
    QCOMPARE(finished.first().at(0).toBool(), succeeded);
    QVERIFY2(finished.first().at(1).toString().contains(said),
             qPrintable(finished.first().at(1).toString()));
    // The reader writes a part file beside the output, never the output itself.
    QCOMPARE(Logged(m_log).size(), 1);
    QVERIFY(Logged(m_log).first().startsWith("-dev=/dev/sr0 -f=" +
                                             m_dir.filePath(".copy-" + mode + ".iso.")));
    // A failed copy leaves no half image behind.
    QCOMPARE(QFileInfo::exists(output), succeeded);
    if (succeeded) {
        // The stand-in reads 300 sectors, 32 at a time.
        QCOMPARE(progress.first().first().toInt(), 0);
        QCOMPARE(progress.at(1).first().toInt(), 10);
        QCOMPARE(progress.last().first().toInt(), 100);
        QCOMPARE(QFileInfo(output).size(), qint64(300) * 2048);
    }
}

void TestDiscTools::scanFillsTheListWithoutTheWriter()
{
    DriveSeam::SetOptical([] {
        return QList<OpticalDrive>{drive("/dev/sr0", 1, 0, 0), drive("/dev/sr1", 4, 0, 0)};
    });
    for (const char* scanResult : {"found", "none"}) {
        qputenv("BRENTA_STANDIN_SCAN", scanResult);
        COpticalScan scan;
        QSignalSpy entries(&scan, &COpticalScan::entry);
        QSignalSpy finished(&scan, &COpticalScan::finished);
        scan.Start();
        QVERIFY(finished.wait(20000));
        QStringList nodes;
        for (const QList<QVariant>& entry : entries)
            nodes << entry.at(1).toString();
        // The drive the scan names first, then the one only the system knows;
        // with a scan that cannot open anything, both from the system.
        QCOMPARE(nodes, (QStringList{"/dev/sr0", "/dev/sr1"}));
        QCOMPARE(entries.first().at(0).toString(),
                 QString("/dev/sr0: ACMECORP DVDRW UNIT-100 R001"));
    }
}

void TestDiscTools::stopEndsOnceAfterTheTool_data()
{
    QTest::addColumn<QString>("job");
    // The tools' calls by the time the job has ended, "ended" when one ended.
    QTest::addColumn<QStringList>("calls");
    QTest::newRow("disc copy") << "copy" << QStringList{"start -dev=/dev/sr0", "ended"};
    QTest::newRow("bus scan") << "scan" << QStringList{"start -scanbus"};
    QTest::newRow("eject") << "eject" << QStringList{"start dev=/dev/sr0"};
    // The stick is unmounted once the helper that mounted it has ended.
    QTest::newRow("USB restore") << "restore"
                                 << QStringList{"start prepare", "ended", "start unmount"};
}

// Stop() returns at once, and the job ends exactly once with finished(false),
// having removed what its tool wrote only after the tool had ended. Each tool
// here works until it is asked to end, and takes a moment to end.
void TestDiscTools::stopEndsOnceAfterTheTool()
{
    QFETCH(QString, job);
    QFETCH(QStringList, calls);
    QTemporaryDir dir;
    const QString log = dir.filePath("calls");
    const QByteArray slow =
        "#!/bin/sh\n"
        "echo \"start $1\" >>\"$SLOW_LOG\"\n"
        "[ \"$1\" = unmount ] && exit 0\n"
        "for a in \"$@\"; do case \"$a\" in -f=*) echo part >\"${a#-f=}\" ;; esac; done\n"
        "[ \"$1\" = prepare ] && echo \"mounted: $SLOW_STICK\"\n"
        "trap 'sleep 0.3; echo ended >>\"$SLOW_LOG\"; exit 143' TERM\n"
        "sleep 0.3; echo ready >>\"$SLOW_LOG\"\n"
        "while :; do sleep 0.05; done\n";
    for (const char* tool : {"cdrtools/readcd", "cdrtools/cdrecord", "usbhelper/brenta-usb-helper"})
        QVERIFY(Standins::Write(dir.filePath(QString("tools/") + tool), slow));
    qputenv("BRENTA_TOOLS_DIR", dir.filePath("tools").toUtf8());
    qputenv("SLOW_LOG", log.toUtf8());
    qputenv("SLOW_STICK", dir.filePath("stick").toUtf8());
    const auto called = [&log] {
        QFile file(log);
        file.open(QIODevice::ReadOnly);
        return QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts);
    };
    const auto parts = [&dir] {
        return QDir(dir.path()).entryList({".copy.iso.*"}, QDir::Files | QDir::Hidden);
    };

    std::unique_ptr<CJob> running;
    if (job == "copy")
        running = std::make_unique<CDiscCopyJob>();
    else if (job == "scan")
        running = std::make_unique<COpticalScan>();
    else if (job == "eject")
        running = std::make_unique<CEjectJob>();
    else
        running = std::make_unique<CUsbBurnJob>();
    if (auto* copy = qobject_cast<CDiscCopyJob*>(running.get()))
        copy->Start("/dev/sr0", dir.filePath("copy.iso"));
    else if (auto* scan = qobject_cast<COpticalScan*>(running.get()))
        scan->Start();
    else if (auto* eject = qobject_cast<CEjectJob*>(running.get()))
        eject->Start("/dev/sr0");
    else
        qobject_cast<CUsbBurnJob*>(running.get())
            ->Restore("/dev/sdz", UsbPlan::FileSystem::Fat32, QString());
    QSignalSpy finished(running.get(), &CJob::finished);
    QTRY_VERIFY_WITH_TIMEOUT(called().contains("ready"), 10000);

    QElapsedTimer clock;
    clock.start();
    running->Stop();
    QVERIFY2(clock.elapsed() < 250, qPrintable(QString::number(clock.elapsed())));
    // What the tool wrote stays while it may still write.
    QCOMPARE(parts().size(), job == "copy" ? 1 : 0);

    QVERIFY(finished.count() == 1 || finished.wait(10000));
    QCOMPARE(finished.first().at(0).toBool(), false);
    QVERIFY2(finished.first().at(1).toString().startsWith(CJob::StoppedMessage()),
             qPrintable(finished.first().at(1).toString()));
    QCOMPARE(called().filter(QRegularExpression("^(start|ended)")).mid(0, calls.size()), calls);
    QCOMPARE(parts(), QStringList());
    // Every tool has ended and whatever its end set off has run: still one end.
    QTRY_VERIFY_WITH_TIMEOUT(called().contains("ended"), 10000);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(finished.count(), 1);
    QVERIFY(!running->IsRunning());
}

QTEST_GUILESS_MAIN(TestDiscTools)
#include "tst_disctools.moc"
