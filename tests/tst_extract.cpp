#include <QtTest>

#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "common/craftedimage.h"
#include "common/isofixture.h"
#include "common/standins.h"
#include "iso/imagesave.h"
#include "iso/isojobs.h"
#include "iso/extraction.h"
#include "iso/itemtree.h"
#include "tools/toollocator.h"

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
    return {{"link", "d/f.txt"}, {"abs", outside},    {"d/up", "../../x"},
            {"dirlink", "d"},    {"d/self", "f.txt"}, {"new\nline", "nl\ntarget"}};
}

QByteArray linkText(const QString& path)
{
    char buffer[4096];
    const ssize_t size = ::readlink(QFile::encodeName(path).constData(), buffer, sizeof buffer);
    return size < 0 ? QByteArray() : QByteArray(buffer, int(size));
}

// The Rock Ridge tree the exactness tests build their images from: path →
// "F mode content", "D mode" or "L target". Each name is what a reader must
// show; "bad\uFFFDname.txt" is written to the source as "bad\xFFname.txt".
const QString kDeep = "deep/1/2/3/4/5/6/7/8/9/10/11";
QMap<QString, QString> exactTree()
{
    return {{"debian", "L ."},
            {"up", "L .."},
            {"abs", "L /etc/brenta-test-target"},
            {"rel", "L deep/1"},
            {"deep", "D 755"},
            {kDeep, "D 755"},
            {kDeep + "/leaf.txt", "F 644 leaf"},
            {QString(200, 'n'), "F 644 two hundred"},
            {QString(250, 'b'), "F 644 two hundred fifty"},
            {"ro", "D 555"},
            {"ro/f.txt", "F 444 read only"},
            {"sec", "D 700"},
            {"sec/x", "F 600 secret"},
            {"exe", "F 755 #!/bin/sh"},
            {QString::fromUtf8("bad\uFFFDname.txt"), "F 644 not utf-8"}};
}

// Every entry of the tree gets this modification time.
constexpr time_t kStamp = 981173106; // 2001-02-03 04:05:06 UTC

QByteArray sourceName(const QString& path)
{
    QByteArray bytes = QFile::encodeName(path);
    bytes.replace("\xEF\xBF\xBD", "\xFF");
    return bytes;
}

bool writeExactTree(const QString& root)
{
    QDir(root).mkpath(".");
    const QMap<QString, QString> tree = exactTree();
    QStringList folders;
    for (auto it = tree.cbegin(); it != tree.cend(); ++it) {
        const QByteArray path = QFile::encodeName(root) + '/' + sourceName(it.key());
        QDir(root).mkpath(QFileInfo(QFile::decodeName(path)).path());
        const QChar kind = it.value().at(0);
        if (kind == 'L') {
            if (::symlink(it.value().mid(2).toUtf8().constData(), path.constData()) != 0)
                return false;
        } else if (kind == 'D') {
            QDir().mkpath(QFile::decodeName(path));
            folders.prepend(it.key());
        } else {
            const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            const QByteArray content = it.value().section(' ', 2).toUtf8();
            if (fd < 0 || ::write(fd, content.constData(), content.size()) != content.size())
                return false;
            ::close(fd);
            ::chmod(path.constData(), it.value().section(' ', 1, 1).toUInt(nullptr, 8));
        }
    }
    // Folders last, deepest first, so their times and modes stay.
    for (const QString& folder : folders)
        ::chmod((QFile::encodeName(root) + '/' + sourceName(folder)).constData(),
                tree.value(folder).section(' ', 1, 1).toUInt(nullptr, 8));
    QStringList all = tree.keys();
    all.sort();
    std::reverse(all.begin(), all.end());
    all << "deep/1"
        << "deep/1/2";
    const struct timespec times[2] = {{kStamp, 0}, {kStamp, 0}};
    for (const QString& path : all)
        ::utimensat(AT_FDCWD, (QFile::encodeName(root) + '/' + sourceName(path)).constData(), times,
                    AT_SYMLINK_NOFOLLOW);
    return true;
}

// What `root` holds at `path`, in exactTree()'s form, with its time checked.
QString describe(const QString& root, const QString& path)
{
    struct stat info;
    const QByteArray full = QFile::encodeName(root + '/' + path);
    if (::lstat(full.constData(), &info) != 0)
        return "missing";
    const QString time =
        info.st_mtime == kStamp ? QString() : QString(" (time %1)").arg(info.st_mtime);
    const QString mode = QString::number(info.st_mode & 07777, 8);
    if (S_ISLNK(info.st_mode)) {
        char target[4096];
        const ssize_t size = ::readlink(full.constData(), target, sizeof target);
        return "L " + QString::fromUtf8(target, int(size)) + time;
    }
    if (S_ISDIR(info.st_mode))
        return "D " + mode + time;
    return "F " + mode + " " + QString::fromUtf8(readAll(root + '/' + path)) + time;
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
    void stopEndsOnceAfterTheTool_data();
    void stopEndsOnceAfterTheTool();
    void makesLinksAsStored_data();
    void makesLinksAsStored();
    void takesNothingFromOutside_data();
    void takesNothingFromOutside();
    void commandLine_data();
    void commandLine();
    void readsRockRidgeExactly_data();
    void readsRockRidgeExactly();
    void readableDespiteComplaints_data();
    void readableDespiteComplaints();
    void readerSurvivesDamagedImages();

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
        m_images[kind] =
            IsoFixture::Build(source, m_dir.filePath("-" + kind + " image.iso"), kind, &error);
        QVERIFY2(!m_images[kind].isEmpty(), qPrintable(error));
    }
    m_images["crafted"] = CraftedImage::Build(
        m_dir.path(), {{"../../notes.txt", "from the image"}, {"plain.txt", "plain"}},
        m_dir.filePath("crafted.iso"), &error);
    QVERIFY2(!m_images["crafted"].isEmpty(), qPrintable(error));
    QVERIFY(!IsoFixture::SparseFile(m_dir.filePath("four/zeros.bin"), 4).isEmpty());
    m_images["four mebibytes"] =
        IsoFixture::Build(m_dir.filePath("four"), m_dir.filePath("four.iso"), "joliet", &error);
    QVERIFY(!m_images["four mebibytes"].isEmpty());
    m_images["not an image"] = m_dir.filePath("not an image.iso");
    QVERIFY(IsoFixture::WriteTree(m_dir.path(),
                                  {{"not an image.iso", "just some text, not an image"}}));
    const QString jolietOnly =
        IsoFixture::Build(source, m_dir.filePath("joliet only.iso"), "joliet only", &error);
    QVERIFY2(!jolietOnly.isEmpty(), qPrintable(error));
    m_images["joliet only"] = jolietOnly;
    m_images["truncated"] = m_dir.filePath("truncated.iso");
    QVERIFY(QFile::copy(jolietOnly, m_images["truncated"]));
    QVERIFY(QFile::resize(m_images["truncated"], QFileInfo(jolietOnly).size() / 2));
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
    const QString exact = m_dir.filePath("exact");
    QVERIFY(writeExactTree(exact));
    for (const auto& [kind, tool, options] :
         {std::tuple<QString, QString, QStringList>{"genisoimage -R", "genisoimage", {"-R"}},
          // Joliet holds UTF-16 names: a name that is not UTF-8 is taken as Latin-1 there.
          {"genisoimage -R -J",
           "genisoimage",
           {"-R", "-J", "-joliet-long", "-input-charset", "iso8859-1"}},
          {"xorriso -R", "xorriso", {"-as", "mkisofs", "-R"}},
          {"xorriso -R -J", "xorriso", {"-as", "mkisofs", "-R", "-J", "-joliet-long"}}}) {
        QProcess builder;
        builder.setProcessChannelMode(QProcess::MergedChannels);
        m_images[kind] = m_dir.filePath(QString(kind).replace(' ', '_') + ".iso");
        builder.start(tool, options + QStringList{"-quiet", "-o", m_images[kind], exact});
        QVERIFY(builder.waitForFinished(60000));
        QVERIFY2(builder.exitCode() == 0, builder.readAll().constData());
    }
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("nothing"), {}));
    m_images["empty"] =
        IsoFixture::Build(m_dir.filePath("nothing"), m_dir.filePath("empty.iso"), "joliet", &error);
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
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));
    QCOMPARE(tree.title, QFileInfo(m_images[kind]).fileName());

    const QStringList lines = treeLines(tree.Root());
    for (const QString& expected :
         {QString("F docs\\x\\sub\\b c.txt 7"), QString("F -dash.txt 8"), QString("F @at.txt 7"),
          QString("F qu'ote\".txt 6"), QString::fromUtf8("F ünï cödé\\ñ.txt 7"),
          QString("D empty folder ")})
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
    QTest::newRow("from the root")
        << "joliet" << QStringList{"-dash.txt", "@at.txt", "qu'ote\".txt"}
        << QStringList{"-dash.txt", "@at.txt", "qu'ote\".txt"};
    QTest::newRow("nested file and folder move up")
        << "joliet" << QStringList{"docs/x/a.txt", "docs/x/sub"}
        << QStringList{"a.txt", "sub/b c.txt"};
    QTest::newRow("unicode from udf") << "udf" << QStringList{QString::fromUtf8("ünï cödé/ñ.txt")}
                                      << QStringList{QString::fromUtf8("ñ.txt")};
    QTest::newRow("whole image") << "udf" << QStringList{}
                                 << QStringList{
                                        "-dash.txt",    "@at.txt",
                                        "a.txt",        "docs/-dash.txt",
                                        "docs/x/a.txt", "docs/x/sub/b c.txt",
                                        "qu'ote\".txt", QString::fromUtf8("ünï cödé/ñ.txt")};
}

void TestExtract::extractsExactlyTheEntries()
{
    QFETCH(QString, kind);
    QFETCH(QStringList, entries);
    QFETCH(QStringList, expected);
    QTemporaryDir destination;
    CExtractJob job;
    job.Start(m_images[kind], destination.path(), entries);
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));

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
    QVERIFY(IsoFixture::WriteTree(
        destination.path(), {{"a.txt", "mine"}, {"a (2).txt", "mine"}, {"sub/keep", "mine too"}}));
    CExtractJob job;
    job.Start(m_images["joliet"], destination.path(), {"docs/x/a.txt", "docs/x/sub"});
    QVERIFY(Jobs::Wait(job));
    QCOMPARE(readAll(destination.filePath("a.txt")), QByteArray("mine"));
    QCOMPARE(readAll(destination.filePath("a (2).txt")), QByteArray("mine"));
    QCOMPARE(readAll(destination.filePath("sub/keep")), QByteArray("mine too"));
    QCOMPARE(readAll(destination.filePath("a (3).txt")), QByteArray("alpha"));
    QCOMPARE(readAll(destination.filePath("sub (2)/b c.txt")), QByteArray("bee see"));
    // Nothing else, the staging folder included.
    QCOMPARE(QDir(destination.path())
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                 .size(),
             5);
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
    QTest::newRow("list, not an image") << "list"
                                        << "not an image"
                                        << ""
                                        << ""
                                        << "Cannot open the file as archive";
    QTest::newRow("not an image") << "extract"
                                  << "not an image"
                                  << "dest"
                                  << ""
                                  << "Cannot open the file as archive";
    QTest::newRow("a folder as image") << "extract"
                                       << "folder"
                                       << "dest"
                                       << ""
                                       << "Cannot find archive";
    QTest::newRow("destination is a file") << "extract"
                                           << "joliet"
                                           << "plain"
                                           << ""
                                           << "plain is not a folder";
    QTest::newRow("destination below a file") << "extract"
                                              << "joliet"
                                              << "plain/dest"
                                              << ""
                                              << "plain is not a folder";
    QTest::newRow("read-only destination") << "extract"
                                           << "joliet"
                                           << "dest"
                                           << "ro,size=1m"
                                           << "Read-only file system";
    QTest::newRow("full disk") << "extract"
                               << "four mebibytes"
                               << "dest"
                               << "size=1m"
                               << "No space left on device";
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
    QDirIterator it(box.path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
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
    QSignalSpy progress(&job, &CJob::progressed);
    job.Start(image, destination.path(), {});
    QVERIFY(progress.wait(60000));
    QStringList left;
    connect(&job, &CJob::finished, this, [&] {
        left = QDir(destination.path())
                   .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    });
    job.Stop();
    QVERIFY(!Jobs::Wait(job));
    QVERIFY2(CJob::IsStoppedMessage(job.Message()), qPrintable(job.Message()));
    QCOMPARE(left, QStringList());
}

// Every job's stop: Stop() returns while the tool is still ending, and
// finished(false) comes once, after the tool has ended and what it wrote is
// gone. The stand-in tool takes a second to end and writes into its output
// once more as it does, so a removal made before its end would not last.
void TestExtract::stopEndsOnceAfterTheTool_data()
{
    QTest::addColumn<QString>("job");
    QTest::newRow("extract") << "extract";
    QTest::newRow("build") << "build";
    QTest::newRow("create") << "create";
    QTest::newRow("save") << "save";
}

void TestExtract::stopEndsOnceAfterTheTool()
{
    QFETCH(QString, job);
    QTemporaryDir tools;
    const QByteArray script = R"sh(#!/bin/sh
out=; previous=
for argument in "$@"; do
    case "$previous" in -o) out=$argument ;; -outdev) out=${argument#stdio:} ;; esac
    case "$argument" in -o?*) out=${argument#-o}/partial ;; esac
    previous=$argument
done
write() { mkdir -p "$(dirname "$out")" && echo data >> "$out"; }
trap 'sleep 1; write; touch "$STANDIN_DIR/ended"; exit 1' TERM
write
touch "$STANDIN_DIR/started"
while :; do sleep 0.05; done
)sh";
    for (const QString tool : {"7z/7z", "cdrtools/mkisofs", "xorriso/xorriso"})
        QVERIFY(Standins::Write(tools.filePath(tool), script));
    qputenv("BRENTA_TOOLS_DIR", tools.path().toUtf8());
    qputenv("STANDIN_DIR", tools.path().toUtf8());
    const auto unset = qScopeGuard([] {
        qunsetenv("BRENTA_TOOLS_DIR");
        qunsetenv("STANDIN_DIR");
    });

    QTemporaryDir out;
    const QString output = out.filePath("out.iso");
    std::unique_ptr<CJob> running;
    if (job == "extract") {
        auto extract = std::make_unique<CExtractJob>();
        extract->Start(m_images["joliet only"], out.path(), {});
        running = std::move(extract);
    } else if (job == "build") {
        auto build = std::make_unique<CBuildJob>();
        build->Start(ImageBuild::Type::Joliet, output, m_dir.filePath("source"));
        running = std::move(build);
    } else if (job == "create") {
        auto create = std::make_unique<CCreateJob>();
        create->Start(ImageBuild::Type::Joliet, output, {m_dir.filePath("source")});
        running = std::move(create);
    } else {
        auto save = std::make_unique<CImageSaveJob>();
        save->Start(m_images["joliet only"], {}, output);
        running = std::move(save);
    }
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(tools.filePath("started")), 20000);

    int ends = 0;
    bool toolHadEnded = false;
    QStringList left;
    connect(running.get(), &CJob::finished, this, [&](bool ok) {
        ++ends;
        QVERIFY(!ok);
        toolHadEnded = QFileInfo::exists(tools.filePath("ended"));
        left = QDir(out.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    });
    QSignalSpy finished(running.get(), &CJob::finished);
    QElapsedTimer timer;
    timer.start();
    running->Stop();
    QVERIFY2(timer.elapsed() < 500, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(ends, 0);
    running->Stop();
    QVERIFY(finished.wait(10000));
    QCoreApplication::processEvents();
    QCOMPARE(ends, 1);
    QVERIFY2(CJob::IsStoppedMessage(running->Message()), qPrintable(running->Message()));
    QVERIFY(toolHadEnded);
    QCOMPARE(left, QStringList());
}

void TestExtract::makesLinksAsStored_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("links");   // image path → path in the destination
    QTest::addColumn<QStringList>("notMade"); // links the job must name as not extracted
    const QStringList all{"link",    "abs",    "d/up",
                          "dirlink", "d/self", QString::fromUtf8("new\nline=new\uFFFDline")};
    // A line end in a name comes out as U+FFFD, in the listing alike.
    QTest::newRow("rock ridge, whole image")
        << "rock ridge" << QStringList{} << all << QStringList{};
    QTest::newRow("rock ridge + joliet, whole image")
        << "rock ridge + joliet" << QStringList{} << all << QStringList{};
    QTest::newRow("rock ridge, one folder")
        << "rock ridge" << QStringList{"d"} << QStringList{"d/up", "d/self"} << QStringList{};
    QTest::newRow("rock ridge + joliet, links themselves")
        << "rock ridge + joliet" << QStringList{"abs", "d/up"} << QStringList{"abs", "d/up=up"}
        << QStringList{};
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
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));
    for (const QString& link : links) {
        const QString inImage = link.section('=', 0, 0);
        const QString placed =
            destination.filePath(link.contains('=') ? link.section('=', 1) : link);
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

void TestExtract::takesNothingFromOutside_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("entry");
    QTest::addColumn<bool>("listingGiven");
    QTest::newRow("crafted name, the page's listing") << "crafted"
                                                      << "../../notes.txt" << true;
    QTest::newRow("crafted name, listed by the job") << "crafted"
                                                     << "../../notes.txt" << false;
    QTest::newRow("absolute path") << "joliet"
                                   << "@outside" << false;
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
        QVERIFY(Jobs::Wait(list));
        QCOMPARE(list.LeftOut(), QStringList{entry});
        QCOMPARE(treeLines(tree.Root()), QStringList{"F plain.txt 5"});
    }
    CExtractJob job;
    job.Start(m_images[kind], box.filePath("dest"), {entry}, listingGiven ? &tree : nullptr);
    QVERIFY(!Jobs::Wait(job));
    QVERIFY2(job.Message().contains(entry), qPrintable(job.Message()));
    QCOMPARE(readAll(box.filePath("notes.txt")), QByteArray("private"));
    QCOMPARE(QDir(box.filePath("dest"))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

void TestExtract::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("expectedOut");
    QTest::newRow("list") << QStringList{"list", "@joliet"} << 0 << "F\t5\t*\tdocs/x/a.txt";
    QTest::newRow("extract") << QStringList{"extract", "@joliet", "@dest", "docs/x/sub",
                                            "-dash.txt"}
                             << 0 << "";
    QTest::newRow("list no image") << QStringList{"list", "@missing"} << 1 << "";
    QTest::newRow("list empty image") << QStringList{"list", "@empty"} << 0 << "";
    QTest::newRow("extract usage") << QStringList{"extract", "@joliet"} << 2 << "";
    // Entries that name files outside the image are refused by name, and
    // nothing is taken from where they point.
    QTest::newRow("absolute entry")
        << QStringList{"extract", "@joliet", "@dest", "@outside"} << 1 << "";
    QTest::newRow("entry not in the image")
        << QStringList{"extract", "@joliet", "@dest", "a.txt", "nothing.txt"} << 1 << "";
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
    else if (given.value(0) == "list")
        QCOMPARE(err, QString("brenta: the Rock Ridge tree\n")); // which tree, on standard error
    else
        QVERIFY2(err.isEmpty(), qPrintable(err)); // no progress when not a terminal
    if (!expectedOut.isEmpty()) {
        const QRegularExpression line(QRegularExpression::wildcardToRegularExpression(expectedOut));
        QVERIFY2(out.split('\n').indexOf(line) >= 0, qPrintable(out));
    }
    QCOMPARE(readAll(box.filePath("notes.txt")), QByteArray("private"));
    if (given.value(0) != "extract" || exitCode == 2)
        return;
    const QStringList placed =
        QDir(destination).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
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

void TestExtract::readsRockRidgeExactly_data()
{
    QTest::addColumn<QString>("kind");
    for (const char* kind : {"genisoimage -R", "genisoimage -R -J", "xorriso -R", "xorriso -R -J"})
        QTest::newRow(kind) << QString(kind);
}

// Whoever built the image and whether it has Joliet too, its Rock Ridge tree
// is listed and extracted as it was: links as stored, long names whole, the
// deep folder in place (not in rr_moved), modes without the special bits,
// modification times.
void TestExtract::readsRockRidgeExactly()
{
    QFETCH(QString, kind);
    const QMap<QString, QString> expected = exactTree();
    ItemTree tree;
    CListJob list(tree);
    list.Start(m_images[kind]);
    QVERIFY2(Jobs::Wait(list), qPrintable(list.Message()));
    QCOMPARE(list.Tree(), QString("Rock Ridge"));
    QCOMPARE(list.Warning(), QString());
    QStringList listed;
    std::function<void(const Item&)> walk = [&](const Item& folder) {
        for (const auto& child : folder.children) {
            listed << QString(child->name).replace('\\', '/');
            walk(*child);
        }
    };
    walk(tree.Root());
    QStringList wanted = expected.keys() + QStringList{"deep/1",
                                                       "deep/1/2",
                                                       "deep/1/2/3",
                                                       "deep/1/2/3/4",
                                                       "deep/1/2/3/4/5",
                                                       "deep/1/2/3/4/5/6",
                                                       "deep/1/2/3/4/5/6/7",
                                                       "deep/1/2/3/4/5/6/7/8",
                                                       "deep/1/2/3/4/5/6/7/8/9",
                                                       "deep/1/2/3/4/5/6/7/8/9/10"};
    wanted.sort();
    listed.sort();
    QCOMPARE(listed, wanted);

    QTemporaryDir destination;
    CExtractJob job;
    job.Start(m_images[kind], destination.path(), {}, &tree);
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));
    for (auto it = expected.cbegin(); it != expected.cend(); ++it)
        QCOMPARE(describe(destination.path(), it.key()), it.value());
    QVERIFY(!QFileInfo::exists(destination.filePath("rr_moved")));

    // Chosen entries move up under their own names, links never followed.
    QTemporaryDir chosen;
    job.Start(m_images[kind], chosen.path(), {kDeep, "debian", "ro"}, &tree);
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));
    QCOMPARE(describe(chosen.path(), "11/leaf.txt"), QString("F 644 leaf"));
    QCOMPARE(describe(chosen.path(), "debian"), QString("L ."));
    QCOMPARE(describe(chosen.path(), "ro/f.txt"), QString("F 444 read only"));
    QCOMPARE(QDir(chosen.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             (QStringList{"11", "debian", "ro"}));
}

void TestExtract::readableDespiteComplaints_data()
{
    QTest::addColumn<QString>("tree");    // how the image is built: "udf folders", "cut"
    QTest::addColumn<QString>("reader");  // the tree the listing shows
    QTest::addColumn<QString>("warning"); // part of the listing's warning; "" for none
    QTest::addColumn<QString>(
        "failed"); // the entry extraction names as failed; "" when it succeeds
    QTest::addColumn<QStringList>("left"); // what the destination holds afterwards
    QTest::newRow("UDF image of folders only") << "udf folders"
                                               << "UDF"
                                               << "Headers Error"
                                               << "" << QStringList{"a", "c"};
    QTest::newRow("a boot record that is not El Torito")
        << "other boot record"
        << "Joliet"
        << "Headers Error"
        << "" << QStringList{"a.txt", "b.bin", "boot.cat"};
    // The archive tool fails the whole extraction; Brenta's reader only the cut file.
    QTest::newRow("Joliet image, a file past the end") << "joliet only"
                                                       << "Joliet"
                                                       << "Unexpected end"
                                                       << "big.bin" << QStringList{};
    QTest::newRow("Rock Ridge image, a file past the end") << "joliet"
                                                           << "Rock Ridge"
                                                           << ""
                                                           << "big.bin" << QStringList{"a.txt"};
}

// An image whose every entry can be listed is shown, with the tool's
// complaint as a warning; a file whose data is cut off fails by name, and
// nothing is left in the destination but what was extracted whole.
void TestExtract::readableDespiteComplaints()
{
    QFETCH(QString, tree);
    QFETCH(QString, reader);
    QFETCH(QString, warning);
    QFETCH(QString, failed);
    QFETCH(QStringList, left);
    QTemporaryDir box;
    QString image;
    QString error;
    if (tree == "udf folders") {
        QVERIFY(IsoFixture::WriteTree(box.filePath("src"), {}, {"a/b", "c"}));
        QProcess builder;
        builder.start("genisoimage",
                      {"-quiet", "-udf", "-o", box.filePath("u.iso"), box.filePath("src")});
        QVERIFY(builder.waitForFinished(60000) && builder.exitCode() == 0);
        image = box.filePath("u.iso");
    } else if (tree == "other boot record") {
        QVERIFY(IsoFixture::WriteTree(box.filePath("src"),
                                      {{"a.txt", "a"}, {"b.bin", QByteArray(2048, 'b')}}));
        image = box.filePath("other.iso");
        QProcess builder;
        builder.start("genisoimage", {"-quiet", "-J", "-b", "b.bin", "-c", "boot.cat",
                                      "-no-emul-boot", "-o", image, box.filePath("src")});
        QVERIFY(builder.waitForFinished(60000) && builder.exitCode() == 0);
        // The boot record at sector 17 names another boot system.
        QFile file(image);
        QVERIFY(file.open(QIODevice::ReadWrite) && file.seek(17 * 2048 + 7));
        QVERIFY(file.write(QByteArray("OTHER BOOT SYSTEM").leftJustified(32, '\0')) == 32);
    } else {
        QVERIFY(IsoFixture::WriteTree(box.filePath("src"),
                                      {{"a.txt", "a"}, {"big.bin", QByteArray(600000, 'x')}}));
        image = IsoFixture::Build(box.filePath("src"), box.filePath("cut.iso"), tree, &error);
        QVERIFY2(!image.isEmpty(), qPrintable(error));
        // The image ends one byte before big.bin, its last file, does.
        const QByteArray bytes = readAll(image);
        const qsizetype start = bytes.indexOf(QByteArray(2048, 'x'));
        QVERIFY(start > 0);
        QVERIFY(QFile::resize(image, start + 600000 - 1));
    }
    ItemTree contents;
    CListJob list(contents);
    list.Start(image);
    QVERIFY2(Jobs::Wait(list), qPrintable(list.Message()));
    QCOMPARE(list.Tree(), reader);
    QVERIFY2(warning.isEmpty() ? list.Warning().isEmpty() : list.Warning().contains(warning),
             qPrintable(list.Warning()));

    CExtractJob job;
    job.Start(image, box.filePath("dest"), {}, &contents);
    Jobs::Wait(job);
    QCOMPARE(job.Succeeded(), failed.isEmpty());
    QVERIFY2(job.Message().contains(failed), qPrintable(job.Message()));
    QCOMPARE(QDir(box.filePath("dest"))
                 .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             left);
}

// Bytes flipped in the volume descriptors and folders of a Rock Ridge image:
// the reader lists and extracts what it can and says what it cannot, and
// never crashes, hangs or writes outside its folder.
void TestExtract::readerSurvivesDamagedImages()
{
    const QString reader = ToolLocator::Find(ToolLocator::Tool::IsoReader);
    QVERIFY(!reader.isEmpty());
    QFile original(m_images["genisoimage -R"]);
    QVERIFY(original.open(QIODevice::ReadOnly));
    const QByteArray bytes = original.readAll();
    QTemporaryDir box;
    QRandomGenerator random(20261124);
    for (int round = 0; round < 150; ++round) {
        QByteArray damaged = bytes;
        for (int flips = int(random.bounded(1, 21)); flips > 0; --flips)
            damaged[int(random.bounded(16 * 2048, 40 * 2048))] = char(random.bounded(256));
        const QString image = box.filePath("damaged.iso");
        QFile file(image);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
                file.write(damaged) == damaged.size());
        file.close();
        Extraction::RemoveTree(box.filePath("out"));
        QVERIFY(QDir().mkpath(box.filePath("out")));
        for (const QStringList& arguments :
             {QStringList{"list", image}, QStringList{"extract", image, box.filePath("out")}}) {
            QProcess process;
            process.start(reader, arguments);
            QVERIFY2(process.waitForFinished(20000),
                     qPrintable(QString("round %1 hangs").arg(round)));
            QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() <= 2,
                     qPrintable(QString("round %1: %2 ended with %3")
                                    .arg(round)
                                    .arg(arguments[0])
                                    .arg(process.exitCode())));
        }
        QCOMPARE(QDir(box.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 (QStringList{"damaged.iso", "out"}));
    }
}
