#include <QtTest>

#include <unistd.h>

#include "iso/extraction.h"
#include "iso/itemtree.h"
#include "iso/listing.h"

namespace {

std::unique_ptr<Item> entry(const QString& name, bool isDir = false, const QString& size = "1")
{
    auto item = std::make_unique<Item>();
    item->name = name;
    item->isDir = isDir;
    item->size = isDir ? QString() : size;
    item->time = "2024-01-02 03:04:05";
    return item;
}

QStringList childNames(const Item& folder)
{
    QStringList names;
    for (const auto& child : folder.children)
        names << child->name;
    return names;
}

// A listing line laid out in the tool's columns.
QString row(const QString& attributes, const QString& size, const QString& name)
{
    return QStringLiteral("2024-05-06 07:08:09 %1 %2 %3  %4\n")
        .arg(attributes, size.rightJustified(12), QString(12, ' '), name);
}

// What a symbolic link holds, as stored; empty when the path is no link.
QByteArray linkText(const QString& path)
{
    char buffer[4096];
    const ssize_t size = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof buffer);
    return size < 0 ? QByteArray() : QByteArray(buffer, int(size));
}

} // namespace

class TestListing final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parseLine_data();
    void parseLine();
    void safePaths_data();
    void safePaths();
    void readerKeepsOnlyTheTable();
    void filesBeforeTheirFolders();
    void insertAndRemove();
    void progress_data();
    void progress();
    void reasons_data();
    void reasons();
    void moveUpNamesWhatIsMissing();
    void moveUpTakesNothingFromOutside();
};

void TestListing::parseLine_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("parsed");
    QTest::addColumn<bool>("isDir");
    QTest::addColumn<QString>("size");
    QTest::addColumn<QString>("name");
    QTest::newRow("file") << row(".....", "1536", "boot/bcd") << true << false << "1536"
                          << "boot/bcd";
    QTest::newRow("folder") << row("D....", "", "boot") << true << true << ""
                            << "boot";
    QTest::newRow("huge size") << row(".....", "123456789012", "big.wim") << true << false
                               << "123456789012"
                               << "big.wim";
    // 53 characters or fewer carry no name.
    QTest::newRow("no name") << QString("2024-05-06 07:08:09 D....").leftJustified(53) + "\n"
                             << false << false << ""
                             << "";
    QTest::newRow("carriage return only") << QString("\r\n") << false << false << ""
                                          << "";
}

void TestListing::parseLine()
{
    QFETCH(QString, line);
    QFETCH(bool, parsed);
    QFETCH(bool, isDir);
    QFETCH(QString, size);
    QFETCH(QString, name);
    const std::optional<Listing::Entry> entry = Listing::ParseLine(line);
    QCOMPARE(entry.has_value(), parsed);
    if (!parsed)
        return;
    QCOMPARE(entry->time, QString("2024-05-06 07:08:09"));
    QCOMPARE(entry->isDir, isDir);
    QCOMPARE(entry->size, size);
    QCOMPARE(entry->name, name);
}

void TestListing::safePaths_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<bool>("safe");
    QTest::newRow("file") << "a.txt" << true;
    QTest::newRow("nested") << "docs/x/a.txt" << true;
    QTest::newRow("dots inside names") << "..a/b../..." << true;
    QTest::newRow("leading dash") << "-x/@y" << true;
    QTest::newRow("absolute") << "/home/me/notes.txt" << false;
    QTest::newRow("parent") << "../../notes.txt" << false;
    QTest::newRow("parent inside") << "docs/../../notes.txt" << false;
    QTest::newRow("dot") << "./a.txt" << false;
    QTest::newRow("empty part") << "docs//a.txt" << false;
    QTest::newRow("trailing slash") << "docs/" << false;
    QTest::newRow("empty") << "" << false;
}

void TestListing::safePaths()
{
    QFETCH(QString, path);
    QFETCH(bool, safe);
    QCOMPARE(Listing::IsSafePath(path), safe);
}

void TestListing::readerKeepsOnlyTheTable()
{
    ItemTree tree;
    Listing::Reader reader(tree);
    const QString separator = "------------------- ----- ------------ ------------  ------------\n";
    const QStringList lines = {
        "Path = x.iso\n",
        row(".....", "1", "banner-looking line"),
        separator,
        row(".....", "5", "a.txt"),
        row("D....", "", "dir"),
        // A name made of hyphens is an entry, not the end of the table.
        row(".....", "2", "-------------------.txt"),
        // Names a crafted image can list stay out of the tree.
        row(".....", "3", "../../notes.txt"),
        row(".....", "4", "/home/me/notes.txt"),
        separator,
        row(".....", "9", "totals-looking line"),
    };
    std::vector<Listing::FileSpan> files;
    reader.RecordFiles(&files);
    QList<bool> ends;
    for (const QString& line : lines)
        ends << reader.Feed(line);
    QCOMPARE(ends,
             (QList<bool>{false, false, false, false, false, false, false, false, true, false}));
    QVERIFY(reader.Finished());
    QCOMPARE(childNames(tree.Root()), (QStringList{"a.txt", "dir", "-------------------.txt"}));
    QCOMPARE(reader.LeftOut(), (QStringList{"../../notes.txt", "/home/me/notes.txt"}));
    // The recorded files keep the tool's order, which its data follows.
    QCOMPARE(files.size(), size_t(4));
}

// Some images list a file before its folders: the folders are made on the
// way, and the later folder lines change nothing.
void TestListing::filesBeforeTheirFolders()
{
    ItemTree tree;
    auto file = entry("a/b/c.txt");
    QVERIFY(tree.Insert(file));
    QVERIFY(!file);
    auto folderA = entry("a", true);
    auto folderB = entry("a/b", true);
    QVERIFY(!tree.Insert(folderA));
    QVERIFY(!tree.Insert(folderB));
    QVERIFY(folderA); // left with the caller
    Item* b = tree.Find("a\\b");
    QVERIFY(b && b->isDir);
    QCOMPARE(b->time, QString());
    QCOMPARE(b->size, QString());
    QCOMPARE(childNames(*b), QStringList{"a\\b\\c.txt"});
    QCOMPARE(tree.Count(), 3);
}

// Entries keep the order they were listed in; a name is taken once, exactly
// (case matters), and a removed one can be listed again.
void TestListing::insertAndRemove()
{
    ItemTree tree;
    for (const QString name : {"z", "y/2", "y/1", "x", "y"}) {
        auto item = entry(name, name == "y");
        tree.Insert(item);
    }
    QCOMPARE(childNames(tree.Root()), (QStringList{"z", "y", "x"}));
    QCOMPARE(childNames(*tree.Find("y")), (QStringList{"y\\2", "y\\1"}));
    auto empty = entry("");
    QVERIFY(!tree.Insert(empty));
    auto duplicate = entry("y\\1", false, "999");
    QVERIFY(!tree.Insert(duplicate));
    QCOMPARE(tree.Find("y\\1")->size, QString("1"));
    auto upper = entry("Z");
    QVERIFY(tree.Insert(upper));
    tree.Remove("y");
    QVERIFY(tree.Find("y\\1") == nullptr);
    auto again = entry("y/1");
    QVERIFY(tree.Insert(again));
    QCOMPARE(childNames(tree.Root()), (QStringList{"z", "x", "Z", "y"}));
}

void TestListing::progress_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<int>("percent");
    QTest::addColumn<QString>("name");
    QTest::newRow("with count") << " 37% 12 - boot\\bcd" << 37 << "boot\\bcd";
    QTest::newRow("without count") << " 59% - r1.bin" << 59 << "r1.bin";
    QTest::newRow("hundred") << "100% 3 - a - b.txt\n" << 100 << "a - b.txt";
    QTest::newRow("percent alone") << "  45%" << 45 << "";
    QTest::newRow("not progress") << "- docs/x/a.txt\n" << -1 << "";
    QTest::newRow("no figure") << "abc% 1 - x" << -1 << "";
}

void TestListing::progress()
{
    QFETCH(QString, line);
    QFETCH(int, percent);
    QFETCH(QString, name);
    const std::optional<Extraction::Progress> step = Extraction::ParseProgress(line);
    QCOMPARE(step.has_value(), percent >= 0);
    if (step) {
        QCOMPARE(step->percent, percent);
        QCOMPARE(step->name, name);
    }
}

// The archive tool's own transcripts: the reason is on the line after its
// error header, or on the header itself, and must reach the user.
void TestListing::reasons_data()
{
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("reasons");
    QTest::newRow("full disk") << QStringList{"- r.bin\n", "System ERROR:\n",
                                              "errno=28 : No space left on device\n"}
                               << QStringList{"No space left on device"};
    QTest::newRow("missing image")
        << QStringList{"ERROR: errno=2 : No such file or directory", "missing.iso",
                       "System ERROR:", "errno=2 : No such file or directory"}
        << QStringList{"No such file or directory: missing.iso"};
    QTest::newRow("truncated image, refused link")
        << QStringList{"Type = Iso",
                       "ERRORS:",
                       "Unexpected end of archive",
                       "Physical Size = 362496",
                       "- d/f.txt",
                       "ERROR: Dangerous link path was ignored : d/up : ../../x",
                       "Sub items Errors: 1",
                       "Archives with Errors: 1"}
        << QStringList{"Unexpected end of archive",
                       "Dangerous link path was ignored : d/up : ../../x"};
    QTest::newRow("success") << QStringList{"- a.txt", "Everything is Ok", "Files: 3"}
                             << QStringList{};
}

void TestListing::reasons()
{
    QFETCH(QStringList, lines);
    QFETCH(QStringList, reasons);
    QCOMPARE(Extraction::Reasons(lines), reasons);
}

// An entry the tool did not put into staging fails the move, by name.
void TestListing::moveUpNamesWhatIsMissing()
{
    QTemporaryDir dir;
    const QDir root(dir.path());
    QVERIFY(root.mkpath("dest/.stage/docs/x/sub"));
    const Extraction::MoveResult result = Extraction::MoveUp(
        root.filePath("dest/.stage"), {"docs/x/sub", "docs/x/gone"}, root.filePath("dest"));
    QVERIFY(!result.ok);
    QVERIFY2(result.message.contains("docs/x/gone"), qPrintable(result.message));
    QCOMPARE(result.placed, QStringList{root.filePath("dest/sub")});
}

// A staging folder in which the tool (or a crafted image) left a link that
// points outside: nothing may be taken through it, and a link entry is moved
// as the link it is.
void TestListing::moveUpTakesNothingFromOutside()
{
    QTemporaryDir dir;
    const QDir root(dir.path());
    QVERIFY(root.mkpath("dest/.stage/inside"));
    QVERIFY(root.mkpath("elsewhere"));
    QFile outside(root.filePath("elsewhere/notes.txt"));
    QVERIFY(outside.open(QIODevice::WriteOnly));
    outside.write("private");
    outside.close();
    QVERIFY(QFile::link(root.filePath("elsewhere"), root.filePath("dest/.stage/out")));
    QVERIFY(QFile::link("../elsewhere/notes.txt", root.filePath("dest/.stage/inside/link")));

    const QStringList entries{"out/notes.txt", "../../elsewhere/notes.txt",
                              root.filePath("elsewhere/notes.txt"), "inside/link"};
    const Extraction::MoveResult result =
        Extraction::MoveUp(root.filePath("dest/.stage"), entries, root.filePath("dest"));
    QVERIFY(!result.ok);
    for (const QString& refused : entries.mid(0, 3))
        QVERIFY2(result.message.contains(refused), qPrintable(result.message));
    QVERIFY(QFileInfo::exists(root.filePath("elsewhere/notes.txt")));
    QCOMPARE(result.placed, QStringList{root.filePath("dest/link")});
    QCOMPARE(linkText(root.filePath("dest/link")), QByteArray("../elsewhere/notes.txt"));
    QCOMPARE(
        root.entryList(QStringList{"*"}, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
        (QStringList{"dest", "elsewhere"}));
    QCOMPARE(QDir(root.filePath("dest"))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot),
             QStringList{"link"});
}

QTEST_GUILESS_MAIN(TestListing)
#include "tst_listing.moc"
