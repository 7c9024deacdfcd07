#include <QtTest>

#include "common/isofixture.h"
#include "tools/filecopy.h"

namespace {

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// A large file keeps the worker busy while a test arranges the queue behind it.
QString bigFile(const QDir& dir)
{
    return IsoFixture::SparseFile(dir.filePath("big.bin"), 1024);
}

} // namespace

class TestFileCopy final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();

    void copiesFileIntoNewFolder();
    void copiesFolderWithoutHiddenFiles();
    void replacesReadOnlyTarget();
    void queueBehindALargeCopy_data();
    void queueBehindALargeCopy();
    void loopingLinksAndMissingFilesAreReported();

private:
    QTemporaryDir m_dir;
    QDir m_root;
};

void TestFileCopy::init()
{
    m_root = QDir(m_dir.path());
    QDir(m_dir.path()).removeRecursively();
    QVERIFY(QDir().mkpath(m_dir.path()));
}

void TestFileCopy::copiesFileIntoNewFolder()
{
    QVERIFY(IsoFixture::WriteTree(m_root.filePath("src"), {{"f.txt", QByteArray(5000, 'f')}}));
    CFileCopy worker;
    worker.AddJob(m_root.filePath("src/f.txt"), m_root.filePath("scratch/x/f.txt"), CFileCopy::Copy);
    QVERIFY(worker.RemainingBytes() <= 5000);
    QTRY_VERIFY(worker.RemainingBytes() <= 0);
    QCOMPARE(readAll(m_root.filePath("scratch/x/f.txt")), QByteArray(5000, 'f'));
    QVERIFY(worker.TakeFailures().isEmpty());
}

void TestFileCopy::copiesFolderWithoutHiddenFiles()
{
    QVERIFY(IsoFixture::WriteTree(m_root.filePath("docs"),
                                  {{"a.txt", "a"}, {"sub/b.txt", "b"}, {".hidden", "h"}}, {"empty"}));
    CFileCopy worker;
    worker.AddJob(m_root.filePath("docs"), m_root.filePath("scratch"), CFileCopy::Copy);
    QTRY_VERIFY(worker.RemainingBytes() <= 0);
    QCOMPARE(readAll(m_root.filePath("scratch/docs/sub/b.txt")), QByteArray("b"));
    QVERIFY(QFileInfo(m_root.filePath("scratch/docs/empty")).isDir());
    QVERIFY(!QFileInfo::exists(m_root.filePath("scratch/docs/.hidden")));
}

void TestFileCopy::replacesReadOnlyTarget()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"new.txt", "new"}, {"old.txt", "old"}}));
    QFile::setPermissions(m_root.filePath("old.txt"), QFileDevice::ReadOwner);
    std::atomic<qint64> copied{0};
    QVERIFY(CFileCopy::CopyFile(m_root.filePath("new.txt"), m_root.filePath("old.txt"), &copied));
    QCOMPARE(readAll(m_root.filePath("old.txt")), QByteArray("new"));
    QCOMPARE(copied.load(), qint64(3));
    // The same path, and a missing source.
    QVERIFY(CFileCopy::CopyFile(m_root.filePath("new.txt"), m_root.filePath("new.txt")));
    QVERIFY(!CFileCopy::CopyFile(m_root.filePath("missing"), m_root.filePath("x")));
    QVERIFY(!QFileInfo::exists(m_root.filePath("x")));
}

void TestFileCopy::queueBehindALargeCopy_data()
{
    QTest::addColumn<QStringList>("jobs");    // "copy|move|delete source [target]", below the test's folder
    QTest::addColumn<QString>("change");      // then done to the queue: "remove <source>", "stop" or "clear"
    QTest::addColumn<QStringList>("present"); // in out/ at the end
    QTest::addColumn<QStringList>("absent");
    // A delete queued after a copy of the same path must happen after it.
    QTest::newRow("jobs run in order") << QStringList{"copy a.txt out/a.txt", "move out/a.txt out/b.txt",
                                                      "delete out/big.bin"}
                                       << "" << QStringList{"b.txt"} << QStringList{"a.txt", "big.bin"};
    QTest::newRow("removing a job takes only the first of its source")
        << QStringList{"copy a.txt out/first.txt", "copy a.txt out/second.txt"} << "remove a.txt"
        << QStringList{"second.txt"} << QStringList{"first.txt"};
    QTest::newRow("removing the running job loses no other")
        << QStringList{"copy a.txt out/a.txt"} << "remove big.bin" << QStringList{"a.txt"} << QStringList{};
    QTest::newRow("stop drops the queue") << QStringList{"copy a.txt out/a.txt", "copy a.txt out/b.txt"} << "stop"
                                          << QStringList{} << QStringList{"a.txt", "b.txt"};
    QTest::newRow("clear drops the queue") << QStringList{"copy a.txt out/a.txt"} << "clear" << QStringList{}
                                           << QStringList{"a.txt"};
}

// Jobs queued while the worker copies a large file.
void TestFileCopy::queueBehindALargeCopy()
{
    QFETCH(QStringList, jobs);
    QFETCH(QString, change);
    QFETCH(QStringList, present);
    QFETCH(QStringList, absent);
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"a.txt", "a"}}));
    CFileCopy worker;
    worker.AddJob(bigFile(m_root), m_root.filePath("out/big.bin"), CFileCopy::Copy);
    for (const QString& job : jobs) {
        const QStringList parts = job.split(' ');
        const auto kind = parts[0] == "copy" ? CFileCopy::Copy : parts[0] == "move" ? CFileCopy::Move : CFileCopy::Delete;
        worker.AddJob(m_root.filePath(parts[1]), parts.size() > 2 ? m_root.filePath(parts[2]) : QString(), kind);
    }
    if (change == "stop") {
        worker.Stop();
        QVERIFY(worker.wait(60000));
    } else {
        QTest::qWait(20);
        if (change == "clear")
            worker.ClearJobs();
        else if (!change.isEmpty())
            worker.RemoveJob(m_root.filePath(change.section(' ', 1)));
        QTRY_VERIFY_WITH_TIMEOUT(worker.RemainingBytes() <= 0, 60000);
    }
    for (const QString& name : present)
        QTRY_COMPARE(readAll(m_root.filePath("out/" + name)), QByteArray("a"));
    QTest::qWait(50);
    for (const QString& name : absent)
        QTRY_VERIFY(!QFileInfo::exists(m_root.filePath("out/" + name)));
}

// A link that points to one of its own parents would copy for ever.
void TestFileCopy::loopingLinksAndMissingFilesAreReported()
{
    QVERIFY(IsoFixture::WriteTree(m_root.filePath("tree"), {{"a/file.txt", "x"}}));
    QVERIFY(QFile::link(m_root.filePath("tree"), m_root.filePath("tree/a/up")));
    QVERIFY(QFile::link(m_root.filePath("tree/a/file.txt"), m_root.filePath("tree/a/same.txt")));
    QVERIFY(QFile::link(m_root.filePath("nowhere"), m_root.filePath("tree/broken")));
    QVERIFY(CFileCopy::SourceSize(m_root.filePath("tree")) == 2);

    CFileCopy worker;
    worker.AddJob(m_root.filePath("tree"), m_root.filePath("out"), CFileCopy::Copy);
    QTRY_VERIFY_WITH_TIMEOUT(worker.RemainingBytes() <= 0, 60000);
    QStringList failures;
    QTRY_VERIFY((failures << worker.TakeFailures()).size() >= 2);
    QTest::qWait(50);
    failures << worker.TakeFailures();
    QCOMPARE(failures.size(), 2);
    QVERIFY(failures.filter("own folders").size() == 1);
    QVERIFY(failures.filter("broken").size() == 1);
    QCOMPARE(readAll(m_root.filePath("out/tree/a/same.txt")), QByteArray("x")); // a file link is followed
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/tree/a/up")));
}

QTEST_GUILESS_MAIN(TestFileCopy)
#include "tst_filecopy.moc"
