#include <QtTest>

#include "common/isofixture.h"
#include "common/listedimage.h"
#include "iso/imagebuild.h"
#include "iso/isojobs.h"
#include "iso/itemtree.h"

namespace {

const QString kLongName =
    QStringLiteral("a rather long file name that no short ISO9660 name could ever hold.txt");

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// Everything in a folder, hidden entries included.
QStringList entries(const QString& folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                  QDir::NoDotAndDotDot);
}

QStringList listed(const QString& image)
{
    return ListedImage(image, [](const Item& item) {
        return QStringLiteral("%1 %2 %3").arg(item.isDir ? "D" : "F", item.name, item.size);
    });
}

} // namespace

class TestCreate final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void progress_data();
    void progress();
    void buildsEachType_data();
    void buildsEachType();
    void failuresSayWhy_data();
    void failuresSayWhy();
    void unfinishedBuildKeepsWhatWasThere_data();
    void unfinishedBuildKeepsWhatWasThere();

private:
    QTemporaryDir m_dir;
};

void TestCreate::initTestCase()
{
    QStandardPaths::setTestModeEnabled(true);
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("docs"),
                                  {{"a.txt", "alpha"}, {"sub/b.txt", "bee"}, {kLongName, "long"}},
                                  {"empty"}));
    QVERIFY(IsoFixture::WriteTree(
        m_dir.path(), {{"single.bin", QByteArray(3000, 's')}, {"withbroken/ok.txt", "ok"}}));
    QVERIFY(QFile::link(m_dir.filePath("nowhere"), m_dir.filePath("withbroken/broken.txt")));
    // Joliet cannot hold a file of 4 GiB or more, so the builder refuses it at
    // once; a large UDF build runs long enough to be stopped. (Sparse files:
    // no time or disk to make.)
    QVERIFY(!IsoFixture::SparseFile(m_dir.filePath("huge/install.wim"), 5 * 1024).isEmpty());
    QVERIFY(!IsoFixture::SparseFile(m_dir.filePath("large/zeros.bin"), 3 * 1024).isEmpty());
}

void TestCreate::progress_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<int>("value");
    QTest::newRow("typical") << " 45.61% done, estimate finish Mon Nov 23 10:00:00 2026" << 4561;
    // Cut, not rounded.
    QTest::newRow("cut toward zero")
        << "  0.29% done, estimate finish Mon Nov 23 10:00:00 2026" << 28;
    QTest::newRow("not a number") << "abc% done, estimate finish x" << 0;
    QTest::newRow("other line") << "Total translation table size: 0" << -1;
    QTest::newRow("marker at the start") << "% done, estimate finish" << -1;
}

void TestCreate::progress()
{
    QFETCH(QString, line);
    QFETCH(int, value);
    const std::optional<int> parsed = ImageBuild::ParseProgress(line);
    QCOMPARE(parsed.has_value(), value >= 0);
    if (parsed)
        QCOMPARE(*parsed, value);
}

void TestCreate::buildsEachType_data()
{
    QTest::addColumn<QString>("type");
    QTest::newRow("joliet") << "joliet";
    QTest::newRow("iso9660") << "iso9660";
    QTest::newRow("udf") << "udf";
}

// What the image holds is exactly what was given: names, sizes, folders,
// empty ones included, each at the root under its own name. It replaces a
// file of that name.
void TestCreate::buildsEachType()
{
    QFETCH(QString, type);
    QTemporaryDir folder;
    const QString output = folder.filePath("-out " + type + ".iso");
    QVERIFY(IsoFixture::WriteTree(folder.path(), {{"-out " + type + ".iso", "an older image"}}));
    CCreateJob job;
    job.Start(*ImageBuild::TypeFromName(type), output,
              {m_dir.filePath("docs"), m_dir.filePath("single.bin")});
    QVERIFY2(Jobs::Wait(job), qPrintable(job.Message()));

    const QStringList lines = listed(output);
    for (const QString& expected :
         {QString("D docs "), QString("F docs\\a.txt 5"), QString("F docs\\sub\\b.txt 3"),
          QString("D docs\\empty "), QString("F single.bin 3000"),
          QString("F docs\\%1 4").arg(kLongName)})
        QVERIFY2(lines.contains(expected), qPrintable(expected + " not in\n" + lines.join('\n')));
    QCOMPARE(lines.size(), 7);
    QCOMPARE(entries(folder.path()), QStringList{"-out " + type + ".iso"});
    // The staging folder is gone with the job.
    QVERIFY(QDir(QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation) + "/tmp")
                .entryList(QDir::AllEntries | QDir::NoDotAndDotDot)
                .isEmpty());
}

void TestCreate::failuresSayWhy_data()
{
    QTest::addColumn<QString>("source");
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("said"); // what the message must name
    QTest::newRow("a file that cannot be read") << "withbroken"
                                                << "broken.iso"
                                                << "broken.txt";
    QTest::newRow("refused by the builder") << "single.bin"
                                            << "no such folder/out.iso"
                                            << "It said";
}

// A job that cannot make the image says why, and leaves no image.
void TestCreate::failuresSayWhy()
{
    QFETCH(QString, source);
    QFETCH(QString, output);
    QFETCH(QString, said);
    CCreateJob job;
    job.Start(ImageBuild::Type::Udf, m_dir.filePath(output), {m_dir.filePath(source)});
    QVERIFY(!Jobs::Wait(job));
    QVERIFY2(job.Message().contains(said), qPrintable(job.Message()));
    QVERIFY(!QFileInfo::exists(m_dir.filePath(output)));
}

void TestCreate::unfinishedBuildKeepsWhatWasThere_data()
{
    QTest::addColumn<bool>("stop");     // stopped while it builds, else refused by the builder
    QTest::addColumn<bool>("existing"); // a file of the output's name was there before
    QTest::newRow("refused") << false << false;
    QTest::newRow("refused, over an existing image") << false << true;
    QTest::newRow("stopped") << true << false;
    QTest::newRow("stopped, over an existing image") << true << true;
}

// A build that does not finish leaves the folder as it was: a file it would
// have replaced keeps its contents, and no half-built image stays beside it.
void TestCreate::unfinishedBuildKeepsWhatWasThere()
{
    QFETCH(bool, stop);
    QFETCH(bool, existing);
    QTemporaryDir folder;
    const QString output = folder.filePath("image.iso");
    if (existing)
        QVERIFY(IsoFixture::WriteTree(folder.path(), {{"image.iso", "an older image"}}));
    CBuildJob job;
    QSignalSpy progress(&job, &CJob::progressed);
    if (stop) {
        job.Start(ImageBuild::Type::Udf, output, m_dir.filePath("large"));
        QVERIFY(progress.wait(60000));
        job.Stop();
        QVERIFY(!Jobs::Wait(job));
        QVERIFY2(CJob::IsStoppedMessage(job.Message()), qPrintable(job.Message()));
    } else {
        job.Start(ImageBuild::Type::Joliet, output, m_dir.filePath("huge"));
        QVERIFY(!Jobs::Wait(job));
        QVERIFY2(job.Message().contains("choose UDF"), qPrintable(job.Message()));
    }
    QCOMPARE(entries(folder.path()), existing ? QStringList{"image.iso"} : QStringList());
    if (existing)
        QCOMPARE(readAll(output), QByteArray("an older image"));
}

QTEST_GUILESS_MAIN(TestCreate)
#include "tst_create.moc"
