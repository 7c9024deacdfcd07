#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

#include "iso/eltorito.h"

// Carries an image's boot setup over to an image rebuilt from its files.
//
// The boot catalogue says where each boot image starts, how the firmware
// treats it (diskette or hard-disk emulation, or none) and how many sectors
// the BIOS loads, but not how long the image is. The length is worked out from
// the image's own bytes: a diskette has its fixed size, a hard-disk image ends
// where its last partition ends, an EFI image is a FAT file system that states
// its size, and a no-emulation loader that carries a boot-info table names its
// own length there (the builder must then patch that table again). Anything
// else is read for as many sectors as the catalogue says the BIOS loads.
namespace BootSetup {

struct Measure
{
    qint64 length = 0;      // bytes of the boot image; 0 when it cannot be told
    bool infoTable = false; // a loader that must get a fresh boot-info table
    QString problem;        // why the boot image cannot be reproduced
};

// Reads `length` bytes at `offset` of the image; false when it cannot.
using ReadFunction = ElTorito::ReadFunction;

// How long the boot image of `entry` is, reading the image through `read`
// (whose size is `imageSize` bytes). `efi` is set for the EFI platform's entries.
Measure MeasureEntry(const ElTorito::Entry& entry, bool efi, const ReadFunction& read,
                     qint64 imageSize);

struct BootImage
{
    QString file; // its name in the new image's root: "boot.bin", "boot2.bin", "efiboot.img", ...
    QString path; // the local copy written by Prepare()
    ElTorito::Entry entry;
    bool efi = false;
    bool infoTable = false;
};

struct Plan
{
    bool hasCatalog = false;       // the image has a valid El Torito record
    std::vector<BootImage> images; // the bootable BIOS and EFI entries, in catalogue order
    QStringList problems;          // entries that cannot be carried over, and why
    bool originalBoots = false;    // the original has at least one bootable entry
    bool Reproducible() const { return problems.isEmpty(); }
    bool Bootable() const { return !images.empty(); }
    // What the user is told before a save that loses (part of) the boot setup.
    QString Warning() const;
};

// Reads the image's catalogue and writes each boot image it can reproduce
// into `dir` (created when missing).
Plan Prepare(const QString& image, const QString& dir);

// The builder's boot options for the plan, boot images named by their `file`
// (which the caller places in the new image's root), and the catalogue named
// `catalog`. Empty for a plan without boot images.
QStringList Arguments(const Plan& plan, const QString& catalog);

// The image's volume label: the primary descriptor's (up to 32 characters),
// or the Joliet one when the primary has none; empty when neither has one.
QString VolumeLabel(const QString& image);

} // namespace BootSetup
