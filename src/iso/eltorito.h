#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>
#include <optional>
#include <vector>

// Reads an image's El Torito boot catalogue: the boot record volume
// descriptor at sector 17, the validation entry, the default entry and the
// section entries that follow it. It parses untrusted bytes: every offset is
// 64-bit, every read is bounded, and nothing larger than a boot image of the
// largest kind (65535 × 512 bytes, or a 2.88 MB diskette) is ever allocated.
namespace ElTorito {

enum class Media { NoEmulation, Diskette12, Diskette144, Diskette288, HardDisk, Unknown };

struct Entry
{
    bool bootable = false;
    quint8 mediaByte = 0;
    Media media = Media::NoEmulation;
    quint16 loadSegment = 0; // 0 means the usual 0x7C0
    quint16 sectorCount = 0; // 512-byte virtual sectors
    quint32 loadRba = 0;     // first 2048-byte sector of the boot image
    quint8 platform = 0;     // 0 x86, 0xEF EFI, ... (the section header's)
};

struct Catalog
{
    quint32 catalogSector = 0;
    Entry defaultEntry;
    std::vector<Entry> efiEntries; // section entries for the EFI platform
};

enum class Error {
    None,
    CannotOpen,
    SectorUnreadable,    // sector 17 cannot be read
    NotBootRecord,       // type not 0 or version not 1
    BadSignature,        // "CD001" or "EL TORITO SPECIFICATION" missing
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

// Opens the image and parses its catalogue.
std::optional<Catalog> ReadFile(const QString& image, Error* error = nullptr);

} // namespace ElTorito
