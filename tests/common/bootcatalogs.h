#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>

#include "common/hybridimage.h"

// Images whose boot catalogues have the shapes that real images come in,
// made by xorriso from one tree: two no-emulation loaders of recognisable
// bytes (boot/a.bin, 2048 bytes; boot/b.bin, 4096 bytes) and a 1440 KiB FAT
// image (boot/efi.img). The option lists name them by these paths; "TREE" in
// one stands for the tree's folder.
namespace BootCatalogs {

inline const QStringList kTwoBios{
    "-b", "boot/a.bin", "-no-emul-boot", "-boot-load-size", "4", "-eltorito-alt-boot",
    "-b", "boot/b.bin", "-no-emul-boot", "-boot-load-size", "8"};
// The EFI image as the first boot image: the default entry is EFI's.
inline const QStringList kUefiDefault{"-e", "boot/efi.img", "-no-emul-boot", "-eltorito-alt-boot",
                                      "-b", "boot/a.bin",   "-no-emul-boot"};
inline const QStringList kPowerPcAndMac{
    "-b", "boot/a.bin", "-no-emul-boot", "-eltorito-alt-boot", "-eltorito-platform", "PPC",
    "-b", "boot/b.bin", "-no-emul-boot", "-eltorito-alt-boot", "-eltorito-platform", "Mac",
    "-b", "boot/b.bin", "-no-emul-boot"};
// As Linux distributions build theirs.
inline const QStringList kIsohybrid{"-isohybrid-mbr",
                                    "/usr/lib/ISOLINUX/isohdpfx.bin",
                                    "-b",
                                    "boot/a.bin",
                                    "-no-emul-boot",
                                    "-boot-load-size",
                                    "4",
                                    "-eltorito-alt-boot",
                                    "-e",
                                    "boot/efi.img",
                                    "-no-emul-boot",
                                    "-isohybrid-gpt-basdat"};
// The EFI image as a partition after the volume, named in a GPT that a
// protective MBR guards, and booted from there by El Torito.
inline const QStringList kAppendedGpt{"-e",
                                      "--interval:appended_partition_2:all::",
                                      "-no-emul-boot",
                                      "-append_partition",
                                      "2",
                                      "0xef",
                                      "TREE/boot/efi.img",
                                      "-appended_part_as_gpt"};

inline QByteArray pattern(int size, int seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * (seed * 2 + 5) + seed * 17 + i / 251) & 0xFF);
    return bytes;
}

// Writes the tree into `dir`; returns its path, or an empty string with what
// went wrong in *error.
inline QString Tree(const QString& dir, QString* error)
{
    const QString tree = dir + QStringLiteral("/boot-tree");
    if (!IsoFixture::WriteTree(tree, {{"boot/a.bin", pattern(2048, 1)},
                                      {"boot/b.bin", pattern(4096, 2)},
                                      {"docs/readme.txt", "Brenta boot catalogue test\n"}})) {
        *error = QStringLiteral("cannot write %1").arg(tree);
        return QString();
    }
    if (!HybridImage::detail::run("mkfs.vfat", {"-C", tree + "/boot/efi.img", "1440"}, error))
        return QString();
    return tree;
}

// Builds `image` from the tree with the boot options `options`.
inline bool Build(const QString& tree, const QString& image, QStringList options, QString* error)
{
    options.replaceInStrings(QStringLiteral("TREE"), tree);
    QFile::remove(image);
    return HybridImage::detail::run(
        "xorriso",
        QStringList{"-as", "mkisofs", "-quiet", "-R", "-o", image, "-c", "boot/boot.cat"} << options
                                                                                          << tree,
        error);
}

// Which of the tree's boot files the image holds at `sector`: "a.bin",
// "b.bin", "efi.img", or "?" for none of them.
inline QString FileAt(const QString& tree, const QString& image, quint32 sector)
{
    QFile file(image);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(qint64(sector) * 2048))
        return QStringLiteral("?");
    const QByteArray head = file.read(2048);
    for (const QString name : {"a.bin", "b.bin", "efi.img"}) {
        QFile boot(tree + QStringLiteral("/boot/") + name);
        if (boot.open(QIODevice::ReadOnly) && boot.read(2048) == head)
            return name;
    }
    return QStringLiteral("?");
}

} // namespace BootCatalogs
