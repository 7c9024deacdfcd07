#include "iso/bootsetup.h"

#include <QDataStream>
#include <QDir>
#include <QFile>

#include <cstring>

#include "core/util.h"

namespace BootSetup {
namespace {

constexpr qint64 kSector = 2048;
constexpr qint64 kChunk = 1024 * 1024;
// A loader with a boot-info table is a small program; anything claiming more
// is not taken for one.
constexpr qint64 kMaxInfoTableLoader = 64 * 1024 * 1024;

quint16 le16(const unsigned char* p)
{
    return static_cast<quint16>(p[0] | (p[1] << 8));
}

quint32 le32(const unsigned char* p)
{
    return static_cast<quint32>(p[0]) | (static_cast<quint32>(p[1]) << 8) |
           (static_cast<quint32>(p[2]) << 16) | (static_cast<quint32>(p[3]) << 24);
}

bool isDiskette(ElTorito::Media media)
{
    return media == ElTorito::Media::Diskette12 || media == ElTorito::Media::Diskette144 ||
           media == ElTorito::Media::Diskette288;
}

// The sum of the little-endian 32-bit words from byte 64 to the end, which a
// boot-info table stores at byte 20. A last word cut short by the end of the
// loader counts as padded with zeros, as the builders that write the table
// sum it (GRUB's eltorito.img, for one, is 29,541 bytes long).
bool infoTableChecksumMatches(const ReadFunction& read, qint64 start, qint64 length,
                              quint32 expected)
{
    quint32 sum = 0;
    QByteArray chunk;
    for (qint64 at = 64; at < length; at += kChunk) {
        const int size = int(qMin(kChunk, length - at));
        chunk.resize(size);
        if (!read(start + at, size, chunk.data()))
            return false;
        // Chunks are whole words but for the last one.
        chunk.append(QByteArray((4 - size % 4) % 4, '\0'));
        const auto* p = reinterpret_cast<const unsigned char*>(chunk.constData());
        for (int i = 0; i + 4 <= chunk.size(); i += 4)
            sum += le32(p + i);
    }
    return sum == expected;
}

// A FAT file system's own statement of its size, from its boot sector.
qint64 fatLength(const unsigned char* head)
{
    if (head[510] != 0x55 || head[511] != 0xAA)
        return 0;
    const quint16 bytesPerSector = le16(head + 11);
    if (bytesPerSector != 512 && bytesPerSector != 1024 && bytesPerSector != 2048 &&
        bytesPerSector != 4096)
        return 0;
    const quint16 small = le16(head + 19);
    const quint32 total = small != 0 ? small : le32(head + 32);
    return qint64(total) * bytesPerSector;
}

// Where the last partition of a hard-disk image's MBR ends.
qint64 partitionsEnd(const unsigned char* head)
{
    if (head[510] != 0x55 || head[511] != 0xAA)
        return 0;
    qint64 end = 0;
    for (int i = 0; i < 4; ++i) {
        const unsigned char* p = head + 446 + 16 * i;
        if (p[4] == 0)
            continue;
        end = qMax(end, (qint64(le32(p + 8)) + le32(p + 12)) * 512);
    }
    return end;
}

Measure problem(const QString& text)
{
    Measure measure;
    measure.problem = text;
    return measure;
}

bool writeImage(const ReadFunction& read, qint64 start, qint64 length, const QString& path)
{
    QFile out(path);
    if (!out.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    QByteArray chunk;
    for (qint64 at = 0; at < length; at += kChunk) {
        const int size = int(qMin(kChunk, length - at));
        chunk.resize(size);
        if (!read(start + at, size, chunk.data()) || out.write(chunk) != size)
            return false;
    }
    return out.flush();
}

// "BIOS boot image", "EFI boot image 2": `index` counts the entries of one
// platform from 0.
QString entryName(bool efi, int index)
{
    const QString name = efi ? QStringLiteral("EFI boot image") : QStringLiteral("BIOS boot image");
    return index == 0 ? name : name + QStringLiteral(" %1").arg(index + 1);
}

// "boot.bin", "efiboot2.img": the boot image's name in the new image's root.
QString fileName(bool efi, int index)
{
    const QString stem = efi ? QStringLiteral("efiboot") : QStringLiteral("boot");
    const QString suffix = efi ? QStringLiteral(".img") : QStringLiteral(".bin");
    return index == 0 ? stem + suffix : stem + QString::number(index + 1) + suffix;
}

} // namespace

Measure MeasureEntry(const ElTorito::Entry& entry, bool efi, const ReadFunction& read,
                     qint64 imageSize)
{
    const qint64 start = qint64(entry.loadRba) * kSector;
    unsigned char head[kSector];
    if (start + kSector > imageSize || !read(start, int(kSector), reinterpret_cast<char*>(head)))
        return problem(QStringLiteral("it lies beyond the end of the image"));

    Measure measure;
    if (isDiskette(entry.media)) {
        measure.length = ElTorito::BootImageLength(entry);
    } else if (entry.media == ElTorito::Media::HardDisk) {
        measure.length = partitionsEnd(head);
        if (measure.length == 0)
            return problem(QStringLiteral("its hard-disk image has no partition table"));
    } else if (entry.media == ElTorito::Media::NoEmulation) {
        const qint64 loaderLength = le32(head + 16);
        if (!efi && le32(head + 8) == 16 && le32(head + 12) == entry.loadRba && loaderLength > 64 &&
            loaderLength <= kMaxInfoTableLoader && start + loaderLength <= imageSize &&
            infoTableChecksumMatches(read, start, loaderLength, le32(head + 20))) {
            measure.length = loaderLength;
            measure.infoTable = true;
        } else if (efi && fatLength(head) > 0) {
            measure.length = fatLength(head);
        } else {
            measure.length = qint64(entry.sectorCount) * 512;
        }
        if (measure.length == 0)
            return problem(QStringLiteral("its catalogue entry does not say how long it is"));
    } else {
        return problem(QStringLiteral("it uses an emulation type (0x%1) no builder knows")
                           .arg(entry.mediaByte & 0x0F, 2, 16, QLatin1Char('0')));
    }
    if (start + measure.length > imageSize)
        return problem(QStringLiteral("it runs past the end of the image"));
    return measure;
}

QString Plan::Warning() const
{
    const QString why = problems.join(QStringLiteral("; "));
    if (images.empty())
        return QStringLiteral(
                   "The boot setup of this image cannot be carried over (%1). "
                   "The saved image will hold the files but will not boot. Save it anyway?")
            .arg(why);
    return QStringLiteral(
               "Part of the boot setup of this image cannot be carried over (%1). "
               "The saved image will boot only through its other boot entries. Save it anyway?")
        .arg(why);
}

Plan Prepare(const QString& image, const QString& dir)
{
    Plan plan;
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly))
        return plan;
    QDataStream stream(&file);
    const ReadFunction read = [&stream](qint64 offset, int length, char* buffer) {
        return Util::Read(stream, offset, length, buffer) == Util::ReadOk;
    };
    const std::optional<ElTorito::Catalog> catalog = ElTorito::Parse(read);
    if (!catalog)
        return plan;
    plan.hasCatalog = true;
    QDir().mkpath(dir);

    // Every bootable entry in catalogue order, so that the new catalogue
    // lists them as the original does. The builder makes BIOS and EFI
    // entries only.
    int biosIndex = 0;
    int efiIndex = 0;
    for (const ElTorito::Entry& entry : catalog->entries) {
        if (!entry.bootable)
            continue;
        plan.originalBoots = true;
        if (entry.platform != ElTorito::kPlatformBios && entry.platform != ElTorito::kPlatformEfi) {
            plan.problems << QStringLiteral(
                                 "%1 boot image: the image builder makes boot entries for BIOS and "
                                 "EFI only")
                                 .arg(ElTorito::PlatformName(entry.platform));
            continue;
        }
        const bool efi = entry.platform == ElTorito::kPlatformEfi;
        int& index = efi ? efiIndex : biosIndex;
        const QString label = entryName(efi, index);
        BootImage boot;
        boot.entry = entry;
        boot.efi = efi;
        boot.file = fileName(efi, index);
        boot.path = QDir(dir).filePath(boot.file);
        ++index;
        const Measure measure = MeasureEntry(entry, efi, read, file.size());
        boot.infoTable = measure.infoTable;
        if (!measure.problem.isEmpty()) {
            plan.problems << label + QStringLiteral(": ") + measure.problem;
            continue;
        }
        if (!writeImage(read, qint64(entry.loadRba) * kSector, measure.length, boot.path)) {
            plan.problems << label + QStringLiteral(": it could not be copied out of the image");
            continue;
        }
        plan.images.push_back(boot);
    }
    return plan;
}

QStringList Arguments(const Plan& plan, const QString& catalog)
{
    QStringList arguments;
    bool first = true;
    for (const BootImage& boot : plan.images) {
        if (!first)
            arguments << QStringLiteral("-eltorito-alt-boot");
        // An EFI entry is marked for the EFI platform by -e; it is always
        // without emulation, the firmware reading the FAT image in place.
        if (boot.efi) {
            arguments << QStringLiteral("-e") << boot.file << QStringLiteral("-no-emul-boot");
        } else {
            arguments << QStringLiteral("-b") << boot.file;
            switch (boot.entry.media) {
            case ElTorito::Media::NoEmulation:
                arguments << QStringLiteral("-no-emul-boot");
                if (boot.entry.sectorCount > 0)
                    arguments << QStringLiteral("-boot-load-size")
                              << QString::number(boot.entry.sectorCount);
                if (boot.infoTable)
                    arguments << QStringLiteral("-boot-info-table");
                break;
            case ElTorito::Media::HardDisk:
                arguments << QStringLiteral("-hard-disk-boot");
                break;
            default:
                break; // a diskette's kind follows from its size
            }
            if (boot.entry.loadSegment != 0 && boot.entry.loadSegment != 0x7C0)
                arguments << QStringLiteral("-boot-load-seg")
                          << QString::number(boot.entry.loadSegment);
        }
        if (first)
            arguments << QStringLiteral("-c") << catalog;
        first = false;
    }
    return arguments;
}

QString VolumeLabel(const QString& image)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QDataStream stream(&file);
    QString primary;
    QString jolietLabel;
    unsigned char sector[kSector];
    // Volume descriptors run from sector 16 to a terminator (type 255).
    for (qint64 index = 16; index < 16 + 64; ++index) {
        if (Util::Read(stream, index * kSector, int(kSector), reinterpret_cast<char*>(sector)) !=
                Util::ReadOk ||
            std::memcmp(sector + 1, "CD001", 5) != 0 || sector[0] == 255)
            break;
        const char* id = reinterpret_cast<const char*>(sector + 40);
        if (sector[0] == 1) {
            primary = QString::fromLatin1(id, 32).trimmed();
        } else if (sector[0] == 2 && sector[88] == '%' && sector[89] == '/' &&
                   (sector[90] == '@' || sector[90] == 'C' || sector[90] == 'E')) {
            QString joliet;
            for (int i = 0; i + 1 < 32; i += 2)
                joliet += QChar(ushort((quint8(id[i]) << 8) | quint8(id[i + 1])));
            if (jolietLabel.isEmpty())
                jolietLabel = joliet.remove(QChar(0)).trimmed();
        }
    }
    return primary.isEmpty() ? jolietLabel : primary;
}

} // namespace BootSetup
