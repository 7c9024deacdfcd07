#include "media/usbplan.h"

#include <functional>

#include "app/util.h"
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

std::optional<FileSystem> FileSystemFromName(const QString& name)
{
    for (FileSystem fs : {FileSystem::Fat32, FileSystem::Ntfs, FileSystem::Exfat, FileSystem::Fat}) {
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
                FileSystem chosen, const QString& label, qint64 fatFileLimit)
{
    Decision decision;
    decision.tooSmall = capacity <= imageSize + kSpareBytes - 1;
    decision.fileSystem = UsedFileSystem(scheme, chosen, capacity);
    const bool fat = decision.fileSystem == FileSystem::Fat32 || decision.fileSystem == FileSystem::Fat;
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
            decision.refusals << QStringLiteral("The file /%1 is %2, too large for %3, which holds files of less "
                                                "than 4 GB. Choose NTFS or exFAT.")
                                     .arg(path, Util::FormatSize(size), Name(decision.fileSystem));
        });
    }

    const bool bootmgr = hasFile(contents, QStringLiteral("bootmgr"));
    const bool efiLoader = hasFile(contents, QStringLiteral("efi/boot/bootx64.efi"));
    decision.bootCode = scheme == Scheme::Mbr && bootmgr;
    if (scheme == Scheme::Mbr && !bootmgr) {
        decision.warnings << (efiLoader && fat ? QStringLiteral("This image has no /bootmgr, so the stick cannot "
                                                                "start through the legacy BIOS; it will start "
                                                                "through UEFI only.")
                                               : QStringLiteral("This image has no /bootmgr, so the stick will not "
                                                                "start through the legacy BIOS; it will only hold "
                                                                "the image's files."));
    }
    if (efiLoader && !fat) {
        decision.warnings << QStringLiteral("Most firmware cannot read %1, so the stick will not start through "
                                            "UEFI. Choose FAT32 for that.")
                                 .arg(Name(decision.fileSystem));
    }
    if (scheme == Scheme::Gpt && !efiLoader) {
        decision.warnings << QStringLiteral("This image has no EFI loader (/efi/boot/bootx64.efi), so a GPT stick "
                                            "will not start; it will only hold the image's files.");
    }
    return decision;
}

} // namespace UsbPlan
