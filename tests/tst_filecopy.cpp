#include <QtTest>

#include <fcntl.h>
#include <sys/stat.h>

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

    void copiesAndSaysIdleOnce();
    void replacesReadOnlyTarget();
    void queueBehindALargeCopy_data();
    void queueBehindALargeCopy();
    void loopingLinksAndMissingFilesAreReported();
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

// A file into a folder that does not exist yet, a folder with its empty
// folders but without its hidden files, and entries copied under new names:
// one idle() once all are done.
void TestFileCopy::copiesAndSaysIdleOnce()
{
    QVERIFY(IsoFixture::WriteTree(m_root.filePath("src"),
                                  {{"f.txt", QByteArray(5000, 'f')},
                                   {"docs/sub/b.txt", "b"},
                                   {"docs/.hidden", "h"},
                                   {"dir/c", "c"}},
                                  {"docs/empty"}));
    // Copies keep their sources' times: an image made from them dates each
    // file and folder as the originals are dated.
    const QDateTime old(QDate(2001, 2, 3), QTime(4, 5, 6), Qt::UTC);
    const auto age = [&](const char* path) {
        const struct timespec times[2] = {{old.toSecsSinceEpoch(), 0}, {old.toSecsSinceEpoch(), 0}};
        return ::utimensat(AT_FDCWD, QFile::encodeName(m_root.filePath(path)).constData(), times,
                           0) == 0;
    };
    QVERIFY(age("src/f.txt") && age("src/docs/sub") && age("src/docs"));
    CFileCopy worker;
    QSignalSpy idle(&worker, &CFileCopy::idle);
    worker.AddJob(m_root.filePath("src/f.txt"), m_root.filePath("scratch/x/f.txt"),
                  CFileCopy::Copy);
    QVERIFY(worker.RemainingBytes() <= 5000);
    worker.AddJob(m_root.filePath("src/docs"), m_root.filePath("scratch"), CFileCopy::Copy);
    for (const char* name : {"f.txt", "dir"})
        worker.AddJob(m_root.filePath(QString("src/") + name),
                      m_root.filePath(QString("out/") + name), CFileCopy::CopyAs);
    QVERIFY(idle.wait(30000));
    QVERIFY(worker.RemainingBytes() <= 0);
    QCOMPARE(readAll(m_root.filePath("scratch/x/f.txt")), QByteArray(5000, 'f'));
    QCOMPARE(readAll(m_root.filePath("scratch/docs/sub/b.txt")), QByteArray("b"));
    QVERIFY(QFileInfo(m_root.filePath("scratch/docs/empty")).isDir());
    QVERIFY(!QFileInfo::exists(m_root.filePath("scratch/docs/.hidden")));
    QCOMPARE(readAll(m_root.filePath("out/dir/c")), QByteArray("c"));
    for (const char* copy : {"scratch/x/f.txt", "scratch/docs/sub", "scratch/docs", "out/f.txt"})
        QCOMPARE(QFileInfo(m_root.filePath(copy)).lastModified().toUTC(), old);
    QVERIFY(worker.TakeFailures().isEmpty());
    // Whatever the worker emitted has arrived once it has been joined.
    worker.Stop();
    QVERIFY(worker.wait(30000));
    QCoreApplication::sendPostedEvents();
    QCOMPARE(idle.count(), 1);
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
    QTest::addColumn<QStringList>(
        "jobs"); // "copy|move|delete source [target]", below the test's folder
    QTest::addColumn<QString>(
        "change"); // then done to the queue: "remove <source>", "stop" or "clear"
    QTest::addColumn<QStringList>("present"); // in out/ at the end
    QTest::addColumn<QStringList>("absent");
    // A delete queued after a copy of the same path must happen after it.
    QTest::newRow("jobs run in order")
        << QStringList{"copy a.txt out/a.txt", "move out/a.txt out/b.txt", "delete out/big.bin"}
        << "" << QStringList{"b.txt"} << QStringList{"a.txt", "big.bin"};
    QTest::newRow("removing a job takes only the first of its source")
        << QStringList{"copy a.txt out/first.txt", "copy a.txt out/second.txt"} << "remove a.txt"
        << QStringList{"second.txt"} << QStringList{"first.txt"};
    QTest::newRow("removing the running job loses no other")
        << QStringList{"copy a.txt out/a.txt"} << "remove big.bin" << QStringList{"a.txt"}
        << QStringList{};
    QTest::newRow("stop drops the queue")
        << QStringList{"copy a.txt out/a.txt", "copy a.txt out/b.txt"} << "stop" << QStringList{}
        << QStringList{"a.txt", "b.txt"};
    QTest::newRow("clear drops the queue")
        << QStringList{"copy a.txt out/a.txt"} << "clear" << QStringList{} << QStringList{"a.txt"};
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
    QSignalSpy idle(&worker, &CFileCopy::idle);
    worker.AddJob(bigFile(m_root), m_root.filePath("out/big.bin"), CFileCopy::Copy);
    for (const QString& job : jobs) {
        const QStringList parts = job.split(' ');
        const auto kind = parts[0] == "copy"   ? CFileCopy::Copy
                          : parts[0] == "move" ? CFileCopy::Move
                                               : CFileCopy::Delete;
        worker.AddJob(m_root.filePath(parts[1]),
                      parts.size() > 2 ? m_root.filePath(parts[2]) : QString(), kind);
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
        QVERIFY(idle.wait(60000));
    }
    for (const QString& name : present)
        QCOMPARE(readAll(m_root.filePath("out/" + name)), QByteArray("a"));
    for (const QString& name : absent)
        QVERIFY2(!QFileInfo::exists(m_root.filePath("out/" + name)), qPrintable(name));
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
    QSignalSpy idle(&worker, &CFileCopy::idle);
    worker.AddJob(m_root.filePath("tree"), m_root.filePath("out"), CFileCopy::Copy);
    QVERIFY(idle.wait(60000));
    const QStringList failures = worker.TakeFailures();
    QCOMPARE(failures.size(), 2);
    QVERIFY(failures.filter("own folders").size() == 1);
    QVERIFY(failures.filter("broken").size() == 1);
    QCOMPARE(readAll(m_root.filePath("out/tree/a/same.txt")),
             QByteArray("x")); // a file link is followed
    QVERIFY(!QFileInfo::exists(m_root.filePath("out/tree/a/up")));
}

// A copy in the kernel is cut into pieces; a stop takes effect after the
// piece under way, so from a slow disk it must be small.
void TestFileCopy::stopEndsASlowCopyAtOnce()
{
    if (!SlowDisk::Available())
        QSKIP("needs root and block I/O throttling");
    SlowDisk disk(m_dir.path(), 8 * 1024 * 1024, "brenta-tst-filecopy");
    QVERIFY(disk.IsMounted() && disk.WriteFile("slow.bin", 96) && disk.Throttle());
    CFileCopy worker;
    QSignalSpy ended(&worker, &QThread::finished);
    worker.AddJob(disk.Path("slow.bin"), disk.Path("copy.bin"), CFileCopy::Copy);
    // Under way once the copy is made.
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(disk.Path("copy.bin")), 30000);
    QElapsedTimer clock;
    clock.start();
    worker.Stop();
    QVERIFY(clock.elapsed() < 50);
    // The whole file at 8 MiB/s takes 12 s.
    QVERIFY(ended.wait(3000));
    QVERIFY2(clock.elapsed() < 3000, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(!QFileInfo::exists(disk.Path("copy.bin")));
}

QTEST_GUILESS_MAIN(TestFileCopy)
#include "tst_filecopy.moc"
