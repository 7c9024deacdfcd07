// libFuzzer target for the El Torito reader and the measuring of the boot
// images it names: the input is an image's bytes.
// Build: cmake -DBRENTA_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ ..; run:
//   ./fuzz_eltorito -max_total_time=600 ../fuzz/corpus
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "iso/bootsetup.h"
#include "iso/eltorito.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto read = [data, size](qint64 offset, int length, char* buffer) {
        if (offset < 0 || length < 0 || quint64(offset) > size ||
            size - quint64(offset) < quint64(length))
            return false;
        std::memcpy(buffer, data + offset, size_t(length));
        return true;
    };
    if (const std::optional<ElTorito::Catalog> catalog = ElTorito::Parse(read)) {
        // What a caller does next: size the boot image, within its bound.
        const qint64 length = ElTorito::BootImageLength(catalog->defaultEntry);
        if (length < 0 || length > 2949120 + 65535 * 512)
            __builtin_trap();
        // And measure each boot image as a save does: never past the image.
        const auto measure = [&](const ElTorito::Entry& entry, bool efi) {
            const BootSetup::Measure m = BootSetup::MeasureEntry(entry, efi, read, qint64(size));
            if (m.length < 0 ||
                (m.length > 0 && qint64(entry.loadRba) * 2048 + m.length > qint64(size)))
                __builtin_trap();
        };
        measure(catalog->defaultEntry, false);
        for (const ElTorito::Entry& efi : catalog->efiEntries)
            measure(efi, true);
    }
    return 0;
}
