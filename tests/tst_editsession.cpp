#include <QtTest>

#include "common/bytes.h"

#include "common/isofixture.h"
#include "common/listedimage.h"
#include "common/standins.h"
#include "iso/editsession.h"
#include "iso/eltorito.h"
#include "iso/isojobs.h"

namespace {

using Phase = CEditSession::Phase;

using Bytes::Put16;
using Bytes::Put32;

QByteArray pattern(int length, int seed)
{
    QByteArray bytes(length, Qt::Uninitialized);
    for (int i = 0; i < length; ++i)
        bytes[i] = char((i * seed + seed / 3) & 0xFF);
    return bytes;
}

QByteArray fatImage(int sectors)
{
    QByteArray image = pattern(sectors * 512, 17);
    Put16(image, 11, 512);
    Put16(image, 19, quint16(sectors));
    image[510] = char(0x55);
    image[511] = char(0xAA);
    return image;
}

QByteArray diskImage()
{
    QByteArray disk = pattern(1024 * 1024, 5);
    disk.replace(446, 64, QByteArray(64, '\0'));
    disk[446] = char(0x80);
    disk[450] = 0x0C;
    Put32(disk, 454, 1);
    Put32(disk, 458, 2047);
    disk[510] = char(0x55);
    disk[511] = char(0xAA);
    return disk;
}

bool runTool(const QString& program, const QStringList& arguments, QString* output = nullptr)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, arguments);
    const bool ok = tool.waitForFinished(120000) && tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    if (output)
        *output = QString::fromUtf8(tool.readAll());
    return ok;
}

// The bytes of a catalogue entry's boot image in an image file.
QByteArray bootBytes(const QString& image, const ElTorito::Entry& entry, qint64 length)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(qint64(entry.loadRba) * 2048))
        return QByteArray();
    return file.read(length);
}

QStringList listImage(const QString& image)
{
    QStringList names = ListedImage(image, [](const Item& item) { return item.name + (item.isDir ? "\\" : ""); });
    names.sort();
    return names;
}

// The part files a save of `output` writes beside it until the image is whole.
QFileInfoList partFiles(const QString& output)
{
    const QFileInfo info(output);
    return info.dir().entryInfoList({"." + info.fileName() + ".*.part"},
                                    QDir::Files | QDir::Hidden);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class TestEditSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void roundTripKeepsContentsAndBoot_data();
    void roundTripKeepsContentsAndBoot();
    void editsDuringExtractionApplyInOrder();
    void stopDuringEachSavePhase_data();
    void stopDuringEachSavePhase();
    void unreadableImageIsReported();
    void loadingAnotherImageStartsClean();
    void renameRefusals_data();
    void renameRefusals();

private:
    QString MakeImage(const QString& name, const QStringList& bootOptions, const QMap<QString, QByteArray>& extra = {});
    void WaitReady(CEditSession& session);

    QTemporaryDir m_dir;
    QTemporaryDir m_home;
};

void TestEditSession::initTestCase()
{
    // The working copies go below the data folder; keep them inside the test's own.
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
}

QString TestEditSession::MakeImage(const QString& name, const QStringList& bootOptions,
                                   const QMap<QString, QByteArray>& extra)
{
    const QString source = m_dir.filePath(name + "-src");
    QMap<QString, QByteArray> files{{"a.txt", "alpha"},
                                    {"docs/readme.txt", "read me"},
                                    {"docs/deep/notes.txt", pattern(70000, 3)}};
    for (auto it = extra.cbegin(); it != extra.cend(); ++it)
        files.insert(it.key(), it.value());
    if (!IsoFixture::WriteTree(source, files))
        return QString();
    const QString image = m_dir.filePath(name + ".iso");
    QString said;
    if (!runTool("genisoimage", QStringList{"-quiet", "-J", "-R", "-V", "Original Label", "-o", image} + bootOptions
                                    + QStringList{source},
                 &said)) {
        qWarning().noquote() << said;
        return QString();
    }
    return image;
}

void TestEditSession::WaitReady(CEditSession& session)
{
    QTRY_VERIFY_WITH_TIMEOUT(session.IsReady() || !session.LoadProblem().isEmpty(), 60000);
    QVERIFY2(session.LoadProblem().isEmpty(), qPrintable(session.LoadProblem()));
}

void TestEditSession::roundTripKeepsContentsAndBoot_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QString>("media");
    QTest::addColumn<int>("efiEntries");
    QTest::addColumn<bool>("infoTable");
    QTest::newRow("loader with boot-info table and load segment")
        << QStringList{"-b", "boot/big.bin", "-no-emul-boot", "-boot-load-size", "4", "-boot-info-table",
                       "-boot-load-seg", "4096"}
        << "no-emulation" << 0 << true;
    QTest::newRow("1.44M diskette") << QStringList{"-b", "boot/floppy.img"} << "1.44M" << 0 << false;
    QTest::newRow("hard disk") << QStringList{"-b", "boot/disk.img", "-hard-disk-boot"} << "hard-disk" << 0 << false;
    QTest::newRow("BIOS and EFI")
        << QStringList{"-b", "boot/loader.bin", "-no-emul-boot", "-boot-load-size", "4", "-eltorito-alt-boot", "-e",
                       "boot/efi.img", "-no-emul-boot"}
        << "no-emulation" << 1 << false;
    QTest::newRow("not bootable") << QStringList{} << QString() << 0 << false;
}

void TestEditSession::roundTripKeepsContentsAndBoot()
{
    QFETCH(QStringList, options);
    QFETCH(QString, media);
    QFETCH(int, efiEntries);
    QFETCH(bool, infoTable);
    const QByteArray loader = pattern(2048, 11);
    const QByteArray big = pattern(9000, 7);
    const QByteArray floppy = pattern(1474560, 9);
    const QByteArray disk = diskImage();
    const QByteArray efi = fatImage(256);
    const QString tag = QString::fromLatin1(QTest::currentDataTag()).replace(' ', '_').replace(',', '_');
    const QString image = MakeImage(tag, options,
                                    {{"boot/loader.bin", loader},
                                     {"boot/big.bin", big},
                                     {"boot/floppy.img", floppy},
                                     {"boot/disk.img", disk},
                                     {"boot/efi.img", efi}});
    QVERIFY(!image.isEmpty());
    const std::optional<ElTorito::Catalog> original = ElTorito::ReadFile(image);

    CEditSession session;
    QSignalSpy listed(&session, &CEditSession::listed);
    session.Load(image);
    QVERIFY(listed.wait(60000));
    QVERIFY(listed.first().first().toBool());
    WaitReady(session);
    QCOMPARE(session.Contents().Find("[BOOT]"), nullptr);
    QCOMPARE(session.Boot().Reproducible(), true);

    // Edits: add a file and a folder, rename, delete.
    const QString local = m_dir.filePath(tag + "-local");
    QVERIFY(IsoFixture::WriteTree(local, {{"added.txt", "new file"}, {"newdir/inner/x.bin", pattern(5000, 2)}}));
    Item* docs = session.Contents().Find("docs");
    QVERIFY(docs);
    QCOMPARE(session.Add(session.Contents().Root(), {local + "/added.txt"}).size(), 1);
    QCOMPARE(session.Add(*docs, {local + "/newdir"}).size(), 1);
    QCOMPARE(session.Add(*docs, {local + "/newdir"}).size(), 0); // already there
    QVERIFY(session.Contents().Find("docs\\newdir\\inner\\x.bin"));
    QVERIFY(session.Rename(*session.Contents().Find("a.txt"), "renamed.txt"));
    session.Remove({session.Contents().Find("docs\\readme.txt")});

    // Export an added and an original entry.
    const QString exportDir = m_dir.filePath(tag + "-export");
    QVERIFY(QDir().mkpath(exportDir));
    QVERIFY(IsoFixture::WriteTree(exportDir, {{"added.txt", "was here first"}}));
    QSignalSpy exported(&session, &CEditSession::exportFinished);
    session.Export({session.Contents().Find("added.txt"), session.Contents().Find("renamed.txt"),
                    session.Contents().Find("docs\\deep")},
                   exportDir);
    QVERIFY(exported.wait(60000));
    QVERIFY2(exported.first().first().toBool(), qPrintable(exported.first().at(1).toString()));
    QCOMPARE(readFile(exportDir + "/added.txt"), QByteArray("was here first"));
    QCOMPARE(readFile(exportDir + "/added (2).txt"), QByteArray("new file"));
    QCOMPARE(readFile(exportDir + "/renamed.txt"), QByteArray("alpha"));
    QCOMPARE(readFile(exportDir + "/deep/notes.txt"), pattern(70000, 3));

    // Save and look at the new image with the archive tool and the reader.
    const QString output = m_dir.filePath(tag + "-saved.iso");
    QSignalSpy saved(&session, &CEditSession::saveFinished);
    session.Save(output);
    QVERIFY(saved.wait(120000));
    QVERIFY2(saved.first().first().toBool(), qPrintable(saved.first().at(1).toString()));
    QVERIFY(partFiles(output).isEmpty());

    QStringList names = listImage(output);
    names.removeIf([](const QString& name) {
        return name.startsWith("boot\\") || name == "boot\\" || name.startsWith("[BOOT]") ||
               name == "boot.catalog" || name == "boot.bin" || name == "efiboot.img";
    });
    QCOMPARE(names, (QStringList{"added.txt", "docs\\", "docs\\deep\\", "docs\\deep\\notes.txt", "docs\\newdir\\",
                                 "docs\\newdir\\inner\\", "docs\\newdir\\inner\\x.bin", "renamed.txt"}));
    QCOMPARE(BootSetup::VolumeLabel(output), QString("Original Label"));

    const std::optional<ElTorito::Catalog> rebuilt = ElTorito::ReadFile(output);
    if (media.isEmpty()) {
        QVERIFY(!rebuilt);
        return;
    }
    QVERIFY(original && rebuilt);
    const ElTorito::Entry& before = original->defaultEntry;
    const ElTorito::Entry& after = rebuilt->defaultEntry;
    // The reader agrees with what the image builder was told.
    QVERIFY(before.bootable);
    QCOMPARE(int(before.sectorCount), media == "no-emulation" ? 4 : 1);
    QCOMPARE(int(original->efiEntries.size()), efiEntries);
    QCOMPARE(ElTorito::MediaName(after.media), media);
    QCOMPARE(after.sectorCount, before.sectorCount);
    QCOMPARE(after.loadSegment, before.loadSegment);
    QCOMPARE(int(rebuilt->efiEntries.size()), efiEntries);
    const QByteArray expected = media == "1.44M"       ? floppy
                                : media == "hard-disk" ? disk
                                : infoTable            ? big
                                                       : loader;
    QByteArray bytes = bootBytes(output, after, expected.size());
    if (infoTable) {
        // The loader's table is rewritten for its new place; the rest is the loader.
        QCOMPARE(bytes.mid(64), expected.mid(64));
        QCOMPARE(qFromLittleEndian<quint32>(bytes.constData() + 12), after.loadRba);
        QCOMPARE(qFromLittleEndian<quint32>(bytes.constData() + 16), quint32(big.size()));
    } else {
        QCOMPARE(bytes, expected);
    }
    if (efiEntries) {
        QCOMPARE(int(original->efiEntries.front().sectorCount), efi.size() / 512);
        QCOMPARE(bootBytes(output, rebuilt->efiEntries.front(), efi.size()), efi);
    }
}

void TestEditSession::editsDuringExtractionApplyInOrder()
{
    // An archive tool that takes its time before extracting, so the edits
    // certainly arrive while the working copy is still being filled.
    const QString tools = m_dir.filePath("slowtools");
    QVERIFY(Standins::Write(tools + "/7z/7z", "#!/bin/sh\nif [ \"$1\" = x ]; then sleep 1; fi\nexec 7z \"$@\"\n"));
    qputenv("BRENTA_TOOLS_DIR", tools.toUtf8());
    const auto restore = qScopeGuard([] { qunsetenv("BRENTA_TOOLS_DIR"); });

    const QString image = MakeImage("pending", {});
    QVERIFY(!image.isEmpty());
    const QString local = m_dir.filePath("pending-local");
    QVERIFY(IsoFixture::WriteTree(local, {{"first.txt", "1"}}));

    CEditSession session;
    QSignalSpy listed(&session, &CEditSession::listed);
    session.Load(image);
    QVERIFY(listed.wait(60000));
    QVERIFY(session.IsExtracting());
    // Add, then rename what was added, then delete an original entry, then
    // add a file of the deleted name into a new folder of the same name.
    session.Add(session.Contents().Root(), {local + "/first.txt"});
    QVERIFY(session.Rename(*session.Contents().Find("first.txt"), "second.txt"));
    session.Remove({session.Contents().Find("docs")});
    QVERIFY(IsoFixture::WriteTree(local, {{"docs/other.txt", "2"}}));
    session.Add(session.Contents().Root(), {local + "/docs"});
    QCOMPARE(session.PendingCount(), 4);

    WaitReady(session);
    QCOMPARE(session.PendingCount(), 0);
    const QString copy = session.WorkingCopy();
    QTRY_COMPARE_WITH_TIMEOUT(readFile(copy + "/docs/other.txt"), QByteArray("2"), 10000);
    QTRY_COMPARE(readFile(copy + "/second.txt"), QByteArray("1"));
    QVERIFY(!QFileInfo::exists(copy + "/first.txt"));
    QVERIFY(!QFileInfo::exists(copy + "/docs/readme.txt"));
    QVERIFY(QFileInfo::exists(copy + "/a.txt"));
}

void TestEditSession::stopDuringEachSavePhase_data()
{
    QTest::addColumn<int>("phase");
    QTest::newRow("extracting") << int(Phase::Extracting);
    QTest::newRow("copying") << int(Phase::Copying);
    QTest::newRow("building") << int(Phase::Building);
}

void TestEditSession::stopDuringEachSavePhase()
{
    QFETCH(int, phase);
    const QString tools = m_dir.filePath("slowtools");
    if (phase == int(Phase::Extracting))
        qputenv("BRENTA_TOOLS_DIR", tools.toUtf8()); // made by the test above
    const auto restore = qScopeGuard([] { qunsetenv("BRENTA_TOOLS_DIR"); });
    const QString image = MakeImage(QStringLiteral("stop%1").arg(phase), {});
    const QString big = IsoFixture::SparseFile(m_dir.filePath(QStringLiteral("stop%1-big/big.bin").arg(phase)), 1024);
    QVERIFY(!big.isEmpty());

    CEditSession session;
    session.Load(image);
    if (phase != int(Phase::Extracting))
        WaitReady(session);
    if (phase != int(Phase::Extracting))
        session.Add(session.Contents().Root(), {big});
    QSignalSpy saved(&session, &CEditSession::saveFinished);
    QSignalSpy progress(&session, &CEditSession::progress);
    const QString output = m_dir.filePath(QStringLiteral("stop%1-saved.iso").arg(phase));
    session.Save(output);
    if (phase == int(Phase::Building)) {
        QTRY_VERIFY_WITH_TIMEOUT(!progress.isEmpty() && progress.last().first().toInt() == phase, 60000);
        QTRY_VERIFY_WITH_TIMEOUT(
            !partFiles(output).isEmpty() && partFiles(output).first().size() > 0, 60000);
    } else {
        QVERIFY(!progress.isEmpty());
        QCOMPARE(progress.last().first().toInt(), phase);
    }
    QVERIFY(session.IsBusy());
    session.Stop();
    QVERIFY(!session.IsBusy());
    QTest::qWait(300);
    QCOMPARE(saved.count(), 0);
    QVERIFY(!QFileInfo::exists(output));
    QVERIFY(partFiles(output).isEmpty());
    // The edits go on: the working copy still becomes what the tree shows.
    WaitReady(session);
    if (phase != int(Phase::Extracting))
        QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(session.WorkingCopy() + "/big.bin").size(), qint64(1024) << 20, 60000);
}

void TestEditSession::unreadableImageIsReported()
{
    const QString image = m_dir.filePath("garbage.iso");
    QFile file(image);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(pattern(100000, 3));
    file.close();
    CEditSession session;
    QSignalSpy listed(&session, &CEditSession::listed);
    session.Load(image);
    QVERIFY(listed.wait(60000));
    QCOMPARE(listed.first().first().toBool(), false);
    QVERIFY(!session.LoadProblem().isEmpty());
    QSignalSpy saved(&session, &CEditSession::saveFinished);
    session.Save(m_dir.filePath("never.iso"));
    QTRY_COMPARE(saved.count(), 1);
    QCOMPARE(saved.first().first().toBool(), false);
    QVERIFY(!QFileInfo::exists(m_dir.filePath("never.iso")));
}

void TestEditSession::loadingAnotherImageStartsClean()
{
    const QString first = MakeImage("first", {}, {{"only-in-first.txt", "1"}});
    const QString second = MakeImage("second", {});
    CEditSession session;
    session.Load(first);
    const QString firstCopy = session.WorkingCopy();
    session.Load(second); // while the first extraction may still run
    WaitReady(session);
    QVERIFY(session.WorkingCopy() != firstCopy);
    QVERIFY(!QFileInfo::exists(session.WorkingCopy() + "/only-in-first.txt"));
    QCOMPARE(session.Contents().Find("only-in-first.txt"), nullptr);
    QTRY_VERIFY(!QFileInfo::exists(firstCopy));
}

void TestEditSession::renameRefusals_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("accepted");
    QTest::addColumn<bool>("explained");
    QTest::newRow("new name") << "b.txt" << true << false;
    QTest::newRow("same name") << "a.txt" << false << false;
    QTest::newRow("blank") << "  " << false << false;
    QTest::newRow("sibling exists") << "docs" << false << true;
    QTest::newRow("separator") << "x/y" << false << true;
    QTest::newRow("backslash") << "x\\y" << false << true;
    QTest::newRow("dot dot") << ".." << false << true;
}

void TestEditSession::renameRefusals()
{
    QFETCH(QString, name);
    QFETCH(bool, accepted);
    QFETCH(bool, explained);
    static const QString image = MakeImage("rename", {});
    CEditSession session;
    session.Load(image);
    WaitReady(session);
    QString why;
    QCOMPARE(session.Rename(*session.Contents().Find("a.txt"), name, &why), accepted);
    QCOMPARE(!why.isEmpty(), explained);
    QCOMPARE(session.Contents().Find("a.txt") == nullptr, accepted);
}

QTEST_MAIN(TestEditSession)
#include "tst_editsession.moc"
