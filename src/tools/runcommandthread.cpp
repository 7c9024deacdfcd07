#include "tools/runcommandthread.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QProcessEnvironment>
#include <QTimer>

#include <csignal>
#include <utility>
#include <sys/prctl.h>
#include <sys/types.h>
#include <unistd.h>

#include "core/logging.h"
#include "core/util.h"
#include "tools/outputsplitter.h"

namespace {

// How long a tool may take to end after it was asked to, before it is killed.
constexpr int kTerminateGraceMs = 2000;

// Runners let go by StopThen() whose tool has not been seen to end yet. Only
// touched on the main thread, which owns every runner.
QList<CRunCommandThread*>& pendingEnds()
{
    static QList<CRunCommandThread*> runners;
    return runners;
}

} // namespace

CProcess::CProcess(QObject* parent) : QProcess(parent)
{
    const pid_t brenta = ::getpid();
    setChildProcessModifier([brenta] {
        // A group of its own: a stop reaches the tool's children too, and a
        // Ctrl+C in Brenta's terminal does not reach the tool behind Brenta's
        // back.
        ::setpgid(0, 0);
        // The tool never outlives Brenta, however Brenta ends. The signal comes
        // when the thread that started the tool ends; a runner's thread ends
        // only after its tool has. Brenta may have ended before the call.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != brenta)
            ::_exit(127);
    });
    // English messages and UTF-8 names, which the parsers read.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    setProcessEnvironment(environment);
}

void CProcess::OnTerminate()
{
    SignalGroup(SIGTERM);
}

void CProcess::Kill()
{
    SignalGroup(SIGKILL);
}

void CProcess::SignalGroup(int signal)
{
    const qint64 pid = processId();
    if (pid > 0)
        ::kill(-static_cast<pid_t>(pid), signal);
}

CRunCommandThread::CRunCommandThread(QObject* parent) : QThread(parent) {}

CRunCommandThread::~CRunCommandThread()
{
    // Owners let a running runner go through Dispose(), which does not wait;
    // a runner deleted outright must still not leave its tool behind.
    if (isRunning()) {
        Stop();
        wait();
    }
    if (m_input >= 0)
        ::close(m_input);
}

void CRunCommandThread::SetCommand(const QString& program, const QStringList& arguments)
{
    // The runner stays with the thread that created it (it is not moved to its
    // own thread): its signals are emitted there, which is what lets Stop()
    // drop lines that the tool wrote before the stop but the page has not seen.
    m_program = program;
    m_arguments = arguments;
}

void CRunCommandThread::SetInput(int descriptor)
{
    if (m_input >= 0)
        ::close(m_input);
    m_input = descriptor;
}

void CRunCommandThread::StartCommand(QThread::Priority priority)
{
    m_stopped = false;
    m_started = false;
    m_lastLines.clear();
    SetOutcome(Result::NotStarted, -1, QString());
    m_running = true;
    start(priority);
}

void CRunCommandThread::Dispose(CRunCommandThread*& runner)
{
    if (runner == nullptr)
        return;
    runner->Stop();
    // Connected before the check, so that a thread ending in between is not
    // missed; a second deleteLater() is harmless.
    connect(runner, &QThread::finished, runner, &QObject::deleteLater);
    if (!runner->isRunning())
        runner->deleteLater();
    runner = nullptr;
}

void CRunCommandThread::StopThen(CRunCommandThread*& runner, std::function<void()> afterEnd)
{
    if (runner == nullptr) {
        if (afterEnd)
            afterEnd();
        return;
    }
    CRunCommandThread* stopped = std::exchange(runner, nullptr);
    stopped->Stop();
    if (!stopped->isRunning()) {
        stopped->wait();
        stopped->deleteLater();
        if (afterEnd)
            afterEnd();
        return;
    }
    // An application that ends while tools are still being stopped waits for
    // them as it goes, so that what they wrote does not stay behind.
    static const bool registered = [] {
        qAddPostRoutine(&CRunCommandThread::FinishPendingEnds);
        return true;
    }();
    Q_UNUSED(registered)
    stopped->m_afterEnd = std::move(afterEnd);
    pendingEnds().append(stopped);
    connect(stopped, &QThread::finished, stopped, &CRunCommandThread::OnEnded);
    // The thread may have ended before the connection.
    if (!stopped->isRunning())
        QMetaObject::invokeMethod(stopped, &CRunCommandThread::OnEnded, Qt::QueuedConnection);
}

void CRunCommandThread::OnEnded()
{
    if (!pendingEnds().removeOne(this))
        return;
    // finished() comes just before the thread is gone; the tool already is.
    wait();
    const std::function<void()> afterEnd = std::exchange(m_afterEnd, {});
    deleteLater();
    if (afterEnd)
        afterEnd();
}

void CRunCommandThread::FinishPendingEnds()
{
    while (!pendingEnds().isEmpty()) {
        CRunCommandThread* runner = pendingEnds().takeFirst();
        runner->wait();
        const std::function<void()> afterEnd = std::exchange(runner->m_afterEnd, {});
        delete runner;
        if (afterEnd)
            afterEnd();
    }
}

void CRunCommandThread::Stop()
{
    qCDebug(lcTools) << "stop" << m_program;
    if (m_stopped.exchange(true))
        return;
    m_running = false;
    // The worker sees either the flag (before its tool is reachable here) or
    // this request; should it see both, ending the tool twice is harmless.
    QMutexLocker locker(&m_processMutex);
    if (m_process != nullptr) {
        CProcess* process = m_process;
        QMetaObject::invokeMethod(
            process, [this, process] { OnTerminateProcess(*process); }, Qt::QueuedConnection);
    }
}

CRunCommandThread::Result CRunCommandThread::GetResult() const
{
    QMutexLocker locker(&m_outcomeMutex);
    if (m_stopped.load() && m_result == Result::NotStarted)
        return Result::Stopped;
    return m_result;
}

bool CRunCommandThread::Started() const
{
    return m_started.load();
}

int CRunCommandThread::ExitCode() const
{
    QMutexLocker locker(&m_outcomeMutex);
    return m_exitCode;
}

QString CRunCommandThread::ErrorText() const
{
    QMutexLocker locker(&m_outcomeMutex);
    return m_errorText;
}

QString CRunCommandThread::FailureText(const QString& toolName) const
{
    const Result result = GetResult();
    if (result == Result::StartFailed) {
        if (m_program.isEmpty())
            return QStringLiteral("%1 was not found. Please install it and try again.")
                .arg(toolName);
        return QStringLiteral("%1 could not be started (%2).").arg(toolName, ErrorText());
    }
    if (result == Result::Stopped)
        return QStringLiteral("Stopped.");

    QStringList quoted;
    for (const QString& line : m_lastLines) {
        if (line.contains(QLatin1String("ERROR"), Qt::CaseInsensitive))
            quoted << line.trimmed();
    }
    if (quoted.isEmpty()) {
        for (const QString& line : m_lastLines.mid(qMax<qsizetype>(0, m_lastLines.size() - 3)))
            quoted << line.trimmed();
    }
    QString text;
    if (result == Result::Crashed)
        text = QStringLiteral("%1 ended unexpectedly.").arg(toolName);
    else if (result == Result::Failed)
        text = QStringLiteral("%1 failed (exit status %2).").arg(toolName).arg(ExitCode());
    else
        text = QStringLiteral("%1 did not finish its work.").arg(toolName);
    if (!quoted.isEmpty())
        text += QStringLiteral(" It said: \"%1\"").arg(quoted.join(QStringLiteral(" / ")));
    return text;
}

QString CRunCommandThread::CommandLineText(const QString& program, const QStringList& arguments)
{
    QString text = program + QLatin1Char(' ');
    for (const QString& argument : arguments)
        text += argument + QLatin1Char(' ');
    return text;
}

void CRunCommandThread::SetOutcome(Result result, int exitCode, const QString& errorText)
{
    QMutexLocker locker(&m_outcomeMutex);
    m_result = result;
    m_exitCode = exitCode;
    m_errorText = errorText;
}

void CRunCommandThread::run()
{
    m_terminating = false;
    OutputSplitter splitter;
    CProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    // A tool that asks a question reads end-of-file instead of waiting forever.
    // A given descriptor is opened again through /proc, which for a pipe
    // yields the same pipe.
    process.setStandardInputFile(m_input >= 0 ? QStringLiteral("/proc/self/fd/%1").arg(m_input)
                                              : QProcess::nullDevice());

    process.start(m_program, m_arguments, QIODevice::ReadOnly);
    // The tool holds its own copy now: the pipe's writer sees it end when the
    // tool does.
    if (m_input >= 0) {
        ::close(m_input);
        m_input = -1;
    }
    qCDebug(lcTools) << "run" << m_program << m_arguments;
    Util::WriteLog(CommandLineText(m_program, m_arguments));

    if (!process.waitForStarted(-1)) {
        sloterrorstart(process);
        DeliverEnd();
        return;
    }
    m_started = true;

    // The process object lives on this thread, so its signals arrive here,
    // from this thread's event loop.
    connect(&process, &QProcess::readyReadStandardOutput, &process,
            [this, &process, &splitter] { onReadOutput(process, splitter); });
    connect(&process, &QProcess::finished, &process,
            [this, &process, &splitter] { onFinished(process, splitter); });
    {
        QMutexLocker locker(&m_processMutex);
        m_process = &process;
    }
    if (m_stopped.load())
        OnTerminateProcess(process);
    // Output that came before the connection is read at the loop's start.
    QMetaObject::invokeMethod(
        &process, [this, &process, &splitter] { onReadOutput(process, splitter); },
        Qt::QueuedConnection);
    exec();
    {
        QMutexLocker locker(&m_processMutex);
        m_process = nullptr;
    }
}

void CRunCommandThread::onReadOutput(CProcess& process, OutputSplitter& splitter)
{
    const QByteArray bytes = process.readAll();
    // Once the tool was asked to end, what it still writes is read and
    // dropped, so that it never blocks on a full pipe.
    if (!m_terminating && !m_stopped.load())
        Deliver(splitter.Feed(bytes));
}

void CRunCommandThread::onFinished(CProcess& process, OutputSplitter& splitter)
{
    if (m_terminating || m_stopped.load()) {
        // The tool ended; children that ignored the request go now.
        process.Kill();
        SetOutcome(Result::Stopped, -1, QStringLiteral("Stopped."));
        quit();
        return;
    }
    Deliver(splitter.Feed(process.readAll()));
    Deliver(splitter.Finish());
    if (process.exitStatus() == QProcess::CrashExit) {
        SetOutcome(Result::Crashed, -1, QStringLiteral("%1 ended unexpectedly.").arg(m_program));
    } else if (process.exitCode() != 0) {
        SetOutcome(
            Result::Failed, process.exitCode(),
            QStringLiteral("%1 ended with exit status %2.").arg(m_program).arg(process.exitCode()));
    } else {
        SetOutcome(Result::Success, 0, QString());
    }
    DeliverEnd();
    quit();
}

void CRunCommandThread::OnTerminateProcess(CProcess& process)
{
    if (m_terminating)
        return;
    m_terminating = true;
    SetOutcome(Result::Stopped, -1, QStringLiteral("Stopped."));
    if (process.state() == QProcess::NotRunning) {
        quit();
        return;
    }
    process.OnTerminate();
    // A tool that ignores the request is killed; its end then comes through
    // finished() as well.
    QTimer::singleShot(kTerminateGraceMs, &process, [&process] { process.Kill(); });
}

void CRunCommandThread::sloterrorstart(const CProcess& process)
{
    const QString reason =
        m_program.isEmpty()
            ? QStringLiteral("The tool was not found.")
            : QStringLiteral("%1 could not be started: %2").arg(m_program, process.errorString());
    qCDebug(lcTools) << "cannot start" << m_program << process.error();
    Util::WriteLog(QStringLiteral("CRunCommandThread::sloterrorstart ") + reason);
    SetOutcome(Result::StartFailed, -1, reason);
}

void CRunCommandThread::Deliver(const QStringList& lines)
{
    if (lines.isEmpty())
        return;
    for (const QString& line : lines)
        Util::WriteLog(line);
    QMetaObject::invokeMethod(
        this,
        [this, lines] {
            if (m_stopped.load())
                return;
            Q_EMIT standoutputlines(lines);
            for (const QString& line : lines) {
                if (m_stopped.load())
                    return;
                m_lastLines.append(line);
                if (m_lastLines.size() > KeptLines)
                    m_lastLines.removeFirst();
                Q_EMIT standoutputline(line);
            }
        },
        Qt::QueuedConnection);
}

void CRunCommandThread::DeliverEnd()
{
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_stopped.load())
                return;
            m_running = false;
            Q_EMIT sigfinished();
        },
        Qt::QueuedConnection);
}
