#pragma once

#include <QString>
#include <QStringList>

// Finds the external tools Brenta drives. For each tool the first executable
// found wins, in this order: $BRENTA_TOOLS_DIR/<folder>/<name>, then
// <application directory>/<folder>/<name>, then the usual names on PATH.
// BRENTA_TOOLS_DIR is also how tests put stand-ins in place of the disc tools.
// Brenta's own programs (the USB helper, the Rock Ridge reader) are looked for beside Brenta and
// where it is installed instead of on PATH.
namespace ToolLocator {

enum class Tool
{
    Archive,      // 7-Zip: lists and extracts image contents
    ImageBuilder, // mkisofs or genisoimage: builds images
    DiscWriter,   // cdrecord or wodim: bus scan, burn, eject
    DiscReader,   // readcd or readom: reads a disc into an image
    WimTool,      // wimlib-imagex: splits an installer image into parts
    UsbHelper,    // brenta-usb-helper: does what needs root on a USB stick
    Xorriso,      // xorriso: reads an image's Rock Ridge tree (symbolic links)
    IsoReader,    // brenta-isoread: lists and extracts Rock Ridge trees exactly
};

// The full path of the tool, or an empty string when it is nowhere to be found.
QString Find(Tool tool);

// A short human name used in messages ("7-Zip", "genisoimage", ...).
QString DisplayName(Tool tool);

// The places Find() looks at, in order; exposed for messages and tests.
QStringList Candidates(Tool tool);

} // namespace ToolLocator
