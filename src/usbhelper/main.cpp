// brenta-usb-helper: does what needs root on a USB stick, for Brenta running as
// the desktop user (through pkexec) or as root: it prepares a stick for files,
// or writes the disk image Brenta streams to it and reads it back. It trusts
// none of its arguments: every command first checks that the device is a
// whole USB or removable disk, or a loop device over the user's own file, that
// the running system does not use and that is mounted nowhere but in the
// folders for removable media. It works for the user pkexec names (PKEXEC_UID), or for
// whoever runs it, and every mount it makes is nosuid,nodev,noexec.
//
// Output is one line per event, for Brenta's command runner:
//   step: <what now>        progress
//   mounted: <folder>       prepare's and remount's result
//   written: <bytes>        write's progress, every 32 MiB and at the end
//   read: <bytes>           hash's progress, likewise
//   sha256: <hex>           hash's result
//   ok / refused: <reason>  check's answer (exit 0 / 3)
//   error: <step>: <reason>. <the tool's last words>   (exit 1)
// Wrong usage: the usage text on standard error, exit 2.

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QThread>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <linux/blkpg.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "usbhelper/usbhelper.h"

using namespace UsbHelper;

namespace {

enum Exit
{
    Ok = 0,
    Failed = 1,
    Usage = 2,
    Refused = 3
};

// A privileged program does not take its search path from the caller.
const QString kPath =
    QStringLiteral("/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");

void say(const QString& line)
{
    std::fputs((line + QLatin1Char('\n')).toUtf8().constData(), stdout);
    std::fflush(stdout);
}

struct RunResult
{
    bool ok = false;
    QString reason; // why it failed, in plain words
    QStringList lines;
};

// Tests put stand-ins for the system tools in $BRENTA_TOOLS_DIR/system. That
// is honoured only when the helper was started directly by root, never
// through pkexec, which would carry the variable over from the user.
QString findTool(const QString& program)
{
    const QString standIns = qEnvironmentVariable("BRENTA_TOOLS_DIR");
    if (!standIns.isEmpty() && qEnvironmentVariableIsEmpty("PKEXEC_UID") && ::getuid() == 0) {
        const QString found =
            QStandardPaths::findExecutable(program, {standIns + QStringLiteral("/system")});
        if (!found.isEmpty())
            return found;
    }
    return QStandardPaths::findExecutable(program, kPath.split(QLatin1Char(':')));
}

// Runs a tool to its end with English messages and UTF-8 text, so that a
// label such as "Données" reaches the file system as it is. Its output goes
// through a file rather than a pipe: a FUSE driver stays behind as a daemon
// and must not write into a pipe nobody reads any more. The tool dies with
// the helper (a daemon it starts is a new process, which does not). Where
// `standardOutput` is given, it gets what the tool writes there, and the
// result's lines are its error output only.
RunResult run(const ToolCall& call, const QByteArray& input = QByteArray(),
              QByteArray* standardOutput = nullptr)
{
    RunResult result;
    const QString program = findTool(call.program);
    if (program.isEmpty()) {
        result.reason = call.program + QStringLiteral(" is not installed");
        return result;
    }
    const QString pattern = QDir::tempPath() + QStringLiteral("/brenta-usb-helper-XXXXXX");
    QTemporaryFile output(pattern);
    QTemporaryFile feed(pattern);
    QTemporaryFile data(pattern);
    if (!output.open() || !feed.open() || feed.write(input) != input.size() || !feed.flush() ||
        (standardOutput != nullptr && !data.open())) {
        result.reason = QStringLiteral("cannot make a temporary file");
        return result;
    }
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("PATH"), kPath);
    process.setProcessEnvironment(environment);
    process.setStandardInputFile(feed.fileName());
    if (standardOutput != nullptr) {
        process.setStandardOutputFile(data.fileName());
        process.setStandardErrorFile(output.fileName());
    } else {
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setStandardOutputFile(output.fileName());
    }
    const pid_t helper = ::getpid();
    process.setChildProcessModifier([helper] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != helper)
            ::_exit(127);
    });
    process.start(program, call.arguments);
    if (!process.waitForStarted(-1)) {
        result.reason = call.program + QStringLiteral(" could not be started");
        return result;
    }
    // The tool has the files open now and the helper keeps its own handles:
    // their names go at once, so that a helper killed while the tool runs
    // leaves nothing behind. QFile::remove() would close the handles.
    for (const QTemporaryFile* file : {&output, &feed, &data}) {
        if (file->isOpen())
            ::unlink(QFile::encodeName(file->fileName()).constData());
    }
    process.waitForFinished(-1);
    if (standardOutput != nullptr) {
        data.seek(0);
        *standardOutput = data.readAll();
    }
    output.seek(0);
    for (const QByteArray& line : output.readAll().split('\n')) {
        if (!line.trimmed().isEmpty())
            result.lines << QString::fromUtf8(line).trimmed();
    }
    if (process.exitStatus() != QProcess::NormalExit)
        result.reason = call.program + QStringLiteral(" crashed");
    else if (process.exitCode() != 0)
        result.reason =
            QStringLiteral("%1 failed (exit status %2)").arg(call.program).arg(process.exitCode());
    else
        result.ok = true;
    return result;
}

dev_t deviceNumber(const QString& path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISBLK(info.st_mode))
        return 0;
    return info.st_rdev;
}

// The device numbers of the disk and of its partitions, as the kernel gives
// them ("7:0").
QStringList deviceNumbersOf(const QString& diskName)
{
    const QStringList names = QStringList(Drives::PartitionsOf(diskName)) << diskName;
    QStringList numbers;
    for (const QString& name : names) {
        QFile file(QStringLiteral("/sys/class/block/%1/dev").arg(name));
        if (file.open(QIODevice::ReadOnly))
            numbers << QString::fromLatin1(file.readAll().trimmed());
    }
    return numbers;
}

QList<MountEntry> mountTable()
{
    QFile file(QStringLiteral("/proc/self/mountinfo"));
    return file.open(QIODevice::ReadOnly) ? ParseMountInfo(file.readAll()) : QList<MountEntry>();
}

// The mount at `folder` that is seen there: the last one mounted on it.
std::optional<MountEntry> mountAt(const QString& folder)
{
    std::optional<MountEntry> found;
    for (const MountEntry& mount : mountTable()) {
        if (mount.point == folder)
            found = mount;
    }
    return found;
}

// The mounts of the disk or of its partitions, in the order they were made.
QList<MountEntry> mountsOf(const QString& diskName)
{
    const QStringList numbers = deviceNumbersOf(diskName);
    const QStringList partitions = Drives::PartitionsOf(diskName);
    QList<MountEntry> found;
    for (const MountEntry& mount : mountTable()) {
        if (IsMountOfDisk(mount, numbers, partitions))
            found << mount;
    }
    return found;
}

bool isMountPoint(const QString& folder)
{
    return mountAt(folder).has_value();
}

// Gives the fresh mount at the helper's own `folder` the flags every mount of
// a stick carries, whatever its driver made of the options (exfat-fuse drops
// noexec), and reads back what the kernel applied. Empty when all is well,
// else the reason.
QString harden(const QString& folder)
{
    // A remount of the bind kind changes only this mount's flags, never the
    // file system's own options, so it works for every driver.
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_NOSUID | MS_NODEV | MS_NOEXEC;
    if (::mount(nullptr, QFile::encodeName(folder).constData(), nullptr, flags, nullptr) != 0)
        return QStringLiteral("%1 could not be made %2: %3")
            .arg(folder, kMountFlags.join(QLatin1Char(',')),
                 QString::fromLocal8Bit(std::strerror(errno)));
    const std::optional<MountEntry> mount = mountAt(folder);
    if (!mount)
        return QStringLiteral("nothing is mounted at %1 any more").arg(folder);
    const QStringList missing = MissingMountFlags(*mount);
    if (!missing.isEmpty())
        return QStringLiteral("the mount at %1 lacks %2")
            .arg(folder, missing.join(QLatin1Char(',')));
    return QString();
}

// A process that has one of the devices open, 0 when none has.
qint64 holderOf(const QStringList& numbers)
{
    const QStringList processes =
        QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& pid : processes) {
        if (pid.isEmpty() || !pid.front().isDigit() || pid.toLongLong() == ::getpid())
            continue;
        const QString fds = QStringLiteral("/proc/%1/fd").arg(pid);
        for (const QString& fd : QDir(fds).entryList(QDir::System | QDir::NoDotAndDotDot)) {
            struct stat info;
            if (::stat(QFile::encodeName(fds + QLatin1Char('/') + fd).constData(), &info) == 0 &&
                S_ISBLK(info.st_mode) &&
                numbers.contains(
                    QStringLiteral("%1:%2").arg(major(info.st_rdev)).arg(minor(info.st_rdev))))
                return pid.toLongLong();
        }
    }
    return 0;
}

// Unmounts `mount` where it is. The folder is looked at without following a
// link, must still be the root of that very mount (its mount id and device),
// and is unmounted without following a link either, so that a folder swapped
// for a link in between never has root unmount something else. Only the
// helper's own folders, which no one else can change, are unmounted when they
// cannot be looked at (a FUSE driver that died answers nothing). Empty when
// done, else the reason.
QString unmountOne(const MountEntry& mount, bool own)
{
    const QByteArray path = QFile::encodeName(mount.point);
    struct statx info = {};
    const int looked = ::statx(AT_FDCWD, path.constData(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                               STATX_TYPE | STATX_MNT_ID, &info);
    if (looked == 0) {
        const bool sameMount =
            !(info.stx_mask & STATX_MNT_ID) || info.stx_mnt_id == quint64(mount.id);
        if (!S_ISDIR(info.stx_mode) || !sameMount || info.stx_dev_major != mount.major ||
            info.stx_dev_minor != mount.minor)
            return QStringLiteral("%1 is no longer the mount of the stick").arg(mount.point);
    } else if (!own) {
        return QStringLiteral("%1 cannot be looked at: %2")
            .arg(mount.point, QString::fromLocal8Bit(std::strerror(errno)));
    }
    if (::umount2(path.constData(), UMOUNT_NOFOLLOW) != 0)
        return QStringLiteral("%1 could not be unmounted: %2")
            .arg(mount.point, QString::fromLocal8Bit(std::strerror(errno)));
    return QString();
}

// Unmounts every mount of the disk, the last mounted first; removes the
// helper's own folders; then waits until no driver holds the disk. False
// with `failure` set when one stays mounted or held.
bool unmountAll(const QString& diskName, const QString& step, QString& failure)
{
    const QList<MountEntry> list = mountsOf(diskName);
    const QStringList partitions = Drives::PartitionsOf(diskName);
    for (auto it = list.crbegin(); it != list.crend(); ++it) {
        const bool own = it->point.startsWith(kMountRoot + QLatin1Char('/')) &&
                         partitions.contains(it->point.mid(kMountRoot.size() + 1));
        const QString reason = unmountOne(*it, own);
        if (!reason.isEmpty()) {
            failure = ErrorLine(step, reason, {});
            return false;
        }
        if (own)
            QDir().rmdir(it->point);
    }
    if (list.isEmpty())
        return true;
    // Only when no driver holds the stick any more is everything written: a
    // FUSE driver may go on writing for a moment after its mount is gone.
    const QStringList numbers = deviceNumbersOf(diskName);
    QElapsedTimer timer;
    timer.start();
    while (holderOf(numbers) != 0) {
        if (timer.elapsed() > 120000) {
            failure = ErrorLine(
                step, QStringLiteral("a file system driver still holds /dev/") + diskName, {});
            return false;
        }
        QThread::msleep(50);
    }
    return true;
}

// Whom the helper works for: the user pkexec names, or whoever started it.
struct Caller
{
    uint uid = 0;
    uint gid = 0;
};

// Under pkexec, the user polkit authorised and that user's primary group;
// started directly, the real ids of whoever started it. False with `error`
// when pkexec named no user the system knows.
bool findCaller(Caller& caller, QString& error)
{
    if (!qEnvironmentVariableIsSet("PKEXEC_UID")) {
        caller.uid = ::getuid();
        caller.gid = ::getgid();
        return true;
    }
    const QByteArray given = qgetenv("PKEXEC_UID");
    if (!ParseUid(given, caller.uid)) {
        error = QStringLiteral("PKEXEC_UID is not a user id");
        return false;
    }
    QByteArray buffer(16384, '\0');
    struct passwd entry = {};
    struct passwd* found = nullptr;
    int status = 0;
    while ((status = ::getpwuid_r(caller.uid, &entry, buffer.data(), size_t(buffer.size()),
                                  &found)) == ERANGE &&
           buffer.size() < (1 << 20))
        buffer.resize(buffer.size() * 2);
    if (status != 0 || found == nullptr) {
        error = QStringLiteral("user %1 is unknown to the system").arg(caller.uid);
        return false;
    }
    caller.gid = found->pw_gid;
    return true;
}

// Empty when the loop device reads a file that belongs to `uid`, else why
// not. The file is the one the kernel holds (its device and inode), not
// whatever its path names now.
QString loopRefusal(const QString& node, const QString& name, uint uid)
{
    struct loop_info64 info = {};
    const int fd = ::open(QFile::encodeName(node).constData(), O_RDONLY | O_CLOEXEC);
    const bool bound = fd >= 0 && ::ioctl(fd, LOOP_GET_STATUS64, &info) == 0;
    if (fd >= 0)
        ::close(fd);
    if (!bound)
        return QStringLiteral("%1 reads no file").arg(node);
    QFile sys(QStringLiteral("/sys/class/block/%1/loop/backing_file").arg(name));
    QByteArray path = sys.open(QIODevice::ReadOnly) ? sys.readAll() : QByteArray();
    if (path.endsWith('\n'))
        path.chop(1);
    struct stat file;
    if (path.isEmpty() || ::stat(path.constData(), &file) != 0 ||
        quint64(file.st_dev) != info.lo_device || quint64(file.st_ino) != info.lo_inode)
        return QStringLiteral("the file %1 reads cannot be found").arg(node);
    if (file.st_uid != uid)
        return QStringLiteral("%1 reads %2, which belongs to another user")
            .arg(node, QFile::decodeName(path).simplified());
    return QString();
}

struct Target
{
    QString node; // "/dev/sdb", the kernel's name for what was given
    Drives::NodeFacts facts;
};

// The check every command starts with; prints the refusal itself. A user
// may have a loop device only over a file of their own; root any.
bool accept(const QString& path, const Caller& caller, Target& target)
{
    target.facts = IsPlainDevicePath(path) ? Drives::Inspect(path) : Drives::NodeFacts();
    QString refusal = Refusal(path, target.facts);
    // A stick pulled out takes its node with it, also between two steps.
    if (!target.facts.blockDevice && IsPlainDevicePath(path) && !QFileInfo::exists(path))
        refusal = QStringLiteral("%1 is not there: the stick was removed, or no disk has that name")
                      .arg(path);
    if (refusal.isEmpty() && target.facts.loop && caller.uid != 0)
        refusal =
            loopRefusal(QStringLiteral("/dev/") + target.facts.name, target.facts.name, caller.uid);
    if (!refusal.isEmpty()) {
        say(QStringLiteral("refused: ") + refusal);
        return false;
    }
    target.node = QStringLiteral("/dev/") + target.facts.name;
    // A disk mounted anywhere else serves something other than the desktop.
    for (const MountEntry& mount : mountsOf(target.facts.name)) {
        if (!IsRemovableMediaFolder(mount.point)) {
            say(QStringLiteral(
                    "refused: a file system of %1 is mounted at %2, not where removable media are "
                    "mounted (/media, /run/media); unmount it first")
                    .arg(target.node, mount.point.simplified()));
            return false;
        }
    }
    return true;
}

// Waits for the kernel (and udev, where it runs) to show the new partition.
bool waitForPartition(const QString& partition)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 15000) {
        if (QFileInfo::exists(QStringLiteral("/sys/class/block/") + partition) &&
            deviceNumber(QStringLiteral("/dev/") + partition) != 0)
            return true;
        QThread::msleep(100);
    }
    return false;
}

qint64 startSector(const QString& partition)
{
    QFile file(QStringLiteral("/sys/class/block/") + partition + QStringLiteral("/start"));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().trimmed().toLongLong();
}

// Mounts the stick's partition under the helper's folder, writable by the
// user; says "mounted: <folder>".
int mountPartition(const Request& request, const Caller& caller, const QString& partName)
{
    const QString partition = QStringLiteral("/dev/") + partName;
    say(QStringLiteral("step: mounting"));
    const QString folder = kMountRoot + QLatin1Char('/') + partName;
    if (isMountPoint(folder)) {
        say(ErrorLine(QStringLiteral("mounting"), folder + QStringLiteral(" is in use"), {}));
        return Failed;
    }
    if (!QDir().mkpath(folder)) {
        say(ErrorLine(QStringLiteral("mounting"),
                      QStringLiteral("cannot make the folder ") + folder, {}));
        return Failed;
    }
    QFile::setPermissions(kMountRoot, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                          QFile::ExeOther);
    RunResult last;
    last.reason = QStringLiteral("no way to mount %1 is installed").arg(FileSystemName(request.fs));
    for (const ToolCall& call : MountCalls(request.fs, partition, folder, caller.uid, caller.gid)) {
        if (findTool(call.program).isEmpty())
            continue;
        last = run(call);
        if (last.ok && isMountPoint(folder))
            break;
        if (last.ok) {
            last.ok = false;
            last.reason = call.program + QStringLiteral(" ended without mounting");
        }
    }
    if (!last.ok) {
        QDir().rmdir(folder);
        say(ErrorLine(QStringLiteral("mounting"), last.reason, last.lines));
        return Failed;
    }
    const QString weak = harden(folder);
    if (!weak.isEmpty()) {
        ::umount2(QFile::encodeName(folder).constData(), UMOUNT_NOFOLLOW);
        QDir().rmdir(folder);
        say(ErrorLine(QStringLiteral("mounting"), weak, {}));
        return Failed;
    }
    say(QStringLiteral("mounted: ") + folder);
    return Ok;
}

// The program that has one of the devices open ("sleep (process 812)"), or
// empty. What opens a disk for a moment (udev reading its labels) is waited for.
QString userOf(const QStringList& numbers)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const qint64 pid = holderOf(numbers);
        if (pid == 0)
            return QString();
        if (timer.elapsed() > 3000) {
            QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
            const QString name = comm.open(QIODevice::ReadOnly)
                                     ? QString::fromUtf8(comm.readAll().trimmed())
                                     : QStringLiteral("a program");
            return QStringLiteral("%1 (process %2)").arg(name).arg(pid);
        }
        QThread::msleep(100);
    }
}

// Writes `data` at `offset` of the open disk, all of it.
bool writeAll(int fd, qint64 offset, const QByteArray& data)
{
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t wrote =
            ::pwrite(fd, data.constData() + done, size_t(data.size() - done), offset + done);
        if (wrote < 0 && errno == EINTR)
            continue;
        if (wrote <= 0)
            return false;
        done += wrote;
    }
    return true;
}

// Makes the kernel show partition 1 of the open disk: it rereads the table
// (allowed on the descriptor that holds the disk exclusively), and where it
// does not read that kind of table, it is told the partition.
bool showPartition(int fd, const QString& partName, const Extent& extent, int sectorSize)
{
    const QString sys = QStringLiteral("/sys/class/block/") + partName;
    if (::ioctl(fd, BLKRRPART) == 0 && QFileInfo::exists(sys))
        return true;
    blkpg_partition partition = {};
    partition.start = extent.start * sectorSize;
    partition.length = extent.count * sectorSize;
    partition.pno = 1;
    blkpg_ioctl_arg argument = {};
    argument.op = BLKPG_ADD_PARTITION;
    argument.datalen = sizeof(partition);
    argument.data = &partition;
    return ::ioctl(fd, BLKPG, &argument) == 0 || QFileInfo::exists(sys);
}

QString errorText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Opens the whole disk for writing through a descriptor that holds it
// exclusively: the kernel gives it only when no partition is mounted and
// nothing else (a program, a RAID or encrypted volume) holds the disk or a
// partition, and keeps everyone else out until it is closed. `extraFlags` are
// added to the open; O_DIRECT is dropped where the kernel refuses it. The
// descriptor, or -1 after saying "refused: ..." or the error, with `status`
// the exit status.
int openExclusive(const Target& target, const QString& step, int extraFlags, int& status)
{
    status = Refused;
    const QString user = userOf(deviceNumbersOf(target.facts.name));
    if (!user.isEmpty()) {
        say(QStringLiteral("refused: %1 is in use by %2; close it first").arg(target.node, user));
        return -1;
    }
    const QByteArray node = QFile::encodeName(target.node);
    int fd = ::open(node.constData(), O_RDWR | O_EXCL | O_CLOEXEC | extraFlags);
    if (fd < 0 && errno == EINVAL && (extraFlags & O_DIRECT))
        fd = ::open(node.constData(), O_RDWR | O_EXCL | O_CLOEXEC | (extraFlags & ~O_DIRECT));
    if (fd < 0 && errno == EBUSY) {
        say(QStringLiteral("refused: %1 is in use: the system or another program holds it")
                .arg(target.node));
        return -1;
    }
    status = Failed;
    if (fd < 0) {
        say(ErrorLine(step, QStringLiteral("cannot open %1: %2").arg(target.node, errorText(errno)),
                      {}));
        return -1;
    }
    // udev leaves a locked disk alone instead of reading it half written.
    ::flock(fd, LOCK_EX);
    status = Ok;
    return fd;
}

// Wipes the disk and writes its new partition table through one descriptor
// that holds the whole disk exclusively. Says "refused: ..." or the error
// itself; the exit status.
int partition(const Request& request, const Target& target)
{
    const QString disk = target.facts.name;
    int status = Ok;
    const int fd = openExclusive(target, QStringLiteral("wiping"), 0, status);
    if (fd < 0)
        return status;
    const auto closeDisk = qScopeGuard([fd] { ::close(fd); });
    int sectorSize = 0;
    quint64 bytes = 0;
    if (::ioctl(fd, BLKSSZGET, &sectorSize) != 0 || ::ioctl(fd, BLKGETSIZE64, &bytes) != 0) {
        say(ErrorLine(QStringLiteral("wiping"),
                      QStringLiteral("cannot read the size of ") + target.node, {}));
        return Failed;
    }
    QByteArray random(36, '\0');
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32*>(random.data()),
                                          random.size() / 4);
    const qint64 sectors = qint64(bytes) / qMax(sectorSize, 1);
    const QList<DiskWrite> table =
        PartitionTable(request.scheme, request.fs, sectorSize, sectors, random);
    if (table.isEmpty()) {
        say(ErrorLine(QStringLiteral("partitioning"), target.node + QStringLiteral(" is too small"),
                      {}));
        return Failed;
    }

    // Nothing old may be recognised afterwards: the old tables, the
    // signatures where the new partition starts, and whatever keeps a copy
    // in the last MiB (a GPT's backup, RAID and ZFS labels).
    const QByteArray zeros(kPartitionStart, '\0');
    const qint64 size = qint64(bytes);
    if (!writeAll(fd, 0, zeros) || !writeAll(fd, kPartitionStart, zeros) ||
        !writeAll(fd, size - kPartitionStart, zeros) || ::fsync(fd) != 0) {
        say(ErrorLine(QStringLiteral("wiping"), QStringLiteral("cannot write to ") + target.node,
                      {}));
        return Failed;
    }

    say(QStringLiteral("step: partitioning"));
    for (const DiskWrite& write : table) {
        if (!writeAll(fd, write.offset, write.data)) {
            say(ErrorLine(QStringLiteral("partitioning"),
                          QStringLiteral("cannot write to ") + target.node, {}));
            return Failed;
        }
    }
    if (::fsync(fd) != 0) {
        say(ErrorLine(QStringLiteral("partitioning"),
                      QStringLiteral("cannot write to ") + target.node, {}));
        return Failed;
    }
    if (!showPartition(fd, PartitionName(disk, 1),
                       PartitionExtent(request.scheme, sectorSize, sectors), sectorSize)) {
        say(ErrorLine(QStringLiteral("partitioning"),
                      QStringLiteral("the kernel does not take the new partition table of ") +
                          target.node,
                      {}));
        return Failed;
    }
    return Ok;
}

int prepare(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    const QString disk = target.facts.name;

    say(QStringLiteral("step: wiping"));
    QString failure;
    if (!unmountAll(disk, QStringLiteral("wiping"), failure)) {
        say(failure);
        return Failed;
    }
    // The disk is let go before the file system is made: mkfs holds the
    // partition exclusively, which the kernel refuses while the disk is held.
    if (const int status = partition(request, target); status != Ok)
        return status;
    if (!findTool(QStringLiteral("udevadm")).isEmpty())
        run({QStringLiteral("udevadm"), {QStringLiteral("settle")}});
    const QString partName = PartitionName(disk, 1);
    if (!waitForPartition(partName)) {
        say(ErrorLine(QStringLiteral("partitioning"),
                      QStringLiteral("the kernel does not show the new partition ") + partName,
                      {}));
        return Failed;
    }
    const QString partition = QStringLiteral("/dev/") + partName;

    say(QStringLiteral("step: formatting"));
    const RunResult result =
        run(MakeFileSystem(request.fs, partition, request.label, startSector(partName)));
    if (!result.ok) {
        say(ErrorLine(QStringLiteral("formatting"), result.reason, result.lines));
        return Failed;
    }

    return mountPartition(request, caller, partName);
}

QByteArray readFile(const QString& path, qint64 size)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(size) : QByteArray();
}

bool writeAt(const QString& node, qint64 offset, const QByteArray& data)
{
    QFile file(node);
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) || !file.seek(offset) ||
        file.write(data) != data.size())
        return false;
    return ::fsync(file.handle()) == 0;
}

int bootCode(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    const QString step = QStringLiteral("bootcode");
    say(QStringLiteral("step: bootcode"));
    const QByteArray mbr = readFile(target.node, 512);
    // An MBR table, not GPT's guard entry.
    if (mbr.size() != 512 || quint8(mbr[510]) != 0x55 || quint8(mbr[511]) != 0xaa ||
        quint8(mbr[0x1c2]) == 0xee) {
        say(ErrorLine(step, target.node + QStringLiteral(" has no MBR partition table"), {}));
        return Failed;
    }
    const qint64 start = startSector(PartitionName(target.facts.name, 1));
    const QString moduleDir = QStringLiteral("/usr/lib/grub/i386-pc");
    // The early configuration goes in on standard input and the core image
    // comes out on standard output, so that no file is left behind.
    QByteArray core;
    const RunResult made = run({QStringLiteral("grub-mkimage"),
                                GrubImageArguments(moduleDir, QStringLiteral("/dev/stdin"))},
                               GrubEarlyConfig().toUtf8(), &core);
    if (!made.ok) {
        say(ErrorLine(step, made.reason, made.lines));
        return Failed;
    }
    BootCode code;
    QString error;
    if (!BootSectors(mbr, readFile(moduleDir + QStringLiteral("/boot.img"), 512), core, start, code,
                     error)) {
        say(ErrorLine(step, error, {}));
        return Failed;
    }
    // The core image first: a stick pulled out in between keeps its old,
    // harmless boot sector.
    if (!writeAt(target.node, 512, code.core) || !writeAt(target.node, 0, code.mbr)) {
        say(ErrorLine(step, QStringLiteral("cannot write the boot code to ") + target.node, {}));
        return Failed;
    }
    return Ok;
}

// Unmounts every mount of the disk and waits until no driver holds it; the
// reason is printed when that fails.
bool release(const Target& target)
{
    say(QStringLiteral("step: unmounting"));
    ::sync();
    QString failure;
    if (!unmountAll(target.facts.name, QStringLiteral("unmounting"), failure)) {
        say(failure);
        return false;
    }
    return true;
}

int remount(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    if (!release(target))
        return Failed;
    return mountPartition(request, caller, PartitionName(target.facts.name, 1));
}

int unmount(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    if (!release(target))
        return Failed;
    // Flush the disk's own cache too, so that pulling the stick out loses nothing.
    ::sync();
    QFile disk(target.node);
    if (disk.open(QIODevice::ReadOnly))
        ::fsync(disk.handle());
    return Ok;
}

// An image goes to the disk and comes back in pieces this large: enough for
// a stick to work at its full speed, little enough memory for any machine.
constexpr qint64 kPiece = 4 << 20;
// Progress is said about this often.
constexpr qint64 kProgressStep = 32 << 20;

// A piece of memory on a page boundary, as direct I/O needs it.
class AlignedPiece
{
public:
    AlignedPiece()
    {
        if (::posix_memalign(&m_data, 4096, size_t(kPiece)) != 0)
            m_data = nullptr;
    }
    ~AlignedPiece() { std::free(m_data); }
    Q_DISABLE_COPY_MOVE(AlignedPiece)

    char* Data() const { return static_cast<char*>(m_data); }

private:
    void* m_data = nullptr;
};

// The size of the disk's logical block and of the disk, in bytes.
bool diskGeometry(int fd, int& sectorSize, qint64& bytes)
{
    quint64 size = 0;
    if (::ioctl(fd, BLKSSZGET, &sectorSize) != 0 || sectorSize <= 0 ||
        ::ioctl(fd, BLKGETSIZE64, &size) != 0)
        return false;
    bytes = qint64(size);
    return true;
}

// The size of the disk as sysfs gives it, -1 when it does not.
qint64 diskBytes(const QString& diskName)
{
    QFile file(QStringLiteral("/sys/class/block/%1/size").arg(diskName));
    bool ok = false;
    const qint64 sectors =
        file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong(&ok) : 0;
    return ok ? sectors * 512 : -1;
}

// Turns direct I/O off for a driver that refuses a request with it. False
// when it was off already.
bool dropDirect(int fd)
{
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) && ::fcntl(fd, F_SETFL, flags & ~O_DIRECT) == 0;
}

// What went wrong with the disk: a stick pulled out is gone for the kernel,
// whose size for it drops to nothing.
QString diskFailure(int fd, const QString& node, qint64 capacity, int error)
{
    quint64 now = 0;
    if (::ioctl(fd, BLKGETSIZE64, &now) != 0 || qint64(now) < capacity)
        return QStringLiteral("%1 was removed (%2)").arg(node, errorText(error));
    return errorText(error);
}

// Writes `length` bytes at `offset`, adding what the disk took to `written`.
// 0, or the error number.
int writePiece(int fd, const char* data, qint64 length, qint64 offset, qint64& written)
{
    qint64 done = 0;
    while (done < length) {
        const ssize_t wrote = ::pwrite(fd, data + done, size_t(length - done), offset + done);
        if (wrote < 0 && (errno == EINTR || (errno == EINVAL && dropDirect(fd))))
            continue;
        if (wrote < 0)
            return errno;
        if (wrote == 0)
            return ENOSPC;
        done += wrote;
        written += wrote;
    }
    return 0;
}

// Reads up to `length` bytes at `offset` into `data`, fewer only at the end
// of the disk; `got` says how many. 0, or the error number.
int readPiece(int fd, char* data, qint64 length, qint64 offset, qint64& got)
{
    got = 0;
    while (got < length) {
        const ssize_t read = ::pread(fd, data + got, size_t(length - got), offset + got);
        if (read < 0 && (errno == EINTR || (errno == EINVAL && dropDirect(fd))))
            continue;
        if (read < 0)
            return errno;
        if (read == 0)
            break;
        got += read;
    }
    return 0;
}

// A disk that holds nothing is a stick pulled out (or a card reader
// without its card), not one that is too small.
QString emptyDisk(const QString& node)
{
    return QStringLiteral("%1 holds nothing: the stick was removed").arg(node);
}

QString tooSmall(const QString& node, qint64 capacity, qint64 size)
{
    if (capacity == 0)
        return QStringLiteral("refused: ") + emptyDisk(node);
    return QStringLiteral("refused: %1 holds %2 bytes, fewer than the image's %3")
        .arg(node)
        .arg(capacity)
        .arg(size);
}

// Writes the image Brenta streams on standard input onto the disk from its
// first byte, exactly `request.size` bytes of it, and says it is done only
// when the disk has it all. The disk is held exclusively throughout.
int writeImage(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    if (const qint64 capacity = diskBytes(target.facts.name);
        capacity >= 0 && request.size > capacity) {
        say(tooSmall(target.node, capacity, request.size));
        return Refused;
    }
    const QString step = QStringLiteral("writing");
    say(QStringLiteral("step: writing"));
    QString failure;
    if (!unmountAll(target.facts.name, step, failure)) {
        say(failure);
        return Failed;
    }
    int status = Ok;
    const int fd = openExclusive(target, step, O_DIRECT, status);
    if (fd < 0)
        return status;
    const auto closeDisk = qScopeGuard([fd] { ::close(fd); });
    int sectorSize = 0;
    qint64 capacity = 0;
    if (!diskGeometry(fd, sectorSize, capacity)) {
        say(ErrorLine(step, QStringLiteral("cannot read the size of ") + target.node, {}));
        return Failed;
    }
    if (request.size > capacity) {
        say(tooSmall(target.node, capacity, request.size));
        return Refused;
    }
    const AlignedPiece piece;
    if (piece.Data() == nullptr) {
        say(ErrorLine(step, QStringLiteral("out of memory"), {}));
        return Failed;
    }
    qint64 written = 0;
    while (written < request.size) {
        const qint64 offset = written;
        const qint64 length = qMin(kPiece, request.size - offset);
        qint64 got = 0;
        while (got < length) {
            const ssize_t read = ::read(STDIN_FILENO, piece.Data() + got, size_t(length - got));
            if (read < 0 && errno == EINTR)
                continue;
            if (read < 0) {
                say(ErrorLine(step, QStringLiteral("the image cannot be read: ") + errorText(errno),
                              {}));
                return Failed;
            }
            if (read == 0) {
                say(ErrorLine(step,
                              QStringLiteral("the image ended after %1 of %2 bytes")
                                  .arg(offset + got)
                                  .arg(request.size),
                              {}));
                return Failed;
            }
            got += read;
        }
        // Direct I/O takes whole logical blocks only: the image's last bytes
        // go through the page cache, and the disk keeps what follows them.
        const qint64 whole = length - length % sectorSize;
        int error = writePiece(fd, piece.Data(), whole, offset, written);
        if (error == 0 && whole < length) {
            dropDirect(fd);
            error = writePiece(fd, piece.Data() + whole, length - whole, offset + whole, written);
        }
        if (error == 0 && written == request.size && ::fsync(fd) != 0)
            error = errno;
        if (error != 0) {
            say(ErrorLine(step,
                          QStringLiteral("%1 after %2 bytes")
                              .arg(diskFailure(fd, target.node, capacity, error))
                              .arg(written),
                          {}));
            return Failed;
        }
        if (written == request.size || written / kProgressStep != offset / kProgressStep)
            say(QStringLiteral("written: %1").arg(written));
    }
    // The kernel shows the image's partitions; one whose table it does not
    // read is no failure of the write.
    ::ioctl(fd, BLKRRPART);
    return Ok;
}

// Says the SHA-256 of the first `request.size` bytes of the disk, read from
// the disk itself: the page cache still holds what was written even when the
// stick did not keep it.
int hashImage(const Request& request, const Caller& caller)
{
    Target target;
    if (!accept(request.device, caller, target))
        return Refused;
    const QString step = QStringLiteral("verifying");
    say(QStringLiteral("step: verifying"));
    const QByteArray node = QFile::encodeName(target.node);
    int fd = ::open(node.constData(), O_RDONLY | O_CLOEXEC | O_DIRECT);
    if (fd < 0 && errno == EINVAL)
        fd = ::open(node.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        say(ErrorLine(step, QStringLiteral("cannot open %1: %2").arg(target.node, errorText(errno)),
                      {}));
        return Failed;
    }
    const auto closeDisk = qScopeGuard([fd] { ::close(fd); });
    int sectorSize = 0;
    qint64 capacity = 0;
    if (!diskGeometry(fd, sectorSize, capacity)) {
        say(ErrorLine(step, QStringLiteral("cannot read the size of ") + target.node, {}));
        return Failed;
    }
    if (request.size > capacity) {
        say(ErrorLine(step,
                      capacity == 0
                          ? emptyDisk(target.node)
                          : QStringLiteral("%1 holds only %2 bytes, fewer than the image's %3")
                                .arg(target.node)
                                .arg(capacity)
                                .arg(request.size),
                      {}));
        return Failed;
    }
    // Should direct I/O be refused, the reads go through a cache emptied first.
    ::ioctl(fd, BLKFLSBUF, 0);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    const AlignedPiece piece;
    EVP_MD_CTX* context = EVP_MD_CTX_new();
    const auto freeContext = qScopeGuard([context] { EVP_MD_CTX_free(context); });
    if (piece.Data() == nullptr || context == nullptr ||
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr) != 1) {
        say(ErrorLine(step, QStringLiteral("out of memory"), {}));
        return Failed;
    }
    qint64 done = 0;
    while (done < request.size) {
        const qint64 length = qMin(kPiece, request.size - done);
        // Direct I/O reads whole logical blocks; the disk ends on one.
        const qint64 blocks = (length + sectorSize - 1) / sectorSize * sectorSize;
        qint64 got = 0;
        if (const int error = readPiece(fd, piece.Data(), blocks, done, got); error != 0) {
            say(ErrorLine(step,
                          QStringLiteral("%1 after %2 bytes")
                              .arg(diskFailure(fd, target.node, capacity, error))
                              .arg(done + got),
                          {}));
            return Failed;
        }
        if (got < length) {
            say(ErrorLine(step,
                          QStringLiteral("%1 ended after %2 of %3 bytes")
                              .arg(target.node)
                              .arg(done + got)
                              .arg(request.size),
                          {}));
            return Failed;
        }
        EVP_DigestUpdate(context, piece.Data(), size_t(length));
        done += length;
        if (done == request.size || done / kProgressStep != (done - length) / kProgressStep)
            say(QStringLiteral("read: %1").arg(done));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    EVP_DigestFinal_ex(context, digest, &digestLength);
    say(QStringLiteral("sha256: ") +
        QString::fromLatin1(
            QByteArray(reinterpret_cast<const char*>(digest), int(digestLength)).toHex()));
    return Ok;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Request request;
    QString error;
    if (!ParseArguments(app.arguments().mid(1), request, error)) {
        std::fputs(("brenta-usb-helper: " + error + "\n" + UsageText()).toUtf8().constData(),
                   stderr);
        return Usage;
    }
    Caller caller;
    if (!findCaller(caller, error)) {
        say(QStringLiteral("refused: ") + error);
        return Refused;
    }
    switch (request.command) {
    case Command::Check: {
        Target target;
        if (!accept(request.device, caller, target))
            return Refused;
        say(QStringLiteral("ok"));
        return Ok;
    }
    case Command::Prepare:
        return prepare(request, caller);
    case Command::BootCode:
        return bootCode(request, caller);
    case Command::Remount:
        return remount(request, caller);
    case Command::Unmount:
        return unmount(request, caller);
    case Command::Write:
        return writeImage(request, caller);
    case Command::Hash:
        return hashImage(request, caller);
    }
    return Usage;
}
