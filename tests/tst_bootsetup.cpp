#include <QtTest>

#include "common/bootcatalogs.h"
#include "common/bytes.h"

#include "iso/bootsetup.h"
#include "iso/imagebuild.h"
#include "tools/toollocator.h"

namespace {

constexpr int kSector = 2048;
constexpr quint32 kBootRba = 4;

using Bytes::Put16;
using Bytes::Put32;

// An image of `sectors` sectors whose boot image (at sector 4) starts with `head`.
QByteArray imageWith(const QByteArray& head, int sectors)
{
    QByteArray image(sectors * kSector, '\0');
    for (int i = 0; i < image.size(); ++i)
        image[i] = char((i * 31 + 7) & 0xFF);
    image.replace(int(kBootRba) * kSector, head.size(), head);
    image.truncate(sectors * kSector);
    return image;
}

QByteArray withBootSignature(QByteArray head)
{
    head.resize(kSector, '\0');
    head[510] = char(0x55);
    head[511] = char(0xAA);
    return head;
}

QByteArray fatHead(quint16 bytesPerSector, quint16 smallCount, quint32 largeCount)
{
    QByteArray head(kSector, '\0');
    Put16(head, 11, bytesPerSector);
    Put16(head, 19, smallCount);
    Put32(head, 32, largeCount);
    return withBootSignature(head);
}

QByteArray mbrHead(quint32 start, quint32 count)
{
    QByteArray head(kSector, '\0');
    head[446 + 4] = 0x0C;
    Put32(head, 446 + 8, start);
    Put32(head, 446 + 12, count);
    return withBootSignature(head);
}

// A loader carrying a boot-info table that describes itself at `rba`.
QByteArray infoTableLoader(int length, quint32 rba, bool goodChecksum)
{
    QByteArray loader(length, '\0');
    for (int i = 0; i < length; ++i)
        loader[i] = char((i * 13 + 1) & 0xFF);
    Put32(loader, 8, 16);
    Put32(loader, 12, rba);
    Put32(loader, 16, quint32(length));
    quint32 sum = 0;
    for (int i = 64; i + 4 <= length; i += 4)
        sum += quint8(loader[i]) | (quint8(loader[i + 1]) << 8) | (quint8(loader[i + 2]) << 16) |
               (quint32(quint8(loader[i + 3])) << 24);
    Put32(loader, 20, goodChecksum ? sum : sum + 1);
    return loader;
}

ElTorito::Entry entry(quint8 mediaByte, quint16 count)
{
    ElTorito::Entry e;
    e.bootable = true;
    e.mediaByte = mediaByte;
    e.media = ElTorito::MediaOf(mediaByte);
    e.sectorCount = count;
    e.loadRba = kBootRba;
    return e;
}

} // namespace

class TestBootSetup : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void measures_data();
    void measures();
    void carriesEveryEntryOver_data();
    void carriesEveryEntryOver();
    void infoTableOfAnyLength_data();
    void infoTableOfAnyLength();
    void editArgumentsEscapeGraftPoints();
};

void TestBootSetup::measures_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<int>("sectors");
    QTest::addColumn<int>("mediaByte");
    QTest::addColumn<int>("count");
    QTest::addColumn<bool>("efi");
    QTest::addColumn<qint64>("length");
    QTest::addColumn<bool>("infoTable");

    const QByteArray plain(kSector, 'x');
    QTest::newRow("no emulation, self-contained")
        << plain << 64 << 0 << 4 << false << qint64(2048) << false;
    QTest::newRow("no emulation, count 0") << plain << 64 << 0 << 0 << false << qint64(0) << false;
    QTest::newRow("boot-info table")
        << infoTableLoader(9000, kBootRba, true) << 64 << 0 << 4 << false << qint64(9000) << true;
    QTest::newRow("boot-info table, wrong checksum: the load size counts")
        << infoTableLoader(9000, kBootRba, false) << 64 << 0 << 4 << false << qint64(2048) << false;
    QTest::newRow("boot-info table naming another sector")
        << infoTableLoader(9000, kBootRba + 1, true) << 64 << 0 << 4 << false << qint64(2048)
        << false;
    QTest::newRow("1.44M diskette") << plain << 1000 << 2 << 1 << false << qint64(1474560) << false;
    QTest::newRow("diskette past the end") << plain << 64 << 2 << 1 << false << qint64(0) << false;
    QTest::newRow("hard disk ends with its partition")
        << mbrHead(1, 255) << 200 << 4 << 1 << false << qint64(256 * 512) << false;
    QTest::newRow("hard disk without partition table")
        << plain << 200 << 4 << 1 << false << qint64(0) << false;
    QTest::newRow("EFI FAT, small count")
        << fatHead(512, 200, 0) << 64 << 0 << 1 << true << qint64(102400) << false;
    QTest::newRow("EFI FAT, large count")
        << fatHead(2048, 0, 40) << 64 << 0 << 0 << true << qint64(81920) << false;
    QTest::newRow("EFI, not FAT: the count counts")
        << plain << 64 << 0 << 8 << true << qint64(4096) << false;
    QTest::newRow("unknown emulation") << plain << 64 << 7 << 4 << false << qint64(0) << false;
    QTest::newRow("boot image beyond the end")
        << plain << 4 << 0 << 4 << false << qint64(0) << false;
}

void TestBootSetup::measures()
{
    QFETCH(QByteArray, head);
    QFETCH(int, sectors);
    QFETCH(int, mediaByte);
    QFETCH(int, count);
    QFETCH(bool, efi);
    QFETCH(qint64, length);
    QFETCH(bool, infoTable);
    const QByteArray image = imageWith(head, sectors);
    const BootSetup::ReadFunction read = [&](qint64 offset, int size, char* buffer) {
        if (offset < 0 || size < 0 || offset + size > image.size())
            return false;
        std::memcpy(buffer, image.constData() + offset, size_t(size));
        return true;
    };
    const BootSetup::Measure measure =
        BootSetup::MeasureEntry(entry(quint8(mediaByte), quint16(count)), efi, read, image.size());
    QCOMPARE(measure.length, length);
    QCOMPARE(measure.infoTable, infoTable);
    QCOMPARE(measure.problem.isEmpty(), length > 0);
}

void TestBootSetup::carriesEveryEntryOver_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>(
        "images"); // "NAME=FILE": the boot image's name and the file it is
    QTest::addColumn<int>("problems");
    QTest::addColumn<QStringList>(
        "rebuilt"); // "PLATFORM FILE" of the saved image, in catalogue order
    using namespace BootCatalogs;
    QTest::newRow("two BIOS entries")
        << kTwoBios << QStringList{"boot.bin=a.bin", "boot2.bin=b.bin"} << 0
        << QStringList{"BIOS a.bin", "BIOS b.bin"};
    QTest::newRow("UEFI default entry")
        << kUefiDefault << QStringList{"efiboot.img=efi.img", "boot.bin=a.bin"} << 0
        << QStringList{"EFI efi.img", "BIOS a.bin"};
    // The builder makes no PowerPC or Mac entries: the save says so.
    QTest::newRow("PowerPC and Mac sections")
        << kPowerPcAndMac << QStringList{"boot.bin=a.bin"} << 2 << QStringList{"BIOS a.bin"};
}

// What the edit page saves: every BIOS and EFI entry of the original, each
// boot image whole, in the original's order.
void TestBootSetup::carriesEveryEntryOver()
{
    QFETCH(QStringList, options);
    QFETCH(QStringList, images);
    QFETCH(int, problems);
    QFETCH(QStringList, rebuilt);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString error;
    const QString tree = BootCatalogs::Tree(dir.path(), &error);
    QVERIFY2(!tree.isEmpty(), qPrintable(error));
    const QString image = dir.filePath("original.iso");
    QVERIFY2(BootCatalogs::Build(tree, image, options, &error), qPrintable(error));

    const BootSetup::Plan plan = BootSetup::Prepare(image, dir.filePath("boot"));
    QVERIFY(plan.originalBoots);
    QCOMPARE(plan.problems.size(), problems);
    QStringList found;
    QList<QPair<QString, QString>> rootFiles;
    for (const BootSetup::BootImage& boot : plan.images) {
        QString name = QStringLiteral("?");
        for (const QString source : {"a.bin", "b.bin", "efi.img"}) {
            QFile original(tree + "/boot/" + source);
            QFile copy(boot.path);
            if (original.open(QIODevice::ReadOnly) && copy.open(QIODevice::ReadOnly) &&
                original.readAll() == copy.readAll())
                name = source;
        }
        found << boot.file + '=' + name;
        rootFiles << qMakePair(boot.file, boot.path);
    }
    QCOMPARE(found, images);

    // Saved with the image builder as the edit page does, the new catalogue
    // holds the same entries in the same order.
    const QString output = dir.filePath("saved.iso");
    QProcess builder;
    builder.setProcessChannelMode(QProcess::MergedChannels);
    builder.start(ToolLocator::Find(ToolLocator::Tool::ImageBuilder),
                  ImageBuild::EditArguments("SAVED", BootSetup::Arguments(plan, "boot.catalog"),
                                            output, dir.filePath("boot-tree/docs"), rootFiles));
    QVERIFY(builder.waitForFinished(120000));
    QVERIFY2(builder.exitCode() == 0, builder.readAll().constData());
    const std::optional<ElTorito::Catalog> catalog = ElTorito::ReadFile(output);
    QVERIFY(catalog);
    QStringList saved;
    for (const ElTorito::Entry& entry : catalog->entries)
        saved << ElTorito::PlatformName(entry.platform) + ' ' +
                     BootCatalogs::FileAt(tree, output, entry.loadRba);
    QCOMPARE(saved, rebuilt);
}

void TestBootSetup::infoTableOfAnyLength_data()
{
    QTest::addColumn<QString>("builder");
    QTest::addColumn<int>("length");
    // GRUB's eltorito.img is 29,541 bytes: 1 more than a multiple of 4.
    for (const QString builder : {"genisoimage", "xorriso"}) {
        for (int length : {29540, 29541, 29542, 29543})
            QTest::addRow("%s, %d bytes", qPrintable(builder), length) << builder << length;
    }
}

// A loader of any length whose boot-info table the builders wrote is taken
// whole and gets a fresh table, not cut to the sectors the BIOS loads.
void TestBootSetup::infoTableOfAnyLength()
{
    QFETCH(QString, builder);
    QFETCH(int, length);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString tree = dir.filePath("tree");
    QVERIFY(IsoFixture::WriteTree(tree, {{"boot/loader.bin", BootCatalogs::pattern(length, 4)}}));
    const QString image = dir.filePath("image.iso");
    QStringList arguments{"-quiet",
                          "-o",
                          image,
                          "-b",
                          "boot/loader.bin",
                          "-no-emul-boot",
                          "-boot-load-size",
                          "4",
                          "-boot-info-table",
                          "-c",
                          "boot/boot.cat",
                          tree};
    if (builder == "xorriso")
        arguments = QStringList{"-as", "mkisofs"} + arguments;
    QString error;
    QVERIFY2(HybridImage::detail::run(builder, arguments, &error), qPrintable(error));

    const BootSetup::Plan plan = BootSetup::Prepare(image, dir.filePath("boot"));
    QCOMPARE(plan.images.size(), size_t(1));
    QVERIFY(plan.images.front().infoTable);
    QCOMPARE(QFileInfo(plan.images.front().path).size(), qint64(length));
}

// The image builder reads "=" in a graft point as the split between the name
// in the image and the path on disk: one in a path must be escaped, and so
// must the backslash that escapes it.
void TestBootSetup::editArgumentsEscapeGraftPoints()
{
    const QStringList arguments =
        ImageBuild::EditArguments("-MY DISC", {"-b", "boot.bin"}, "/out/-new.iso", "/tmp/a=b",
                                  {{"boot.bin", "/tmp/x\\y=z/boot.bin"}});
    QCOMPARE(arguments.mid(arguments.indexOf("-graft-points") + 1),
             (QStringList{"/=/tmp/a\\=b", "boot.bin=/tmp/x\\\\y\\=z/boot.bin"}));
    QCOMPARE(ImageBuild::ParseProgress(" 45.67% done, estimate finish Mon", true),
             std::optional<int>(4567));
}

QTEST_GUILESS_MAIN(TestBootSetup)
#include "tst_bootsetup.moc"
