#include <QtTest>

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
    return bytes;
}

std::optional<ElTorito::Catalog> parse(const QByteArray& bytes, ElTorito::Error* error)
{
    return ElTorito::Parse(
        [&bytes](qint64 offset, int length, char* buffer) {
            if (offset < 0 || offset + length > bytes.size())
                return false;
            std::memcpy(buffer, bytes.constData() + offset, size_t(length));
            return true;
        },
        error);
}

} // namespace

class TestElTorito final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parses_data();
    void parses();
    void corpusReplaysCleanly();
};

void TestElTorito::parses_data()
{
    QTest::addColumn<QByteArray>("image");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("media");
    QTest::addColumn<qint64>("length");
    QTest::addColumn<bool>("bootable");
    using E = ElTorito::Error;
    const auto row = [](const char* name, const Layout& layout, E error, const char* media = "", qint64 length = 0,
                        bool bootable = true) {
        QTest::newRow(name) << makeImage(layout) << int(error) << QString(media) << length << bootable;
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
    QTest::newRow("truncated file") << makeImage(layout).left(36863) << int(E::SectorUnreadable) << "" << qint64(0)
                                    << true;
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
}

void TestElTorito::parses()
{
    QFETCH(QByteArray, image);
    QFETCH(int, error);
    QFETCH(QString, media);
    QFETCH(qint64, length);
    QFETCH(bool, bootable);
    ElTorito::Error found = ElTorito::Error::None;
    const std::optional<ElTorito::Catalog> catalog = parse(image, &found);
    QCOMPARE(int(found), error);
    QCOMPARE(catalog.has_value(), error == int(ElTorito::Error::None));
    if (!catalog)
        return;
    QCOMPARE(ElTorito::MediaName(catalog->defaultEntry.media), media);
    QCOMPARE(ElTorito::BootImageLength(catalog->defaultEntry), length);
    QCOMPARE(catalog->defaultEntry.bootable, bootable);
    QVERIFY(catalog->efiEntries.empty());
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
        if (!catalog)
            continue;
        QVERIFY(ElTorito::BootImageLength(catalog->defaultEntry) <= 2949120 + 65535 * 512);
        // Measuring the boot images never reaches past the image.
        const BootSetup::ReadFunction read = [&bytes](qint64 offset, int length, char* buffer) {
            if (offset < 0 || length < 0 || offset + length > bytes.size())
                return false;
            std::memcpy(buffer, bytes.constData() + offset, size_t(length));
            return true;
        };
        std::vector<std::pair<ElTorito::Entry, bool>> entries{{catalog->defaultEntry, false}};
        for (const ElTorito::Entry& efi : catalog->efiEntries)
            entries.emplace_back(efi, true);
        for (const auto& [entry, efi] : entries) {
            const BootSetup::Measure measure = BootSetup::MeasureEntry(entry, efi, read, bytes.size());
            QVERIFY(measure.length >= 0);
            QVERIFY(measure.length == 0 || qint64(entry.loadRba) * 2048 + measure.length <= bytes.size());
        }
    }
}

QTEST_GUILESS_MAIN(TestElTorito)
#include "tst_eltorito.moc"
