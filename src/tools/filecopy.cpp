#include "tools/filecopy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QSet>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "app/util.h"

namespace {

// The kernel copies this much at a time; the abort flag is looked at between
// chunks. No user-space buffer is needed, so a worker's memory stays fixed.
// Large requests let the kernel copy at the disk's speed (small ones cost
// half of it); at that speed a stop still takes effect within a second.
constexpr qint64 kChunk = 512 * 1024 * 1024;

// Fallback for file systems that cannot copy in the kernel.
constexpr qint64 kBufferSize = 256 * 1024;

bool copyContents(int in, int out, std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                  QString* error)
{
    bool kernel = true;
    std::unique_ptr<char[]> buffer;
    ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (;;) {
        if (abort && abort->load()) {
            *error = QStringLiteral("stopped");
            return false;
        }
        ssize_t done = -1;
        if (kernel) {
            done = ::copy_file_range(in, nullptr, out, nullptr, static_cast<size_t>(kChunk), 0);
            if (done < 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
                kernel = false;
                continue;
            }
        } else {
            if (!buffer)
                buffer = std::make_unique<char[]>(kBufferSize);
            done = ::read(in, buffer.get(), kBufferSize);
            if (done > 0) {
                for (ssize_t written = 0; written < done;) {
                    const ssize_t step = ::write(out, buffer.get() + written, static_cast<size_t>(done - written));
                    if (step < 0) {
                        if (errno == EINTR)
                            continue;
                        *error = QString::fromLocal8Bit(strerror(errno));
                        return false;
                    }
                    written += step;
                }
            }
        }
        if (done < 0) {
            if (errno == EINTR)
                continue;
            *error = QString::fromLocal8Bit(strerror(errno));
            return false;
        }
        if (done == 0)
            return true;
        if (copied)
            *copied += done;
    }
}

bool copyDirContents(const QString& sourceDir, const QString& targetDir, std::atomic<qint64>* copied,
                     const std::atomic<bool>* abort, QStringList* failures, QSet<QString>& chain)
{
    // A folder that cannot be read would list as empty and come out empty
    // without a word; it is reported instead.
    if (DIR* folder = ::opendir(QFile::encodeName(sourceDir).constData())) {
        ::closedir(folder);
    } else {
        if (failures)
            *failures << QStringLiteral("%1: %2").arg(sourceDir,
                                                      QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    if (!QDir().mkpath(targetDir)) {
        if (failures)
            *failures << QStringLiteral("%1: cannot create the folder").arg(targetDir);
        return false;
    }
    const QString canonical = QFileInfo(sourceDir).canonicalFilePath();
    chain.insert(canonical);
    bool ok = true;
    const QFileInfoList entries =
        // System entries are listed too, so that a broken link, a socket or a
        // device file is reported as not copied instead of vanishing silently.
        QDir(sourceDir).entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::System |
                                          QDir::NoDotAndDotDot,
                                      QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& entry : entries) {
        if (abort && abort->load()) {
            ok = false;
            break;
        }
        const QString target = targetDir + QLatin1Char('/') + entry.fileName();
        if (entry.isDir()) {
            if (chain.contains(entry.canonicalFilePath())) {
                if (failures)
                    *failures << QStringLiteral("%1: a link back to one of its own folders, left out")
                                     .arg(entry.filePath());
                continue;
            }
            ok = copyDirContents(entry.filePath(), target, copied, abort, failures, chain) && ok;
        } else {
            QString error;
            if (!entry.isFile())
                error = entry.isSymLink() ? QStringLiteral("a link to nothing") : QStringLiteral("not a file");
            else if (CFileCopy::CopyFile(entry.filePath(), target, copied, abort, &error))
                continue;
            ok = false;
            if (failures)
                *failures << QStringLiteral("%1: %2").arg(entry.filePath(), error);
        }
    }
    chain.remove(canonical);
    return ok;
}

qint64 sourceSize(const QFileInfo& info, QSet<QString>& chain)
{
    if (!info.exists())
        return 0;
    if (!info.isDir())
        return info.size();
    const QString canonical = info.canonicalFilePath();
    if (chain.contains(canonical))
        return 0;
    chain.insert(canonical);
    qint64 total = 0;
    const QFileInfoList entries =
        QDir(info.filePath()).entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries)
        total += sourceSize(entry, chain);
    chain.remove(canonical);
    return total;
}

} // namespace

CFileCopy::CFileCopy(QObject* parent) : QThread(parent)
{
    start(QThread::InheritPriority);
}

CFileCopy::~CFileCopy()
{
    Stop();
    wait();
}

void CFileCopy::AddJob(const QString& source, const QString& target, int mode)
{
    Job job;
    job.mode = mode;
    job.source = source;
    job.target = target;
    // Only copies count; deleting or renaming has no bytes to wait for.
    job.size = (mode == Copy || mode == CopyAs) ? SourceSize(source) : 0;
    QMutexLocker locker(&m_lock);
    job.id = m_nextId++;
    m_queue.push_back(std::move(job));
    m_wake.wakeOne();
}

void CFileCopy::RemoveJob(const QString& source)
{
    QMutexLocker locker(&m_lock);
    for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
        if (it->source == source) {
            m_queue.erase(it);
            return;
        }
    }
}

void CFileCopy::ClearJobs()
{
    QMutexLocker locker(&m_lock);
    m_queue.clear();
}

qint64 CFileCopy::RemainingBytes() const
{
    QMutexLocker locker(&m_lock);
    qint64 total = 0;
    bool runningQueued = false;
    for (const Job& job : m_queue) {
        total += job.size;
        runningQueued = runningQueued || job.id == m_runningId;
    }
    // What the job under way copied counts only while that job counts; the
    // count goes back to 0 when a job ends, so a finished job never makes
    // the next one look done before it has begun.
    const qint64 remaining = runningQueued ? total - m_copied.load() : total;
    // A job is done when it has ended, not when its last byte is written: an
    // empty folder or a delete may still be to come. So while any job is
    // queued the figure stays above zero.
    return m_queue.empty() ? remaining : qMax<qint64>(remaining, 1);
}

void CFileCopy::Stop()
{
    QMutexLocker locker(&m_lock);
    m_stop = true;
    m_wake.wakeAll();
}

QStringList CFileCopy::TakeFailures()
{
    QMutexLocker locker(&m_lock);
    return std::exchange(m_failures, {});
}

void CFileCopy::run()
{
    for (;;) {
        Job job;
        {
            QMutexLocker locker(&m_lock);
            while (m_queue.empty() && !m_stop)
                m_wake.wait(&m_lock);
            if (m_stop)
                return;
            job = m_queue.front();
            m_runningId = job.id;
            m_copied = 0;
        }
        Carry(job);
        QMutexLocker locker(&m_lock);
        // Remove the job just carried out, by identity: if it was removed
        // meanwhile, no other job goes in its place.
        for (auto it = m_queue.begin(); it != m_queue.end(); ++it) {
            if (it->id == job.id) {
                m_queue.erase(it);
                break;
            }
        }
        m_runningId = 0;
        m_copied = 0;
    }
}

void CFileCopy::Carry(const Job& job)
{
    const QFileInfo info(job.source);
    const bool isFile = info.isFile();
    QStringList failures;
    switch (job.mode) {
    case Copy:
        if (isFile) {
            QString error;
            if (!CopyFile(job.source, job.target, &m_copied, &m_stop, &error))
                failures << QStringLiteral("%1: %2").arg(job.source, error);
        } else if (info.exists()) {
            CopyDir(job.source, job.target, &m_copied, &m_stop, &failures);
        } else {
            failures << QStringLiteral("%1: no longer exists").arg(job.source);
        }
        break;
    case CopyAs:
        if (isFile) {
            QString error;
            if (!CopyFile(job.source, job.target, &m_copied, &m_stop, &error))
                failures << QStringLiteral("%1: %2").arg(job.source, error);
        } else if (info.exists()) {
            CopyDirContents(job.source, job.target, &m_copied, &m_stop, &failures);
        } else {
            failures << QStringLiteral("%1: no longer exists").arg(job.source);
        }
        break;
    case Delete:
        if (isFile || info.isSymLink())
            QFile::remove(job.source);
        else
            Util::RemoveDir(job.source, true);
        break;
    case Move:
        QDir().rename(job.source, job.target);
        break;
    default:
        break;
    }
    if (failures.isEmpty())
        return;
    for (const QString& failure : std::as_const(failures))
        Util::WriteLog(QStringLiteral("CFileCopy: ") + failure);
    QMutexLocker locker(&m_lock);
    m_failures << failures;
}

bool CFileCopy::CopyFile(const QString& source, const QString& target, std::atomic<qint64>* copied,
                         const std::atomic<bool>* abort, QString* error)
{
    QString ignored;
    QString& reason = error ? *error : ignored;
    if (source == target)
        return true;
    if (!QFileInfo(source).isFile()) {
        reason = QStringLiteral("not found");
        return false;
    }
    // Opened before the target is touched: an unreadable source never costs
    // the copy that was there.
    const int in = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        reason = QString::fromLocal8Bit(strerror(errno));
        Util::WriteLog(QStringLiteral("Can not open file for read") + source);
        return false;
    }
    if (QFileInfo::exists(target) || QFileInfo(target).isSymLink())
        Util::RemovePath(target);
    QDir().mkpath(QFileInfo(target).absolutePath());
    const int out = ::open(QFile::encodeName(target).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        reason = QString::fromLocal8Bit(strerror(errno));
        Util::WriteLog(QStringLiteral("Can not open file for write") + target);
        ::close(in);
        return false;
    }
    bool ok = copyContents(in, out, copied, abort, &reason);
    ::close(in);
    if (::close(out) != 0 && ok) {
        reason = QString::fromLocal8Bit(strerror(errno));
        ok = false;
    }
    // A half-written file must not pass for a copy.
    if (!ok)
        QFile::remove(target);
    return ok;
}

bool CFileCopy::CopyDir(const QString& sourceDir, const QString& targetParent, std::atomic<qint64>* copied,
                        const std::atomic<bool>* abort, QStringList* failures)
{
    const QString target = targetParent + QLatin1Char('/') + QFileInfo(sourceDir).fileName();
    return CopyDirContents(sourceDir, target, copied, abort, failures);
}

bool CFileCopy::CopyDirContents(const QString& sourceDir, const QString& targetDir,
                                std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                                QStringList* failures)
{
    QSet<QString> chain;
    return copyDirContents(sourceDir, targetDir, copied, abort, failures, chain);
}

qint64 CFileCopy::SourceSize(const QString& source)
{
    QSet<QString> chain;
    return sourceSize(QFileInfo(source), chain);
}
