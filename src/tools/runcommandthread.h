#pragma once

#include <QMutex>
#include <QProcess>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <functional>

class OutputSplitter;

// The process object of one tool run. The tool is started in a process group
// of its own, so that stopping it also stops whatever the tool started, is
// killed if Brenta ends before it (even by SIGKILL), and speaks English with
// UTF-8 names (LC_ALL=C.UTF-8).

class CProcess final : public QProcess
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CProcess)

public:
    explicit CProcess(QObject* parent = nullptr);

    // Asks the tool and its children to end (SIGTERM to the process group).
    void OnTerminate();
    // Ends the tool and its children at once (SIGKILL to the process group).
    void Kill();

private:
    void SignalGroup(int signal);
};

// Runs one external tool on a worker thread and streams its output as lines.
//
// Standard error is merged into standard output. Output is cut at line feeds,
// carriage returns and runs of backspaces (OutputSplitter); every non-blank
// line is logged and emitted as standoutputline() on the thread that created
// the runner, in the tool's order. sigfinished() follows the last line, exactly
// once, also when the tool could not be started (then without any line).
// After Stop() nothing more is emitted, and the tool is stopped: asked to end,
// and killed with its children if it has not ended two seconds later.
//
// The worker thread waits on its own event loop for the tool's output and end.
// Stopping never waits on the caller's thread: Stop() and Dispose() return at
// once, and the worker thread ends the tool (the grace period included) and
// ends itself only once the tool has. The worker thread stays until then
// because the tool is bound to the thread that started it (see CProcess).
//
// What happened stays readable afterwards: GetResult(), Started(), ExitCode(),
// ErrorText() and the last lines of output, so that a page can tell success
// from failure and quote the tool.
class CRunCommandThread final : public QThread
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CRunCommandThread)

public:
    enum class Result
    {
        NotStarted,  // StartCommand() was not called yet, or the run is under way
        Success,     // the tool ended by itself with exit status 0
        Failed,      // the tool ended by itself with another exit status
        Crashed,     // the tool was ended by a signal it did not ask for
        StartFailed, // the tool could not be started (missing, not executable)
        Stopped,     // Stop() was called before the end was reported
    };

    static constexpr int KeptLines = 20;

    explicit CRunCommandThread(QObject* parent = nullptr);
    // A runner deleted while its tool still runs waits for the tool to end,
    // for up to the grace period: owners let runners go through Dispose() or
    // StopThen() instead.
    ~CRunCommandThread() override;

    void SetCommand(const QString& program, const QStringList& arguments);
    // The tool reads its standard input from `descriptor` (such as the read
    // end of a pipe the caller writes into) instead of from nothing. The runner
    // takes the descriptor over and closes it once the tool is started.
    void SetInput(int descriptor);
    void StartCommand(QThread::Priority priority = QThread::InheritPriority);
    // Stops the run: returns at once; no line and no sigfinished() after it.
    // The tool is ended on the worker thread.
    void Stop();

    bool IsRunning() const { return m_running.load(); }
    Result GetResult() const;
    bool Started() const;
    int ExitCode() const;
    QString ErrorText() const;
    QStringList LastLines() const { return m_lastLines; }
    QString Program() const { return m_program; }
    QStringList Arguments() const { return m_arguments; }

    // A plain account of a run that did not succeed: what happened, and the
    // tool's own words (its error lines, or else its last lines).
    QString FailureText(const QString& toolName) const;

    // Stops a runner that may still run and lets it go without waiting: it
    // deletes itself once its tool and its thread have ended. The pointer is
    // set to null.
    static void Dispose(CRunCommandThread*& runner);
    // Stops a runner and lets it go without waiting, like Dispose(); once its
    // tool has ended, `afterEnd` runs on this thread. For callers that remove
    // what the tool was writing, which it must not write again afterwards.
    // Should the application end first, its end waits for the tool and runs
    // `afterEnd` then. With no runner, or one whose tool has already ended,
    // `afterEnd` runs at once. The pointer is set to null.
    static void StopThen(CRunCommandThread*& runner, std::function<void()> afterEnd);
    // The command line as logged: the program and every argument, each followed
    // by a blank.
    static QString CommandLineText(const QString& program, const QStringList& arguments);

Q_SIGNALS:
    void standoutputline(const QString& line);
    // The same lines in the batches they were read in, just before their
    // standoutputline() signals: cheaper for a consumer of long listings.
    void standoutputlines(const QStringList& lines);
    void sigfinished();

protected:
    void run() override;

private:
    // These run on the worker thread.
    void onReadOutput(CProcess& process, OutputSplitter& splitter);
    void onFinished(CProcess& process, OutputSplitter& splitter);
    void OnTerminateProcess(CProcess& process);
    void sloterrorstart(const CProcess& process);
    // On the owner's thread: the worker thread of a runner let go by
    // StopThen() has ended.
    void OnEnded();
    static void FinishPendingEnds();
    void Deliver(const QStringList& lines);
    void DeliverEnd();
    void SetOutcome(Result result, int exitCode, const QString& errorText);

    QString m_program;
    QStringList m_arguments;
    int m_input = -1;
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_started{false};

    // The running tool's process object, owned by the worker thread; the
    // mutex lets Stop() reach it from the caller's thread.
    QMutex m_processMutex;
    CProcess* m_process = nullptr;
    // Only touched on the worker thread: the tool was asked to end.
    bool m_terminating = false;

    mutable QMutex m_outcomeMutex;
    Result m_result = Result::NotStarted;
    int m_exitCode = -1;
    QString m_errorText;

    // Only touched on the creator's thread.
    QStringList m_lastLines;
    std::function<void()> m_afterEnd;
};
