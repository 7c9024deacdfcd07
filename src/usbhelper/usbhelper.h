#pragma once

#include <QString>
#include <QStringList>

#include "media/drives.h"
#include "media/usbplan.h"

// The decisions of brenta-usb-helper, the small program that does what needs
// root on a USB stick: wiping, partitioning, making the file system, boot code,
// mounting and unmounting, and writing a disk image and reading it back.
// Everything here is free of side effects, so that the rules can be tested
// without a disk; main.cpp runs the tools.
namespace UsbHelper {

// Where the helper mounts the partitions it prepares: "/run/brenta/<partition>".
inline const QString kMountRoot = QStringLiteral("/run/brenta");

enum class Command
{
    Check,
    Prepare,
    BootCode,
    Remount,
    Unmount,
    Write,
    Hash
};
using Scheme = UsbPlan::Scheme;
using FileSystem = UsbPlan::FileSystem;

struct Request
{
    Command command = Command::Check;
    QString device; // "/dev/sdb"
    Scheme scheme = Scheme::Mbr;
    FileSystem fs = FileSystem::Fat32;
    QString label;   // as given; UsbPlan::CheckLabel() has passed it
    qint64 size = 0; // write and hash: the image's bytes, from the start of the disk
};

// The command line without the program name. On wrong usage, a label
// included that the file system cannot take, or a size that is not a plain
// positive decimal number, returns false and says why in `error`.
bool ParseArguments(const QStringList& arguments, Request& request, QString& error);

QString UsageText();

// A user id as pkexec passes it in PKEXEC_UID: plain decimal, below the
// kernel's "no id" value.
bool ParseUid(const QByteArray& text, uint& uid);

// Only absolute paths under /dev without "." or ".." components, empty
// components or control characters.
bool IsPlainDevicePath(const QString& path);

// Empty when the device may be overwritten, else the reason in plain words.
QString Refusal(const QString& path, const Drives::NodeFacts& facts);

// "sdb1" for "sdb", "loop0p1" for "loop0", "nvme0n1p1" for "nvme0n1": the
// kernel puts a "p" between a name ending in a digit and the number.
QString PartitionName(const QString& diskName, int number);

// The MBR partition type byte ("c", "6", "7") or the GPT type GUID.
QString PartitionType(Scheme scheme, FileSystem fs);

// Where the partition starts: 1 MiB into the disk.
constexpr qint64 kPartitionStart = 1 << 20;

// The one partition of a disk of `sectors` sectors of `sectorSize` bytes, in
// sectors; a count of 0 when the disk is too small.
struct Extent
{
    qint64 start = 0;
    qint64 count = 0;
};
Extent PartitionExtent(Scheme scheme, int sectorSize, qint64 sectors);

struct DiskWrite
{
    qint64 offset = 0;
    QByteArray data;
};

// The partition table for a disk of `sectors` sectors of `sectorSize` bytes,
// with one partition from kPartitionStart to the end (GPT: to the last whole
// MiB before the backup table): an MBR whose partition is bootable and of
// PartitionType(), or a GPT (protective MBR, both headers and both entry
// arrays) with one basic-data partition. `random` (at least 36 bytes) makes
// the disk's and the partition's identifiers. Empty when the disk is too small.
QList<DiskWrite> PartitionTable(Scheme scheme, FileSystem fs, int sectorSize, qint64 sectors,
                                const QByteArray& random);

// The CRC-32 that GPT, zlib and Ethernet use.
quint32 Crc32(QByteArrayView data);

struct ToolCall
{
    QString program;
    QStringList arguments;
    bool operator==(const ToolCall& other) const
    {
        return program == other.program && arguments == other.arguments;
    }
};

// The mkfs call for a partition that starts at `startSector` (512-byte units):
// FAT and NTFS record it in their boot sector, which the boot code needs. The
// label is given as UsbPlan::CheckLabel() makes it.
ToolCall MakeFileSystem(FileSystem fs, const QString& partition, const QString& label,
                        qint64 startSector);

// The ways to mount, in order of preference: the kernel's driver, then the
// FUSE driver for systems whose kernel has none. NTFS always goes through
// ntfs-3g. Each leaves the files writable by uid:gid.
QList<ToolCall> MountCalls(FileSystem fs, const QString& partition, const QString& mountPoint,
                           uint uid, uint gid);

// Every mount the helper makes carries these: nothing on a stick, which its
// owner can fill with anything, may act as a device, run as another user or
// run at all.
inline const QStringList kMountFlags = {QStringLiteral("nosuid"), QStringLiteral("nodev"),
                                        QStringLiteral("noexec")};

// One line of /proc/self/mountinfo.
struct MountEntry
{
    int id = 0;
    uint major = 0; // the device the kernel mounted; 0:N for file systems without one (FUSE, tmpfs)
    uint minor = 0;
    QString point;
    QStringList options; // this mount's own options ("rw", "nosuid", ...)
    QString type;        // "vfat", "fuseblk", "fuse"
    QString source;      // as the mounting program named it
};

QList<MountEntry> ParseMountInfo(const QByteArray& text);

// Whether `point` is where the desktop mounts removable media (/media,
// /run/media) or the helper mounts sticks (/run/brenta): the only mounts the
// helper takes away. A disk mounted anywhere else belongs to something else.
bool IsRemovableMediaFolder(const QString& point);

// Which of kMountFlags the mount lacks.
QStringList MissingMountFlags(const MountEntry& mount);

// The file system's name on the command line and in messages.
QString FileSystemName(FileSystem fs);

// The legacy BIOS boot code is GRUB for i386-pc, written between the MBR and
// the first partition, with its configuration built in: it finds the
// partition holding /bootmgr and chain-loads it the way the firmware would
// load a Windows boot sector. Nothing of it goes into the file system.
QString GrubEarlyConfig();

// grub-mkimage's arguments for that core image, written to standard output.
QStringList GrubImageArguments(const QString& moduleDir, const QString& config);

struct BootCode
{
    QByteArray mbr;  // sector 0: GRUB's boot sector with the disk's own partition table
    QByteArray core; // from sector 1 on, a whole number of sectors
};

// Fits GRUB's boot sector and core image to a disk whose first sector is
// `mbr` and whose first partition starts at `firstPartitionStart` (512-byte
// sectors): keeps the disk's signature and partition table, points the boot
// sector at the core image in sector 1 and the core image's block list at the
// sectors after it. False with `error` when it does not fit.
bool BootSectors(const QByteArray& mbr, const QByteArray& bootImage, const QByteArray& coreImage,
                 qint64 firstPartitionStart, BootCode& code, QString& error);

// Whether `mount` is one of a disk's, given the device numbers of the disk
// and its partitions ("8:16", as sysfs writes them) and the partitions'
// names: the kernel mounted one of those devices itself, or it is the
// helper's own FUSE mount of a partition. A FUSE file system shows a device
// number of its own (0:N) and a source that is whatever its driver was told,
// so a source naming the stick proves nothing; but no one other than root can
// mount on "/run/brenta/<partition>", and only the helper mounts there.
bool IsMountOfDisk(const MountEntry& mount, const QStringList& numbers,
                   const QStringList& partitions);

// "error: <step>: <reason>. <last words>": the tool's last lines joined by
// blanks, at most `maxLines` of them.
QString ErrorLine(const QString& step, const QString& reason, const QStringList& toolOutput,
                  int maxLines = 3);

} // namespace UsbHelper
