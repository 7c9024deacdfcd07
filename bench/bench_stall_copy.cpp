// Measures how long the event loop stalls when Stop ends a create job while
// it copies a 2 GiB file from a slow source: the longest gap between the
// ticks of a 10 ms timer from the Stop call until one second after it, and
// how long the Stop call itself took.
//
// The source is made slow for real: a file system on a loop device whose
// reads this process may do only at a limited rate (a block I/O cgroup), so
// the copy runs in the kernel at that rate as it would from a slow disk. The
// scratch folder is on the same file system, so the kernel copy is used.
//
// Usage (as root): bench_stall_copy [FOLDER] [KIB_PER_SECOND]
//   FOLDER: where the loop image goes (default /var/tmp); rate default 16384.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "iso/isojobs.h"

namespace {

constexpr qint64 kFileSize = qint64(2) * 1024 * 1024 * 1024;
const QString kGroup = QStringLiteral("/sys/fs/cgroup/blkio/brenta-stall");

bool run(const QString& program, const QStringList& arguments, QString* output = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(-1);
    if (output)
        *output = QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program),
                     process.readAllStandardError().constData());
        return false;
    }
    return true;
}

bool writeText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

bool writeBigFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Real data, not holes: a hole is read without touching the device.
    QByteArray block(4 * 1024 * 1024, '\0');
    for (int i = 0; i < block.size(); ++i)
        block[i] = char(i * 7 + 3);
    for (qint64 written = 0; written < kFileSize; written += block.size()) {
        if (file.write(block) != block.size())
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString base = args.size() > 1 ? args[1] : QStringLiteral("/var/tmp");
    const qint64 rate = (args.size() > 2 ? args[2].toLongLong() : 16384) * 1024;
    if (::geteuid() != 0) {
        std::fprintf(stderr, "bench_stall_copy needs root (loop device, block I/O cgroup)\n");
        return 2;
    }
    QTemporaryDir root(base + QStringLiteral("/brenta-stall-XXXXXX"));
    const QString image = root.filePath(QStringLiteral("fs.img"));
    const QString mount = root.filePath(QStringLiteral("mnt"));
    QDir().mkpath(mount);
    QString device;
    if (!QFile(image).open(QIODevice::WriteOnly) ||
        !QFile::resize(image, kFileSize + qint64(512) * 1024 * 1024) ||
        !run(QStringLiteral("mkfs.ext4"), {QStringLiteral("-q"), QStringLiteral("-F"), image}) ||
        !run(QStringLiteral("losetup"), {QStringLiteral("-f"), QStringLiteral("--show"), image},
             &device) ||
        !run(QStringLiteral("mount"), {device, mount}))
        return 1;
    const auto cleanup = [&] {
        writeText(QStringLiteral("/sys/fs/cgroup/blkio/cgroup.procs"),
                  QByteArray::number(::getpid()));
        QDir().rmdir(kGroup);
        // A stopped copy may still be ending in the background.
        for (int tries = 0; tries < 100 && !run(QStringLiteral("umount"), {mount}); ++tries)
            QThread::msleep(100);
        run(QStringLiteral("losetup"), {QStringLiteral("-d"), device});
    };
    const QString source = mount + QStringLiteral("/big.bin");
    std::printf("writing a 2 GiB file on %s\n", qPrintable(device));
    if (!writeBigFile(source)) {
        cleanup();
        return 1;
    }
    // Mounted afresh, so nothing of the file is in the page cache.
    run(QStringLiteral("umount"), {mount});
    run(QStringLiteral("mount"), {device, mount});
    // The scratch folder goes onto the same file system as the source.
    qputenv("XDG_DATA_HOME", QFile::encodeName(mount + QStringLiteral("/data")));

    struct stat info
    {
    };
    ::stat(QFile::encodeName(device).constData(), &info);
    const QByteArray limit = QByteArray::number(major(info.st_rdev)) + ':' +
                             QByteArray::number(minor(info.st_rdev)) + ' ' +
                             QByteArray::number(rate);
    QDir().mkpath(kGroup);
    if (!writeText(kGroup + QStringLiteral("/blkio.throttle.read_bps_device"), limit) ||
        !writeText(kGroup + QStringLiteral("/cgroup.procs"), QByteArray::number(::getpid()))) {
        std::fprintf(stderr, "cannot limit the reads with a block I/O cgroup\n");
        cleanup();
        return 1;
    }

    qint64 stopCall = 0;
    qint64 longestGap = 0;
    qint64 ticks = 0;
    {
        CCreateJob job;
        job.Start(ImageBuild::Type::Joliet, root.filePath(QStringLiteral("out.iso")), {source});
        // Let the copy get under way, then stop it while the ticks are timed.
        QElapsedTimer clock;
        QTimer ticker;
        ticker.setInterval(10);
        ticker.setTimerType(Qt::PreciseTimer);
        qint64 last = -1;
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            const qint64 now = clock.nsecsElapsed() / 1000;
            if (last >= 0)
                longestGap = qMax(longestGap, now - last);
            last = now;
            ++ticks;
        });
        QTimer::singleShot(1500, [&] {
            clock.start();
            ticker.start();
            QElapsedTimer call;
            call.start();
            job.Stop();
            stopCall = call.nsecsElapsed() / 1000;
            // The timer's first tick is due 10 ms after its start: the gap
            // from the start to it counts too.
            last = 0;
            QTimer::singleShot(1000, &app, &QCoreApplication::quit);
        });
        app.exec();
    }
    std::printf(
        "read rate %lld KiB/s; Stop returned after %.1f ms; longest gap between 10 ms ticks "
        "%.1f ms (%lld ticks in the second after Stop)\n",
        rate / 1024, stopCall / 1000.0, longestGap / 1000.0, ticks);
    cleanup();
    return 0;
}
