// Measures how long the GUI thread's event loop stalls while a running tool is
// stopped: the longest gap between the ticks of a 10 ms timer, from just
// before the stop until the tool (and its children) have ended and the runner
// is gone. Two tools: one that ends when asked (SIGTERM) and one that ignores
// the request and has to be killed. Three ways to end a run: Dispose() (what a
// page does on Stop or Back), deleting the runner, and StopThen() (what a job
// does before it removes the tool's output; the time until the tool is gone
// includes the call that follows its end).
//
// Usage: bench_stall [ROUNDS]   (default 3; the worst round is reported)
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <sys/types.h>

#include "tools/runcommandthread.h"

namespace {

enum class Way
{
    Dispose,
    Delete,
    StopThen
};

const char* wayName(Way way)
{
    switch (way) {
    case Way::Dispose:
        return "Dispose()";
    case Way::Delete:
        return "delete";
    case Way::StopThen:
        return "StopThen()";
    }
    return "";
}

// Alive means running or stopped, not a zombie waiting for its parent.
bool alive(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray text = stat.readAll();
    const int close = text.lastIndexOf(')');
    return close > 0 && close + 2 < text.size() && text.at(close + 2) != 'Z';
}

qint64 readPid(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    return file.readAll().trimmed().toLongLong();
}

void spin(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

struct Figures
{
    qint64 longestGapMs = -1;
    qint64 endedAfterMs = -1; // until the tool and its child were gone
};

// One run: start the tool, wait for its first line, end the run the given
// way while the timer ticks, and wait until the tool is gone.
Figures measure(const QString& script, Way way)
{
    QTemporaryDir dir;
    const QString pidFile = dir.filePath(QStringLiteral("pid"));
    auto* runner = new CRunCommandThread;
    bool ready = false;
    QObject::connect(runner, &CRunCommandThread::standoutputline, runner,
                     [&ready] { ready = true; });
    runner->SetCommand(QStringLiteral("/bin/sh"),
                       {QStringLiteral("-c"), script, QStringLiteral("sh"), pidFile});
    runner->StartCommand();
    QElapsedTimer startWait;
    startWait.start();
    while (!(ready && readPid(pidFile + QStringLiteral(".child")) > 0) &&
           startWait.elapsed() < 10000)
        spin(10);
    const qint64 tool = readPid(pidFile);
    const qint64 child = readPid(pidFile + QStringLiteral(".child"));
    if (tool <= 0 || child <= 0) {
        std::fprintf(stderr, "the tool did not start\n");
        return {};
    }

    Figures figures;
    QElapsedTimer clock;
    qint64 lastTick = 0;
    QTimer ticker;
    ticker.setTimerType(Qt::PreciseTimer);
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        const qint64 now = clock.elapsed();
        figures.longestGapMs = qMax(figures.longestGapMs, now - lastTick);
        lastTick = now;
    });
    clock.start();
    ticker.start(10);
    spin(50);

    const qint64 stopAt = clock.elapsed();
    bool afterEnd = way != Way::StopThen;
    switch (way) {
    case Way::Dispose:
        CRunCommandThread::Dispose(runner);
        break;
    case Way::Delete:
        delete runner;
        runner = nullptr;
        break;
    case Way::StopThen:
        CRunCommandThread::StopThen(runner, [&afterEnd] { afterEnd = true; });
        break;
    }
    while ((alive(tool) || alive(child) || !afterEnd) && clock.elapsed() - stopAt < 10000)
        spin(5);
    figures.endedAfterMs = clock.elapsed() - stopAt;
    // Whatever the runner still does once the tool is gone (its thread ending,
    // a deferred deletion) counts as well.
    spin(300);
    ticker.stop();
    if (alive(tool) || alive(child))
        std::fprintf(stderr, "the tool outlived the stop\n");
    return figures;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false"));
    const int rounds = argc > 1 ? qMax(1, atoi(argv[1])) : 3;
    // $1 is the pid file; the child's pid goes to $1.child. A trap of "" is
    // inherited across exec, so the stubborn tool's child ignores SIGTERM too.
    const QString body = QStringLiteral("echo $$ >\"$1\"; sleep 600 & echo $! >\"$1.child\"; "
                                        "echo ready; while :; do sleep 1; done");
    const struct
    {
        const char* name;
        QString script;
    } tools[] = {
        {"tool that ends when asked", body},
        {"tool that ignores SIGTERM", QStringLiteral("trap '' TERM; ") + body},
    };

    std::printf("%-28s %-15s %16s %16s\n", "tool", "ended by", "longest gap ms", "tool gone ms");
    for (const auto& tool : tools) {
        for (const Way way : {Way::Dispose, Way::Delete, Way::StopThen}) {
            Figures worst;
            for (int round = 0; round < rounds; ++round) {
                const Figures figures = measure(tool.script, way);
                worst.longestGapMs = qMax(worst.longestGapMs, figures.longestGapMs);
                worst.endedAfterMs = qMax(worst.endedAfterMs, figures.endedAfterMs);
            }
            std::printf("%-28s %-15s %16lld %16lld\n", tool.name, wayName(way),
                        static_cast<long long>(worst.longestGapMs),
                        static_cast<long long>(worst.endedAfterMs));
        }
    }
    return 0;
}
