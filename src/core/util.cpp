#include "core/util.h"

#include <QCoreApplication>
#include <QDataStream>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QRandomGenerator>
#include <QSet>
#include <QStandardPaths>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "core/logging.h"
#include "core/sysblock.h"

namespace {

constexpr auto kTimePattern = "yyyy-MM-dd hh:mm:ss";

// Entries counted by DirSize and removed by RemoveDir: hidden entries are
// deliberately left out, so a folder holding one keeps existing.
constexpr QDir::Filters kListFilter =
    QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot;

qint64 dirSize(const QString& path, QSet<QString>& chain, const std::atomic<bool>* abort)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    if (canonical.isEmpty() || chain.contains(canonical))
        return 0;
    chain.insert(canonical);
    qint64 total = 0;
    const QFileInfoList entries = QDir(path).entryInfoList(kListFilter, QDir::Unsorted);
    for (const QFileInfo& entry : entries) {
        if (abort && abort->load())
            break;
        total += entry.isDir() ? dirSize(entry.absoluteFilePath(), chain, abort) : entry.size();
    }
    chain.remove(canonical);
    return total;
}

QMutex& logMutex()
{
    static QMutex mutex;
    return mutex;
}

} // namespace

QString Util::AppDir()
{
    return QCoreApplication::applicationDirPath();
}

QString Util::DataDir()
{
    QString path = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    if (path.isEmpty() || path.startsWith(QLatin1String("/var/root")))
        path.clear();
    if (!QFileInfo(path).isDir())
        QDir().mkpath(path.isEmpty() ? QStringLiteral(".") : path);
    return path;
}

QString Util::ScratchDir()
{
    return DataDir() + QStringLiteral("/tmp/");
}

void Util::RemoveStaleWorkingCopies()
{
    const QDir scratch(ScratchDir());
    const QStringList locks =
        scratch.entryList({QStringLiteral("*.lock")}, QDir::Files | QDir::Hidden);
    for (const QString& name : locks) {
        const QString lock = scratch.filePath(name);
        const int fd = ::open(QFile::encodeName(lock).constData(), O_RDWR | O_CLOEXEC);
        if (fd < 0)
            continue;
        // The lock is taken only when its owner is gone; it is kept while the
        // folder and then the lock file go, so an owner being born at this
        // moment sees its lock file vanish and picks another name.
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            QDir(lock.chopped(5)).removeRecursively();
            ::unlink(QFile::encodeName(lock).constData());
        }
        ::close(fd);
    }
}

QString Util::SwitchFilePath()
{
    return AppDir() + QStringLiteral("/config.dat");
}

QString Util::LogFilePath()
{
    return DataDir() + QStringLiteral("/log.txt");
}

void Util::WriteLog(const QString& message)
{
    if (!FileExists(SwitchFilePath()))
        return;

    const QString path = LogFilePath();
    const QByteArray record =
        QDateTime::currentDateTime().toString(QLatin1String(kTimePattern)).toUtf8() + ' ' +
        message.toUtf8() + '\n';

    // One lock keeps records of runner threads and the GUI thread whole and in
    // call order; the file is opened and closed per record so that each record
    // is on disk even if the process ends abruptly.
    QMutexLocker locker(&logMutex());
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Append))
        return;
    file.write(record);
    file.flush();
    file.close();
}

QString Util::FormatTime(const QDateTime& time)
{
    return time.toString(QLatin1String(kTimePattern));
}

QString Util::FormatSize(qint64 bytes)
{
    static const char* const units[] = {"B", "KB", "MB", "GB"};
    double value = static_cast<double>(bytes);
    int unit = 0;
    while (unit < 3 && value > 1024.0) {
        value *= 1.0 / 1024.0;
        ++unit;
    }
    QString number = QString::number(value, 'f', 2);
    if (number.endsWith(QLatin1String(".00")))
        number.chop(3);
    return number + QLatin1Char(' ') + QLatin1String(units[unit]);
}

QString Util::FormatTimeLeft(qint64 seconds)
{
    if (seconds < 90)
        return QStringLiteral("about %1 s left").arg(qMax<qint64>(seconds, 0));
    return QStringLiteral("about %1 min left").arg((seconds + 30) / 60);
}

QString Util::CollapseSpaces(QString text)
{
    while (text.contains(QLatin1String("  ")))
        text.replace(QLatin1String("  "), QLatin1String(" "));
    return text;
}

QString Util::FileSuffix(const QString& name)
{
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot <= 0)
        return QString();
    return name.mid(dot);
}

bool Util::FileExists(const QString& path)
{
    return QFileInfo::exists(path);
}

qint64 Util::DirSize(QString path, const std::atomic<bool>* abort)
{
    QSet<QString> chain;
    return dirSize(path, chain, abort);
}

void Util::RemovePath(const QString& path)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return;

    // Only the owner's write bit is added: a removal that then fails must not
    // leave the owner with less access than before.
    QFile file(path);
    if (!info.isSymLink())
        file.setPermissions(file.permissions() | QFileDevice::WriteOwner);

    if (info.isFile() || info.isSymLink()) {
        if (!file.remove())
            qCDebug(lcFiles) << "cannot remove" << path << file.errorString();
    } else if (!QDir().rmdir(path)) {
        qCDebug(lcFiles) << "cannot remove folder" << path;
    }
}

void Util::RemoveDir(const QString& path, bool removeFiles)
{
    if (path.isEmpty() || !QFileInfo(path).isDir())
        return;

    const QFileInfoList entries = QDir(path).entryInfoList(kListFilter, QDir::Unsorted);
    for (const QFileInfo& entry : entries) {
        // A link to a folder is removed as a link; its target is left alone.
        if (entry.isDir() && !entry.isSymLink())
            RemoveDir(entry.absoluteFilePath(), removeFiles);
        else if (removeFiles)
            RemovePath(entry.absoluteFilePath());
    }
    RemovePath(QFileInfo(path).absoluteFilePath());
}

qint64 Util::DiskTotalSize(const QString& path)
{
    // A device node, or a link to one: its size as sysfs tells it, which
    // needs no permission to open the device.
    if (path.startsWith(QLatin1String("/dev/")))
        return SysBlock::SizeOf(SysBlock::NameOfPath(path));
    struct statvfs info;
    if (path.isEmpty() || ::statvfs(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return static_cast<qint64>(info.f_blocks) * static_cast<qint64>(info.f_frsize);
}

QString Util::PartPath(const QString& path)
{
    static const char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    QString tag;
    for (int i = 0; i < 8; ++i)
        tag += QLatin1Char(kLetters[QRandomGenerator::global()->bounded(int(sizeof kLetters) - 1)]);
    const QFileInfo info(path);
    return info.absoluteDir().filePath(QStringLiteral(".%1.%2.part").arg(info.fileName(), tag));
}

bool Util::CommitPart(const QString& part, const QString& path, QString* error)
{
    // rename() replaces the old file in one step: a reader sees either the
    // old file or the new one, never a mix.
    if (std::rename(QFile::encodeName(part).constData(), QFile::encodeName(path).constData()) == 0)
        return true;
    if (error)
        *error = QString::fromLocal8Bit(std::strerror(errno));
    QFile::remove(part);
    return false;
}

int Util::Read(QDataStream& stream, qint64 offset, int length, char* buffer)
{
    QIODevice* device = stream.device();
    if (device == nullptr || offset < 0 || !device->seek(offset))
        return ReadNoDevice;
    stream.resetStatus();
    if (length >= 0 && stream.readRawData(buffer, length) == length)
        return ReadOk;
    qCDebug(lcFiles) << "short read of" << length << "bytes at" << offset;
    return ReadShort;
}

ScratchFolder::ScratchFolder(const QString& stem)
{
    const QString scratch = Util::ScratchDir();
    QDir().mkpath(scratch);
    for (int attempt = 0; attempt < 10 && m_lock < 0; ++attempt) {
        QByteArray folder = QFile::encodeName(scratch + stem + QStringLiteral("-XXXXXX"));
        if (::mkdtemp(folder.data()) == nullptr) {
            m_error = QString::fromLocal8Bit(std::strerror(errno));
            return;
        }
        const QByteArray lock = folder + ".lock";
        const int fd = ::open(lock.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) {
            m_error = QString::fromLocal8Bit(std::strerror(errno));
            ::rmdir(folder.constData());
            return;
        }
        // A Brenta starting just now may have taken the new lock before us and
        // removed the folder as left behind; then the lock file is gone, and
        // another name is tried.
        struct stat held = {};
        struct stat named = {};
        if (::flock(fd, LOCK_EX) == 0 && ::fstat(fd, &held) == 0 &&
            ::stat(lock.constData(), &named) == 0 && held.st_dev == named.st_dev &&
            held.st_ino == named.st_ino) {
            m_path = QFile::decodeName(folder);
            m_lock = fd;
        } else {
            ::close(fd);
        }
    }
    if (m_lock < 0 && m_error.isEmpty())
        m_error = QStringLiteral("no free name");
}

ScratchFolder::~ScratchFolder()
{
    if (m_lock < 0)
        return;
    QDir(m_path).removeRecursively();
    // The lock file goes while it is still held, so nobody takes it for one
    // that was left behind.
    ::unlink(QFile::encodeName(m_path + QStringLiteral(".lock")).constData());
    ::close(m_lock);
}
