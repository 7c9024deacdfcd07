#include <QtTest>

#include "common/bootcatalogs.h"
#include "common/bytes.h"
#include "iso/bootsetup.h"
#include "iso/eltorito.h"

namespace {

constexpr int kSector = 2048;

// A hand-made image: the boot record at sector 17, the catalogue at sector
// 19, and a boot image of recognisable bytes from sector 20 on.
struct Layout
{
    int sectors = 40;
    quint8 type = 0;
    QByteArray signature = "EL TORITO SPECIFICATION";
    quint32 catalogSector = 19;
    quint8 header = 1;
    quint8 key1 = 0x55;
    quint8 key2 = 0xAA;
    bool breakChecksum = false;
    quint8 indicator = 0x88;
    quint8 media = 0;
    quint16 count = 4;
    quint32 loadRba = 20;
    QByteArray sections; // the records after the default entry
};

using Bytes::Put16;
using Bytes::Put32;

QByteArray makeImage(const Layout& layout)
{
    QByteArray bytes(layout.sectors * kSector, '\0');
    for (int i = 20 * kSector; i < bytes.size(); ++i)
        bytes[i] = char((i * 7 + 3) & 0xFF);
    const int record = 17 * kSector;
    bytes[record] = char(layout.type);
    bytes.replace(record + 1, 5, "CD001");
    bytes[record + 6] = 1;
    bytes.replace(record + 7, layout.signature.size(), layout.signature);
    Put32(bytes, record + 71, layout.catalogSector);

    const int catalog = 19 * kSector;
    bytes.replace(catalog, kSector, QByteArray(kSector, '\0'));
    bytes[catalog] = char(layout.header);
    bytes[catalog + 30] = char(layout.key1);
    bytes[catalog + 31] = char(layout.key2);
    quint16 sum = 0;
    for (int i = 0; i < 32; i += 2)
        sum += quint16(quint8(bytes[catalog + i]) | (quint8(bytes[catalog + i + 1]) << 8));
    Put16(bytes, catalog + 28, quint16(-sum + (layout.breakChecksum ? 1 : 0)));
    bytes[catalog + 32] = char(layout.indicator);
    bytes[catalog + 33] = char(layout.media);
    Put16(bytes, catalog + 38, layout.count);
    Put32(bytes, catalog + 40, layout.loadRba);
    bytes.replace(catalog + 64, layout.sections.size(), layout.sections);
    return bytes;
}

// A section header (0x90, or 0x91 for the last) and its entries, each
// bootable and without emulation, loaded from the sectors `rbas`.
QByteArray section(quint8 header, quint8 platform, quint16 count, const QList<quint32>& rbas)
{
    QByteArray bytes(32, '\0');
    bytes[0] = char(header);
    bytes[1] = char(platform);
    Put16(bytes, 2, count);
    for (const quint32 rba : rbas) {
        QByteArray entry(32, '\0');
        entry[0] = char(0x88);
        Put16(entry, 6, 4);
        Put32(entry, 8, rba);
        bytes += entry;
    }
    return bytes;
}

QByteArray extension()
{
    QByteArray bytes(32, '\0');
    bytes[0] = 0x44;
    return bytes;
}

// "BIOS@20 EFI@22": each entry's platform and load sector, in catalogue order.
QString summary(const ElTorito::Catalog& catalog)
{
    QStringList parts;
    for (const ElTorito::Entry& entry : catalog.entries)
        parts << ElTorito::PlatformName(entry.platform) + '@' + QString::number(entry.loadRba);
    return parts.join(' ');
}

ElTorito::ReadFunction bytesReader(const QByteArray& bytes)
{
    return [&bytes](qint64 offset, int length, char* buffer) {
        if (offset < 0 || length < 0 || offset + length > bytes.size())
            return false;
        std::memcpy(buffer, bytes.constData() + offset, size_t(length));
        return true;
    };
}

std::optional<ElTorito::Catalog> parse(const QByteArray& bytes, ElTorito::Error* error)
{
    return ElTorito::Parse(bytesReader(bytes), error);
}

} // namespace

class TestElTorito final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void parses_data();
    void parses();
    void readsSystemArea_data();
    void readsSystemArea();
    void showsEveryEntry_data();
    void showsEveryEntry();
    void corpusReplaysCleanly();

private:
    QTemporaryDir m_dir;
    QString m_tree;
};

void TestElTorito::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QString error;
    m_tree = BootCatalogs::Tree(m_dir.path(), &error);
    QVERIFY2(!m_tree.isEmpty(), qPrintable(error));
}

void TestElTorito::parses_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("media");
    QTest::addColumn<qint64>("length");
    QTest::addColumn<bool>("bootable");
    QTest::addColumn<QString>("entries"); // empty: not compared
    using E = ElTorito::Error;
    const auto row = [](const char* name, const Layout& layout, E error, const char* media = "",
                        qint64 length = 0, bool bootable = true, const char* entries = "") {
        QTest::newRow(name) << makeImage(layout) << int(error) << QString(media) << length
                            << bootable << QString(entries);
    };
    Layout layout;
    row("no emulation, 4 sectors", layout, E::None, "no-emulation", 2048);
    layout = {};
    layout.media = 0x12; // only the low four bits count
    row("media byte 0x12 is a 1.44M diskette", layout, E::None, "1.44M", 1474560);
    layout.media = 0x05;
    row("unknown media", layout, E::None, "unknown", 2048);
    layout = {};
    layout.count = 0;
    row("sector count 0", layout, E::None, "no-emulation", 0);
    layout = {};
    layout.indicator = 0;
    row("not bootable", layout, E::None, "no-emulation", 2048, false);
    layout = {};
    layout.breakChecksum = true;
    row("wrong checksum is accepted", layout, E::None, "no-emulation", 2048);
    layout = {};
    layout.sectors = 17; // ends before sector 17 is complete
    QTest::newRow("truncated file") << makeImage(layout).left(36863) << int(E::SectorUnreadable)
                                    << "" << qint64(0) << true << "";
    layout = {};
    layout.type = 1;
    row("not a boot record", layout, E::NotBootRecord);
    layout = {};
    layout.signature = "EL TORITO SPECIFICATIOX";
    row("wrong signature", layout, E::BadSignature);
    layout = {};
    layout.catalogSector = 0xFFFFFFFF; // 8 TiB in: must not wrap to an early sector
    row("catalogue at the last sector number", layout, E::CatalogUnreadable);
    layout = {};
    layout.key2 = 0xAB;
    row("wrong key bytes", layout, E::BadValidationEntry);
    // An extension entry may follow a section's last entry; the next section
    // header comes after it.
    layout = {};
    layout.sections = section(0x90, 0x00, 1, {21}) + extension() + section(0x91, 0xEF, 1, {22});
    row("extension entry after a section's last entry", layout, E::None, "no-emulation", 2048, true,
        "BIOS@20 BIOS@21 EFI@22");
    // A header that promises more entries than follow: empty records are no
    // entries.
    layout.sections = section(0x91, 0xEF, 5, {22});
    row("section count beyond its entries", layout, E::None, "no-emulation", 2048, true,
        "BIOS@20 EFI@22");
}

void TestElTorito::parses()
{
    QFETCH(QByteArray, image);
    QFETCH(int, error);
    QFETCH(QString, media);
    QFETCH(qint64, length);
    QFETCH(bool, bootable);
    QFETCH(QString, entries);
    ElTorito::Error found = ElTorito::Error::None;
    const std::optional<ElTorito::Catalog> catalog = parse(image, &found);
    QCOMPARE(int(found), error);
    QCOMPARE(catalog.has_value(), error == int(ElTorito::Error::None));
    if (!catalog)
        return;
    QCOMPARE(ElTorito::MediaName(catalog->defaultEntry.media), media);
    QCOMPARE(ElTorito::BootImageLength(catalog->defaultEntry), length);
    QCOMPARE(catalog->defaultEntry.bootable, bootable);
    if (!entries.isEmpty())
        QCOMPARE(summary(*catalog), entries);
    QCOMPARE(int(catalog->efiEntries.size()), int(entries.count("EFI@")));
}

// Hand-made system areas for what the built images below do not cover.
void TestElTorito::readsSystemArea_data()
{
    QTest::addColumn<QByteArray>("area");
    QTest::addColumn<QString>("text");
    QByteArray gpt4k(64 * 1024, '\0');
    gpt4k.replace(4096, 8, "EFI PART");
    Put32(gpt4k, 4096 + 12, 92);
    Put32(gpt4k, 4096 + 24, 1);
    Put32(gpt4k, 4096 + 72, 2);
    Put32(gpt4k, 4096 + 80, 4);
    Put32(gpt4k, 4096 + 84, 128);
    gpt4k.replace(
        8192, 16,
        QByteArray("\x28\x73\x2A\xC1\x1F\xF8\xD2\x11\xBA\x4B\x00\xA0\xC9\x3E\xC9\x3B", 16));
    Put32(gpt4k, 8192 + 32, 6);
    Put32(gpt4k, 8192 + 40, 9);
    QTest::newRow("GPT of 4096-byte sectors")
        << gpt4k << "GPT of 4096-byte sectors (1: EFI system, start 6, 4 sectors)";
    // Entry array far beyond the image and four thousand million entries:
    // read within bounds, and said so.
    QByteArray hostile = gpt4k;
    hostile.replace(4096, 8, QByteArray(8, '\0'));
    hostile.replace(512, 8, "EFI PART");
    Put32(hostile, 512 + 12, 92);
    Put32(hostile, 512 + 24, 1);
    Put32(hostile, 512 + 72, 0xFFFFFFF0);
    Put32(hostile, 512 + 80, 0xFFFFFFFF);
    Put32(hostile, 512 + 84, 128);
    QTest::newRow("GPT entries out of reach") << hostile << "GPT (unreadable partition entries)";
    // A file system's boot sector carries the signature too, with code where
    // the table would be.
    QByteArray bootSector(64 * 1024, '\0');
    for (int i = 0; i < 510; ++i)
        bootSector[i] = char(0x90 + i % 7);
    bootSector[510] = char(0x55);
    bootSector[511] = char(0xAA);
    QTest::newRow("boot sector without a table") << bootSector << "unrecognised";
}

void TestElTorito::readsSystemArea()
{
    QFETCH(QByteArray, area);
    QFETCH(QString, text);
    QCOMPARE(ElTorito::SystemArea(bytesReader(area)), text);
}

void TestElTorito::showsEveryEntry_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<QStringList>("entries"); // "PLATFORM FILE LOAD-SIZE", in catalogue order
    QTest::addColumn<QString>("systemArea");  // a pattern for the whole line
    using namespace BootCatalogs;
    QTest::newRow("two BIOS entries")
        << kTwoBios << QStringList{"BIOS a.bin 4", "BIOS b.bin 8"} << "none";
    QTest::newRow("UEFI default entry")
        << kUefiDefault << QStringList{"EFI efi.img 2880", "BIOS a.bin 4"} << "none";
    QTest::newRow("PowerPC and Mac sections")
        << kPowerPcAndMac << QStringList{"BIOS a.bin 4", "PowerPC b.bin 8", "Mac b.bin 8"}
        << "none";
    QTest::newRow("isohybrid MBR and GPT")
        << kIsohybrid << QStringList{"BIOS a.bin 4", "EFI efi.img 2880"}
        << R"(isohybrid MBR \(1: 0x00 active, start 0, \d+ sectors; 2: 0xEF, start \d+, 2880 sectors\) \+ )"
           R"(GPT \(1: basic data, start 0, \d+ sectors; 2: basic data, start \d+, 2880 sectors\))";
    QTest::newRow("isohybrid with an Apple partition map")
        << kIsohybrid + QStringList{"-isohybrid-apm-hfsplus"}
        << QStringList{"BIOS a.bin 4", "EFI efi.img 2880"}
        << R"(isohybrid MBR \(.*\) \+ GPT \(.*\) \+ )"
           R"(APM of 2048-byte blocks \(1: Apple_partition_map, start 1, \d+ blocks; 2: Apple_HFS, .*\))";
    QTest::newRow("GPT behind a protective MBR")
        << kAppendedGpt << QStringList{"EFI efi.img 2880"}
        << R"(protective MBR \(1: 0xEE, start 1, \d+ sectors\) \+ )"
           R"(GPT \(.*; 2: EFI system, start \d+, 2880 sectors; .*\))";
}

// Through the terminal, as a user asks: one block per entry, each naming its
// platform, load size and the sector that really holds that boot file.
void TestElTorito::showsEveryEntry()
{
    QFETCH(QStringList, options);
    QFETCH(QStringList, entries);
    QFETCH(QString, systemArea);
    const QString image = m_dir.filePath(QStringLiteral("boot.iso"));
    QString error;
    QVERIFY2(BootCatalogs::Build(m_tree, image, options, &error), qPrintable(error));

    QProcess brenta;
    brenta.start(QStringLiteral(BRENTA_EXECUTABLE), {QStringLiteral("boot-info"), image});
    QVERIFY(brenta.waitForFinished(60000));
    QCOMPARE(brenta.exitCode(), 0);
    const QString text = QString::fromUtf8(brenta.readAllStandardOutput());
    static const QRegularExpression block(
        R"(entry (\d+): (?:default|section \d+)\n)"
        R"(  platform: (\S+) \(0x[0-9A-F]{2}\)\n)"
        R"(  bootable: yes\n  media: no-emulation\n)"
        R"(  load-size: (\d+) sectors? \(\d+ bytes\)\n  load-sector: (\d+)\n)");
    QStringList found;
    for (auto it = block.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        QCOMPARE(match.captured(1).toInt(), found.size() + 1);
        found << match.captured(2) + ' ' +
                     BootCatalogs::FileAt(m_tree, image, match.captured(4).toUInt()) + ' ' +
                     match.captured(3);
    }
    QCOMPARE(found, entries);
    QCOMPARE(text.count(QRegularExpression(QStringLiteral("^entry "),
                                           QRegularExpression::MultilineOption)),
             entries.size());
    const QRegularExpression area(QStringLiteral("^system-area: %1\n\\z").arg(systemArea),
                                  QRegularExpression::MultilineOption);
    QVERIFY2(area.match(text).hasMatch(), qPrintable(text));
}

// Every input the fuzzer kept is read again: none may crash the reader or
// make it size a boot image beyond its bound.
void TestElTorito::corpusReplaysCleanly()
{
    const QDir corpus(BRENTA_SOURCE_DIR "/fuzz/corpus");
    const QStringList files = corpus.entryList(QDir::Files);
    QVERIFY(!files.isEmpty());
    for (const QString& name : files) {
        QFile file(corpus.filePath(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        const std::optional<ElTorito::Catalog> catalog = parse(bytes, nullptr);
        QVERIFY(!ElTorito::SystemArea(bytesReader(bytes)).isEmpty());
        if (!catalog)
            continue;
        QVERIFY(ElTorito::BootImageLength(catalog->defaultEntry) <= 2949120 + 65535 * 512);
        // Measuring the boot images never reaches past the image.
        const BootSetup::ReadFunction read = bytesReader(bytes);
        for (const ElTorito::Entry& entry : catalog->entries) {
            const bool efi = entry.platform == ElTorito::kPlatformEfi;
            const BootSetup::Measure measure =
                BootSetup::MeasureEntry(entry, efi, read, bytes.size());
            QVERIFY(measure.length >= 0);
            QVERIFY(measure.length == 0 ||
                    qint64(entry.loadRba) * 2048 + measure.length <= bytes.size());
        }
    }
}

QTEST_GUILESS_MAIN(TestElTorito)
#include "tst_eltorito.moc"
