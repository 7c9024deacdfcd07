// The USB burn from image to verified stick. Most cases run with a stand-in
// for the privileged helper (a folder plays the mounted stick, a file the
// whole stick) and the real archive tool and wimlib; the real-stick cases run
// the real helper on loop devices.

#include <QBuffer>
#include <QDirIterator>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

#include <unistd.h>

#include "common/hybridimage.h"
#include "common/isofixture.h"
#include "common/listedimage.h"
#include "common/standins.h"
#include "media/usbburn.h"

using Phase = CUsbBurnJob::Phase;

namespace {

QString run(const QString& program, const QStringList& arguments, int* code = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.waitForFinished(120000);
    if (code)
        *code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromUtf8(process.readAll());
}

bool linkTool(const QString& tools, const QString& relative, const QString& target)
{
    QDir().mkpath(QFileInfo(tools + "/" + relative).path());
    QFile::remove(tools + "/" + relative);
    return QFile::link(target, tools + "/" + relative);
}

// A small real WIM of `bytes` random bytes.
QString makeWim(const QString& folder, qint64 bytes)
{
    const QString content = folder + "/wim-content";
    QDir().mkpath(content);
    // Files of 256 KiB: wimlib keeps each file's data within one part.
    QByteArray block(1 << 18, '\0');
    for (qint64 written = 0; written < bytes; written += block.size()) {
        QFile file(content + QString("/data%1.bin").arg(written));
        if (!file.open(QIODevice::WriteOnly))
            return {};
        for (char& c : block)
            c = char(QRandomGenerator::global()->generate());
        file.write(block);
    }
    const QString wim = folder + "/install.wim";
    int code = 0;
    run("wimlib-imagex", {"capture", content, wim, "--compress=none"}, &code);
    return code == 0 ? wim : QString();
}

struct Outcome
{
    bool planned = false;
    QString planMessage;
    QString checksumFile; // the plan's published checksum file
    bool finished = false;
    bool succeeded = false;
    QString message;
    QString imageSha256; // as the job told it once the image was read
    QList<Phase> phases;
    QMap<Phase, int> percent;  // the last progress of each phase that counts to 100
    bool progressBack = false; // some phase's progress went back
};

} // namespace

class TestUsbBurn : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_tools;
    QString m_stick;
    QString m_log;

    // Builds an image from files (path → content) under the temporary folder.
    QString image(const QString& name, const QMap<QString, QByteArray>& files,
                  const QStringList& extra = {})
    {
        const QString source = m_dir.filePath("src-" + name);
        QDir(source).removeRecursively();
        if (!IsoFixture::WriteTree(source, files))
            return {};
        for (const QString& path : extra)
            QFile::copy(path, source + "/sources/" + QFileInfo(path).fileName());
        QString error;
        return IsoFixture::Build(source, m_dir.filePath(name + ".iso"), "joliet", &error);
    }

    // Plans and, when the plan allows it, burns.
    Outcome burn(CUsbBurnJob::Options options, bool burnEvenWithWarnings = true)
    {
        Outcome outcome;
        CUsbBurnJob job;
        connect(&job, &CUsbBurnJob::phase, this, [&](Phase phase) { outcome.phases << phase; });
        connect(&job, &CUsbBurnJob::imageHashed, this,
                [&](const QString& sha256) { outcome.imageSha256 = sha256; });
        connect(&job, &CUsbBurnJob::progressed, this, [&](int value) {
            if (outcome.phases.isEmpty() || value < 0)
                return;
            const Phase phase = outcome.phases.last();
            outcome.progressBack = outcome.progressBack || value < outcome.percent.value(phase, 0);
            outcome.percent[phase] = value;
        });
        QSignalSpy planned(&job, &CUsbBurnJob::planned);
        QSignalSpy finished(&job, &CUsbBurnJob::finished);
        job.Plan(options);
        if (!planned.wait(60000))
            return outcome;
        outcome.planned = planned.first().at(0).toBool();
        outcome.planMessage = planned.first().at(1).toString();
        outcome.checksumFile = job.Decision().checksumFile;
        if (!outcome.planned || (!job.Decision().warnings.isEmpty() && !burnEvenWithWarnings))
            return outcome;
        job.Burn();
        if (!finished.wait(240000))
            return outcome;
        outcome.finished = true;
        outcome.succeeded = finished.first().at(0).toBool();
        outcome.message = finished.first().at(1).toString();
        return outcome;
    }

    // An image of HybridImage's shape "isolinux", "isolinux-rr" or "grub",
    // built once per run.
    QString shapeImage(const QString& shape, QString* error)
    {
        const QString folder = m_dir.filePath("shape-" + shape);
        QDir().mkpath(folder);
        const QString built = QDir(folder).entryList({"*.iso"}).value(0);
        if (!built.isEmpty())
            return folder + "/" + built;
        return shape == "grub"          ? HybridImage::GrubRescue(folder, error)
               : shape == "isolinux-rr" ? HybridImage::Isolinux(folder, error, /*joliet=*/false)
                                        : HybridImage::Isolinux(folder, error);
    }

    // Every file of the image with its SHA-256, "path sha" lines.
    static QStringList hashes(const QString& root)
    {
        QStringList lines;
        QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile file(it.next());
            file.open(QIODevice::ReadOnly);
            lines
                << QDir(root).relativeFilePath(file.fileName()) + " " +
                       QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex();
        }
        lines.sort();
        return lines;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        if (QStandardPaths::findExecutable("7z").isEmpty() ||
            QStandardPaths::findExecutable("genisoimage").isEmpty())
            QSKIP("7z and genisoimage are needed");
        m_tools = m_dir.filePath("tools");
        m_stick = m_dir.filePath("stick");
        m_log = m_dir.filePath("helper.log");
        const QString standins = QStringLiteral(BRENTA_SOURCE_DIR) + "/tests/standins";
        QVERIFY(linkTool(m_tools, "usbhelper/brenta-usb-helper",
                         standins + "/usbhelper/brenta-usb-helper"));
        QVERIFY(linkTool(m_tools, "7z/7z", standins + "/7z/7z"));
        qputenv("BRENTA_TOOLS_DIR", m_tools.toUtf8());
        qputenv("BRENTA_STANDIN_MOUNT", m_stick.toUtf8());
        qputenv("BRENTA_STANDIN_LOG", m_log.toUtf8());
    }

    void init()
    {
        QFile::remove(m_log);
        QDir(m_stick).removeRecursively();
        qunsetenv("BRENTA_STANDIN_MODE");
        qunsetenv("BRENTA_STANDIN_7Z");
    }

    void verify_data()
    {
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<QStringList>(
            "onStick"); // "name=content"; a missing name is a missing file
        QTest::addColumn<bool>("ok");
        QTest::addColumn<QString>("problem");

        // A changed byte is found by the stand-in burn whose copy is spoilt.
        const QStringList good{"a.txt=hello", "d/b.bin=12345"};
        QTest::newRow("match") << QByteArray("hello12345BOOTIMG") << good << true << "";
        QTest::newRow("short file")
            << QByteArray("hello12345BOOTIMG") << QStringList{"a.txt=hello", "d/b.bin=1234"}
            << false << "/d/b.bin has 4 bytes instead of 5";
        QTest::newRow("missing") << QByteArray("hello12345BOOTIMG") << QStringList{"a.txt=hello"}
                                 << false << "/d/b.bin is missing";
        QTest::newRow("stream ends early")
            << QByteArray("hello12") << good << false << "the image ended before /d/b.bin";
    }

    void verify()
    {
        QFETCH(QByteArray, stream);
        QFETCH(QStringList, onStick);
        QFETCH(bool, ok);
        QFETCH(QString, problem);

        QTemporaryDir root;
        for (const QString& entry : onStick) {
            const QString name = entry.section('=', 0, 0);
            QDir(root.path()).mkpath(QFileInfo(name).path());
            QFile file(root.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(entry.section('=', 1).toUtf8());
        }
        // The split installer image and the pseudo-folder are read, not compared.
        const std::vector<Listing::FileSpan> files{{"a.txt", 5},
                                                   {"sources/install.wim", 0},
                                                   {"d/b.bin", 5},
                                                   {"[BOOT]/Boot-NoEmul.img", 7}};
        QBuffer buffer(&stream);
        buffer.open(QIODevice::ReadOnly);
        std::atomic<bool> stop{false};
        qint64 read = 0;
        const UsbBurn::VerifyResult result = UsbBurn::Verify(
            buffer, files, root.path(), {"sources/install.wim"}, [&](qint64 r) { read = r; }, stop);
        QCOMPARE(result.ok, ok);
        if (ok) {
            QCOMPARE(result.files, 2);
            QCOMPARE(result.bytes, 10);
            QCOMPARE(read, 17);
        } else {
            QVERIFY2(result.problems.join(' ').contains(problem),
                     qPrintable(result.problems.join(' ')));
        }
    }

    // Where a symbolic link of the image leads, as the copy onto a stick
    // without links follows it.
    void resolveLink_data()
    {
        QTest::addColumn<QString>("link");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("resolved"); // empty: not in the image

        QTest::newRow("same folder") << "docs/latest.txt"
                                     << "readme.txt"
                                     << "docs/readme.txt";
        QTest::newRow("up and down") << "docs/data"
                                     << "../data/./"
                                     << "data";
        QTest::newRow("through another link") << "top.txt"
                                              << "docs/latest.txt"
                                              << "docs/readme.txt";
        QTest::newRow("out of the image") << "docs/up"
                                          << "../../etc/passwd"
                                          << "";
        QTest::newRow("absolute") << "docs/hostname"
                                  << "/etc/hostname"
                                  << "";
        QTest::newRow("nothing there") << "docs/gone"
                                       << "missing.txt"
                                       << "";
        QTest::newRow("circle") << "loop/a"
                                << "b"
                                << "";
        QTest::newRow("folder holding the link") << "docs/self"
                                                 << "."
                                                 << "";
        QTest::newRow("the image's root") << "docs/root"
                                          << ".."
                                          << "";
    }

    void resolveLink()
    {
        QFETCH(QString, link);
        QFETCH(QString, target);
        QFETCH(QString, resolved);

        const QHash<QString, QString> links{
            {"docs/latest.txt", "readme.txt"}, {"loop/a", "b"}, {"loop/b", "a"}};
        const QSet<QString> present{"docs", "docs/readme.txt", "data", "data/blocks.bin", "loop"};
        QCOMPARE(UsbBurn::ResolveLink(link, target, links, present), resolved);
    }

    void planRefusals_data()
    {
        QTest::addColumn<QString>("imageName");
        QTest::addColumn<QString>("device");
        QTest::addColumn<qint64>("fatLimit");
        QTest::addColumn<int>("fs");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("message");

        const int fat32 = int(UsbPlan::FileSystem::Fat32);
        const qint64 noLimit = UsbPlan::kFatFileLimit;
        QTest::newRow("file too large for FAT") << "plain"
                                                << "stick" << qint64(4) << fat32 << ""
                                                << "The file /bootmgr";
        QTest::newRow("stick too small") << "plain"
                                         << "/dev/null" << noLimit << fat32 << ""
                                         << "cannot hold";
        QTest::newRow("unreadable image") << "broken"
                                          << "stick" << noLimit << fat32 << ""
                                          << "could not be opened";
        // The page and "brenta burn-usb" both plan: neither wipes a stick for a
        // label that mkfs would then refuse.
        QTest::newRow("label too long for exFAT")
            << "plain"
            << "stick" << noLimit << int(UsbPlan::FileSystem::Exfat) << "Brenta Stick"
            << "An exFAT label holds at most 11 characters";
        QTest::newRow("label FAT cannot hold")
            << "plain"
            << "stick" << noLimit << fat32 << QString("Données") << "A FAT32 label can hold only";
    }

    void planRefusals()
    {
        QFETCH(QString, imageName);
        QFETCH(QString, device);
        QFETCH(qint64, fatLimit);
        QFETCH(int, fs);
        QFETCH(QString, label);
        QFETCH(QString, message);

        CUsbBurnJob::Options options;
        if (imageName == "broken") {
            options.image = m_dir.filePath("broken.iso");
            QFile file(options.image);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(QByteArray(100000, 'x'));
        } else {
            options.image = image("plain", {{"bootmgr", "loader"}, {"a.txt", "a"}});
        }
        options.device = device == "stick" ? m_dir.path() : device;
        options.fileSystem = UsbPlan::FileSystem(fs);
        options.label = label;
        options.fatFileLimit = fatLimit;

        CUsbBurnJob job;
        QSignalSpy planned(&job, &CUsbBurnJob::planned);
        job.Plan(options);
        QVERIFY(planned.wait(60000));
        QCOMPARE(planned.first().at(0).toBool(), message.isEmpty());
        QVERIFY2(planned.first().at(1).toString().contains(message),
                 qPrintable(planned.first().at(1).toString()));
        // Planning never calls the helper.
        QVERIFY(!QFileInfo::exists(m_log));
    }

    // A real image holding an installer image of 4 GiB: planned to be split,
    // not refused. The file is sparse; the image is built in memory where it can.
    void planLargeInstallerImage()
    {
        QTemporaryDir scratch(QDir("/dev/shm").exists() ? "/dev/shm/brenta-test-XXXXXX"
                                                        : QString());
        QVERIFY(scratch.isValid());
        const QString source = scratch.filePath("src");
        QVERIFY(IsoFixture::WriteTree(source, {{"bootmgr", "loader"}}));
        QVERIFY(!IsoFixture::SparseFile(source + "/sources/install.wim", 4097).isEmpty());
        int code = 0;
        const QString output = run("genisoimage",
                                   {"-quiet", "-J", "-R", "-allow-limited-size", "-o",
                                    scratch.filePath("big.iso"), source},
                                   &code);
        QVERIFY2(code == 0, qPrintable(output));
        QFile::remove(source + "/sources/install.wim");

        CUsbBurnJob job;
        QSignalSpy planned(&job, &CUsbBurnJob::planned);
        CUsbBurnJob::Options options;
        options.image = scratch.filePath("big.iso");
        options.device = m_dir.path();
        job.Plan(options);
        QVERIFY(planned.wait(60000));
        QVERIFY2(planned.first().at(0).toBool(), qPrintable(planned.first().at(1).toString()));
        QCOMPARE(job.Decision().splitWim, "sources\\install.wim");
        QVERIFY(job.Decision().refusals.isEmpty());
    }

    void burnWithStandIns_data()
    {
        QTest::addColumn<QString>("helperMode");
        QTest::addColumn<QString>("archiveMode");
        QTest::addColumn<bool>("gpt");
        QTest::addColumn<bool>("succeeds");
        QTest::addColumn<QStringList>("calls"); // the helper's commands, in order
        QTest::addColumn<QString>("message");   // contained in the final message

        const QStringList full{"prepare", "bootcode", "remount", "unmount"};
        QTest::newRow("mbr") << ""
                             << "" << false << true << full << "All 4 files";
        QTest::newRow("gpt has no boot code")
            << ""
            << "" << true << true << QStringList{"prepare", "remount", "unmount"}
            << "Burning Successfully...";
        QTest::newRow("formatting fails")
            << "failformat"
            << "" << false << false << QStringList{"prepare"} << "formatting: mkfs.fat failed";
        QTest::newRow("stick refused")
            << "refuse"
            << "" << false << false << QStringList{"prepare"}
            << "the stick was refused: " + m_dir.path() + " is not a removable or USB disk";
        QTest::newRow("boot code fails")
            << "failbootcode"
            << "" << false << false << QStringList{"prepare", "bootcode", "unmount"}
            << "grub-bios-setup failed";
        QTest::newRow("copy fails")
            << ""
            << "nospace" << false << false << QStringList{"prepare", "bootcode", "unmount"}
            << "copying the files: 7-Zip failed (exit status 2). It said: \"ERROR:";
        QTest::newRow("verify finds a change")
            << ""
            << "corrupt" << false << false << full
            << "verifying: what was written differs from the image: /z.txt";
        QTest::newRow("unmount fails") << "failunmount"
                                       << "" << false << false << full << "target is busy";
    }

    void burnWithStandIns()
    {
        QFETCH(QString, helperMode);
        QFETCH(QString, archiveMode);
        QFETCH(bool, gpt);
        QFETCH(bool, succeeds);
        QFETCH(QStringList, calls);
        QFETCH(QString, message);

        qputenv("BRENTA_STANDIN_MODE", helperMode.toUtf8());
        qputenv("BRENTA_STANDIN_7Z", archiveMode.toUtf8());
        const QByteArray big(3 << 20, 'b');
        CUsbBurnJob::Options options;
        options.image = image(
            "boot", {{"bootmgr", "loader"}, {"z.txt", "zzz"}, {"d/e/big.bin", big}, {"empty", ""}});
        options.scheme = gpt ? UsbPlan::Scheme::Gpt : UsbPlan::Scheme::Mbr;
        options.fileSystem = UsbPlan::FileSystem::Ntfs; // GPT makes it FAT32
        options.label = "myusb";
        // The stand-in's stick is a folder: its capacity is that of its file system.
        options.device = m_dir.path();
        const Outcome outcome = burn(options);
        QVERIFY2(outcome.finished, qPrintable(outcome.planMessage));
        QVERIFY2(outcome.succeeded == succeeds, qPrintable(outcome.message));
        QVERIFY2(outcome.message.contains(message), qPrintable(outcome.message));
        QCOMPARE(outcome.message.startsWith("Burning Successfully..."), succeeds);

        QCOMPARE(Standins::LoggedCommands(m_log), calls);
        const QString prepare = Standins::Logged(m_log).first();
        QVERIFY2(prepare.contains(gpt ? "--scheme gpt --fs fat32" : "--scheme mbr --fs ntfs"),
                 qPrintable(prepare));
        QVERIFY2(prepare.endsWith("--label myusb"), qPrintable(prepare));

        if (succeeds) {
            QList<Phase> expected{Phase::Checking, Phase::Formatting, Phase::BootCode,
                                  Phase::Copying,  Phase::Verifying,  Phase::Finishing};
            if (gpt)
                expected.removeAll(Phase::BootCode);
            QCOMPARE(outcome.phases, expected);
            QCOMPARE(outcome.percent.value(Phase::Copying), 100);
            QCOMPARE(hashes(m_stick), hashes(m_dir.filePath("src-boot")));
        } else {
            QCOMPARE(outcome.phases.last(),
                     calls.last() == "unmount" ? Phase::Finishing : Phase::Formatting);
        }
    }

    void splitInstallerImage()
    {
        if (QStandardPaths::findExecutable("wimlib-imagex").isEmpty())
            QSKIP("wimlib-imagex is not installed");
        const QString wim = makeWim(m_dir.filePath("wim"), 5 << 20);
        QVERIFY(!wim.isEmpty());
        CUsbBurnJob::Options options;
        options.image =
            image("installer", {{"bootmgr", "loader"}, {"sources/boot.wim", "small"}}, {wim});
        options.device = m_dir.path();
        // FAT takes files up to 2 MiB here, so the 5 MiB image goes in parts of 1 MiB.
        options.fatFileLimit = 2 << 20;
        const Outcome outcome = burn(options);
        QVERIFY2(outcome.succeeded, qPrintable(outcome.planMessage + outcome.message));
        QVERIFY(outcome.phases.contains(Phase::Splitting));
        QVERIFY(!QFileInfo::exists(m_stick + "/sources/install.wim"));
        const QStringList parts =
            QDir(m_stick + "/sources").entryList({"install*.swm"}, QDir::Files);
        QVERIFY2(parts.size() >= 3, qPrintable(parts.join(' ')));
        for (const QString& part : parts)
            QVERIFY(QFileInfo(m_stick + "/sources/" + part).size() <= options.fatFileLimit);
        // The parts are one image again for wimlib.
        int code = 0;
        const QString info =
            run("wimlib-imagex", {"info", m_stick + "/sources/install.swm"}, &code);
        QCOMPARE(code, 0);
        QVERIFY2(info.contains("Part Number:") && info.contains(QString("/%1").arg(parts.size())),
                 qPrintable(info));
        QCOMPARE(QFile(m_stick + "/sources/boot.wim").size(), 5);
    }

    // The real helper on a loop device, through the job: every scheme and file
    // system ends with the image's files on the stick, and a failed step with
    // the tool's words and nothing left mounted. The partition table, file
    // system and label each one makes are the helper's own test.
    void realStick_data()
    {
        QTest::addColumn<QString>("scheme");
        QTest::addColumn<QString>("fs");
        QTest::addColumn<QString>("failure"); // mkfs fails with these words; empty: it works

        QTest::newRow("mbr fat32") << "mbr"
                                   << "fat32"
                                   << "";
        QTest::newRow("mbr fat") << "mbr"
                                 << "fat"
                                 << "";
        QTest::newRow("mbr ntfs") << "mbr"
                                  << "ntfs"
                                  << "";
        QTest::newRow("mbr exfat") << "mbr"
                                   << "exfat"
                                   << "";
        QTest::newRow("gpt fat32") << "gpt"
                                   << "fat32"
                                   << "";
        // A tool stood in through BRENTA_TOOLS_DIR.
        QTest::newRow("mkfs fails")
            << "mbr"
            << "fat32"
            << "formatting: mkfs.vfat failed (exit status 1). mkfs.fat: unable to open";
    }

    void realStick()
    {
        QFETCH(QString, scheme);
        QFETCH(QString, fs);
        QFETCH(QString, failure);

        if (::geteuid() != 0)
            QSKIP("needs root for loop devices");
        const QString failing = m_tools + "/system/mkfs.vfat";
        if (!failure.isEmpty()) {
            QVERIFY(Standins::Write(failing,
                                    "#!/bin/sh\necho 'mkfs.fat: unable to open the device: "
                                    "Input/output error' >&2\nexit 1\n"));
        }
        QVERIFY(linkTool(m_tools, "usbhelper/brenta-usb-helper", BRENTA_USB_HELPER));
        QVERIFY(linkTool(m_tools, "7z/7z", QStandardPaths::findExecutable("7z")));
        const auto restore = qScopeGuard([&] {
            const QString standins = QStringLiteral(BRENTA_SOURCE_DIR) + "/tests/standins";
            QFile::remove(failing);
            linkTool(m_tools, "usbhelper/brenta-usb-helper",
                     standins + "/usbhelper/brenta-usb-helper");
            linkTool(m_tools, "7z/7z", standins + "/7z/7z");
        });
        const QString backing = IsoFixture::SparseFile(m_dir.filePath("stick.img"), 96);
        int code = 0;
        const QString loop = run("losetup", {"-f", "--show", "-P", backing}, &code).trimmed();
        if (code != 0 || !loop.startsWith("/dev/loop"))
            QSKIP("no loop device can be set up here");
        const auto detach = qScopeGuard([&] { run("losetup", {"-d", loop}); });
        const QString partition = loop + "p1";

        CUsbBurnJob::Options options;
        options.image = image("real", {{"bootmgr", "loader"},
                                       {"efi/boot/bootx64.efi", QByteArray(70000, 'e')},
                                       {"sources/boot.wim", QByteArray(1 << 20, 'w')},
                                       {"Mixed Case Name.txt", "m"}});
        options.device = loop;
        options.scheme = scheme == "gpt" ? UsbPlan::Scheme::Gpt : UsbPlan::Scheme::Mbr;
        options.fileSystem = *UsbPlan::FileSystemFromName(fs);
        options.label = "brenta";
        Outcome outcome = burn(options);
        QVERIFY2(outcome.finished && outcome.succeeded == failure.isEmpty(),
                 qPrintable(outcome.planMessage + outcome.message));
        QVERIFY2(outcome.message.contains(failure), qPrintable(outcome.message));
        // Unmounted (and flushed) when it says so, whether it worked or not.
        QVERIFY(!run("cat", {"/proc/self/mounts"}).contains("/run/brenta/" + partition.mid(5)));

        if (!failure.isEmpty()) {
            // The partition the failed run left is refused as a device.
            options.device = partition;
            QVERIFY(QFileInfo::exists(options.device));
            outcome = burn(options);
            QVERIFY(outcome.finished && !outcome.succeeded);
            QVERIFY2(outcome.message.contains("refused") && outcome.message.contains("partition"),
                     qPrintable(outcome.message));
            return;
        }

        // The archive tool reads FAT and NTFS partitions itself; exFAT is
        // read through its driver.
        const auto line = [](const Item& item) { return item.name + " " + item.size; };
        QStringList expected = ListedImage(options.image, line);
        expected.removeIf([](const QString& l) { return l.startsWith("[BOOT]"); });
        QStringList onStick;
        if (fs != "exfat") {
            onStick = ListedImage(partition, line);
        } else {
            const QString folder = m_dir.filePath("exfat-mount");
            QDir().mkpath(folder);
            run("mount.exfat-fuse", {"-o", "ro", partition, folder}, &code);
            QCOMPARE(code, 0);
            onStick = hashes(folder);
            run("umount", {folder});
            expected = hashes(m_dir.filePath("src-real"));
        }
        // NTFS's own files show as a "[SYSTEM]" folder.
        onStick.removeIf([](const QString& l) { return l.startsWith("[SYSTEM]"); });
        onStick.sort(Qt::CaseInsensitive);
        expected.sort(Qt::CaseInsensitive);
        QCOMPARE(onStick, expected);
    }

    // Whatever goes wrong between the image and the stick ends the burn in
    // the step it went wrong in. Each row's helper runs a few shell lines
    // before the stand-in (whose stick is the folder BRENTA_STANDIN_MOUNT, or
    // the file BRENTA_STANDIN_DISK for a disk image) or before the real helper
    // on a loop device over the file $BRENTA_TEST_STICK; "$helper" is the one
    // the row runs.
    void failuresOnTheWay_data()
    {
        QTest::addColumn<QString>("shape"); // "plain" (files, no partition table) or a hybrid shape
        QTest::addColumn<bool>("realStick");
        QTest::addColumn<bool>("filesMode");
        QTest::addColumn<QByteArray>("before"); // shell lines run before the helper
        QTest::addColumn<QString>("mode");      // the stand-in's BRENTA_STANDIN_MODE
        QTest::addColumn<Phase>("lastPhase");
        QTest::addColumn<QString>("message");

        QTest::newRow("stick changed before the read-back")
            << "plain" << false << false
            << QByteArray("[ \"$1\" != hash ] || printf X | dd of=\"$BRENTA_STANDIN_DISK\" bs=1 "
                          "seek=70000 "
                          "conv=notrunc 2>/dev/null\n")
            << "" << Phase::Verifying << "verifying: the stick does not hold the image. Its first";
        // The rest of the image stays in the pipe, which no one reads any more.
        QTest::newRow("helper takes part of the image")
            << "plain" << false << false
            << QByteArray("[ \"$1\" != write ] || { head -c 100000 >/dev/null; echo 'written: "
                          "100000'; exit 0; }\n")
            << "" << Phase::Writing << "writing: the helper ended after taking";
        // The stand-in fails before it reads anything.
        QTest::newRow("stick removed") << "plain" << false << false << QByteArray() << "failwrite"
                                       << Phase::Writing << " was removed";
        // The helper has written its first pieces when the loop device shrinks
        // below them, as a stick pulled out shrinks to nothing.
        QTest::newRow("stick pulled out mid-write")
            << "grub" << true << false
            << QByteArray("[ \"$1\" != write ] || {\n"
                          "  { dd bs=1M count=9 iflag=fullblock status=none\n"
                          "    truncate -s 2M \"$BRENTA_TEST_STICK\"; losetup -c \"$2\"; cat; } |\n"
                          "  \"$helper\" \"$@\"; exit; }\n")
            << "" << Phase::Writing << "removed";
        // Gone between the write and the read-back: the loop device reads no file any more.
        QTest::newRow("stick pulled out before the read-back")
            << "grub" << true << false
            << QByteArray("[ \"$1\" != hash ] || {\n"
                          "  losetup -d \"$2\"; while losetup \"$2\" >/dev/null 2>&1; do sleep "
                          "0.1; done; }\n")
            << "" << Phase::Verifying << "removed";
        // The files of the image's EFI boot image are read back too, whether
        // it names them in capitals (isolinux) or not (grub-mkrescue).
        const QByteArray changeLoader =
            "[ \"$1\" != remount ] || printf X | dd of=\"$(find \"$BRENTA_STANDIN_MOUNT\" -ipath "
            "'*/efi/boot/bootx64.efi')\" bs=1 seek=100 conv=notrunc 2>/dev/null\n";
        const QString loaderChanged =
            "verifying: what was written differs from the image: /efi/boot/bootx64.efi differs";
        QTest::newRow("EFI loader changed before the read-back, isolinux")
            << "isolinux" << false << true << changeLoader << "" << Phase::Finishing
            << loaderChanged;
        QTest::newRow("EFI loader changed before the read-back, grub-mkrescue")
            << "grub" << false << true << changeLoader << "" << Phase::Finishing << loaderChanged;
    }

    void failuresOnTheWay()
    {
        QFETCH(QString, shape);
        QFETCH(bool, realStick);
        QFETCH(bool, filesMode);
        QFETCH(QByteArray, before);
        QFETCH(QString, mode);
        QFETCH(Phase, lastPhase);
        QFETCH(QString, message);

        const QString standIn =
            QStringLiteral(BRENTA_SOURCE_DIR) + "/tests/standins/usbhelper/brenta-usb-helper";
        const QString wrapper = m_tools + "/usbhelper/brenta-usb-helper";
        const QString helper = realStick ? QStringLiteral(BRENTA_USB_HELPER) : standIn;
        QFile::remove(wrapper);
        QVERIFY(Standins::Write(wrapper, "#!/bin/sh\nhelper='" + helper.toUtf8() + "'\n" + before +
                                             "exec \"$helper\" \"$@\"\n"));
        const auto restore =
            qScopeGuard([&] { linkTool(m_tools, "usbhelper/brenta-usb-helper", standIn); });
        qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
        qputenv("BRENTA_STANDIN_DISK", m_dir.filePath("stick.disk").toUtf8());

        CUsbBurnJob::Options options;
        options.device = m_dir.path();
        options.autoMode = false;
        options.mode = filesMode ? UsbPlan::WriteMode::Files : UsbPlan::WriteMode::Image;
        if (shape == "plain") {
            // More than the pipe holds, and not a whole number of blocks.
            options.image =
                image("plain", {{"a.txt", "a"}, {"big.bin", QByteArray(3 << 20, 'b') + "end"}});
        } else {
            QString error;
            options.image = shapeImage(shape, &error);
            QVERIFY2(!options.image.isEmpty(), qPrintable(error));
        }
        QString loop;
        const auto detach = qScopeGuard([&] {
            if (!loop.isEmpty())
                run("losetup", {"-d", loop});
        });
        if (realStick) {
            if (::geteuid() != 0)
                QSKIP("needs root for loop devices");
            const QString backing = IsoFixture::SparseFile(m_dir.filePath("cut.img"), 32);
            int code = 0;
            loop = run("losetup", {"-f", "--show", backing}, &code).trimmed();
            if (code != 0 || !loop.startsWith("/dev/loop"))
                QSKIP("no loop device can be set up here");
            qputenv("BRENTA_TEST_STICK", backing.toUtf8());
            options.device = loop;
        }
        const Outcome outcome = burn(options);
        QVERIFY2(outcome.finished && !outcome.succeeded,
                 qPrintable(outcome.planMessage + outcome.message));
        QVERIFY2(outcome.message.contains(message, Qt::CaseInsensitive),
                 qPrintable(outcome.message));
        QCOMPARE(outcome.phases.last(), lastPhase);
    }

    void publishedSha256_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("bare");
        QTest::addColumn<QByteArray>("expected");
        const QByteArray a(64, 'a');
        const QByteArray b(64, 'b');
        QTest::newRow("GNU line among others") << a + "  other.iso\n" + b + "  my.iso\n"
                                               << false << b;
        QTest::newRow("binary marker, ./, CRLF, upper case")
            << QByteArray(64, 'B') + " *./my.iso\r\n"
            << false << b;
        QTest::newRow("BSD line") << "SHA256 (other.iso) = " + a + "\nSHA256 (my.iso) = " + b
                                  << false << b;
        QTest::newRow("a longer name is another file") << a + "  my.iso.old\n"
                                                       << false << QByteArray();
        QTest::newRow("lone hash only in the image's own file") << a + "\n"
                                                                << false << QByteArray();
        QTest::newRow("lone hash in the image's own file") << a + "\n" << true << a;
        QTest::newRow("not a SHA-256") << a.left(63) + "  my.iso\n" << true << QByteArray();
    }

    void publishedSha256()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, bare);
        QFETCH(QByteArray, expected);
        QCOMPARE(UsbBurn::PublishedSha256(text, "my.iso", bare), expected);
    }

    // Disk image mode with the stand-in helper: a checksum file beside the
    // image that names it is compared with the hash taken while writing.
    void publishedChecksum_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QByteArray>("text"); // "%1" is the image's SHA-256
        QTest::addColumn<bool>("succeeded");
        QTest::addColumn<QString>("message");
        const QByteArray other(64, 'c');
        QTest::newRow("SHA256SUMS matches")
            << "SHA256SUMS" << other + "  other.iso\n%1  published.iso\n"
            << true << "The image matches the published checksum in SHA256SUMS.";
        QTest::newRow("own file differs") << "published.iso.sha256" << other + "\n"
                                          << false
                                          << "writing: the image does not match the published "
                                             "checksum in published.iso.sha256: expected " +
                                                 QString::fromLatin1(other) + ", got %1.";
        QTest::newRow("SHA256SUMS names other images") << "SHA256SUMS" << other + "  other.iso\n"
                                                       << true << "";
    }

    void publishedChecksum()
    {
        QFETCH(QString, file);
        QFETCH(QByteArray, text);
        QFETCH(bool, succeeded);
        QFETCH(QString, message);

        const QString source =
            image("checksum", {{"a.txt", "a"}, {"big.bin", QByteArray(2 << 20, 'b')}});
        const QString folder =
            m_dir.filePath(QStringLiteral("published-%1").arg(QTest::currentDataTag()));
        QDir(folder).removeRecursively();
        QVERIFY(QDir().mkpath(folder));
        const QString published = folder + "/published.iso";
        QVERIFY(QFile::copy(source, published));
        QFile image(published);
        QVERIFY(image.open(QIODevice::ReadOnly));
        const QByteArray sha256 =
            QCryptographicHash::hash(image.readAll(), QCryptographicHash::Sha256).toHex();
        QFile sums(folder + "/" + file);
        QVERIFY(sums.open(QIODevice::WriteOnly));
        sums.write(text.replace("%1", sha256));
        sums.close();
        qputenv("BRENTA_STANDIN_MODE", "");
        qputenv("BRENTA_STANDIN_DISK", m_dir.filePath("stick.disk").toUtf8());

        CUsbBurnJob::Options options;
        options.image = published;
        options.device = m_dir.path();
        options.autoMode = false;
        options.mode = UsbPlan::WriteMode::Image;
        const Outcome outcome = burn(options);
        QVERIFY2(outcome.finished, qPrintable(outcome.planMessage));
        QCOMPARE(outcome.succeeded, succeeded);
        QCOMPARE(outcome.checksumFile, message.isEmpty() ? QString() : file);
        if (message.isEmpty())
            QVERIFY2(!outcome.message.contains("published"), qPrintable(outcome.message));
        else
            QVERIFY2(outcome.message.contains(message.replace("%1", QString::fromLatin1(sha256))),
                     qPrintable(outcome.message));
        // A mismatch is found before the stick is read back.
        QCOMPARE(outcome.phases.contains(Phase::Verifying), succeeded);
        // The hash taken as the image streamed is told, and said in the result.
        QCOMPARE(outcome.imageSha256, QString::fromLatin1(sha256));
        QCOMPARE(outcome.message.contains("SHA-256 of the image: " + sha256), succeeded);
    }

    // Disk image mode with the real helper on a loop device: images shaped as
    // distributions make them go that way by themselves and end on the stick
    // byte for byte, read back through the helper; files mode, when chosen,
    // still copies their files.
    void realStickImageMode_data()
    {
        QTest::addColumn<QString>("shape");
        QTest::addColumn<bool>("filesChosen");

        QTest::newRow("isohybrid") << "isolinux" << false;
        QTest::newRow("grub-mkrescue") << "grub" << false;
        QTest::newRow("isohybrid, files mode chosen") << "isolinux" << true;
        // Rock Ridge's permissions and links, which FAT cannot hold (this
        // system's FAT driver is a FUSE one).
        QTest::newRow("rock ridge only, files mode chosen") << "isolinux-rr" << true;
    }

    void realStickImageMode()
    {
        QFETCH(QString, shape);
        QFETCH(bool, filesChosen);

        if (::geteuid() != 0)
            QSKIP("needs root for loop devices");
        QString error;
        const QString built = shapeImage(shape, &error);
        const QString folder = QFileInfo(built).path();
        QVERIFY2(!built.isEmpty(), qPrintable(error));
        QVERIFY(linkTool(m_tools, "usbhelper/brenta-usb-helper", BRENTA_USB_HELPER));
        QVERIFY(linkTool(m_tools, "7z/7z", QStandardPaths::findExecutable("7z")));
        const auto restore = qScopeGuard([&] {
            const QString standins = QStringLiteral(BRENTA_SOURCE_DIR) + "/tests/standins";
            linkTool(m_tools, "usbhelper/brenta-usb-helper",
                     standins + "/usbhelper/brenta-usb-helper");
            linkTool(m_tools, "7z/7z", standins + "/7z/7z");
        });
        const QString backing = IsoFixture::SparseFile(m_dir.filePath("stick.img"), 96);
        int code = 0;
        const QString loop = run("losetup", {"-f", "--show", "-P", backing}, &code).trimmed();
        if (code != 0 || !loop.startsWith("/dev/loop"))
            QSKIP("no loop device can be set up here");
        const auto detach = qScopeGuard([&] { run("losetup", {"-d", loop}); });

        CUsbBurnJob::Options options;
        options.image = built;
        options.device = loop;
        options.autoMode = !filesChosen;
        options.mode = UsbPlan::WriteMode::Files;
        const Outcome outcome = burn(options);
        QVERIFY2(outcome.succeeded, qPrintable(outcome.planMessage + outcome.message));
        QVERIFY(!outcome.progressBack);
        if (filesChosen) {
            QVERIFY(outcome.phases.contains(Phase::Copying));
            const auto line = [](const Item& item) { return item.name + " " + item.size; };
            QStringList expected = ListedImage(built, line);
            expected.removeIf([](const QString& l) { return l.startsWith("[BOOT]"); });
            QStringList onStick = ListedImage(loop + "p1", line);
            // The EFI boot image's loader, copied so that the stick starts through UEFI.
            const qint64 loader = QFileInfo(folder + "/" + shape + "-bootx64.efi").size();
            QVERIFY(loader > 0);
            expected << "EFI "
                     << "EFI\\BOOT " << QString("EFI\\BOOT\\BOOTX64.EFI %1").arg(loader);
            if (shape == "isolinux-rr") {
                // Links to a file and a folder of the image are copies of
                // them; the one to /etc/hostname is left out.
                QVERIFY2(outcome.message.contains("2 symbolic links") &&
                             outcome.message.contains("1 symbolic links could not be kept"),
                         qPrintable(outcome.message));
                QVERIFY(expected.removeOne("docs\\hostname 0") &&
                        expected.removeOne("docs\\latest.txt 0") &&
                        expected.removeOne("docs\\data 0"));
                expected << "docs\\latest.txt 18"
                         << "docs\\data "
                         << "docs\\data\\blocks.bin 300000";
            }
            onStick.sort(Qt::CaseInsensitive);
            expected.sort(Qt::CaseInsensitive);
            QCOMPARE(onStick, expected);
            return;
        }
        QCOMPARE(outcome.phases, (QList<Phase>{Phase::Checking, Phase::Writing, Phase::Verifying}));
        QCOMPARE(outcome.percent.value(Phase::Writing), 100);
        QCOMPARE(outcome.percent.value(Phase::Verifying), 100);
        QVERIFY2(outcome.message.contains("byte for byte"), qPrintable(outcome.message));
        QFile image(built);
        QFile stick(loop);
        QVERIFY(image.open(QIODevice::ReadOnly) && stick.open(QIODevice::ReadOnly));
        const QByteArray written = image.readAll();
        QVERIFY(stick.read(written.size()) == written);
    }

    // Several sticks at once: one read of the image feeds every stick, each
    // is read back on its own, and a stick whose helper fails leaves the
    // others be. Each stick's result is a line of its own.
    void severalSticks_data()
    {
        QTest::addColumn<bool>("realHelper"); // on loop devices, as root
        QTest::addColumn<int>("sticks");
        QTest::addColumn<int>("failing"); // the stick removed before its first byte, or -1
        QTest::newRow("stand-in, second of two removed") << false << 2 << 1;
        QTest::newRow("stand-in, first of three removed") << false << 3 << 0;
        QTest::newRow("real helper, three loop devices") << true << 3 << -1;
    }

    void severalSticks()
    {
        QFETCH(bool, realHelper);
        QFETCH(int, sticks);
        QFETCH(int, failing);

        QString built;
        QStringList devices;
        QStringList disks; // what each stick holds, to compare with the image
        const QString standIn =
            QStringLiteral(BRENTA_SOURCE_DIR) + "/tests/standins/usbhelper/brenta-usb-helper";
        const QString helper = m_tools + "/usbhelper/brenta-usb-helper";
        QList<std::function<void()>> tidy;
        const auto tidyUp = qScopeGuard([&] {
            for (const auto& step : tidy)
                step();
        });
        tidy << [this, standIn] { linkTool(m_tools, "usbhelper/brenta-usb-helper", standIn); };
        if (realHelper) {
            if (::geteuid() != 0)
                QSKIP("needs root for loop devices");
            QString error;
            built = shapeImage("isolinux", &error);
            QVERIFY2(!built.isEmpty(), qPrintable(error));
            QVERIFY(linkTool(m_tools, "usbhelper/brenta-usb-helper", BRENTA_USB_HELPER));
            for (int i = 0; i < sticks; ++i) {
                const QString backing =
                    IsoFixture::SparseFile(m_dir.filePath(QString("sticks-%1.img").arg(i)), 64);
                int code = 0;
                const QString loop =
                    run("losetup", {"-f", "--show", "-P", backing}, &code).trimmed();
                if (code != 0 || !loop.startsWith("/dev/loop"))
                    QSKIP("no loop device can be set up here");
                tidy << [this, loop] { run("losetup", {"-d", loop}); };
                devices << loop;
                disks << loop;
            }
        } else {
            built =
                image("several", {{"a.txt", "a"}, {"big.bin", QByteArray(3 << 20, 'b') + "end"}});
            QByteArray before = "export BRENTA_STANDIN_DISK=\"$2.disk\"\n";
            for (int i = 0; i < sticks; ++i) {
                const QString device = m_dir.filePath(QString("several-%1").arg(i));
                QDir().mkpath(device);
                QFile::remove(device + ".disk");
                devices << device;
                disks << device + ".disk";
            }
            before += "[ \"$2\" != '" + devices.value(failing).toUtf8() +
                      "' ] || export BRENTA_STANDIN_MODE=failwrite\n";
            QFile::remove(helper);
            QVERIFY(Standins::Write(helper, "#!/bin/sh\n" + before + "exec '" + standIn.toUtf8() +
                                                "' \"$@\"\n"));
            qputenv("BRENTA_STANDIN_MODE", "");
        }

        CUsbMultiBurnJob job;
        QSignalSpy planned(&job, &CUsbMultiBurnJob::planned);
        QSignalSpy finished(&job, &CUsbMultiBurnJob::finished);
        QSignalSpy stickFinished(&job, &CUsbMultiBurnJob::stickFinished);
        QSignalSpy hashed(&job, &CUsbMultiBurnJob::imageHashed);
        // The progress follows the stick furthest behind, whichever fails:
        // it goes on to the read-back and never back within a phase.
        QList<Phase> phases;
        QList<int> values; // of the phase shown
        bool backwards = false;
        QHash<QString, int> stickValues; // the last progress of each stick
        connect(&job, &CUsbMultiBurnJob::phase, this, [&](Phase phase) {
            phases << phase;
            values.clear();
        });
        connect(&job, &CUsbMultiBurnJob::progressed, this, [&](int value) {
            backwards = backwards || (value >= 0 && !values.isEmpty() && value < values.last());
            if (value >= 0)
                values << value;
        });
        connect(&job, &CUsbMultiBurnJob::stickProgress, this,
                [&](const QString& device, int value) { stickValues[device] = value; });
        CUsbBurnJob::Options options;
        options.image = built;
        // The stand-in's image has no partition table; the real one goes as a disk image by itself.
        options.autoMode = realHelper;
        options.mode = UsbPlan::WriteMode::Image;
        job.Plan(options, devices);
        QVERIFY(planned.wait(60000));
        QVERIFY2(planned.first().at(0).toBool(), qPrintable(planned.first().at(1).toString()));
        job.Burn();
        QVERIFY(finished.wait(240000));
        const QString message = finished.first().at(1).toString();
        QCOMPARE(finished.first().at(0).toBool(), failing < 0);
        const QStringList lines = message.split('\n');
        QCOMPARE(lines.size(), sticks);

        QCOMPARE(phases, (QList<Phase>{Phase::Checking, Phase::Writing, Phase::Verifying}));
        QVERIFY(!backwards);
        QCOMPARE(values.value(values.size() - 1), 100);
        QHash<QString, bool> stickOk;
        for (const QList<QVariant>& signal : stickFinished)
            stickOk.insert(signal.at(0).toString(), signal.at(1).toBool());
        QCOMPARE(stickOk.size(), sticks);

        QFile image(built);
        QVERIFY(image.open(QIODevice::ReadOnly));
        const QByteArray expected = image.readAll();
        const QString sha256 =
            QCryptographicHash::hash(expected, QCryptographicHash::Sha256).toHex();
        QCOMPARE(hashed.count(), 1);
        QCOMPARE(hashed.first().at(0).toString(), sha256);
        for (int i = 0; i < sticks; ++i) {
            QVERIFY2(lines[i].startsWith(devices[i] + ": "), qPrintable(message));
            QVERIFY2(lines[i].contains(i == failing ? " was removed ("
                                                    : "SHA-256 of the image: " + sha256),
                     qPrintable(message));
            QCOMPARE(stickOk.value(devices[i]), i != failing);
            if (i == failing)
                continue;
            QCOMPARE(stickValues.value(devices[i]), 100);
            QFile stick(disks[i]);
            QVERIFY(stick.open(QIODevice::ReadOnly));
            QVERIFY2(stick.read(expected.size()) == expected, qPrintable(disks[i]));
        }
    }

    // A stick that holds an isohybrid image, restored by the real helper,
    // shows nothing of the image: no ISO 9660 volume, no GPT (the backup at
    // the disk's end either, when the image fills the stick), only the new
    // table and the file system with its label.
    void restoreAfterImage_data()
    {
        QTest::addColumn<int>("stickMiB"); // 0: the image fills the stick
        QTest::addColumn<QString>("fs");
        QTest::addColumn<QString>("type"); // as blkid names it

        QTest::newRow("larger stick, fat32") << 96 << "fat32"
                                             << "vfat";
        QTest::newRow("image fills the stick, ntfs") << 0 << "ntfs"
                                                     << "ntfs";
    }

    void restoreAfterImage()
    {
        QFETCH(int, stickMiB);
        QFETCH(QString, fs);
        QFETCH(QString, type);

        if (::geteuid() != 0)
            QSKIP("needs root for loop devices");
        QString error;
        const QString built = shapeImage("isolinux", &error);
        QVERIFY2(!built.isEmpty(), qPrintable(error));
        QVERIFY(linkTool(m_tools, "usbhelper/brenta-usb-helper", BRENTA_USB_HELPER));
        const auto restore = qScopeGuard([&] {
            linkTool(m_tools, "usbhelper/brenta-usb-helper",
                     QStringLiteral(BRENTA_SOURCE_DIR) +
                         "/tests/standins/usbhelper/brenta-usb-helper");
        });
        // The stick as dd leaves it.
        const QString backing = m_dir.filePath("restore.img");
        QFile::remove(backing);
        int code = 0;
        if (stickMiB > 0)
            QVERIFY(!IsoFixture::SparseFile(backing, stickMiB).isEmpty());
        run("dd", {"if=" + built, "of=" + backing, "bs=1M", "conv=notrunc"}, &code);
        QCOMPARE(code, 0);
        const QString loop = run("losetup", {"-f", "--show", "-P", backing}, &code).trimmed();
        if (code != 0 || !loop.startsWith("/dev/loop"))
            QSKIP("no loop device can be set up here");
        const auto detach = qScopeGuard([&] { run("losetup", {"-d", loop}); });
        const QString before = run("wipefs", {"-n", "-p", loop});
        QVERIFY2(before.contains("iso9660") && before.count("gpt") == (stickMiB > 0 ? 1 : 2),
                 qPrintable(before));

        CUsbBurnJob job;
        QSignalSpy finished(&job, &CUsbBurnJob::finished);
        job.Restore(loop, *UsbPlan::FileSystemFromName(fs), "Restored");
        QVERIFY(finished.wait(60000));
        QVERIFY2(finished.first().at(0).toBool(), qPrintable(finished.first().at(1).toString()));
        QVERIFY(!run("cat", {"/proc/self/mounts"}).contains(loop + "p1"));

        run("udevadm", {"settle"});
        const QString disk = run("blkid", {"-p", "-o", "export", loop}, &code);
        QVERIFY2(disk.contains("PTTYPE=dos\n") && !disk.contains("TYPE=iso9660"), qPrintable(disk));
        // wipefs lists every signature it knows, at both ends of the disk.
        const QStringList signatures =
            run("wipefs", {"-n", "-p", loop}).split('\n', Qt::SkipEmptyParts);
        QCOMPARE(signatures.filter(QRegularExpression("^0x")), QStringList({"0x1fe,,,dos"}));
        const QString partition = run("blkid", {"-p", "-o", "export", loop + "p1"}, &code);
        QVERIFY2(partition.contains("TYPE=" + type + "\n") &&
                     partition.contains("LABEL=Restored\n", Qt::CaseInsensitive),
                 qPrintable(partition));
    }
};

QTEST_GUILESS_MAIN(TestUsbBurn)
#include "tst_usbburn.moc"
