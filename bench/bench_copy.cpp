// Measures the copy worker against cp on the same machine in the same run: a
// 2 GiB file and a folder of 20,000 small files; and RemainingBytes() with
// 100,000 files queued.
//
// Usage: bench_copy [FOLDER]   (FOLDER: where to write, default a temporary one)
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>

#include <cstdio>

#include "tools/filecopy.h"

namespace {

double seconds(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

void dropCaches()
{
    // Fair to both sides: each copy starts from the same page cache state.
    QProcess::execute(QStringLiteral("sync"), {});
}

double timeCp(const QString& source, const QString& target)
{
    dropCaches();
    QElapsedTimer timer;
    timer.start();
    QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-r"), source, target});
    // Until the data is on the disk: otherwise the figure is the page cache's.
    QProcess::execute(QStringLiteral("sync"), {});
    return seconds(timer);
}

double timeWorker(const QString& source, const QString& target, bool isFile)
{
    dropCaches();
    QElapsedTimer timer;
    timer.start();
    CFileCopy worker;
    worker.AddJob(source, target, CFileCopy::Copy);
    while (worker.RemainingBytes() > 0)
        QThread::msleep(1);
    // RemainingBytes reaches 0 as the last bytes are written; the job ends
    // with closing the files, which the worker's stop waits for.
    worker.Stop();
    worker.wait();
    QProcess::execute(QStringLiteral("sync"), {});
    Q_UNUSED(isFile);
    return seconds(timer);
}

void report(const char* what, qint64 bytes, double cp, double brenta)
{
    const double mb = double(bytes) / (1024.0 * 1024.0);
    std::printf(
        "%-26s cp %7.2f s (%7.1f MiB/s)   worker %7.2f s (%7.1f MiB/s)   %5.1f%% of cp's speed\n",
        what, cp, mb / cp, brenta, mb / brenta, 100.0 * cp / brenta);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QTemporaryDir scratch(argc > 1 ? QString::fromLocal8Bit(argv[1]) +
                                         QStringLiteral("/bench-copy-XXXXXX")
                                   : QDir::tempPath() + QStringLiteral("/bench-copy-XXXXXX"));
    const QDir root(scratch.path());

    // A 2 GiB file of real (not sparse) data.
    const QString big = root.filePath(QStringLiteral("big.bin"));
    {
        QFile file(big);
        file.open(QIODevice::WriteOnly);
        QByteArray block(4 * 1024 * 1024, Qt::Uninitialized);
        QRandomGenerator random(7);
        for (int i = 0; i < 512; ++i) {
            random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
            file.write(block);
        }
    }
    const qint64 bigSize = qint64(2) * 1024 * 1024 * 1024;
    // Each side runs twice, alternating, and keeps its better time, so that
    // neither gains from going second.
    double cpBig = 1e9;
    double workerBig = 1e9;
    for (int round = 0; round < 4; ++round) {
        // Alternate who goes first.
        if (round % 2 == 0) {
            workerBig = qMin(
                workerBig, timeWorker(big, root.filePath(QStringLiteral("worker-big.bin")), true));
            cpBig = qMin(cpBig, timeCp(big, root.filePath(QStringLiteral("cp-big.bin"))));
        } else {
            cpBig = qMin(cpBig, timeCp(big, root.filePath(QStringLiteral("cp-big.bin"))));
            workerBig = qMin(
                workerBig, timeWorker(big, root.filePath(QStringLiteral("worker-big.bin")), true));
        }
        QFile::remove(root.filePath(QStringLiteral("worker-big.bin")));
        QFile::remove(root.filePath(QStringLiteral("cp-big.bin")));
    }
    report("2 GiB file", bigSize, cpBig, workerBig);
    QFile::remove(root.filePath(QStringLiteral("cp-big.bin")));
    QFile::remove(root.filePath(QStringLiteral("worker-big.bin")));

    // 20,000 files of 1 to 16 KiB in 100 folders.
    const QString small = root.filePath(QStringLiteral("small"));
    qint64 smallSize = 0;
    for (int i = 0; i < 20000; ++i) {
        const QString folder = small + QStringLiteral("/d%1").arg(i % 100);
        QDir().mkpath(folder);
        QFile file(folder + QStringLiteral("/f%1.dat").arg(i));
        file.open(QIODevice::WriteOnly);
        const QByteArray bytes(1024 * (1 + i % 16), char('a' + i % 26));
        file.write(bytes);
        smallSize += bytes.size();
    }
    double cpSmall = 1e9;
    double workerSmall = 1e9;
    for (int round = 0; round < 2; ++round) {
        const QString target = root.filePath(QStringLiteral("worker%1").arg(round));
        QDir().mkpath(target);
        workerSmall = qMin(workerSmall, timeWorker(small, target, false));
        cpSmall =
            qMin(cpSmall, timeCp(small, root.filePath(QStringLiteral("cp-small%1").arg(round))));
    }
    report("20,000 small files", smallSize, cpSmall, workerSmall);

    // RemainingBytes() with 100,000 single-file jobs queued behind a busy one.
    {
        CFileCopy worker;
        worker.AddJob(big, root.filePath(QStringLiteral("busy.bin")), CFileCopy::Copy);
        const QString file = small + QStringLiteral("/d0/f0.dat");
        for (int i = 0; i < 100000; ++i)
            worker.AddJob(file, root.filePath(QStringLiteral("q/%1").arg(i)), CFileCopy::Copy);
        QElapsedTimer timer;
        timer.start();
        const int calls = 100;
        qint64 sink = 0;
        for (int i = 0; i < calls; ++i)
            sink += worker.RemainingBytes();
        std::printf("RemainingBytes() with 100,000 jobs queued: %.3f ms a call (%lld)\n",
                    double(timer.nsecsElapsed()) / 1e6 / calls, static_cast<long long>(sink % 7));
        worker.ClearJobs();
    }
    return 0;
}
