// Loading and saving an image of 2 GiB with 20,000 entries in the edit
// session, against the tools run directly: 7-Zip extracting the image, and
// genisoimage building from the working copy with the same arguments.
//
// Usage: bench_edit [FOLDER]   (where to write; default a temporary folder)
// The working copy goes below $XDG_DATA_HOME; put both on a tmpfs to measure
// without the disk's noise.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <vector>

#include "iso/bootsetup.h"
#include "iso/editsession.h"
#include "iso/imagebuild.h"

namespace {

double seconds(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

double runTool(const QString& program, const QStringList& arguments)
{
    // Every run starts with nothing left to write back, so none pays for the one before.
    ::sync();
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    QElapsedTimer timer;
    timer.start();
    tool.start(program, arguments);
    tool.waitForFinished(-1);
    const double elapsed = seconds(timer);
    if (tool.exitCode() != 0)
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program), tool.readAll().right(400).constData());
    return elapsed;
}

void waitUntil(const std::function<bool()>& done)
{
    while (!done()) {
        QEventLoop loop;
        QTimer::singleShot(2, &loop, &QEventLoop::quit);
        loop.exec();
    }
}

// The best of several runs: on a shared machine the spread comes from the
// disk and the memory manager, not from the work measured.
double best(const std::vector<double>& values)
{
    return *std::min_element(values.begin(), values.end());
}

QString all(const std::vector<double>& values)
{
    QStringList texts;
    for (double value : values)
        texts << QString::number(value, 'f', 2);
    return QStringLiteral("(") + texts.join(QStringLiteral(", ")) + QStringLiteral(")");
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("brenta-bench"));
    const QString base = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QDir::tempPath();
    QTemporaryDir scratch(base + QStringLiteral("/bench-edit-XXXXXX"));
    const QDir root(scratch.path());
    const QString source = root.filePath(QStringLiteral("tree"));

    // 2 GiB in 20,000 entries: 19,800 files of about 100 KiB in 200 folders.
    QRandomGenerator random(5);
    QByteArray block(108 * 1024, Qt::Uninitialized);
    for (int i = 0; i < 19800; ++i) {
        const QString folder = source + QStringLiteral("/d%1").arg(i % 200);
        QDir().mkpath(folder);
        QFile file(folder + QStringLiteral("/file%1.bin").arg(i));
        file.open(QIODevice::WriteOnly);
        random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
        file.write(block);
    }
    const QString builder = QStandardPaths::findExecutable(QStringLiteral("genisoimage"));
    const QString archiver = QStandardPaths::findExecutable(QStringLiteral("7z"));
    const QString image = root.filePath(QStringLiteral("image.iso"));
    runTool(builder, {QStringLiteral("-quiet"), QStringLiteral("-J"), QStringLiteral("-R"), QStringLiteral("-o"),
                      image, source});
    std::printf("image: %.2f GiB\n", double(QFileInfo(image).size()) / (1 << 30));

    std::vector<double> direct, listed, ready, save, build;
    for (int round = 0; round < 5; ++round) {
        const QString out = root.filePath(QStringLiteral("direct"));
        direct.push_back(runTool(archiver, {QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-o") + out,
                                            image}));
        QDir(out).removeRecursively();
        ::sync();

        CEditSession session;
        ::sync();
        QElapsedTimer timer;
        timer.start();
        session.Load(image);
        waitUntil([&] { return !session.IsListing(); });
        listed.push_back(seconds(timer));
        waitUntil([&] { return session.IsReady() || !session.LoadProblem().isEmpty(); });
        ready.push_back(seconds(timer));

        const QString saved = root.filePath(QStringLiteral("saved.iso"));
        bool finished = false;
        QObject::connect(&session, &CEditSession::saveFinished, [&](bool ok, const QString& message) {
            finished = true;
            if (!ok)
                std::fprintf(stderr, "save failed: %s\n", qPrintable(message));
        });
        // The direct build and the save take turns at going first.
        const QStringList arguments = ImageBuild::EditArguments(session.Label(), {}, saved, session.WorkingCopy(), {});
        if (round % 2 == 1) {
            build.push_back(runTool(builder, arguments));
            QFile::remove(saved);
        }
        ::sync();
        timer.restart();
        session.Save(saved);
        waitUntil([&] { return finished; });
        save.push_back(seconds(timer));
        QFile::remove(saved);
        if (round % 2 == 0) {
            build.push_back(runTool(builder, arguments));
            QFile::remove(saved);
        }
    }
    std::printf("7-Zip extracting directly:        %.2f s %s\n", best(direct), qPrintable(all(direct)));
    std::printf("edit: browsable after             %.2f s %s\n", best(listed), qPrintable(all(listed)));
    std::printf("edit: working copy complete after %.2f s (%.2f x 7-Zip) %s\n", best(ready),
                best(ready) / best(direct), qPrintable(all(ready)));
    std::printf("genisoimage on the working copy:  %.2f s %s\n", best(build), qPrintable(all(build)));
    std::printf("edit: save                        %.2f s (%.2f x genisoimage) %s\n", best(save),
                best(save) / best(build), qPrintable(all(save)));
    return 0;
}
