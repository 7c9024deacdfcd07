#pragma once

#include <QMutex>
#include <QStringList>
#include <QThread>
#include <QWaitCondition>

#include <atomic>
#include <list>

// Keeps a working copy of files up to date in the background: a worker thread
// with a queue of copy, delete and move jobs, carried out one at a time in
// arrival order. A page queues a job for every change and, before it builds an
// image, waits until RemainingBytes() reaches 0 or less.
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
    enum Mode { Copy = 0, Delete = 1, Move = 2, CopyAs = 3 };

    // Starts the worker at once.
    explicit CFileCopy(QObject* parent = nullptr);
    // Stops the worker (a copy under way is cut short) and waits for it.
    ~CFileCopy() override;

    void AddJob(const QString& source, const QString& target, int mode);
    // Removes the first queued job with exactly this source. A job under way
    // is not interrupted, but it no longer counts once it is removed.
    void RemoveJob(const QString& source);
    void ClearJobs();
    // Bytes still to copy for every queued job, the one under way included,
    // less what that one has copied; 0 or less means every job has ended.
    // Sizes are taken once, when a job is queued, so this never walks the disk.
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
                         std::atomic<qint64>* copied = nullptr, const std::atomic<bool>* abort = nullptr,
                         QString* error = nullptr);
    static bool CopyDir(const QString& sourceDir, const QString& targetParent,
                        std::atomic<qint64>* copied = nullptr, const std::atomic<bool>* abort = nullptr,
                        QStringList* failures = nullptr);
    static bool CopyDirContents(const QString& sourceDir, const QString& targetDir,
                                std::atomic<qint64>* copied = nullptr,
                                const std::atomic<bool>* abort = nullptr, QStringList* failures = nullptr);

    // The size a job's source counts for: a file's size, a folder's total
    // (links followed as the copy follows them), 0 when missing.
    static qint64 SourceSize(const QString& source);

protected:
    void run() override;

private:
    struct Job
    {
        quint64 id = 0;
        int mode = Copy;
        QString source;
        QString target;
        qint64 size = 0;
    };

    void Carry(const Job& job);

    mutable QMutex m_lock;
    QWaitCondition m_wake;
    std::list<Job> m_queue;
    quint64 m_nextId = 1;
    quint64 m_runningId = 0; // 0 when no job is under way
    std::atomic<bool> m_stop{false};
    std::atomic<qint64> m_copied{0};
    QStringList m_failures;
};
