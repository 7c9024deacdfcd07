#include <QtTest>

#include "core/util.h"
#include "common/isofixture.h"
#include "common/listedimage.h"
#include "common/slowdisk.h"
#include "iso/editsession.h"
#include "iso/eltorito.h"
#include "tools/filecopy.h"

namespace {

using Change = ImageSave::Change;

QByteArray pattern(int length, int seed)
{
    QByteArray bytes(length, Qt::Uninitialized);
    for (int i = 0; i < length; ++i)
        bytes[i] = char((i * seed + seed / 3) & 0xFF);
    return bytes;
}

bool runTool(const QString& program, const QStringList& arguments, QString* output = nullptr)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, arguments);
    const bool ok = tool.waitForFinished(120000) && tool.exitStatus() == QProcess::NormalExit &&
                    tool.exitCode() == 0;
    if (output)
        *output = QString::fromUtf8(tool.readAll());
    return ok;
}

// Every entry of a tree, folders ending in "/", sorted.
QStringList treeNames(const Item& root)
{
    QStringList names;
    std::function<void(const Item&)> walk = [&](const Item& folder) {
        for (const auto& child : folder.children) {
            names << child->name + (child->isDir ? "\\" : "");
            walk(*child);
        }
    };
    walk(root);
    names.sort();
    return names;
}

QStringList listImage(const QString& image)
{
    QStringList names =
        ListedImage(image, [](const Item& item) { return item.name + (item.isDir ? "\\" : ""); });
    names.sort();
    return names;
}

QString describe(const std::vector<Change>& changes)
{
    QStringList parts;
    for (const Change& change : changes) {
        switch (change.kind) {
        case Change::Kind::Add:
            parts << "add " + QFileInfo(change.source).fileName() + " as " + change.path;
            break;
        case Change::Kind::Rename:
            parts << "rename " + change.path + " to " + change.newPath;
            break;
        case Change::Kind::Delete:
            parts << "delete " + change.path;
            break;
        case Change::Kind::Label:
            parts << "label " + change.label;
            break;
        }
    }
    return parts.join("; ");
}

QFileInfoList partFiles(const QString& output)
{
    const QFileInfo info(output);
    return info.dir().entryInfoList({"." + info.fileName() + ".*"}, QDir::Files | QDir::Hidden);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

quint32 le32(const QByteArray& bytes, int offset)
{
    return quint32(quint8(bytes[offset])) | quint32(quint8(bytes[offset + 1])) << 8 |
           quint32(quint8(bytes[offset + 2])) << 16 | quint32(quint8(bytes[offset + 3])) << 24;
}

// Leaves only the entries named `keep` (and "." and "..") in the root folder
// of an image's ISO 9660 tree, as installers whose files live in UDF show a
// stub there. The UDF tree is not touched.
bool stubIsoRoot(const QString& image, const QStringList& keep)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadWrite) || !file.seek(16 * 2048))
        return false;
    const QByteArray pvd = file.read(2048);
    const quint32 extent = le32(pvd, 156 + 2);
    const quint32 size = le32(pvd, 156 + 10);
    if (!file.seek(qint64(extent) * 2048))
        return false;
    const QByteArray folder = file.read(size);
    QByteArray kept;
    for (int at = 0; at < folder.size();) {
        const int length = quint8(folder[at]);
        if (length == 0) {
            at = (at / 2048 + 1) * 2048;
            continue;
        }
        const QByteArray record = folder.mid(at, length);
        const QByteArray name = record.mid(33, quint8(record[32]));
        if (name == QByteArray(1, '\0') || name == QByteArray(1, '\1') ||
            keep.contains(QString::fromLatin1(name)))
            kept += record;
        at += length;
    }
    kept.append(QByteArray(int(size) - kept.size(), '\0'));
    return file.seek(qint64(extent) * 2048) && file.write(kept) == kept.size();
}

} // namespace

class TestEditSession : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void loadingListsAndCopiesNothing();
    void bootFilesCannotBeTakenAway_data();
    void bootFilesCannotBeTakenAway();
    void changesReplayToTheTreeShown_data();
    void changesReplayToTheTreeShown();
    void exportTakesEntriesAndAddedFiles();
    void stopEndsTheSaveAndKeepsTheOutput();
    void udfImageIsRebuiltWithItsUdfTree();
    void droppingASessionNeverWaitsForItsCopy();
    void unreadableImageIsReported();

private:
    QString MakeImage(const QString& name);
    QString MakeUdfImage();
    void Load(CEditSession& session, const QString& image);
    bool Save(CEditSession& session, const QString& output, QString* message = nullptr);

    QTemporaryDir m_dir;
    QTemporaryDir m_home;
    QString m_image;
    QString m_udfImage;
};

void TestEditSession::initTestCase()
{
    // Scratch folders go below the data folder; keep them inside the test's own.
    qputenv("XDG_DATA_HOME", m_home.path().toUtf8());
    m_image = MakeImage("bootable");
    QVERIFY(!m_image.isEmpty());
    m_udfImage = MakeUdfImage();
    QVERIFY(!m_udfImage.isEmpty());
}

// A bootable image with Rock Ridge and Joliet: a loader with a boot-info
// table, a symbolic link, a few files and folders.
QString TestEditSession::MakeImage(const QString& name)
{
    const QString source = m_dir.filePath(name + "-src");
    if (!IsoFixture::WriteTree(source, {{"a.txt", "alpha"},
                                        {"docs/readme.txt", "read me"},
                                        {"docs/deep/notes.txt", pattern(70000, 3)},
                                        {"boot/loader.bin", pattern(4096, 11)}}))
        return QString();
    QFile::link("a.txt", source + "/link");
    const QString image = m_dir.filePath(name + ".iso");
    QString said;
    if (!runTool("genisoimage",
                 {"-quiet", "-J", "-R", "-V", "Original Label", "-b", "boot/loader.bin", "-c",
                  "boot/boot.cat", "-no-emul-boot", "-boot-load-size", "4", "-boot-info-table",
                  "-o", image, source},
                 &said)) {
        qWarning().noquote() << said;
        return QString();
    }
    return image;
}

// Shaped as Windows installers are: every file in the UDF tree, the ISO 9660
// tree a stub, a BIOS and an EFI entry whose images are files too.
QString TestEditSession::MakeUdfImage()
{
    const QString source = m_dir.filePath("udf-src");
    if (!IsoFixture::WriteTree(source, {{"bootmgr", pattern(3000, 5)},
                                        {"boot/etfsboot.com", pattern(4096, 13)},
                                        {"sources/install.wim", pattern(50000, 7)},
                                        {"readme.txt", "This disc holds UDF"}}) ||
        !QDir().mkpath(source + "/efi/microsoft/boot") ||
        !runTool("mkfs.fat", {"-C", source + "/efi/microsoft/boot/efisys.bin", "1440"}))
        return QString();
    const QString image = m_dir.filePath("udf.iso");
    QString said;
    if (!runTool("genisoimage",
                 {"-quiet",
                  "-udf",
                  "-iso-level",
                  "3",
                  "-V",
                  "WINLIKE",
                  "-hide",
                  "boot.catalog",
                  "-b",
                  "boot/etfsboot.com",
                  "-no-emul-boot",
                  "-boot-load-size",
                  "8",
                  "-eltorito-alt-boot",
                  "-e",
                  "efi/microsoft/boot/efisys.bin",
                  "-no-emul-boot",
                  "-o",
                  image,
                  source},
                 &said)) {
        qWarning().noquote() << said;
        return QString();
    }
    return stubIsoRoot(image, {"README.TXT;1"}) ? image : QString();
}

void TestEditSession::Load(CEditSession& session, const QString& image)
{
    session.Load(image);
    QVERIFY2(Jobs::Wait(session.Loading()), qPrintable(session.LoadProblem()));
}

bool TestEditSession::Save(CEditSession& session, const QString& output, QString* message)
{
    session.Save(output);
    const bool succeeded = Jobs::Wait(session.Saving());
    if (message)
        *message = session.Saving().Message();
    return succeeded;
}

// Loading lists the image and reads its boot setup, copying nothing. It
// replaces an image still loading: the tools still reading that one must not
// speak for this one.
void TestEditSession::loadingListsAndCopiesNothing()
{
    CEditSession session;
    QSignalSpy loads(&session.Loading(), &CJob::finished);
    session.Load(m_udfImage);
    QTest::qWait(5);
    Load(session, m_image);
    QTest::qWait(500);
    QCOMPARE(loads.size(), 1);
    QCOMPARE(session.Way(), ImageSave::Way::Xorriso);
    QVERIFY(session.IsReady());
    QVERIFY(session.Contents().Find("docs\\deep\\notes.txt"));
    QStringList bootFiles = session.Report().bootFiles;
    bootFiles.sort();
    QCOMPARE(bootFiles, (QStringList{"boot/boot.cat", "boot/loader.bin"}));
    // Nothing of the image is copied anywhere.
    QVERIFY(Util::ScratchDir().startsWith(m_home.path()));
    QCOMPARE(
        QDir(Util::ScratchDir()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
        QStringList());
    QVERIFY(session.WorkingCopy().isEmpty());
}

void TestEditSession::bootFilesCannotBeTakenAway_data()
{
    QTest::addColumn<QString>("entry");
    QTest::addColumn<bool>("rename");
    QTest::addColumn<QString>("named");
    QTest::newRow("rename the loader") << "boot\\loader.bin" << true << "/boot/loader.bin";
    QTest::newRow("delete the loader") << "boot\\loader.bin" << false << "/boot/loader.bin";
    QTest::newRow("delete the catalogue") << "boot\\boot.cat" << false << "/boot/boot.cat";
    QTest::newRow("rename their folder") << "boot" << true << "/boot/";
    QTest::newRow("delete their folder") << "boot" << false << "/boot/";
}

void TestEditSession::bootFilesCannotBeTakenAway()
{
    QFETCH(QString, entry);
    QFETCH(bool, rename);
    QFETCH(QString, named);
    CEditSession session;
    Load(session, m_image);
    Item* item = session.Contents().Find(entry);
    QVERIFY(item);
    QString why;
    if (rename)
        QVERIFY(!session.Rename(*item, "other", &why));
    else
        QVERIFY(!session.Remove({item}, &why));
    QVERIFY2(why.contains(named), qPrintable(why));
    QVERIFY(session.Contents().Find(entry));
    QVERIFY(session.Changes().empty());
    // Other entries of the folder's siblings are still free to change.
    QVERIFY(session.Remove({session.Contents().Find("a.txt")}));
}

void TestEditSession::changesReplayToTheTreeShown_data()
{
    // Each step: "add LOCAL FOLDER", "rename ENTRY NAME", "delete ENTRY",
    // entries "\" separated as the tree names them, "-" for the root.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("changes");
    QTest::newRow("renaming an added file renames its add")
        << QStringList{"add new.txt docs", "rename docs\\new.txt newer.txt"}
        << "add new.txt as docs/newer.txt";
    QTest::newRow("deleting an added file forgets it")
        << QStringList{"add new.txt docs", "add pack -", "delete docs\\new.txt"}
        << "add pack as pack";
    QTest::newRow("a folder renamed after a file was added into it")
        << QStringList{"add new.txt docs", "rename docs papers", "rename papers\\new.txt newer.txt"}
        << "add new.txt as docs/new.txt; rename docs to papers; rename papers/new.txt to "
           "papers/newer.txt";
    QTest::newRow("an entry renamed twice in a row, then again later")
        << QStringList{"rename a.txt b.txt", "rename b.txt c.txt", "delete docs\\readme.txt",
                       "rename c.txt d.txt"}
        << "rename a.txt to c.txt; delete docs/readme.txt; rename c.txt to d.txt";
    QTest::newRow("a folder deleted with files added into it")
        << QStringList{"add new.txt docs\\deep", "add pack docs", "delete docs"} << "delete docs";
    QTest::newRow("a file of an added folder renamed and deleted")
        << QStringList{"add pack -", "rename pack\\inner.txt x.txt", "delete pack\\x.txt",
                       "rename link link2"}
        << "add pack as pack; rename pack/inner.txt to pack/x.txt; delete pack/x.txt; rename link "
           "to link2";
    QTest::newRow("a new file where a deleted one was")
        << QStringList{"delete a.txt", "add a.txt -"} << "delete a.txt; add a.txt as a.txt";
}

// The change list is what the save replays over the original: the saved image
// must hold exactly the tree the session shows, its boot entry kept.
void TestEditSession::changesReplayToTheTreeShown()
{
    QFETCH(QStringList, steps);
    QFETCH(QString, changes);
    const QString local =
        m_dir.filePath(QString("local-%1").arg(QTest::currentDataTag()).replace(' ', '_'));
    QVERIFY(IsoFixture::WriteTree(
        local, {{"new.txt", "new"}, {"a.txt", "another a"}, {"pack/inner.txt", "in"}}));

    CEditSession session;
    Load(session, m_image);
    for (const QString& step : std::as_const(steps)) {
        const QStringList words = step.split(' ');
        if (words[0] == "add") {
            Item* folder =
                words[2] == "-" ? &session.Contents().Root() : session.Contents().Find(words[2]);
            QVERIFY2(folder, qPrintable(step));
            QCOMPARE(session.Add(*folder, {local + "/" + words[1]}).size(), 1);
        } else {
            Item* item = session.Contents().Find(words[1]);
            QVERIFY2(item, qPrintable(step));
            QVERIFY2(words[0] == "rename" ? session.Rename(*item, words[2])
                                          : session.Remove({item}),
                     qPrintable(step));
        }
    }
    QCOMPARE(describe(session.Changes()), changes);

    const QString output =
        m_dir.filePath(QString("saved-%1.iso").arg(QTest::currentDataTag()).replace(' ', '_'));
    QString message;
    QVERIFY2(Save(session, output, &message), qPrintable(message));
    QCOMPARE(listImage(output), treeNames(session.Contents().Root()));
    const std::optional<ElTorito::Catalog> saved = ElTorito::ReadFile(output);
    QVERIFY(saved && saved->entries.size() == 1);
}

void TestEditSession::exportTakesEntriesAndAddedFiles()
{
    const QString destination = m_dir.filePath("export");
    // Entries of those names are there already and stay as they were.
    QVERIFY(
        IsoFixture::WriteTree(destination, {{"papers/mine.txt", "mine"}, {"added.txt", "old"}}));
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("to-add"),
                                  {{"added.txt", "added"}, {"more.txt", "more"}}));

    CEditSession session;
    Load(session, m_image);
    QCOMPARE(session.Add(session.Contents().Root(), {m_dir.filePath("to-add/added.txt")}).size(),
             1);
    // A renamed folder comes out as the tree shows it: its edits inside too.
    QVERIFY(session.Rename(*session.Contents().Find("docs\\readme.txt"), "read.txt"));
    QVERIFY(session.Remove({session.Contents().Find("docs\\deep")}));
    QCOMPARE(
        session.Add(*session.Contents().Find("docs"), {m_dir.filePath("to-add/more.txt")}).size(),
        1);
    QVERIFY(session.Rename(*session.Contents().Find("docs"), "papers"));
    session.Export({session.Contents().Find("papers"), session.Contents().Find("added.txt"),
                    session.Contents().Find("a.txt")},
                   destination);
    QVERIFY2(Jobs::Wait(session.Exporting()), qPrintable(session.Exporting().Message()));

    QCOMPARE(readFile(destination + "/papers/mine.txt"), QByteArray("mine"));
    QCOMPARE(readFile(destination + "/added.txt"), QByteArray("old"));
    QCOMPARE(QDir(destination + "/papers (2)")
                 .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             (QStringList{"more.txt", "read.txt"}));
    QCOMPARE(readFile(destination + "/papers (2)/read.txt"), QByteArray("read me"));
    QCOMPARE(readFile(destination + "/papers (2)/more.txt"), QByteArray("more"));
    QCOMPARE(QDir(destination).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
             (QStringList{"a.txt", "added (2).txt", "added.txt", "papers", "papers (2)"}));
    QCOMPARE(readFile(destination + "/a.txt"), QByteArray("alpha"));
    QCOMPARE(readFile(destination + "/added (2).txt"), QByteArray("added"));
}

void TestEditSession::stopEndsTheSaveAndKeepsTheOutput()
{
    const QString big = IsoFixture::SparseFile(m_dir.filePath("big/zeros.bin"), 3072);
    QVERIFY(!big.isEmpty());
    const QString output = m_dir.filePath("kept.iso");
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"kept.iso", "what was there"}}));

    CEditSession session;
    Load(session, m_image);
    session.Add(session.Contents().Root(), {big});
    QSignalSpy saved(&session.Saving(), &CJob::finished);
    session.Save(output);
    QTRY_VERIFY_WITH_TIMEOUT(!partFiles(output).isEmpty(), 30000);
    session.Stop();
    QVERIFY(!session.IsBusy());
    QCOMPARE(saved.size(), 0);
    QVERIFY(!Jobs::Wait(session.Saving()));
    QVERIFY(CJob::IsStoppedMessage(session.Saving().Message()));
    QCOMPARE(saved.size(), 1);
    QCOMPARE(readFile(output), QByteArray("what was there"));
    // The part file is gone by the time the save has ended.
    QCOMPARE(partFiles(output), QFileInfoList());
}

void TestEditSession::udfImageIsRebuiltWithItsUdfTree()
{
    const QString image = m_udfImage;
    const QByteArray loader = pattern(4096, 13);

    CEditSession session;
    Load(session, image);
    QCOMPARE(session.Way(), ImageSave::Way::UdfRebuild);
    QVERIFY(session.Contents().Find("sources\\install.wim"));
    // Edits made at once, most likely while the working copy is still being
    // made, are carried out in it once it is complete.
    QVERIFY(
        IsoFixture::WriteTree(m_dir.filePath("udf-add"), {{"autounattend.xml", "<unattend/>"}}));
    QCOMPARE(
        session.Add(session.Contents().Root(), {m_dir.filePath("udf-add/autounattend.xml")}).size(),
        1);
    QVERIFY(session.Rename(*session.Contents().Find("sources\\install.wim"), "install2.wim"));
    QVERIFY(session.Remove({session.Contents().Find("readme.txt")}));

    const QString output = m_dir.filePath("udf-saved.iso");
    QString message;
    QVERIFY2(Save(session, output, &message), qPrintable(message));
    // The UDF tree is the edited one, without the boot images as files of their own.
    QCOMPARE(listImage(output), treeNames(session.Contents().Root()));
    const std::optional<ElTorito::Catalog> before = ElTorito::ReadFile(image);
    const std::optional<ElTorito::Catalog> after = ElTorito::ReadFile(output);
    QVERIFY(before && after);
    QCOMPARE(after->entries.size(), before->entries.size());
    QFile saved(output);
    QVERIFY(saved.open(QIODevice::ReadOnly) &&
            saved.seek(qint64(after->entries.front().loadRba) * 2048));
    QCOMPARE(saved.read(loader.size()), loader);
}

// The working copy's worker is let go, not waited for, when the session goes
// in the middle of copying an added file from a slow disk; the working copy's
// folder goes once the worker has ended.
void TestEditSession::droppingASessionNeverWaitsForItsCopy()
{
    if (!SlowDisk::Available())
        QSKIP("needs root and block I/O throttling");
    // One piece of the copy takes two seconds at this rate.
    SlowDisk disk(m_dir.filePath("slow"), 2 * 1024 * 1024, "brenta-tst-editsession");
    QVERIFY(disk.IsMounted());
    QVERIFY(disk.WriteFile("slow.bin", 24));
    QVERIFY(disk.Throttle());
    // The working copy on the same disk, so that the kernel copies the file
    // in the worker's large pieces.
    qputenv("XDG_DATA_HOME", QFile::encodeName(disk.Path("home")));
    const auto restore = qScopeGuard([this] { qputenv("XDG_DATA_HOME", m_home.path().toUtf8()); });

    auto session = std::make_unique<CEditSession>();
    Load(*session, m_udfImage);
    const QString folder = QFileInfo(session->WorkingCopy()).path();
    QVERIFY(QFileInfo(folder).isDir());
    QCOMPARE(session->Add(session->Contents().Root(), {disk.Path("slow.bin")}).size(), 1);
    bool copying = false;
    connect(&session->Saving(), &CJob::progressed, this, [&](int percent) {
        copying =
            copying || (session->CurrentPhase() == CEditSession::Phase::Copying && percent > 0);
    });
    session->Save(m_dir.filePath("never-saved.iso"));
    QTRY_VERIFY_WITH_TIMEOUT(copying, 60000);

    QElapsedTimer clock;
    clock.start();
    session.reset();
    QVERIFY2(clock.elapsed() < 500, qPrintable(QString::number(clock.elapsed())));
    CFileCopy::WaitForRetired();
    QVERIFY(!QFileInfo::exists(folder));
}

void TestEditSession::unreadableImageIsReported()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"junk.iso", pattern(300000, 3)}}));
    CEditSession session;
    session.Load(m_dir.filePath("junk.iso"));
    QVERIFY(!Jobs::Wait(session.Loading()));
    QVERIFY(!session.LoadProblem().isEmpty());
    QString message;
    QVERIFY(!Save(session, m_dir.filePath("never.iso"), &message));
    QVERIFY(!QFileInfo::exists(m_dir.filePath("never.iso")));
}

QTEST_MAIN(TestEditSession)
#include "tst_editsession.moc"
