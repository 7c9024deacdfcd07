#include <QtTest>

#include "common/bytes.h"

#include "iso/bootsetup.h"
#include "iso/imagebuild.h"

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
    QTest::newRow("no emulation, self-contained") << plain << 64 << 0 << 4 << false << qint64(2048) << false;
    QTest::newRow("no emulation, count 0") << plain << 64 << 0 << 0 << false << qint64(0) << false;
    QTest::newRow("boot-info table") << infoTableLoader(9000, kBootRba, true) << 64 << 0 << 4 << false
                                     << qint64(9000) << true;
    QTest::newRow("boot-info table, wrong checksum: the load size counts")
        << infoTableLoader(9000, kBootRba, false) << 64 << 0 << 4 << false << qint64(2048) << false;
    QTest::newRow("boot-info table naming another sector")
        << infoTableLoader(9000, kBootRba + 1, true) << 64 << 0 << 4 << false << qint64(2048) << false;
    QTest::newRow("1.44M diskette") << plain << 1000 << 2 << 1 << false << qint64(1474560) << false;
    QTest::newRow("diskette past the end") << plain << 64 << 2 << 1 << false << qint64(0) << false;
    QTest::newRow("hard disk ends with its partition") << mbrHead(1, 255) << 200 << 4 << 1 << false
                                                       << qint64(256 * 512) << false;
    QTest::newRow("hard disk without partition table") << plain << 200 << 4 << 1 << false << qint64(0) << false;
    QTest::newRow("EFI FAT, small count") << fatHead(512, 200, 0) << 64 << 0 << 1 << true << qint64(102400) << false;
    QTest::newRow("EFI FAT, large count") << fatHead(2048, 0, 40) << 64 << 0 << 0 << true << qint64(81920) << false;
    QTest::newRow("EFI, not FAT: the count counts") << plain << 64 << 0 << 8 << true << qint64(4096) << false;
    QTest::newRow("unknown emulation") << plain << 64 << 7 << 4 << false << qint64(0) << false;
    QTest::newRow("boot image beyond the end") << plain << 4 << 0 << 4 << false << qint64(0) << false;
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
    int reads = 0;
    const BootSetup::ReadFunction read = [&](qint64 offset, int size, char* buffer) {
        ++reads;
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

// The image builder reads "=" in a graft point as the split between the name
// in the image and the path on disk: one in a path must be escaped, and so
// must the backslash that escapes it.
void TestBootSetup::editArgumentsEscapeGraftPoints()
{
    const QStringList arguments = ImageBuild::EditArguments(
        "-MY DISC", {"-b", "boot.bin"}, "/out/-new.iso", "/tmp/a=b", {{"boot.bin", "/tmp/x\\y=z/boot.bin"}});
    QCOMPARE(arguments.mid(arguments.indexOf("-graft-points") + 1),
             (QStringList{"/=/tmp/a\\=b", "boot.bin=/tmp/x\\\\y\\=z/boot.bin"}));
    QCOMPARE(ImageBuild::ParseProgress(" 45.67% done, estimate finish Mon", true), std::optional<int>(4567));
}

QTEST_GUILESS_MAIN(TestBootSetup)
#include "tst_bootsetup.moc"
