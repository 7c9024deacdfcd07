#include "iso/eltorito.h"

#include <QDataStream>
#include <QDebug>
#include <QFile>

#include <cstdio>
#include <cstring>

#include "app/util.h"

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
    return static_cast<quint32>(p[0]) | (static_cast<quint32>(p[1]) << 8) | (static_cast<quint32>(p[2]) << 16) |
           (static_cast<quint32>(p[3]) << 24);
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

std::optional<Catalog> Parse(const ReadFunction& read, Error* error)
{
    unsigned char sector[kSector];
    char* raw = reinterpret_cast<char*>(sector);
    if (!read(kBootRecordOffset, int(kSector), raw))
        return fail(error, Error::SectorUnreadable);
    if (sector[0] != 0 || sector[6] != 1)
        return fail(error, Error::NotBootRecord);
    if (std::memcmp(sector + 1, "CD001", 5) != 0 || std::memcmp(sector + 7, "EL TORITO SPECIFICATION", 23) != 0)
        return fail(error, Error::BadSignature);

    Catalog catalog;
    catalog.catalogSector = le32(sector + 71);
    const qint64 catalogOffset = qint64(catalog.catalogSector) * kSector;
    if (!read(catalogOffset, int(kSector), raw))
        return fail(error, Error::CatalogUnreadable);
    if (sector[0] != 1 || sector[30] != 0x55 || sector[31] != 0xAA)
        return fail(error, Error::BadValidationEntry);
    const quint8 defaultPlatform = sector[1];
    catalog.defaultEntry = entryAt(sector + 32, defaultPlatform);

    // Section headers (0x90, the last one 0x91), each followed by its entries;
    // extension entries (0x44) are skipped. Read sector by sector, bounded.
    int catalogSectorIndex = 0;
    int at = 64;
    quint8 platform = 0;
    int entriesLeft = 0;
    bool lastHeader = false;
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
        if (entriesLeft > 0) {
            if (p[0] == 0x44)
                continue;
            --entriesLeft;
            if (platform == 0xEF)
                catalog.efiEntries.push_back(entryAt(p, platform));
            continue;
        }
        if (lastHeader || (p[0] != 0x90 && p[0] != 0x91))
            break;
        lastHeader = p[0] == 0x91;
        platform = p[1];
        entriesLeft = le16(p + 2);
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

} // namespace ElTorito

bool Util::BootExtract(const QString& image, const QString& output)
{
    using namespace ElTorito;
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly)) {
        qDebug() << "Util::BootExtract open file error!";
        return false;
    }
    QDataStream stream(&file);
    const ReadFunction read = streamReader(stream);
    Error error = Error::None;
    const std::optional<Catalog> catalog = Parse(read, &error);
    if (!catalog) {
        qDebug().noquote() << ErrorText(error);
        return false;
    }
    qDebug() << "Reading boot-catalog from sector" << catalog->catalogSector;
    const Entry& entry = catalog->defaultEntry;
    if (!entry.bootable) {
        std::printf("  Boot-Indicator: Not Bootable\n");
        return true;
    }
    std::printf("  Boot-Indicator: Bootable\n");
    const qint64 length = BootImageLength(entry);
    const bool diskette = entry.media == Media::Diskette12 || entry.media == Media::Diskette144 ||
                          entry.media == Media::Diskette288;
    if (diskette && qint64(entry.sectorCount) * 512 != length)
        std::printf("  Sector count to read: %d (%d bytes)\n", int(length / 512), int(length));
    std::fflush(stdout);
    QByteArray bytes(int(length), Qt::Uninitialized);
    if (read(qint64(entry.loadRba) * 2048, int(length), bytes.data()))
        Util::WriteData(output, bytes.constData(), int(length));
    return true;
}
