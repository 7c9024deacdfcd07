#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class ItemTree;

// What a burn to a USB stick will do with an image, decided before anything
// is written: the file system actually used, whether legacy boot code goes
// on the stick, the file that must be split to fit, and what stops the burn
// or needs the user's word first.
namespace UsbPlan {

enum class Scheme { Mbr, Gpt };
enum class FileSystem { Fat32, Ntfs, Exfat, Fat };

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
    FileSystem fileSystem = FileSystem::Fat32;
    bool bootCode = false;       // legacy BIOS boot code that starts /bootmgr
    bool tooSmall = false;       // the stick cannot hold the image and the spare
    QString splitWim;            // the installer image to split into parts ("sources\install.wim")
    QStringList refusals;        // reasons the burn cannot go on
    QStringList warnings;        // what the user must agree to first
};

// `contents` is the image as listed; sizes are bytes; `label` as the user
// typed it. `fatFileLimit` is the largest file FAT takes (smaller in tests).
Decision Decide(const ItemTree& contents, qint64 imageSize, qint64 capacity, Scheme scheme,
                FileSystem chosen, const QString& label, qint64 fatFileLimit = kFatFileLimit);

} // namespace UsbPlan
