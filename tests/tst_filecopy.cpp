#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

#include "common/isofixture.h"
#include "common/slowdisk.h"
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
    void idleComesOnceForManyJobs();
    void stopEndsASlowCopyAtOnce();

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

void TestFileCopy::idleComesOnceForManyJobs()
{
    QVERIFY(
        IsoFixture::WriteTree(m_root.filePath("src"), {{"a", "a"}, {"b", "b"}, {"dir/c", "c"}}));
    CFileCopy worker;
    QSignalSpy idle(&worker, &CFileCopy::idle);
    for (const char* name : {"a", "b", "dir"})
        worker.AddJob(m_root.filePath(QString("src/") + name),
                      m_root.filePath(QString("out/") + name), CFileCopy::CopyAs);
    QVERIFY(idle.wait(30000));
    QVERIFY(worker.RemainingBytes() <= 0);
    QCOMPARE(readAll(m_root.filePath("out/dir/c")), QByteArray("c"));
    // Whatever the worker emitted has arrived once it has been joined.
    worker.Stop();
    QVERIFY(worker.wait(30000));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(idle.count(), 1);
}

// A copy in the kernel is cut into pieces; a stop takes effect after the
// piece under way, so from a slow disk it must be small.
void TestFileCopy::stopEndsASlowCopyAtOnce()
{
    if (::geteuid() != 0 ||
        !QFileInfo::exists("/sys/fs/cgroup/blkio/blkio.throttle.read_bps_device"))
        QSKIP("needs root and block I/O throttling");
    constexpr qint64 kRate = 8 * 1024 * 1024;
    SlowDisk disk(m_dir.path(), kRate, "brenta-tst-filecopy");
    QVERIFY(disk.IsMounted());
    {
        QFile file(disk.Path("slow.bin"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        const QByteArray block(1024 * 1024, 'x');
        for (int i = 0; i < 96; ++i)
            QCOMPARE(file.write(block), block.size());
    }
    QVERIFY(disk.Throttle());
    CFileCopy worker;
    QSignalSpy ended(&worker, &QThread::finished);
    worker.AddJob(disk.Path("slow.bin"), disk.Path("copy.bin"), CFileCopy::Copy);
    // Under way once the copy is made.
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(disk.Path("copy.bin")), 30000);
    QElapsedTimer clock;
    clock.start();
    worker.Stop();
    QVERIFY(clock.elapsed() < 50);
    // The whole file at this rate takes 12 s.
    QVERIFY(ended.wait(3000));
    QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(!QFileInfo::exists(disk.Path("copy.bin")));
}

QTEST_GUILESS_MAIN(TestFileCopy)
#include "tst_filecopy.moc"
