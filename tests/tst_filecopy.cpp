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
    void jobsRunInOrder();
    void removeJobTakesOnlyTheFirst();
    void removingTheRunningJobLosesNoOther();
    void clearAndStopDropQueuedJobs();
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

// A delete queued after a copy of the same path must happen after it.
void TestFileCopy::jobsRunInOrder()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"a.txt", "a"}}));
    CFileCopy worker;
    worker.AddJob(bigFile(m_root), m_root.filePath("out/big.bin"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/a.txt"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("out/a.txt"), m_root.filePath("out/b.txt"), CFileCopy::Move);
    worker.AddJob(m_root.filePath("out/big.bin"), QString(), CFileCopy::Delete);
    QTRY_VERIFY_WITH_TIMEOUT(worker.RemainingBytes() <= 0, 60000);
    QTRY_VERIFY(!QFileInfo::exists(m_root.filePath("out/big.bin")));
    QCOMPARE(readAll(m_root.filePath("out/b.txt")), QByteArray("a"));
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/a.txt")));
}

void TestFileCopy::removeJobTakesOnlyTheFirst()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"a.txt", "a"}}));
    CFileCopy worker;
    worker.AddJob(bigFile(m_root), m_root.filePath("out/big.bin"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/first.txt"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/second.txt"), CFileCopy::Copy);
    worker.RemoveJob(m_root.filePath("a.txt"));
    QTRY_VERIFY_WITH_TIMEOUT(worker.RemainingBytes() <= 0, 60000);
    QTRY_VERIFY(QFileInfo::exists(m_root.filePath("out/second.txt")));
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/first.txt")));
}

void TestFileCopy::removingTheRunningJobLosesNoOther()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"a.txt", "a"}}));
    CFileCopy worker;
    const QString big = bigFile(m_root);
    worker.AddJob(big, m_root.filePath("out/big.bin"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/a.txt"), CFileCopy::Copy);
    QTest::qWait(20);
    worker.RemoveJob(big);
    // The removed job no longer counts; the other one still does until done.
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(m_root.filePath("out/a.txt")), 60000);
    QTRY_VERIFY(worker.RemainingBytes() <= 0);
}

void TestFileCopy::clearAndStopDropQueuedJobs()
{
    QVERIFY(IsoFixture::WriteTree(m_dir.path(), {{"a.txt", "a"}}));
    {
        CFileCopy worker;
        worker.AddJob(bigFile(m_root), m_root.filePath("out/big.bin"), CFileCopy::Copy);
        worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/a.txt"), CFileCopy::Copy);
        worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out/b.txt"), CFileCopy::Copy);
        worker.Stop();
        QVERIFY(worker.wait(60000));
    }
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/a.txt")));
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/b.txt")));

    CFileCopy worker;
    worker.AddJob(m_root.filePath("big.bin"), m_root.filePath("out2/big.bin"), CFileCopy::Copy);
    worker.AddJob(m_root.filePath("a.txt"), m_root.filePath("out2/a.txt"), CFileCopy::Copy);
    worker.ClearJobs();
    QTRY_VERIFY_WITH_TIMEOUT(worker.RemainingBytes() <= 0, 60000);
    QTest::qWait(50);
    QVERIFY(!QFileInfo::exists(m_root.filePath("out2/a.txt")));
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
