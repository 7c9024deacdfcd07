#include <QtTest>

#include <memory>
#include <unistd.h>

#include "common/craftedimage.h"
#include "common/isofixture.h"
#include "common/standins.h"
#include "iso/isojobs.h"
#include "iso/itemtree.h"

namespace {

const QMap<QString, QByteArray> kFiles = {
    {"docs/x/a.txt", "alpha"},
    {"docs/x/sub/b c.txt", "bee see"},
    {"docs/-dash.txt", "inner dash"},
    {"-dash.txt", "top dash"},
    {"@at.txt", "at sign"},
    {"qu'ote\".txt", "quotes"},
    {QString::fromUtf8("ünï cödé/ñ.txt"), "unicode"},
    {"a.txt", "root a"},
};

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

QStringList treeLines(const Item& folder)
{
    QStringList lines;
    for (const auto& child : folder.children) {
        lines << QStringLiteral("%1 %2 %3").arg(child->isDir ? "D" : "F", child->name, child->size);
        lines << treeLines(*child);
    }
    return lines;
}

// Link name → target as stored.
QList<QPair<QString, QString>> linkTable(const QString& outside)
{
    return {{"link", "d/f.txt"}, {"abs", outside}, {"d/up", "../../x"}, {"dirlink", "d"}, {"d/self", "f.txt"},
            {"new\nline", "nl\ntarget"}};
}

QByteArray linkText(const QString& path)
{
    char buffer[4096];
    const ssize_t size = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof buffer);
    return size < 0 ? QByteArray() : QByteArray(buffer, int(size));
}

template <typename Job>
void waitFor(Job& job)
{
    QSignalSpy finished(&job, &Job::finished);
    QVERIFY(finished.wait(120000));
    QCOMPARE(finished.count(), 1);
}

} // namespace

class TestExtract final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void listsRealImages_data();
    void listsRealImages();
    void extractsExactlyTheEntries_data();
    void extractsExactlyTheEntries();
    void neverOverwritesWhatWasThere();
    void failuresSayWhy_data();
    void failuresSayWhy();
    void stopRemovesPartialOutput();
    void makesLinksAsStored_data();
    void makesLinksAsStored();
    void saysWhenLinksCannotBeLookedFor();
    void takesNothingFromOutside_data();
    void takesNothingFromOutside();
    void commandLine_data();
    void commandLine();

private:
    QTemporaryDir m_dir;
    QMap<QString, QString> m_images;
};

void TestExtract::initTestCase()
{
    QVERIFY(!QStandardPaths::findExecutable("genisoimage").isEmpty());
    QVERIFY(!QStandardPaths::findExecutable("7z").isEmpty());
    const QString source = m_dir.filePath("source");
    QVERIFY(IsoFixture::WriteTree(source, kFiles, {"empty folder"}));
    QString error;
    for (const QString kind : {"joliet", "udf"}) {
        m_images[kind] = IsoFixture::Build(source, m_dir.filePath("-" + kind + " image.iso"), kind, &error);
        QVERIFY2(!m_images[kind].isEmpty(), qPrintable(error));
    }
    m_images["crafted"] = CraftedImage::Build(m_dir.path(), {{"../../notes.txt", "from the image"}, {"plain.txt", "plain"}},
                                              m_dir.filePath("crafted.iso"), &error);
    QVERIFY2(!m_images["crafted"].isEmpty(), qPrintable(error));
    QVERIFY(!IsoFixture::SparseFile(m_dir.filePath("four/zeros.bin"), 4).isEmpty());
    m_images["four mebibytes"] = IsoFixture::Build(m_dir.filePath("four"), m_dir.filePath("four.iso"), "joliet", &error);
    QVERIFY(!m_images["four mebibytes"].isEmpty());
    m_images["not an image"] = m_dir.filePath("not an image.iso");
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"not an image.iso", "just some text, not an image"}}));
    m_images["truncated"] = m_dir.filePath("truncated.iso");
    QVERIFY(QFile::copy(m_images["joliet"], m_images["truncated"]));
    QVERIFY(QFile::resize(m_images["truncated"], QFileInfo(m_images["joliet"]).size() / 2));
    m_images["folder"] = m_dir.filePath("folder.iso");
    QVERIFY(QDir().mkpath(m_images["folder"]));
    // Rock Ridge links of every kind: within the image, absolute, up and
    // out of the image, to a folder, and with a name Joliet cannot hold.
    const QString links = m_dir.filePath("links");
    QVERIFY(IsoFixture::WriteTree(links, {{"d/f.txt", "file"}}));
    for (const auto& [name, target] : linkTable(m_dir.filePath("outside.txt")))
        QVERIFY(QFile::link(target, QDir(links).filePath(name)));
    for (const QString kind : {"rock ridge", "rock ridge + joliet"}) {
        QProcess builder;
        builder.setProcessChannelMode(QProcess::MergedChannels);
        QStringList arguments{"-quiet", "-R", "-o", m_dir.filePath(kind + ".iso"), links};
        if (kind.endsWith("joliet"))
            arguments.insert(2, "-J");
        builder.start("genisoimage", arguments);
        QVERIFY(builder.waitForFinished(60000));
        QVERIFY2(builder.exitCode() == 0, builder.readAll().constData());
        m_images[kind] = m_dir.filePath(kind + ".iso");
    }
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("nothing"), {}));
    m_images["empty"] = IsoFixture::Build(m_dir.filePath("nothing"), m_dir.filePath("empty.iso"), "joliet", &error);
    QVERIFY(!m_images["empty"].isEmpty());
}

void TestExtract::listsRealImages_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("joliet + rock ridge") << "joliet";
    QTest::newRow("udf") << "udf";
}

void TestExtract::listsRealImages()
{
    QFETCH(QString, kind);
    ItemTree tree;
    CListJob job(tree);
    job.Start(m_images[kind]);
    waitFor(job);
    QVERIFY2(job.Succeeded(), qPrintable(job.Message()));
    QCOMPARE(tree.title, QFileInfo(m_images[kind]).fileName());

    const QStringList lines = treeLines(tree.Root());
    for (const QString& expected : {QString("F docs\\x\\sub\\b c.txt 7"), QString("F -dash.txt 8"),
                                    QString("F @at.txt 7"), QString("F qu'ote\".txt 6"),
                                    QString::fromUtf8("F ünï cödé\\ñ.txt 7"), QString("D empty folder ")})
        QVERIFY2(lines.contains(expected), qPrintable(expected + " not in\n" + lines.join('\n')));
    QVERIFY(tree.Find("docs\\x")->isDir);
    QCOMPARE(tree.Find("docs\\x\\a.txt")->time.size(), 19);
}

void TestExtract::extractsExactlyTheEntries_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("expected"); // relative file paths in the destination
    // Only the named entries: not docs/-dash.txt, which has the same name.
    QTest::newRow("from the root") << "joliet" << QStringList{"-dash.txt", "@at.txt", "qu'ote\".txt"}
                                   << QStringList{"-dash.txt", "@at.txt", "qu'ote\".txt"};
    QTest::newRow("nested file and folder move up")
        << "joliet" << QStringList{"docs/x/a.txt", "docs/x/sub"} << QStringList{"a.txt", "sub/b c.txt"};
    QTest::newRow("unicode from udf") << "udf" << QStringList{QString::fromUtf8("ünï cödé/ñ.txt")}
                                      << QStringList{QString::fromUtf8("ñ.txt")};
    QTest::newRow("whole image") << "udf" << QStringList{}
                                 << QStringList{"-dash.txt", "@at.txt", "a.txt", "docs/-dash.txt",
                                                "docs/x/a.txt", "docs/x/sub/b c.txt", "qu'ote\".txt",
                                                QString::fromUtf8("ünï cödé/ñ.txt")};
}

void TestExtract::extractsExactlyTheEntries()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, entries);
    QFETCH(QStringList, expected);
    QTemporaryDir destination;
    CExtractJob job;
    job.Start(m_images[kind], destination.path(), entries);
    waitFor(job);
    QVERIFY2(job.Succeeded(), qPrintable(job.Message()));

    QStringList found;
    QDirIterator it(destination.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        found << QDir(destination.path()).relativeFilePath(it.next());
    found.sort();
    expected.sort();
    QCOMPARE(found, expected);
    for (const QString& path : expected) {
        const QString inImage = entries.isEmpty() ? path : QString();
        if (!inImage.isEmpty())
            QCOMPARE(readAll(destination.filePath(path)), kFiles.value(inImage));
    }
    if (kind == "joliet" && entries.contains("docs/x/a.txt"))
        QCOMPARE(readAll(destination.filePath("a.txt")), QByteArray("alpha"));
}

void TestExtract::neverOverwritesWhatWasThere()
{
    QTemporaryDir destination;
    QVERIFY(IsoFixture::WriteTree(destination.path(),
                                  {{"a.txt", "mine"}, {"a (2).txt", "mine"}, {"sub/keep", "mine too"}}));
    CExtractJob job;
    job.Start(m_images["joliet"], destination.path(), {"docs/x/a.txt", "docs/x/sub"});
    waitFor(job);
    QVERIFY(job.Succeeded());
    QCOMPARE(readAll(destination.filePath("a.txt")), QByteArray("mine"));
    QCOMPARE(readAll(destination.filePath("a (2).txt")), QByteArray("mine"));
    QCOMPARE(readAll(destination.filePath("sub/keep")), QByteArray("mine too"));
    QCOMPARE(readAll(destination.filePath("a (3).txt")), QByteArray("alpha"));
    QCOMPARE(readAll(destination.filePath("sub (2)/b c.txt")), QByteArray("bee see"));
    // Nothing else, the staging folder included.
    QCOMPARE(QDir(destination.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 5);
}

namespace {

// A tmpfs mounted on `path` for as long as the object lives (root only).
class TmpfsMount
{
public:
    TmpfsMount(const QString& path, const QString& options) : m_path(path)
    {
        QDir().mkpath(path);
        m_mounted = QProcess::execute("mount", {"-t", "tmpfs", "-o", options, "tmpfs", path}) == 0;
    }
    ~TmpfsMount()
    {
        if (m_mounted)
            QProcess::execute("umount", {m_path});
    }
    bool Mounted() const { return m_mounted; }

private:
    QString m_path;
    bool m_mounted = false;
};

} // namespace

void TestExtract::failuresSayWhy_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("destination"); // inside the test's box; "" for none
    QTest::addColumn<QString>("mount");       // tmpfs options for the box, "" for none
    QTest::addColumn<QString>("reason");
    QTest::newRow("list, not an image") << "list" << "not an image" << "" << "" << "Cannot open the file as archive";
    QTest::newRow("list, truncated image") << "list" << "truncated" << "" << "" << "Unexpected end of archive";
    QTest::newRow("not an image") << "extract" << "not an image" << "dest" << "" << "Cannot open the file as archive";
    QTest::newRow("a folder as image") << "extract" << "folder" << "dest" << "" << "Cannot find archive";
    QTest::newRow("truncated image") << "extract" << "truncated" << "dest" << "" << "Unexpected end of archive";
    QTest::newRow("destination is a file") << "extract" << "joliet" << "plain" << "" << "plain is not a folder";
    QTest::newRow("destination below a file") << "extract" << "joliet" << "plain/dest" << "" << "plain is not a folder";
    QTest::newRow("read-only destination") << "extract" << "joliet" << "dest" << "ro,size=1m" << "Read-only file system";
    QTest::newRow("full disk") << "extract" << "four mebibytes" << "dest" << "size=1m" << "No space left on device";
}

// Every failure of the terminal forms ends with a message that says why, in
// the tool's or the system's words, and leaves no staging folder behind.
void TestExtract::failuresSayWhy()
{
    QFETCH(QString, command);
    QFETCH(QString, kind);
    QFETCH(QString, destination);
    QFETCH(QString, mount);
    QFETCH(QString, reason);
    QTemporaryDir box;
    std::unique_ptr<TmpfsMount> mounted;
    if (!mount.isEmpty()) {
        if (::geteuid() != 0)
            QSKIP("mounting a small file system takes root");
        mounted = std::make_unique<TmpfsMount>(box.path(), mount);
        QVERIFY(mounted->Mounted());
    } else {
        QVERIFY(IsoFixture::WriteTree(box.path(), {{"plain", "a file"}}));
    }
    QStringList arguments{command, m_images[kind]};
    if (!destination.isEmpty())
        arguments << box.filePath(destination);
    QProcess brenta;
    brenta.start(BRENTA_EXECUTABLE, arguments);
    QVERIFY(brenta.waitForFinished(120000));
    QCOMPARE(brenta.exitCode(), 1);
    const QString err = QString::fromUtf8(brenta.readAllStandardError());
    QVERIFY2(err.startsWith("brenta: ") && err.contains(reason), qPrintable(err));
    QDirIterator it(box.path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext())
        QVERIFY2(!it.next().contains(".brenta-extract"), qPrintable(it.filePath()));
}

void TestExtract::stopRemovesPartialOutput()
{
    // A large file keeps the tool busy long enough to stop it; a sparse one
    // costs no time to make.
    const QString source = m_dir.filePath("big");
    for (const QString name : {"zeros1.bin", "zeros2.bin"})
        QVERIFY(!IsoFixture::SparseFile(QDir(source).filePath(name), 768).isEmpty());
    QString error;
    const QString image = IsoFixture::Build(source, m_dir.filePath("big.iso"), "joliet", &error);
    QVERIFY(!image.isEmpty());

    QTemporaryDir destination;
    CExtractJob job;
    QSignalSpy finished(&job, &CExtractJob::finished);
    QSignalSpy progress(&job, &CExtractJob::progress);
    job.Start(image, destination.path(), {});
    QVERIFY(job.IsRunning());
    QVERIFY(progress.wait(60000));
    QCOMPARE(finished.count(), 0);
    job.Stop();
    QVERIFY(!job.IsRunning());
    QTest::qWait(300);
    QCOMPARE(finished.count(), 0);
    QCOMPARE(QDir(destination.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

void TestExtract::makesLinksAsStored_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("links");   // image path → path in the destination
    QTest::addColumn<QStringList>("notMade"); // links the job must name as not extracted
    const QStringList all{"link", "abs", "d/up", "dirlink", "d/self", "new\nline"};
    QTest::newRow("rock ridge, whole image") << "rock ridge" << QStringList{} << all << QStringList{};
    // The archive tool reads the Joliet tree, which has no links and cannot
    // name the last one.
    QTest::newRow("rock ridge + joliet, whole image") << "rock ridge + joliet" << QStringList{} << all.mid(0, 5)
                                                      << QStringList{"new\nline"};
    QTest::newRow("rock ridge, one folder") << "rock ridge" << QStringList{"d"} << QStringList{"d/up", "d/self"}
                                            << QStringList{};
    QTest::newRow("rock ridge + joliet, links themselves")
        << "rock ridge + joliet" << QStringList{"abs", "d/up"} << QStringList{"abs", "d/up=up"} << QStringList{};
}

// A link comes out as a link holding exactly what the image stores, never
// as an empty file, never followed; one that cannot be made is named.
void TestExtract::makesLinksAsStored()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, entries);
    QFETCH(QStringList, links);
    QFETCH(QStringList, notMade);
    QMap<QString, QString> stored;
    for (const auto& [name, target] : linkTable(m_dir.filePath("outside.txt")))
        stored.insert(name, target);
    QTemporaryDir destination;
    CExtractJob job;
    job.Start(m_images[kind], destination.path(), entries);
    waitFor(job);
    QVERIFY2(job.Succeeded(), qPrintable(job.Message()));
    for (const QString& link : links) {
        const QString inImage = link.section('=', 0, 0);
        const QString placed = destination.filePath(link.contains('=') ? link.section('=', 1) : link);
        QVERIFY2(QFileInfo(placed).isSymLink(), qPrintable(placed));
        QCOMPARE(QFile::decodeName(linkText(placed)), stored.value(inImage));
    }
    for (const QString& link : notMade)
        QVERIFY2(job.Message().contains(link), qPrintable(job.Message()));
    if (notMade.isEmpty())
        QCOMPARE(job.Message(), QString());
    if (entries.isEmpty())
        QCOMPARE(readAll(destination.filePath("d/f.txt")), QByteArray("file"));
    QVERIFY(!QFileInfo::exists(m_dir.filePath("outside.txt")));
}

void TestExtract::saysWhenLinksCannotBeLookedFor()
{
    QTemporaryDir tools;
    QVERIFY(Standins::Write(tools.filePath("xorriso/xorriso"), "#!/bin/sh\necho 'cannot read' >&2\nexit 5\n"));
    qputenv("BRENTA_TOOLS_DIR", tools.path().toLocal8Bit());
    QTemporaryDir destination;
    CExtractJob job;
    job.Start(m_images["rock ridge + joliet"], destination.path(), {"link"});
    waitFor(job);
    qunsetenv("BRENTA_TOOLS_DIR");
    QVERIFY2(job.Succeeded(), qPrintable(job.Message()));
    QVERIFY2(job.Message().contains("cannot read"), qPrintable(job.Message()));
}

void TestExtract::takesNothingFromOutside_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<bool>("listingGiven");
    QTest::newRow("crafted name, the page's listing") << "crafted" << "../../notes.txt" << true;
    QTest::newRow("crafted name, listed by the job") << "crafted" << "../../notes.txt" << false;
    QTest::newRow("absolute path") << "joliet" << "@outside" << false;
}

// A file beside the destination must stay where it is, whatever name an
// image lists or a caller passes.
void TestExtract::takesNothingFromOutside()
{
    QFETCH(QString, kind);
    QFETCH(QString, entry);
    QFETCH(bool, listingGiven);
    QTemporaryDir box;
    QVERIFY(IsoFixture::WriteTree(box.path(), {{"notes.txt", "private"}}, {"dest"}));
    if (entry == "@outside")
        entry = box.filePath("notes.txt");

    ItemTree tree;
    if (listingGiven) {
        CListJob list(tree);
        list.Start(m_images[kind]);
        waitFor(list);
        QVERIFY(list.Succeeded());
        QCOMPARE(list.LeftOut(), QStringList{entry});
        QCOMPARE(treeLines(tree.Root()), QStringList{"F plain.txt 5"});
    }
    CExtractJob job;
    job.Start(m_images[kind], box.filePath("dest"), {entry}, listingGiven ? &tree : nullptr);
    waitFor(job);
    QVERIFY(!job.Succeeded());
    QVERIFY2(job.Message().contains(entry), qPrintable(job.Message()));
    QCOMPARE(readAll(box.filePath("notes.txt")), QByteArray("private"));
    QCOMPARE(QDir(box.filePath("dest")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

void TestExtract::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("expectedOut");
    QTest::newRow("list") << QStringList{"list", "@joliet"} << 0 << "F\t5\t*\tdocs/x/a.txt";
    QTest::newRow("extract") << QStringList{"extract", "@joliet", "@dest", "docs/x/sub", "-dash.txt"} << 0
                             << "";
    QTest::newRow("list no image") << QStringList{"list", "@missing"} << 1 << "";
    QTest::newRow("list empty image") << QStringList{"list", "@empty"} << 0 << "";
    QTest::newRow("extract usage") << QStringList{"extract", "@joliet"} << 2 << "";
    // Entries that name files outside the image are refused by name, and
    // nothing is taken from where they point.
    QTest::newRow("absolute entry") << QStringList{"extract", "@joliet", "@dest", "@outside"} << 1 << "";
    QTest::newRow("parent entry") << QStringList{"extract", "@joliet", "@dest", "../../notes.txt"} << 1 << "";
    QTest::newRow("entry not in the image") << QStringList{"extract", "@joliet", "@dest", "a.txt", "nothing.txt"}
                                            << 1 << "";
}

void TestExtract::commandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, expectedOut);
    QTemporaryDir box;
    QVERIFY(IsoFixture::WriteTree(box.path(), {{"notes.txt", "private"}}, {"dest"}));
    const QString destination = box.filePath("dest");
    const QStringList given = arguments;
    for (QString& argument : arguments) {
        if (argument == "@joliet")
            argument = m_images["joliet"];
        else if (argument == "@dest")
            argument = destination;
        else if (argument == "@empty")
            argument = m_images["empty"];
        else if (argument == "@missing")
            argument = m_dir.filePath("missing.iso");
        else if (argument == "@outside")
            argument = box.filePath("notes.txt");
    }
    QProcess brenta;
    brenta.start(BRENTA_EXECUTABLE, arguments);
    QVERIFY(brenta.waitForFinished(120000));
    QCOMPARE(brenta.exitCode(), exitCode);
    const QString out = QString::fromUtf8(brenta.readAllStandardOutput());
    const QString err = QString::fromUtf8(brenta.readAllStandardError());
    if (exitCode != 0)
        QVERIFY(!err.isEmpty());
    else
        QVERIFY2(err.isEmpty(), qPrintable(err)); // no progress when not a terminal
    if (!expectedOut.isEmpty()) {
        const QRegularExpression line(QRegularExpression::wildcardToRegularExpression(expectedOut));
        QVERIFY2(out.split('\n').indexOf(line) >= 0, qPrintable(out));
    }
    QCOMPARE(readAll(box.filePath("notes.txt")), QByteArray("private"));
    if (given.value(0) != "extract" || exitCode == 2)
        return;
    const QStringList placed = QDir(destination).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    if (exitCode == 0) {
        QCOMPARE(readAll(QDir(destination).filePath("sub/b c.txt")), QByteArray("bee see"));
        QCOMPARE(readAll(QDir(destination).filePath("-dash.txt")), QByteArray("top dash"));
        return;
    }
    // A refused extraction names what it refused and writes nothing.
    QVERIFY2(err.contains(arguments.last()), qPrintable(err));
    QCOMPARE(placed, QStringList());
}

QTEST_GUILESS_MAIN(TestExtract)
#include "tst_extract.moc"
