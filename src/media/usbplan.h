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

struct Decision
{
    FileSystem fileSystem = FileSystem::Fat32;
    bool bootCode = false;       // legacy BIOS boot code that starts /bootmgr
    bool tooSmall = false;       // the stick cannot hold the image and the spare
    QString splitWim;            // the installer image to split into parts ("sources\install.wim")
    QStringList refusals;        // reasons the burn cannot go on
    QStringList warnings;        // what the user must agree to first
};

// `contents` is the image as listed; sizes are bytes.
// `fatFileLimit` is the largest file FAT takes (smaller in tests).
Decision Decide(const ItemTree& contents, qint64 imageSize, qint64 capacity, Scheme scheme, FileSystem chosen,
                qint64 fatFileLimit = kFatFileLimit);

} // namespace UsbPlan
