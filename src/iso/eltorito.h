#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>
#include <optional>
#include <vector>

// Reads an image's El Torito boot catalogue: the boot record volume
// descriptor at sector 17, the validation entry, the default entry and the
// section entries that follow it; and the partition tables of the image's
// system area (its first 32 KiB). It parses untrusted bytes: every offset is
// 64-bit, every read is bounded, and nothing larger than a boot image of the
// largest kind (65535 × 512 bytes, or a 2.88 MB diskette) is ever allocated.
namespace ElTorito {

enum class Media
{
    NoEmulation,
    Diskette12,
    Diskette144,
    Diskette288,
    HardDisk,
    Unknown
};

struct Entry
{
    bool bootable = false;
    quint8 mediaByte = 0;
    Media media = Media::NoEmulation;
    quint16 loadSegment = 0; // 0 means the usual 0x7C0
    quint16 sectorCount = 0; // 512-byte virtual sectors
    quint32 loadRba = 0;     // first 2048-byte sector of the boot image
    quint8 platform = 0;     // 0 x86, 0xEF EFI, ... (the section header's)
    int section = 0;         // 0 for the default entry, else its section's number from 1
};

constexpr quint8 kPlatformBios = 0x00;
constexpr quint8 kPlatformPowerPc = 0x01;
constexpr quint8 kPlatformMac = 0x02;
constexpr quint8 kPlatformEfi = 0xEF;

struct Catalog
{
    quint32 catalogSector = 0;
    Entry defaultEntry;            // its platform is the validation entry's
    std::vector<Entry> efiEntries; // section entries for the EFI platform
    std::vector<Entry> entries;    // every entry in catalogue order, the default entry first
};

enum class Error
{
    None,
    CannotOpen,
    SectorUnreadable, // sector 17 cannot be read
    NotBootRecord,    // type not 0 or version not 1
    BadSignature,     // "CD001" or "EL TORITO SPECIFICATION" missing
    CatalogUnreadable,
    BadValidationEntry,
};

// Reads `length` bytes at `offset` into `buffer`; false when it cannot.
using ReadFunction = std::function<bool(qint64 offset, int length, char* buffer)>;

std::optional<Catalog> Parse(const ReadFunction& read, Error* error = nullptr);

Media MediaOf(quint8 mediaByte);
// Bytes of the boot image an entry names: a diskette's full size, otherwise
// the sector count × 512.
qint64 BootImageLength(const Entry& entry);
// "no-emulation", "1.2M", "1.44M", "2.88M", "hard-disk", "unknown".
QString MediaName(Media media);
QString ErrorText(Error error);
// "BIOS", "EFI", "PowerPC", "Mac", or the number in hex ("0x05").
QString PlatformName(quint8 platform);

// One line on the partition tables in the image's first 32 KiB: an MBR (an
// isohybrid one when it has boot code and a partition from sector 0 that
// holds the whole ISO 9660 volume, a protective one when it only guards a
// GPT), a GPT at LBA 1 of 512- or 4096-byte sectors, an Apple partition map;
// "none" when those bytes are all zero.
QString SystemArea(const ReadFunction& read);

// What `brenta boot-info` prints: the catalogue's sector, one block per entry
// in catalogue order and the system-area line (README.md gives the format).
QString BootInfoText(const Catalog& catalog, const QString& systemArea);

// Opens the image and parses its catalogue.
std::optional<Catalog> ReadFile(const QString& image, Error* error = nullptr);
// Opens the image and returns BootInfoText() for it.
std::optional<QString> BootInfo(const QString& image, Error* error = nullptr);

} // namespace ElTorito
