#pragma once

#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <functional>
#include <list>
#include <memory>

// Keeps a working copy of files up to date in the background: a worker thread
// with a queue of copy, delete and move jobs, carried out one at a time in
// arrival order. A page queues a job for every change and, before it builds an
// image, waits for idle() (or finds RemainingBytes() at 0 or less already).
// Sizes of folders are walked on the worker, never on the caller's thread.
//
// Symbolic links are followed, so the copy holds what the user sees; a link
// that leads back to one of its own parent folders is left out (and reported),
// so a looping tree never recurses endlessly.
class CFileCopy final : public QThread
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CFileCopy)

public:
    // Copy puts a folder into the target folder under its own name; CopyAs
    // makes the target path itself the copy, whatever the source is called.
    enum Mode
    {
        Copy = 0,
        Delete = 1,
        Move = 2,
        CopyAs = 3
    };

    // Starts the worker at once.
    explicit CFileCopy(QObject* parent = nullptr);
    // Stops the worker (a copy under way is cut short) and waits for it.
    ~CFileCopy() override;

    // Stops a worker without waiting for it: `afterwards` (may be empty) runs
    // on the worker's thread once it has ended, then the worker deletes
    // itself. A copy under way ends within one piece, a few MiB.
    static void Retire(std::unique_ptr<CFileCopy> worker, std::function<void()> afterwards);
    // Waits until every retired worker has ended and its `afterwards` has
    // run: for a process about to exit, which has no window to keep live.
    static void WaitForRetired();

    void AddJob(const QString& source, const QString& target, int mode);
    // Removes the first queued job with exactly this source. A job under way
    // is not interrupted, but it no longer counts once it is removed.
    void RemoveJob(const QString& source);
    void ClearJobs();
    // Bytes still to copy for every queued job, the one under way included,
    // less what that one has copied; 0 or less means every job has ended.
    // The worker takes each copy's size before it begins the next job, so
    // this never walks the disk; a job not sized yet keeps it above 0.
    qint64 RemainingBytes() const;
    void ResetCopiedBytes() { m_copied = 0; }
    // Ends the worker after the job under way; queued jobs are dropped.
    void Stop();
    // Files that could not be copied (unreadable, unwritable, looping links),
    // with the reason, since the worker was created or last asked.
    QStringList TakeFailures();

    // Copy helpers, usable without a worker. `copied` (optional) grows by the
    // bytes written; `abort` (optional) cuts a copy short when it turns true.
    static bool CopyFile(const QString& source, const QString& target,
                         std::atomic<qint64>* copied = nullptr,
                         const std::atomic<bool>* abort = nullptr, QString* error = nullptr);
    static bool CopyDir(const QString& sourceDir, const QString& targetParent,
                        std::atomic<qint64>* copied = nullptr,
                        const std::atomic<bool>* abort = nullptr, QStringList* failures = nullptr);
    static bool CopyDirContents(const QString& sourceDir, const QString& targetDir,
                                std::atomic<qint64>* copied = nullptr,
                                const std::atomic<bool>* abort = nullptr,
                                QStringList* failures = nullptr);

    // The size a job's source counts for: a file's size, a folder's total
    // (links followed as the copy follows them), 0 when missing.
    static qint64 SourceSize(const QString& source);

Q_SIGNALS:
    // From the worker, a few times a second while it copies and whenever
    // jobs have been sized: RemainingBytes() at that moment.
    void progress(qint64 remaining);
    // From the worker, once each time the queue runs empty after jobs were
    // added, however many there were.
    void idle();

protected:
    void run() override;

private:
    struct Job
    {
        quint64 id = 0;
        int mode = Copy;
        QString source;
        QString target;
        qint64 size = 0; // -1 until the worker has walked the source
    };

    void Carry(const Job& job);
    // Sizes the queued copies not sized yet; false when there were none.
    bool SizeJobs();
    // Emits progress() when the last one is long enough ago.
    void Tick();
    void CopyDirInto(const QString& sourceDir, const QString& targetDir, QStringList* failures,
                     const std::function<void()>& tick);

    mutable QMutex m_lock;
    QWaitCondition m_wake;
    std::list<Job> m_queue;
    quint64 m_nextId = 1;
    quint64 m_runningId = 0; // 0 when no job is under way
    bool m_busy = false;     // jobs were added since the last idle()
    bool m_ended = false;    // run() has returned
    bool m_retired = false;
    std::function<void()> m_afterwards;
    qint64 m_lastTick = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<qint64> m_copied{0};
    QStringList m_failures;
};
