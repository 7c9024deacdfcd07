#include "tools/filecopy.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>
#include <QSet>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/util.h"

namespace {

// The kernel copies this much at a time; the abort flag is looked at between
// pieces. No user-space buffer is needed, so a worker's memory stays fixed.
// A few MiB keep the kernel near the disk's speed while a stop takes effect
// within one piece even from a slow source (a quarter of a second at 16 MiB/s).
constexpr qint64 kChunk = 4 * 1024 * 1024;

// Fallback for file systems that cannot copy in the kernel.
constexpr qint64 kBufferSize = 256 * 1024;

// Called after every piece copied.
using Hook = std::function<void()>;

// Retired workers still ending.
QMutex retiredLock;
QWaitCondition retiredEnded;
int retiredCount = 0;

// The reason for an errno value; strerror's buffer is shared by all threads,
// strerror_r writes into the caller's own.
QString errorText(int error)
{
    char buffer[256] = {};
    return QString::fromLocal8Bit(::strerror_r(error, buffer, sizeof buffer));
}

bool copyContents(int in, int out, std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                  QString* error, const Hook* hook)
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
            if (done < 0 &&
                (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
                kernel = false;
                continue;
            }
        } else {
            if (!buffer)
                buffer = std::make_unique<char[]>(kBufferSize);
            done = ::read(in, buffer.get(), kBufferSize);
            if (done > 0) {
                for (ssize_t written = 0; written < done;) {
                    const ssize_t step =
                        ::write(out, buffer.get() + written, static_cast<size_t>(done - written));
                    if (step < 0) {
                        if (errno == EINTR)
                            continue;
                        *error = errorText(errno);
                        return false;
                    }
                    written += step;
                }
            }
        }
        if (done < 0) {
            if (errno == EINTR)
                continue;
            *error = errorText(errno);
            return false;
        }
        if (done == 0)
            return true;
        if (copied)
            *copied += done;
        if (hook)
            (*hook)();
    }
}

bool copyFile(const QString& source, const QString& target, std::atomic<qint64>* copied,
              const std::atomic<bool>* abort, QString* error, const Hook* hook);

bool copyDirContents(const QString& sourceDir, const QString& targetDir,
                     std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                     QStringList* failures, QSet<QString>& chain, const Hook* hook)
{
    // A folder that cannot be read would list as empty and come out empty
    // without a word; it is reported instead.
    if (DIR* folder = ::opendir(QFile::encodeName(sourceDir).constData())) {
        ::closedir(folder);
    } else {
        if (failures)
            *failures << QStringLiteral("%1: %2").arg(sourceDir, errorText(errno));
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
                    *failures << QStringLiteral(
                                     "%1: a link back to one of its own folders, left out")
                                     .arg(entry.filePath());
                continue;
            }
            ok = copyDirContents(entry.filePath(), target, copied, abort, failures, chain, hook) &&
                 ok;
        } else {
            QString error;
            if (!entry.isFile())
                error = entry.isSymLink() ? QStringLiteral("a link to nothing")
                                          : QStringLiteral("not a file");
            else if (copyFile(entry.filePath(), target, copied, abort, &error, hook))
                continue;
            ok = false;
            if (failures)
                *failures << QStringLiteral("%1: %2").arg(entry.filePath(), error);
        }
    }
    chain.remove(canonical);
    // Last, once its entries no longer change it: the folder's own times.
    struct stat times;
    if (::stat(QFile::encodeName(sourceDir).constData(), &times) == 0) {
        const struct timespec kept[2] = {times.st_atim, times.st_mtim};
        ::utimensat(AT_FDCWD, QFile::encodeName(targetDir).constData(), kept, 0);
    }
    return ok;
}

// What copying `source` writes: a file's size, or what is below a folder.
qint64 sourceSize(const QString& source, const std::atomic<bool>* abort)
{
    const QFileInfo info(source);
    if (!info.exists())
        return 0;
    return info.isDir() ? Util::DirSize(source, abort) : info.size();
}

bool copyFile(const QString& source, const QString& target, std::atomic<qint64>* copied,
              const std::atomic<bool>* abort, QString* error, const Hook* hook)
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
        reason = errorText(errno);
        Util::WriteLog(QStringLiteral("Can not open file for read") + source);
        return false;
    }
    if (QFileInfo::exists(target) || QFileInfo(target).isSymLink())
        Util::RemovePath(target);
    QDir().mkpath(QFileInfo(target).absolutePath());
    const int out = ::open(QFile::encodeName(target).constData(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        reason = errorText(errno);
        Util::WriteLog(QStringLiteral("Can not open file for write") + target);
        ::close(in);
        return false;
    }
    bool ok = copyContents(in, out, copied, abort, &reason, hook);
    // The copy keeps the source's times, so that an image made from it dates
    // each file as the file itself is dated, not by when it was added.
    struct stat times;
    if (ok && ::fstat(in, &times) == 0) {
        const struct timespec kept[2] = {times.st_atim, times.st_mtim};
        ::futimens(out, kept);
    }
    ::close(in);
    if (::close(out) != 0 && ok) {
        reason = errorText(errno);
        ok = false;
    }
    // A half-written file must not pass for a copy.
    if (!ok)
        QFile::remove(target);
    return ok;
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

void CFileCopy::Retire(std::unique_ptr<CFileCopy> worker, std::function<void()> afterwards)
{
    if (!worker)
        return;
    CFileCopy* raw = worker.release();
    {
        QMutexLocker locker(&raw->m_lock);
        raw->m_stop = true;
        raw->m_wake.wakeAll();
        if (!raw->m_ended) {
            // run() takes it from here when it returns.
            raw->m_retired = true;
            raw->m_afterwards = std::move(afterwards);
            QMutexLocker count(&retiredLock);
            ++retiredCount;
            return;
        }
    }
    delete raw;
    if (afterwards)
        afterwards();
}

void CFileCopy::WaitForRetired()
{
    QMutexLocker count(&retiredLock);
    while (retiredCount > 0)
        retiredEnded.wait(&retiredLock);
}

void CFileCopy::AddJob(const QString& source, const QString& target, int mode)
{
    Job job;
    job.mode = mode;
    job.source = source;
    job.target = target;
    // Only copies count; deleting or renaming has no bytes to wait for. The
    // worker walks the source for its size.
    job.size = (mode == Copy || mode == CopyAs) ? -1 : 0;
    QMutexLocker locker(&m_lock);
    job.id = m_nextId++;
    m_queue.push_back(std::move(job));
    m_busy = true;
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
        total += qMax<qint64>(job.size, 0);
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
        bool drained = false;
        {
            QMutexLocker locker(&m_lock);
            while (m_queue.empty() && !m_busy && !m_stop)
                m_wake.wait(&m_lock);
            if (m_stop)
                break;
            if (m_queue.empty()) {
                // Also when the last jobs were removed before they began.
                m_busy = false;
                drained = true;
            } else {
                job = m_queue.front();
            }
        }
        if (drained) {
            Q_EMIT idle();
            continue;
        }
        // Every queued copy is sized before the next job begins, so the
        // figure callers show covers all that is queued.
        if (SizeJobs())
            continue;
        {
            QMutexLocker locker(&m_lock);
            if (m_stop || m_queue.empty() || m_queue.front().id != job.id)
                continue;
            m_runningId = job.id;
            m_copied = 0;
        }
        Carry(job);
        {
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
        Q_EMIT progress(RemainingBytes());
    }

    std::function<void()> afterwards;
    bool retired = false;
    {
        QMutexLocker locker(&m_lock);
        m_ended = true;
        retired = m_retired;
        afterwards = std::move(m_afterwards);
    }
    if (!retired)
        return;
    if (afterwards)
        afterwards();
    {
        QMutexLocker count(&retiredLock);
        --retiredCount;
        retiredEnded.wakeAll();
    }
    // Deleted on the thread it belongs to; the destructor's wait() is then
    // only for the last lines of this thread.
    deleteLater();
}

bool CFileCopy::SizeJobs()
{
    std::vector<std::pair<quint64, QString>> unsized;
    {
        QMutexLocker locker(&m_lock);
        for (const Job& queued : m_queue) {
            if (queued.size < 0)
                unsized.emplace_back(queued.id, queued.source);
        }
    }
    if (unsized.empty())
        return false;
    std::vector<qint64> sizes;
    for (const auto& [id, source] : unsized)
        sizes.push_back(sourceSize(source, &m_stop));
    {
        QMutexLocker locker(&m_lock);
        for (Job& queued : m_queue) {
            for (size_t i = 0; i < unsized.size(); ++i) {
                if (unsized[i].first == queued.id)
                    queued.size = sizes[i];
            }
        }
    }
    Q_EMIT progress(RemainingBytes());
    return true;
}

void CFileCopy::Tick()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (now - m_lastTick < 100)
        return;
    m_lastTick = now;
    Q_EMIT progress(RemainingBytes());
}

void CFileCopy::Carry(const Job& job)
{
    const Hook tick = [this] { Tick(); };
    const QFileInfo info(job.source);
    const bool isFile = info.isFile();
    QStringList failures;
    switch (job.mode) {
    case Copy:
        if (isFile) {
            QString error;
            if (!copyFile(job.source, job.target, &m_copied, &m_stop, &error, &tick))
                failures << QStringLiteral("%1: %2").arg(job.source, error);
        } else if (info.exists()) {
            CopyDirInto(job.source, job.target + QLatin1Char('/') + info.fileName(), &failures,
                        tick);
        } else {
            failures << QStringLiteral("%1: no longer exists").arg(job.source);
        }
        break;
    case CopyAs:
        if (isFile) {
            QString error;
            if (!copyFile(job.source, job.target, &m_copied, &m_stop, &error, &tick))
                failures << QStringLiteral("%1: %2").arg(job.source, error);
        } else if (info.exists()) {
            CopyDirInto(job.source, job.target, &failures, tick);
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
    return copyFile(source, target, copied, abort, error, nullptr);
}

bool CFileCopy::CopyDir(const QString& sourceDir, const QString& targetParent,
                        std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                        QStringList* failures)
{
    const QString target = targetParent + QLatin1Char('/') + QFileInfo(sourceDir).fileName();
    return CopyDirContents(sourceDir, target, copied, abort, failures);
}

bool CFileCopy::CopyDirContents(const QString& sourceDir, const QString& targetDir,
                                std::atomic<qint64>* copied, const std::atomic<bool>* abort,
                                QStringList* failures)
{
    QSet<QString> chain;
    return copyDirContents(sourceDir, targetDir, copied, abort, failures, chain, nullptr);
}

void CFileCopy::CopyDirInto(const QString& sourceDir, const QString& targetDir,
                            QStringList* failures, const std::function<void()>& tick)
{
    QSet<QString> chain;
    copyDirContents(sourceDir, targetDir, &m_copied, &m_stop, failures, chain, &tick);
}

qint64 CFileCopy::SourceSize(const QString& source)
{
    return sourceSize(source, nullptr);
}
