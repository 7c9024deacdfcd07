#include "iso/eltorito.h"

#include <QDataStream>
#include <QFile>
#include <QStringList>

#include <algorithm>
#include <cstring>

#include "core/util.h"

namespace ElTorito {
namespace {

constexpr qint64 kSector = 2048;
constexpr qint64 kBootRecordOffset = 17 * kSector;
// A catalogue longer than this many sectors is not read further.
constexpr int kMaxCatalogSectors = 8;

quint16 le16(const unsigned char* p)
{
    return static_cast<quint16>(p[0] | (p[1] << 8));
}

quint32 le32(const unsigned char* p)
{
    return static_cast<quint32>(p[0]) | (static_cast<quint32>(p[1]) << 8) |
           (static_cast<quint32>(p[2]) << 16) | (static_cast<quint32>(p[3]) << 24);
}

Entry entryAt(const unsigned char* p, quint8 platform)
{
    Entry entry;
    entry.bootable = p[0] == 0x88;
    entry.mediaByte = p[1];
    entry.media = MediaOf(p[1]);
    entry.loadSegment = le16(p + 2);
    entry.sectorCount = le16(p + 6);
    entry.loadRba = le32(p + 8);
    entry.platform = platform;
    return entry;
}

// Reads through Util::Read, so offsets are 64-bit and a short read fails.
ReadFunction streamReader(QDataStream& stream)
{
    return [&stream](qint64 offset, int length, char* buffer) {
        return Util::Read(stream, offset, length, buffer) == Util::ReadOk;
    };
}

std::optional<Catalog> fail(Error* error, Error what)
{
    if (error)
        *error = what;
    return std::nullopt;
}

// The system area: the image's first 16 sectors, which ISO 9660 leaves to
// the platform. Partition tables of a disk live there.
constexpr int kSystemArea = 16 * int(kSector);
// A GPT's partition entries are read up to this many bytes (1024 entries of
// the usual 128 bytes).
constexpr qint64 kMaxGptEntryBytes = 128 * 1024;
// An Apple partition map is read for at most this many entries.
constexpr quint32 kMaxApmEntries = 64;

quint16 be16(const unsigned char* p)
{
    return static_cast<quint16>((p[0] << 8) | p[1]);
}

quint32 be32(const unsigned char* p)
{
    return (static_cast<quint32>(p[0]) << 24) | (static_cast<quint32>(p[1]) << 16) |
           (static_cast<quint32>(p[2]) << 8) | static_cast<quint32>(p[3]);
}

quint64 le64(const unsigned char* p)
{
    return quint64(le32(p)) | (quint64(le32(p + 4)) << 32);
}

QString hexByte(quint8 value)
{
    return QStringLiteral("0x%1").arg(
        QString::number(value, 16).toUpper().rightJustified(2, QLatin1Char('0')));
}

QString partitionText(int number, const QString& type, quint64 start, quint64 count,
                      const char* unit)
{
    return QStringLiteral("%1: %2, start %3, %4 %5")
        .arg(number)
        .arg(type)
        .arg(start)
        .arg(count)
        .arg(unit);
}

// The MBR's partitions, or an empty string when the first sector holds
// none: no boot signature, or boot flags other than 0x00 and 0x80 (a file
// system's boot sector has code where the table would be).
QString mbrText(const unsigned char* area, qint64 volumeBytes)
{
    if (area[510] != 0x55 || area[511] != 0xAA)
        return QString();
    QStringList partitions;
    bool protective = true;
    bool holdsVolume = false;
    for (int i = 0; i < 4; ++i) {
        const unsigned char* p = area + 446 + 16 * i;
        if (p[0] != 0x00 && p[0] != 0x80)
            return QString();
        const quint8 type = p[4];
        const quint32 start = le32(p + 8);
        const quint32 count = le32(p + 12);
        if (type == 0 && count == 0)
            continue;
        protective = protective && type == 0xEE;
        holdsVolume =
            holdsVolume || (start == 0 && volumeBytes > 0 && qint64(count) * 512 >= volumeBytes);
        const QString kind = hexByte(type) + (p[0] == 0x80 ? QStringLiteral(" active") : QString());
        partitions << partitionText(i + 1, kind, start, count, "sectors");
    }
    if (partitions.isEmpty())
        return QStringLiteral("MBR (no partitions)");
    bool bootCode = false;
    for (int i = 0; i < 440 && !bootCode; ++i)
        bootCode = area[i] != 0;
    QString kind = QStringLiteral("MBR");
    if (protective)
        kind = QStringLiteral("protective MBR");
    else if (bootCode && holdsVolume)
        kind = QStringLiteral("isohybrid MBR");
    return kind + QStringLiteral(" (") + partitions.join(QStringLiteral("; ")) + QLatin1Char(')');
}

QString gptTypeName(const unsigned char* guid)
{
    static const struct
    {
        const char* bytes;
        const char* name;
    } known[] = {
        {"\x28\x73\x2A\xC1\x1F\xF8\xD2\x11\xBA\x4B\x00\xA0\xC9\x3E\xC9\x3B", "EFI system"},
        {"\xA2\xA0\xD0\xEB\xE5\xB9\x33\x44\x87\xC0\x68\xB6\xB7\x26\x99\xC7", "basic data"},
        {"\x48\x61\x68\x21\x49\x64\x6F\x6E\x74\x4E\x65\x65\x64\x45\x46\x49", "BIOS boot"},
        {"\xAF\x3D\xC6\x0F\x83\x84\x72\x47\x8E\x79\x3D\x69\xD8\x47\x7D\xE4", "Linux"},
        {"\x00\x53\x46\x48\x00\x00\xAA\x11\xAA\x11\x00\x30\x65\x43\xEC\xAC", "HFS+"},
    };
    for (const auto& type : known) {
        if (std::memcmp(guid, type.bytes, 16) == 0)
            return QLatin1String(type.name);
    }
    // The first three fields are stored little-endian.
    const auto hex = [guid](std::initializer_list<int> order) {
        QString text;
        for (const int i : order)
            text += QString::number(guid[i], 16).toUpper().rightJustified(2, QLatin1Char('0'));
        return text;
    };
    return hex({3, 2, 1, 0}) + '-' + hex({5, 4}) + '-' + hex({7, 6}) + '-' + hex({8, 9}) + '-' +
           hex({10, 11, 12, 13, 14, 15});
}

// A GPT whose header is at LBA 1 of `sectorSize`-byte sectors, with its
// used partitions; empty when there is none.
QString gptText(const ReadFunction& read, const unsigned char* area, int sectorSize)
{
    const unsigned char* header = area + sectorSize;
    if (std::memcmp(header, "EFI PART", 8) != 0)
        return QString();
    const quint32 headerSize = le32(header + 12);
    if (headerSize < 92 || headerSize > quint32(sectorSize) || le64(header + 24) != 1)
        return QString();
    const QString name = sectorSize == 512
                             ? QStringLiteral("GPT")
                             : QStringLiteral("GPT of %1-byte sectors").arg(sectorSize);
    const quint64 entriesLba = le64(header + 72);
    const quint32 entryCount = le32(header + 80);
    const quint32 entrySize = le32(header + 84);
    if (entrySize < 128 || entrySize > 4096 || entrySize % 8 != 0 ||
        entriesLba > (quint64(1) << 40))
        return name + QStringLiteral(" (unreadable partition entries)");
    const qint64 length = qMin(qint64(entryCount) * entrySize, kMaxGptEntryBytes);
    QByteArray bytes(int(length), '\0');
    if (!read(qint64(entriesLba) * sectorSize, int(length), bytes.data()))
        return name + QStringLiteral(" (unreadable partition entries)");
    QStringList partitions;
    const auto* entries = reinterpret_cast<const unsigned char*>(bytes.constData());
    for (qint64 at = 0; at + entrySize <= length; at += entrySize) {
        const unsigned char* p = entries + at;
        if (std::all_of(p, p + 16, [](unsigned char c) { return c == 0; }))
            continue;
        const quint64 first = le64(p + 32);
        const quint64 last = le64(p + 40);
        partitions << partitionText(int(at / entrySize) + 1, gptTypeName(p), first,
                                    last >= first ? last - first + 1 : 0, "sectors");
    }
    if (partitions.isEmpty())
        return name + QStringLiteral(" (no partitions)");
    return name + QStringLiteral(" (") + partitions.join(QStringLiteral("; ")) + QLatin1Char(')');
}

// An Apple partition map: the driver descriptor "ER" in the first block,
// its block size, and map entries "PM" from the second block on.
QString apmText(const ReadFunction& read, const unsigned char* area)
{
    if (area[0] != 'E' || area[1] != 'R')
        return QString();
    const quint16 blockSize = be16(area + 2);
    if (blockSize != 512 && blockSize != 1024 && blockSize != 2048 && blockSize != 4096)
        return QString();
    unsigned char block[512];
    QStringList partitions;
    quint32 count = 1;
    for (quint32 i = 1; i <= count && i <= kMaxApmEntries; ++i) {
        if (!read(qint64(i) * blockSize, int(sizeof block), reinterpret_cast<char*>(block)) ||
            block[0] != 'P' || block[1] != 'M')
            break;
        if (i == 1)
            count = be32(block + 4);
        QString type;
        for (int c = 48; c < 80 && block[c] != 0; ++c)
            type += block[c] >= 0x20 && block[c] < 0x7F ? QChar(block[c]) : QChar('?');
        partitions << partitionText(int(i), type, be32(block + 8), be32(block + 12), "blocks");
    }
    if (partitions.isEmpty())
        return QString();
    return QStringLiteral("APM of %1-byte blocks (").arg(blockSize) +
           partitions.join(QStringLiteral("; ")) + QLatin1Char(')');
}

QString entryText(int number, const Entry& entry)
{
    QString text = entry.section == 0
                       ? QStringLiteral("entry %1: default\n").arg(number)
                       : QStringLiteral("entry %1: section %2\n").arg(number).arg(entry.section);
    QString platform = PlatformName(entry.platform);
    if (!platform.startsWith(QLatin1String("0x")))
        platform += QStringLiteral(" (%1)").arg(hexByte(entry.platform));
    text += QStringLiteral("  platform: %1\n").arg(platform);
    text += QStringLiteral("  bootable: %1\n")
                .arg(entry.bootable ? QStringLiteral("yes") : QStringLiteral("no"));
    text += QStringLiteral("  media: %1\n").arg(MediaName(entry.media));
    text += QStringLiteral("  load-size: %1 %2 (%3 bytes)\n")
                .arg(entry.sectorCount)
                .arg(entry.sectorCount == 1 ? QStringLiteral("sector") : QStringLiteral("sectors"))
                .arg(qint64(entry.sectorCount) * 512);
    text += QStringLiteral("  load-sector: %1\n").arg(entry.loadRba);
    if (entry.loadSegment != 0 && entry.loadSegment != 0x7C0)
        text += QStringLiteral("  load-segment: 0x%1\n")
                    .arg(QString::number(entry.loadSegment, 16)
                             .toUpper()
                             .rightJustified(4, QLatin1Char('0')));
    return text;
}

} // namespace

Media MediaOf(quint8 mediaByte)
{
    switch (mediaByte & 0x0F) {
    case 0:
        return Media::NoEmulation;
    case 1:
        return Media::Diskette12;
    case 2:
        return Media::Diskette144;
    case 3:
        return Media::Diskette288;
    case 4:
        return Media::HardDisk;
    default:
        return Media::Unknown;
    }
}

qint64 BootImageLength(const Entry& entry)
{
    switch (entry.media) {
    case Media::Diskette12:
        return 1228800;
    case Media::Diskette144:
        return 1474560;
    case Media::Diskette288:
        return 2949120;
    default:
        return qint64(entry.sectorCount) * 512;
    }
}

QString MediaName(Media media)
{
    switch (media) {
    case Media::NoEmulation:
        return QStringLiteral("no-emulation");
    case Media::Diskette12:
        return QStringLiteral("1.2M");
    case Media::Diskette144:
        return QStringLiteral("1.44M");
    case Media::Diskette288:
        return QStringLiteral("2.88M");
    case Media::HardDisk:
        return QStringLiteral("hard-disk");
    case Media::Unknown:
        break;
    }
    return QStringLiteral("unknown");
}

QString ErrorText(Error error)
{
    switch (error) {
    case Error::None:
        return QString();
    case Error::CannotOpen:
        return QStringLiteral("The image cannot be opened.");
    case Error::SectorUnreadable:
        return QStringLiteral("Could not read the file/drive");
    case Error::NotBootRecord:
        return QStringLiteral("Invalid boot-record-volume!");
    case Error::BadSignature:
        return QStringLiteral("Invalid signature in boot-record-volume!");
    case Error::CatalogUnreadable:
        return QStringLiteral("Could not read the file/drive");
    case Error::BadValidationEntry:
        return QStringLiteral("Invalid validation-entry in boot-catalog!");
    }
    return QString();
}

QString PlatformName(quint8 platform)
{
    switch (platform) {
    case kPlatformBios:
        return QStringLiteral("BIOS");
    case kPlatformPowerPc:
        return QStringLiteral("PowerPC");
    case kPlatformMac:
        return QStringLiteral("Mac");
    case kPlatformEfi:
        return QStringLiteral("EFI");
    default:
        return hexByte(platform);
    }
}

QString SystemArea(const ReadFunction& read)
{
    QByteArray bytes(kSystemArea, '\0');
    if (!read(0, kSystemArea, bytes.data()))
        return QStringLiteral("unreadable");
    const auto* area = reinterpret_cast<const unsigned char*>(bytes.constData());
    // The primary volume descriptor's size of the volume, which an isohybrid
    // MBR's first partition holds whole.
    qint64 volumeBytes = 0;
    unsigned char primary[kSector];
    if (read(16 * kSector, int(kSector), reinterpret_cast<char*>(primary)) && primary[0] == 1 &&
        std::memcmp(primary + 1, "CD001", 5) == 0)
        volumeBytes = qint64(le32(primary + 80)) * le16(primary + 128);

    QStringList tables;
    tables << mbrText(area, volumeBytes);
    const QString gpt = gptText(read, area, 512);
    tables << (gpt.isEmpty() ? gptText(read, area, 4096) : gpt);
    tables << apmText(read, area);
    tables.removeAll(QString());
    if (!tables.isEmpty())
        return tables.join(QStringLiteral(" + "));
    if (std::all_of(area, area + kSystemArea, [](unsigned char c) { return c == 0; }))
        return QStringLiteral("none");
    return QStringLiteral("unrecognised");
}

QString BootInfoText(const Catalog& catalog, const QString& systemArea)
{
    QString text = QStringLiteral("catalog-sector: %1\n").arg(catalog.catalogSector);
    for (size_t i = 0; i < catalog.entries.size(); ++i)
        text += entryText(int(i) + 1, catalog.entries[i]);
    text += QStringLiteral("system-area: %1\n").arg(systemArea);
    return text;
}

std::optional<Catalog> Parse(const ReadFunction& read, Error* error)
{
    unsigned char sector[kSector];
    char* raw = reinterpret_cast<char*>(sector);
    if (!read(kBootRecordOffset, int(kSector), raw))
        return fail(error, Error::SectorUnreadable);
    if (sector[0] != 0 || sector[6] != 1)
        return fail(error, Error::NotBootRecord);
    if (std::memcmp(sector + 1, "CD001", 5) != 0 ||
        std::memcmp(sector + 7, "EL TORITO SPECIFICATION", 23) != 0)
        return fail(error, Error::BadSignature);

    Catalog catalog;
    catalog.catalogSector = le32(sector + 71);
    const qint64 catalogOffset = qint64(catalog.catalogSector) * kSector;
    if (!read(catalogOffset, int(kSector), raw))
        return fail(error, Error::CatalogUnreadable);
    if (sector[0] != 1 || sector[30] != 0x55 || sector[31] != 0xAA)
        return fail(error, Error::BadValidationEntry);
    // The validation entry names the default entry's platform.
    catalog.defaultEntry = entryAt(sector + 32, sector[1]);
    catalog.entries.push_back(catalog.defaultEntry);

    // Section headers (0x90, the last one 0x91), each followed by its entries,
    // and a section entry by its extension entries (0x44). Read sector by
    // sector, bounded; whatever else comes ends the catalogue.
    int catalogSectorIndex = 0;
    int at = 64;
    quint8 platform = 0;
    int section = 0;
    int entriesLeft = 0;
    bool lastHeader = false;
    bool afterSectionEntry = false;
    for (;;) {
        if (at >= kSector) {
            if (++catalogSectorIndex >= kMaxCatalogSectors)
                break;
            if (!read(catalogOffset + catalogSectorIndex * kSector, int(kSector), raw))
                break;
            at = 0;
        }
        const unsigned char* p = sector + at;
        at += 32;
        if (p[0] == 0x44 && afterSectionEntry)
            continue;
        afterSectionEntry = false;
        if (entriesLeft > 0) {
            // An empty record ends a section that promised more entries.
            if ((p[0] != 0x88 && p[0] != 0x00) ||
                std::all_of(p, p + 32, [](unsigned char c) { return c == 0; }))
                break;
            --entriesLeft;
            Entry entry = entryAt(p, platform);
            entry.section = section;
            catalog.entries.push_back(entry);
            if (platform == kPlatformEfi)
                catalog.efiEntries.push_back(entry);
            afterSectionEntry = true;
            continue;
        }
        if (lastHeader || (p[0] != 0x90 && p[0] != 0x91))
            break;
        lastHeader = p[0] == 0x91;
        platform = p[1];
        entriesLeft = le16(p + 2);
        ++section;
    }
    if (error)
        *error = Error::None;
    return catalog;
}

std::optional<Catalog> ReadFile(const QString& image, Error* error)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly))
        return fail(error, Error::CannotOpen);
    QDataStream stream(&file);
    return Parse(streamReader(stream), error);
}

std::optional<QString> BootInfo(const QString& image, Error* error)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(error, Error::CannotOpen);
        return std::nullopt;
    }
    QDataStream stream(&file);
    const ReadFunction read = streamReader(stream);
    const std::optional<Catalog> catalog = Parse(read, error);
    if (!catalog)
        return std::nullopt;
    return BootInfoText(*catalog, SystemArea(read));
}

} // namespace ElTorito
