// Loading and saving an image of 4 GiB with 20,000 entries and one added file
// in the edit session, against the tools run directly: `7z l` listing the
// image, and xorriso run by hand with the save job's own arguments. Also the
// scratch space the session uses.
//
// Usage: bench_edit [FOLDER]   (where to write; default a temporary folder)
#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
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
#include <functional>
#include <unistd.h>
#include <vector>

#include "core/util.h"
#include "iso/editsession.h"
#include "iso/imagesave.h"
#include "iso/isoprobe.h"

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
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program),
                     tool.readAll().right(400).constData());
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

qint64 bytesBelow(const QString& dir)
{
    qint64 total = 0;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        total += it.fileInfo().size();
    }
    return total;
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

    // 4 GiB in 20,000 entries: 19,800 files of 212 KiB in 200 folders, each
    // file's bytes its own.
    QRandomGenerator random(5);
    QByteArray block(212 * 1024, Qt::Uninitialized);
    random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
    for (int i = 0; i < 19800; ++i) {
        const QString folder = source + QStringLiteral("/d%1").arg(i % 200);
        QDir().mkpath(folder);
        QFile file(folder + QStringLiteral("/file%1.bin").arg(i));
        file.open(QIODevice::WriteOnly);
        for (int at = 0; at + 4 <= block.size(); at += 4096)
            reinterpret_cast<quint32*>(block.data())[at / 4] = random.generate();
        file.write(block);
    }
    const QString xorriso = QStandardPaths::findExecutable(QStringLiteral("xorriso"));
    const QString archiver = QStandardPaths::findExecutable(QStringLiteral("7z"));
    const QString image = root.filePath(QStringLiteral("image.iso"));
    runTool(xorriso,
            {QStringLiteral("-as"), QStringLiteral("mkisofs"), QStringLiteral("-quiet"),
             QStringLiteral("-J"), QStringLiteral("-R"), QStringLiteral("-o"), image, source});
    QDir(source).removeRecursively();
    const QString addedFile = root.filePath(QStringLiteral("added.bin"));
    {
        QFile file(addedFile);
        file.open(QIODevice::WriteOnly);
        file.write(block);
    }
    std::printf("image: %.2f GiB\n", double(QFileInfo(image).size()) / (1 << 30));

    ImageSave::Change add;
    add.source = addedFile;
    add.path = QStringLiteral("added.bin");
    const std::vector<ImageSave::Change> changes{add};
    const IsoProbe::Trees trees = IsoProbe::Read(image);
    const QString saved = root.filePath(QStringLiteral("saved.iso"));

    std::vector<double> listing, loaded, byHand, job;
    qint64 scratchUsed = 0;
    for (int round = 0; round < 5; ++round) {
        listing.push_back(runTool(archiver, {QStringLiteral("l"), image}));

        const qint64 scratchBefore = bytesBelow(Util::ScratchDir());
        CEditSession session;
        ::sync();
        QElapsedTimer timer;
        timer.start();
        session.Load(image);
        waitUntil([&] { return session.IsLoaded() || !session.LoadProblem().isEmpty(); });
        loaded.push_back(seconds(timer));
        if (!session.LoadProblem().isEmpty())
            std::fprintf(stderr, "load failed: %s\n", qPrintable(session.LoadProblem()));
        scratchUsed = qMax(scratchUsed, bytesBelow(Util::ScratchDir()) - scratchBefore);

        // xorriso by hand and the save job take turns at going first.
        const auto direct = [&] {
            byHand.push_back(
                runTool(xorriso, ImageSave::SaveArguments(image, changes, saved, trees.joliet,
                                                          trees.rockRidge)));
            QFile::remove(saved);
        };
        if (round % 2 == 1)
            direct();
        CImageSaveJob save;
        bool finished = false;
        QObject::connect(&save, &CImageSaveJob::finished, [&] { finished = true; });
        ::sync();
        timer.restart();
        save.Start(image, changes, saved);
        waitUntil([&] { return finished; });
        job.push_back(seconds(timer));
        if (!save.Succeeded())
            std::fprintf(stderr, "save failed: %s\n", qPrintable(save.Message()));
        QFile::remove(saved);
        if (round % 2 == 0)
            direct();
    }
    // The way before, for comparison: the whole image extracted into a
    // working copy by 7-Zip, then the new image built from it by genisoimage.
    const QString copy = root.filePath(QStringLiteral("working-copy"));
    const double extract = runTool(
        archiver, {QStringLiteral("x"), QStringLiteral("-y"), QStringLiteral("-o") + copy, image});
    const qint64 copied = bytesBelow(copy);
    const double build = runTool(QStandardPaths::findExecutable(QStringLiteral("genisoimage")),
                                 {QStringLiteral("-quiet"), QStringLiteral("-J"),
                                  QStringLiteral("-R"), QStringLiteral("-o"), saved, copy});
    QFile::remove(saved);
    QDir(copy).removeRecursively();

    std::printf("before: working copy by 7-Zip  %.2f s, %lld bytes of scratch space\n", extract,
                copied);
    std::printf("before: genisoimage from it    %.2f s\n", build);
    std::printf("7z l:                          %.2f s %s\n", best(listing),
                qPrintable(all(listing)));
    std::printf("edit: tree usable after        %.2f s (%.2f x 7z l) %s\n", best(loaded),
                best(loaded) / best(listing), qPrintable(all(loaded)));
    std::printf("edit: scratch space used       %lld bytes\n", scratchUsed);
    std::printf("xorriso by hand:               %.2f s %s\n", best(byHand),
                qPrintable(all(byHand)));
    std::printf("save job:                      %.2f s (%.2f x by hand) %s\n", best(job),
                best(job) / best(byHand), qPrintable(all(job)));
    return 0;
}
