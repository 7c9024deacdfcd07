#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

#include "common/bootloaders.h"
#include "common/isofixture.h"

// Builds images of the shapes users bring, with the real tools and the way
// their makers build them, each in a folder of the caller's:
// - Isolinux(): isolinux's isohybrid MBR, an El Torito BIOS image and an EFI
//   FAT image that the GPT also points to, as Linux distributions do;
// - GrubRescue(): grub-mkrescue's image with GRUB for the BIOS and UEFI;
// - Windows(): /bootmgr and /efi/boot/bootx64.efi as files, no partition table;
// - Data(): files only.
// Their loaders write a marker to the first serial port, so a boot in QEMU
// shows which loader started. Each returns the image's path, or an empty
// string with what went wrong in *error.
namespace HybridImage {

// What isolinux says once it has read its configuration.
inline const QByteArray kIsolinuxMarker = "BRENTA-ISOLINUX-BOOT-OK";
// What the loader inside Isolinux()'s EFI boot image says.
inline const QByteArray kEfiImageMarker = "BRENTA-EFI-IMAGE-BOOT-OK";
// What GRUB says, followed by its platform: "pc" (BIOS) or "efi".
inline const QByteArray kGrubMarker = "BRENTA-GRUB-BOOT-OK";

namespace detail {

inline QString tool(const QString& name)
{
    const QString found = QStandardPaths::findExecutable(name);
    return found.isEmpty() ? QStandardPaths::findExecutable(name, {"/usr/sbin", "/sbin"}) : found;
}

inline bool run(const QString& name, const QStringList& arguments, QString* error)
{
    const QString program = tool(name);
    if (program.isEmpty()) {
        *error = name + QStringLiteral(" is not installed");
        return false;
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("MTOOLS_SKIP_CHECK"), QStringLiteral("1"));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    if (!process.waitForFinished(180000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        *error = name + QStringLiteral(": ") + QString::fromUtf8(process.readAll()) +
                 process.errorString();
        return false;
    }
    return true;
}

// Some files besides the loaders, so that the image has contents to copy.
inline QMap<QString, QByteArray> contents()
{
    return {{"docs/readme.txt", "Brenta test image\n"},
            {"data/blocks.bin", QByteArray(300000, 'x')}};
}

inline bool copyFile(const QString& from, const QString& to, QString* error)
{
    QDir().mkpath(QFileInfo(to).path());
    if (!QFile::copy(from, to)) {
        *error = QStringLiteral("cannot copy %1 (is it installed?)").arg(from);
        return false;
    }
    return true;
}

} // namespace detail

// As distributions build theirs: xorriso with isolinux's isohybrid MBR
// (isohdpfx.bin), isolinux as the El Torito BIOS image, and a FAT image
// holding EFI/BOOT/BOOTX64.EFI as the El Torito EFI image, also given a GPT
// partition (-isohybrid-gpt-basdat). Rock Ridge always, Joliet when asked.
// Without Joliet, as such images come, it also holds symbolic links: to a
// file and a folder of the image (docs/latest.txt, docs/data) and to a path
// outside it (docs/hostname).
inline QString Isolinux(const QString& dir, QString* error, bool joliet = true)
{
    const QString name = joliet ? QStringLiteral("isolinux") : QStringLiteral("isolinux-rr");
    const QString tree = dir + '/' + name + QStringLiteral("-tree");
    QMap<QString, QByteArray> files = detail::contents();
    files.insert("isolinux/isolinux.cfg",
                 "SERIAL 0 115200\nSAY " + kIsolinuxMarker + "\nPROMPT 1\n");
    if (!IsoFixture::WriteTree(tree, files)) {
        *error = QStringLiteral("cannot write %1").arg(tree);
        return QString();
    }
    if (!joliet && (!QFile::link("readme.txt", tree + "/docs/latest.txt") ||
                    !QFile::link("../data", tree + "/docs/data") ||
                    !QFile::link("/etc/hostname", tree + "/docs/hostname"))) {
        *error = QStringLiteral("cannot make the symbolic links in %1").arg(tree);
        return QString();
    }
    if (!detail::copyFile("/usr/lib/ISOLINUX/isolinux.bin", tree + "/isolinux/isolinux.bin",
                          error) ||
        !detail::copyFile("/usr/lib/syslinux/modules/bios/ldlinux.c32",
                          tree + "/isolinux/ldlinux.c32", error))
        return QString();

    const QString loader = dir + '/' + name + QStringLiteral("-bootx64.efi");
    const QString efiImage = tree + QStringLiteral("/boot/efi.img");
    QDir().mkpath(tree + QStringLiteral("/boot"));
    QFile file(loader);
    if (!file.open(QIODevice::WriteOnly) || file.write(BootLoaders::Uefi(kEfiImageMarker)) <= 0) {
        *error = QStringLiteral("cannot write %1").arg(loader);
        return QString();
    }
    file.close();
    if (!detail::run("mkfs.vfat", {"-C", efiImage, "1440"}, error) ||
        !detail::run("mmd", {"-i", efiImage, "::/EFI", "::/EFI/BOOT"}, error) ||
        !detail::run("mcopy", {"-i", efiImage, loader, "::/EFI/BOOT/BOOTX64.EFI"}, error))
        return QString();

    const QString image = dir + '/' + name + QStringLiteral(".iso");
    QStringList arguments{"-as", "mkisofs", "-quiet", "-o", image, "-R", "-V", "BRENTA_HYBRID"};
    if (joliet)
        arguments << "-J"
                  << "-joliet-long";
    arguments << "-isohybrid-mbr"
              << "/usr/lib/ISOLINUX/isohdpfx.bin"
              << "-c"
              << "isolinux/boot.cat"
              << "-b"
              << "isolinux/isolinux.bin"
              << "-no-emul-boot"
              << "-boot-load-size"
              << "4"
              << "-boot-info-table"
              << "-eltorito-alt-boot"
              << "-e"
              << "boot/efi.img"
              << "-no-emul-boot"
              << "-isohybrid-gpt-basdat" << tree;
    if (!detail::run("xorriso", arguments, error))
        return QString();
    return image;
}

// grub-mkrescue's image: GRUB's own MBR and core image for the BIOS, a GPT
// and an EFI image for UEFI, both reading the same grub.cfg.
inline QString GrubRescue(const QString& dir, QString* error)
{
    const QString tree = dir + QStringLiteral("/grub-tree");
    QMap<QString, QByteArray> files = detail::contents();
    files.insert("boot/grub/grub.cfg",
                 "serial --unit=0 --speed=115200\nterminal_input serial console\n"
                 "terminal_output serial\necho \"" +
                     kGrubMarker + " ${grub_platform}\"\n");
    if (!IsoFixture::WriteTree(tree, files)) {
        *error = QStringLiteral("cannot write %1").arg(tree);
        return QString();
    }
    const QString image = dir + QStringLiteral("/grub.iso");
    // Without translations and themes, the image stays a few MiB.
    if (!detail::run("grub-mkrescue", {"--locales=", "--themes=", "-o", image, tree}, error))
        return QString();
    return image;
}

// As Windows installers are shaped: the boot manager and the EFI loader as
// ordinary files (BootLoaders' markers), Joliet, no partition table.
inline QString Windows(const QString& dir, QString* error)
{
    const QString tree = dir + QStringLiteral("/windows-tree");
    QMap<QString, QByteArray> files = detail::contents();
    files.insert("bootmgr", BootLoaders::Bios());
    files.insert("efi/boot/bootx64.efi", BootLoaders::Uefi());
    if (!IsoFixture::WriteTree(tree, files)) {
        *error = QStringLiteral("cannot write %1").arg(tree);
        return QString();
    }
    return IsoFixture::Build(tree, dir + QStringLiteral("/windows.iso"), QStringLiteral("joliet"),
                             error);
}

// Files only: nothing to start, no partition table.
inline QString Data(const QString& dir, QString* error)
{
    const QString tree = dir + QStringLiteral("/data-tree");
    if (!IsoFixture::WriteTree(tree, detail::contents())) {
        *error = QStringLiteral("cannot write %1").arg(tree);
        return QString();
    }
    return IsoFixture::Build(tree, dir + QStringLiteral("/data.iso"), QStringLiteral("joliet"),
                             error);
}

} // namespace HybridImage
