#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

class ItemTree;

// What a burn to a USB stick will do with an image, decided before anything
// is written: whether the image goes onto the stick as it is or its files are
// copied, the file system actually used, whether legacy boot code goes on the
// stick, the file that must be split to fit, and what stops the burn or needs
// the user's word first.
namespace UsbPlan {

// Image: the image is written to the whole stick byte for byte. Files: the
// stick gets a partition and a file system, and the image's files are copied.
enum class WriteMode
{
    Image,
    Files
};

struct ModeChoice
{
    WriteMode mode = WriteMode::Files;
    QString reason; // one line, for the page and the terminal
};

// How many of the image's first bytes the mode decision reads.
constexpr int kHeadBytes = 65536;

// Whether the image's first bytes hold a partition table a disk would use: an
// MBR with at least one partition, or a GPT header at LBA 1 for 512- or
// 4096-byte sectors. Images made to be written as they are (isohybrid) carry
// one beside their ISO 9660 volume; plain ISO 9660 images start with zeros.
bool HasPartitionTable(const QByteArray& head);

// `head` is the image's first kHeadBytes (fewer for a tiny image); `contents`
// the image as listed. A partition table decides for Image mode; otherwise
// the files are copied, with or without /bootmgr to start.
ModeChoice ChooseMode(const QByteArray& head, const ItemTree& contents);

enum class Scheme
{
    Mbr,
    Gpt
};
enum class FileSystem
{
    Fat32,
    Ntfs,
    Exfat,
    Fat
};

// "FAT32", "NTFS", "exFAT", "FAT" (as the page lists them; case ignored).
std::optional<FileSystem> FileSystemFromName(const QString& name);
QString Name(FileSystem fs);

// The largest file FAT and FAT32 can hold.
constexpr qint64 kFatFileLimit = (qint64(1) << 32) - 1;
// What must stay free on the stick beyond the image.
constexpr qint64 kSpareBytes = 52428800;

// The file system a burn uses: a GPT stick takes only FAT32, which UEFI
// firmware reads, and FAT cannot address a stick of 4 GiB or more.
FileSystem UsedFileSystem(Scheme scheme, FileSystem chosen, qint64 capacity);

// A volume label as the file system stores it, or why it cannot.
struct Label
{
    QString text;    // what mkfs is given
    QString problem; // empty when the label fits, else in plain words with the limit
};

// FAT and FAT32 labels are upper case, as other systems show them, without
// the blanks around them, and hold at most 11 of the ASCII characters FAT
// allows; exFAT labels hold at most 11 UTF-16 characters, NTFS labels 128;
// no label holds control characters. What passes here, mkfs takes.
Label CheckLabel(FileSystem fs, const QString& label);

struct Decision
{
    WriteMode mode = WriteMode::Files;
    QString modeReason; // left to the caller, who chose the mode
    FileSystem fileSystem = FileSystem::Fat32;
    bool bootCode = false; // legacy BIOS boot code that starts /bootmgr
    bool tooSmall = false; // the stick cannot hold the image and the spare
    QString splitWim;      // the installer image to split into parts ("sources\install.wim")
    QStringList refusals;  // reasons the burn cannot go on
    QStringList warnings;  // what the user must agree to first
    // The EFI loader comes from the image's El Torito EFI boot image, whose
    // /EFI tree is copied onto the FAT stick after the image's files.
    bool efiFromBootImage = false;
    // Disk image mode: the checksum file beside the image that names it; its
    // SHA-256 is compared with the image's as the image is written.
    QString checksumFile;
};

// The decision for Files mode. `contents` is the image as listed; sizes are
// bytes; `label` as the user typed it. `fatFileLimit` is the largest file FAT
// takes (smaller in tests). `efiBootImage`: the image has an El Torito EFI
// boot image, whose loader a FAT stick can be given where the image has no
// /efi/boot/bootx64.efi of its own.
Decision Decide(const ItemTree& contents, qint64 imageSize, qint64 capacity, Scheme scheme,
                FileSystem chosen, const QString& label, qint64 fatFileLimit = kFatFileLimit,
                bool efiBootImage = false);

// The decision for Image mode: the stick only has to hold the image, which
// brings its own partitions and file systems. A stick that cannot sets
// tooSmall and has its refusal, in plain words with both sizes, in refusals.
Decision DecideImage(qint64 imageSize, qint64 capacity);

} // namespace UsbPlan
