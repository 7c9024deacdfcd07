// Whole create of a 2 GiB tree: genisoimage run directly on the source folder
// against Brenta's create job (copy into its staging folder, then build), and
// against the build alone, which is what the create page waits for when the
// copies made while the files were being added have already finished.
//
// Usage: bench_create [FOLDER]   (where to write; default a temporary folder)
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdio>

#include "iso/isojobs.h"

namespace {

double seconds(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

template <typename Job> void waitFor(Job& job)
{
    QEventLoop loop;
    QObject::connect(&job, &Job::finished, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("brenta-bench"));
    const QString base = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::tempPath();
    QTemporaryDir scratch(base + QStringLiteral("/bench-create-XXXXXX"));
    const QDir root(scratch.path());
    const QString source = root.filePath(QStringLiteral("tree"));

    // 2 GiB: eight files of 240 MiB and 2,000 files of 64 KiB in 20 folders.
    QRandomGenerator random(11);
    QByteArray block(4 * 1024 * 1024, Qt::Uninitialized);
    for (int i = 0; i < 8; ++i) {
        QDir().mkpath(source + QStringLiteral("/big"));
        QFile file(source + QStringLiteral("/big/part%1.bin").arg(i));
        file.open(QIODevice::WriteOnly);
        for (int j = 0; j < 60; ++j) {
            random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
            file.write(block);
        }
    }
    for (int i = 0; i < 2000; ++i) {
        const QString folder = source + QStringLiteral("/small/d%1").arg(i % 20);
        QDir().mkpath(folder);
        QFile file(folder + QStringLiteral("/f%1.dat").arg(i));
        file.open(QIODevice::WriteOnly);
        file.write(block.left(64 * 1024));
    }
    QProcess::execute(QStringLiteral("sync"), {});

    const auto timed = [](const std::function<void()>& work) {
        QElapsedTimer timer;
        timer.start();
        work();
        QProcess::execute(QStringLiteral("sync"), {});
        return seconds(timer);
    };

    const QString direct = root.filePath(QStringLiteral("direct.iso"));
    const double directSeconds = timed([&] {
        QProcess::execute(QStandardPaths::findExecutable(QStringLiteral("genisoimage")),
                          {QStringLiteral("-quiet"), QStringLiteral("-joliet"),
                           QStringLiteral("-R"), QStringLiteral("-joliet-long"),
                           QStringLiteral("-o"), direct, source});
    });
    QFile::remove(direct);

    const double buildSeconds = timed([&] {
        CBuildJob job;
        job.Start(ImageBuild::Type::Joliet, root.filePath(QStringLiteral("build.iso")), source);
        waitFor(job);
    });
    QFile::remove(root.filePath(QStringLiteral("build.iso")));

    const double wholeSeconds = timed([&] {
        CCreateJob job;
        job.Start(ImageBuild::Type::Joliet, root.filePath(QStringLiteral("whole.iso")),
                  {source + QStringLiteral("/big"), source + QStringLiteral("/small")});
        waitFor(job);
        if (!job.Succeeded())
            std::fprintf(stderr, "%s\n", qPrintable(job.Message()));
    });

    std::printf("genisoimage directly:            %6.2f s\n", directSeconds);
    std::printf("Brenta, build (copies done):     %6.2f s  (%.2f times)\n", buildSeconds,
                buildSeconds / directSeconds);
    std::printf("Brenta, copy and build:          %6.2f s  (%.2f times)\n", wholeSeconds,
                wholeSeconds / directSeconds);
    return 0;
}
