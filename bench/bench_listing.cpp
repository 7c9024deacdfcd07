// Measures the listing of large images: the archive tool's own listing time,
// Brenta's share on top of it (cutting lines, parsing, building the item tree,
// the folder tree and the root table), growth with size, filling the table for
// a folder of 100,000 files, and the item tree's memory per entry.
//
// Usage: bench_listing [SIZE...]   (default 10000 100000 200000)
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTableView>
#include <QTemporaryDir>
#include <QHeaderView>
#include <QTreeWidget>

#include <cstdio>
#include <malloc.h>

#include "iso/isojobs.h"
#include "iso/itemtree.h"
#include "iso/listing.h"
#include "tools/outputsplitter.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"
#include "ui/contentsview.h"
#include "ui/foldermodel.h"

namespace {

// One wide folder, or a balanced tree of 10 folders per level with 10 files
// in each leaf folder.
bool makeTree(const QString& root, int entries, bool wide)
{
    QDir dir(root);
    dir.mkpath(QStringLiteral("."));
    int made = 0;
    if (wide) {
        for (; made < entries; ++made) {
            QFile file(dir.filePath(QStringLiteral("file%1.dat").arg(made)));
            if (!file.open(QIODevice::WriteOnly))
                return false;
        }
        return true;
    }
    // Leaf folders a/b/c/... hold 10 files each.
    for (int leaf = 0; made < entries; ++leaf) {
        QString path;
        int n = leaf;
        for (int level = 0; level < 5; ++level) {
            path += QStringLiteral("d%1/").arg(n % 10);
            n /= 10;
        }
        dir.mkpath(path);
        for (int i = 0; i < 10 && made < entries; ++i, ++made) {
            QFile file(dir.filePath(path + QStringLiteral("f%1.txt").arg(i)));
            if (!file.open(QIODevice::WriteOnly))
                return false;
        }
    }
    return true;
}

double ms(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e6;
}

struct Figures
{
    double toolMs = 0;
    double brentaMs = 0;
    double endToEndMs = 0;
    qsizetype entries = 0;
    double bytesPerEntry = 0;
    double tableMs = 0;
};

Figures measure(const QString& image, QTableView& table, CFolderModel& model, QTreeWidget& tree)
{
    Figures figures;
    const QString tool = ToolLocator::Find(ToolLocator::Tool::Archive);

    // 1. The tool alone, its output read as fast as it comes.
    QElapsedTimer timer;
    timer.start();
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(tool, Listing::Arguments(image));
    QByteArray output;
    while (process.waitForReadyRead(-1))
        output += process.readAll();
    process.waitForFinished(-1);
    output += process.readAll();
    figures.toolMs = ms(timer);

    // The previous run's rows go first, outside the measurement.
    model.SetFolder(nullptr);
    tree.clear();

    // 2. Brenta's own work on that output: cutting, parsing, tree, views.
    const size_t before = mallinfo2().uordblks;
    timer.restart();
    ItemTree contents;
    contents.title = QStringLiteral("bench.iso");
    {
        OutputSplitter splitter;
        Listing::Reader reader(contents);
        const qsizetype chunk = 64 * 1024; // what a pipe read delivers
        for (qsizetype at = 0; at < output.size(); at += chunk) {
            for (const QString& line : splitter.Feed(output.mid(at, chunk)))
                reader.Feed(line);
        }
        for (const QString& line : splitter.Finish())
            reader.Feed(line);
    }
    const size_t after = mallinfo2().uordblks;
    ContentsView::FillTree(&tree, contents);
    QElapsedTimer tableTimer;
    tableTimer.start();
    model.SetFolder(&contents.Root());
    table.viewport()->repaint(); // what a person sees: the first screenful drawn
    figures.tableMs = ms(tableTimer);
    figures.brentaMs = ms(timer);
    figures.entries = contents.Count();
    figures.bytesPerEntry = figures.entries ? double(after - before) / double(figures.entries) : 0;

    // 3. End to end through the runner, as the page does it.
    model.SetFolder(nullptr);
    tree.clear();
    timer.restart();
    ItemTree viaRunner;
    CListJob job(viaRunner);
    QEventLoop loop;
    QObject::connect(&job, &CListJob::finished, &loop, &QEventLoop::quit);
    job.Start(image);
    loop.exec();
    ContentsView::FillTree(&tree, viaRunner);
    model.SetFolder(&viaRunner.Root());
    table.viewport()->repaint();
    figures.endToEndMs = ms(timer);
    return figures;
}

} // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication application(argc, argv);
    QList<int> sizes;
    for (int i = 1; i < argc; ++i)
        sizes << QString::fromLocal8Bit(argv[i]).toInt();
    if (sizes.isEmpty())
        sizes = {10000, 100000, 200000};

    QTableView table;
    CFolderModel model;
    table.setModel(&model);
    table.verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table.resize(431, 350);
    table.show();
    QTreeWidget tree;
    std::printf("%-6s %8s %8s %10s %10s %7s %12s %10s %9s\n", "shape", "entries", "tool ms",
                "brenta ms", "share %", "growth", "end-to-end", "table ms", "B/entry");
    // The first pass pays for loading fonts, icons and the MIME database; it
    // runs on a small image and is not reported.
    bool warmUp = true;
    for (const bool wide : {true, true, false}) {
        double previous = 0;
        for (const int size : warmUp ? QList<int>{100} : sizes) {
            QTemporaryDir scratch;
            const QString root = scratch.filePath(QStringLiteral("tree"));
            if (!makeTree(root, size, wide))
                return 1;
            const QString image = scratch.filePath(QStringLiteral("bench.iso"));
            QProcess builder;
            builder.start(QStandardPaths::findExecutable(QStringLiteral("genisoimage")),
                          {QStringLiteral("-quiet"), QStringLiteral("-J"), QStringLiteral("-R"),
                           QStringLiteral("-joliet-long"),
                           // Level 4 keeps the builder from mangling 8.3 names,
                           // which takes it quadratic time in a wide folder.
                           QStringLiteral("-iso-level"), QStringLiteral("4"), QStringLiteral("-o"),
                           image, root});
            builder.waitForFinished(-1);
            if (builder.exitCode() != 0) {
                std::fprintf(stderr, "genisoimage failed: %s\n",
                             builder.readAllStandardError().constData());
                return 1;
            }
            const Figures f = measure(image, table, model, tree);
            if (warmUp)
                continue;
            const double growth = previous > 0 ? f.brentaMs / previous : 0;
            std::printf("%-6s %8lld %8.0f %10.0f %9.1f%% %7.2f %12.0f %10.0f %9.0f\n",
                        wide ? "wide" : "deep", static_cast<long long>(f.entries), f.toolMs,
                        f.brentaMs, 100.0 * f.brentaMs / f.toolMs, growth, f.endToEndMs, f.tableMs,
                        f.bytesPerEntry);
            std::fflush(stdout);
            previous = f.brentaMs;
        }
        warmUp = false;
    }
    return 0;
}
