#include "media/usbplan.h"

#include <functional>

#include "core/util.h"
#include "iso/itemtree.h"

namespace UsbPlan {
namespace {

constexpr qint64 kFourGiB = qint64(1) << 32;

// An entry found by its path, whatever the case of its letters (the image's
// names may come in any case, and the firmware does not care).
const Item* findIgnoringCase(const Item& folder, const QStringList& path)
{
    if (path.isEmpty())
        return &folder;
    for (const auto& child : folder.children) {
        if (ItemTree::LastComponent(child->name).compare(path.first(), Qt::CaseInsensitive) == 0)
            return findIgnoringCase(*child, path.mid(1));
    }
    return nullptr;
}

bool hasFile(const ItemTree& contents, const QString& path)
{
    const Item* item = findIgnoringCase(contents.Root(), path.split(QLatin1Char('/')));
    return item != nullptr && !item->isDir;
}

quint32 le32(const QByteArray& bytes, int at)
{
    quint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | quint8(bytes[at + i]);
    return value;
}

// An MBR as the kernel reads it: the boot signature, every entry's boot flag
// 0x00 or 0x80 (a file system's boot sector has code there instead), and one
// entry at least that is used.
bool hasMbr(const QByteArray& head)
{
    if (head.size() < 512 || quint8(head[510]) != 0x55 || quint8(head[511]) != 0xAA)
        return false;
    bool used = false;
    for (int entry = 446; entry < 510; entry += 16) {
        const quint8 flag = quint8(head[entry]);
        if (flag != 0x00 && flag != 0x80)
            return false;
        if (quint8(head[entry + 4]) != 0 && le32(head, entry + 12) != 0)
            used = true;
    }
    return used;
}

// A primary GPT header: its signature at LBA 1, a header size that fits the
// sector, and its own position recorded as LBA 1.
bool hasGpt(const QByteArray& head, int sectorSize)
{
    if (head.size() < 2 * sectorSize || !head.mid(sectorSize, 8).startsWith("EFI PART"))
        return false;
    const quint32 headerSize = le32(head, sectorSize + 12);
    return headerSize >= 92 && headerSize <= quint32(sectorSize) &&
           le32(head, sectorSize + 24) == 1 && le32(head, sectorSize + 28) == 0;
}

void forEachFile(const Item& folder, const std::function<void(const Item&)>& visit)
{
    for (const auto& child : folder.children) {
        if (child->isDir)
            forEachFile(*child, visit);
        else
            visit(*child);
    }
}

} // namespace

bool HasPartitionTable(const QByteArray& head)
{
    return hasMbr(head) || hasGpt(head, 512) || hasGpt(head, 4096);
}

ModeChoice ChooseMode(const QByteArray& head, const ItemTree& contents)
{
    // The table decides: an image that carries one was made to be a disk,
    // and its own boot code starts it, whatever files it also holds.
    if (HasPartitionTable(head))
        return {WriteMode::Image,
                QStringLiteral("This image is made to be written as it is (disk image mode).")};
    if (hasFile(contents, QStringLiteral("bootmgr")))
        return {WriteMode::Files,
                QStringLiteral("This image starts Windows setup from /bootmgr, so its files are "
                               "copied onto the stick (files mode).")};
    return {WriteMode::Files,
            QStringLiteral("This image has no partition table, so its files are copied onto the "
                           "stick (files mode).")};
}

std::optional<FileSystem> FileSystemFromName(const QString& name)
{
    for (FileSystem fs :
         {FileSystem::Fat32, FileSystem::Ntfs, FileSystem::Exfat, FileSystem::Fat}) {
        if (name.compare(Name(fs), Qt::CaseInsensitive) == 0)
            return fs;
    }
    return std::nullopt;
}

QString Name(FileSystem fs)
{
    switch (fs) {
    case FileSystem::Fat32:
        return QStringLiteral("FAT32");
    case FileSystem::Ntfs:
        return QStringLiteral("NTFS");
    case FileSystem::Exfat:
        return QStringLiteral("exFAT");
    case FileSystem::Fat:
        return QStringLiteral("FAT");
    }
    return QString();
}

FileSystem UsedFileSystem(Scheme scheme, FileSystem chosen, qint64 capacity)
{
    if (scheme == Scheme::Gpt || (chosen == FileSystem::Fat && capacity >= kFourGiB))
        return FileSystem::Fat32;
    return chosen;
}

Label CheckLabel(FileSystem fs, const QString& label)
{
    Label out;
    for (const QChar c : label) {
        if (c.category() == QChar::Other_Control) {
            out.problem =
                QStringLiteral("A volume label cannot hold control characters such as tabs or line "
                               "breaks.");
            return out;
        }
    }
    const auto tooLong = [&](const QString& text, int limit) {
        return QStringLiteral("%1 %2 label holds at most %3 characters; \"%4\" has %5.")
            .arg(fs == FileSystem::Exfat || fs == FileSystem::Ntfs ? QStringLiteral("An")
                                                                   : QStringLiteral("A"),
                 Name(fs))
            .arg(limit)
            .arg(text)
            .arg(text.size());
    };
    switch (fs) {
    case FileSystem::Fat32:
    case FileSystem::Fat: {
        // FAT keeps labels in its old 8-bit character set: only ASCII is the
        // same everywhere, and mkfs refuses these.
        static const QString forbidden = QStringLiteral("\"*+,./:;<=>?[\\]|");
        const QString text = label.trimmed();
        for (const QChar c : text) {
            if (c.unicode() > 0x7e || forbidden.contains(c)) {
                out.problem = QStringLiteral(
                                  "A %1 label can hold only the letters A to Z, digits, blanks and "
                                  "! # $ % & ' ( ) - @ ^ _ ` { } ~, not \"%2\".")
                                  .arg(Name(fs), c);
                return out;
            }
        }
        if (text.size() > 11)
            out.problem = tooLong(text, 11);
        else
            out.text = text.toUpper();
        return out;
    }
    case FileSystem::Exfat:
        if (label.size() > 11)
            out.problem = tooLong(label, 11);
        else
            out.text = label;
        return out;
    case FileSystem::Ntfs:
        if (label.size() > 128)
            out.problem = tooLong(label, 128);
        else
            out.text = label;
        return out;
    }
    return out;
}

Decision Decide(const ItemTree& contents, qint64 imageSize, qint64 capacity, Scheme scheme,
                FileSystem chosen, const QString& label, qint64 fatFileLimit, bool efiBootImage)
{
    Decision decision;
    decision.tooSmall = capacity <= imageSize + kSpareBytes - 1;
    decision.fileSystem = UsedFileSystem(scheme, chosen, capacity);
    const bool fat =
        decision.fileSystem == FileSystem::Fat32 || decision.fileSystem == FileSystem::Fat;
    const QString labelProblem = CheckLabel(decision.fileSystem, label).problem;
    if (!labelProblem.isEmpty())
        decision.refusals << labelProblem;

    if (fat) {
        forEachFile(contents.Root(), [&](const Item& file) {
            const qint64 size = file.size.toLongLong();
            if (size <= fatFileLimit)
                return;
            QString path = file.name;
            if (path.compare(QLatin1String("sources\\install.wim"), Qt::CaseInsensitive) == 0 &&
                decision.splitWim.isEmpty()) {
                // The installer reads install.swm parts as one image.
                decision.splitWim = path;
                return;
            }
            path.replace(QLatin1Char('\\'), QLatin1Char('/'));
            decision.refusals
                << QStringLiteral("The file /%1 is %2, too large for %3, which holds files of less "
                                  "than 4 GB. Choose NTFS or exFAT.")
                       .arg(path, Util::FormatSize(size), Name(decision.fileSystem));
        });
    }

    const bool bootmgr = hasFile(contents, QStringLiteral("bootmgr"));
    const bool efiFile = hasFile(contents, QStringLiteral("efi/boot/bootx64.efi"));
    // FAT is what the EFI boot image's loader is copied onto.
    decision.efiFromBootImage = !efiFile && efiBootImage && fat;
    const bool efiLoader = efiFile || decision.efiFromBootImage;
    decision.bootCode = scheme == Scheme::Mbr && bootmgr;
    if (scheme == Scheme::Mbr && !bootmgr) {
        decision.warnings
            << (efiLoader && fat
                    ? QStringLiteral("This image has no /bootmgr, so the stick cannot "
                                     "start through the legacy BIOS; it will start "
                                     "through UEFI only.")
                    : QStringLiteral("This image has no /bootmgr, so the stick will not "
                                     "start through the legacy BIOS; it will only hold "
                                     "the image's files."));
    }
    if (efiLoader && !fat) {
        decision.warnings
            << QStringLiteral("Most firmware cannot read %1, so the stick will not start through "
                              "UEFI. Choose FAT32 for that.")
                   .arg(Name(decision.fileSystem));
    }
    if (scheme == Scheme::Gpt && !efiLoader) {
        decision.warnings << QStringLiteral(
            "This image has no EFI loader (/efi/boot/bootx64.efi), so a GPT stick "
            "will not start; it will only hold the image's files.");
    }
    return decision;
}

Decision DecideImage(qint64 imageSize, qint64 capacity)
{
    Decision decision;
    decision.mode = WriteMode::Image;
    decision.tooSmall = capacity < imageSize;
    if (decision.tooSmall) {
        decision.refusals << QStringLiteral("The stick (%1) is smaller than the image (%2).")
                                 .arg(Util::FormatSize(capacity), Util::FormatSize(imageSize));
    }
    return decision;
}

} // namespace UsbPlan
