#pragma once

#include <QObject>
#include <QString>

#include <functional>

// The one shape of every long piece of work Brenta runs: listing, extracting,
// building, creating and saving images, burning and copying discs, writing
// USB sticks. Each job is started by a Start() of its own (the arguments
// differ), tells its progress as a percentage with a phase text, and ends
// exactly once per start with finished(ok, message).
//
// The stop rule, the same for every job: Stop() asks the tool to end and
// returns at once; whatever the job had written is removed only after the
// tool has ended, and then finished(false, CJob::StoppedMessage()) comes, or
// the job's own account of what it removed.
class CJob : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CJob)

public:
    explicit CJob(QObject* parent = nullptr) : QObject(parent) {}

    virtual void Stop() = 0;
    bool IsRunning() const { return m_running; }
    // Stop() was called and the run's end has not come yet.
    bool IsStopping() const { return m_running && m_stopping; }

    // The last run's end, once finished() has come.
    bool Succeeded() const { return m_succeeded; }
    QString Message() const { return m_message; }

    // The last progress told: -1 while the share done cannot be told.
    int Percent() const { return m_percent; }
    QString PhaseText() const { return m_phase; }

    // A stopped run ends with a message that starts with StoppedMessage(),
    // followed by the job's account of what it removed, if anything.
    static QString StoppedMessage();
    static bool IsStoppedMessage(const QString& message);
    // What a stopped job that was writing an image says.
    static QString UnfinishedImageRemoved();

Q_SIGNALS:
    // `percent` is 0 to 100, or -1 while it cannot be told; `phase` says what
    // is being done ("Copying files (1 of 2)") and may be empty.
    void progressed(int percent, const QString& phase);
    void finished(bool ok, const QString& message);

protected:
    // A run begins: running, no result yet, no progress.
    void Begin();
    void Progress(int percent, const QString& phase);
    // Ends the run: sets the result and sends finished(); nothing when the
    // run has ended already, so a job never reports twice.
    void Finish(bool ok, const QString& message);
    // Finish() from the event loop, for an end found while starting, so that
    // a caller that starts and then waits always sees the signal.
    void FinishLater(bool ok, const QString& message);
    // For Stop(): marks the run as stopping and gives what ends it with
    // finished(false, message) from the event loop, to be called once the
    // tool has ended and what it wrote is gone. It may be called on any
    // thread; it does nothing once the job is gone or another run has begun.
    std::function<void()> EndStopped(const QString& message = StoppedMessage());

private:
    bool m_running = false;
    bool m_stopping = false;
    bool m_succeeded = false;
    QString m_message;
    int m_percent = -1;
    QString m_phase;
    int m_run = 0;
};

namespace Jobs {

// Runs an event loop until `job` has finished (at once when it is not
// running); returns Succeeded(). For the terminal forms and the tests.
bool Wait(CJob& job);

} // namespace Jobs
