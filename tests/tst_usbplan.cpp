#include <QtTest>

#include <QTemporaryDir>

#include "common/bytes.h"
#include "common/hybridimage.h"
#include "iso/itemtree.h"
#include "media/usbplan.h"

using namespace UsbPlan;

namespace {

constexpr qint64 kGiB = qint64(1) << 30;

// "path:size" entries, as a listing would give them.
void fill(ItemTree& tree, const QStringList& files)
{
    for (const QString& file : files) {
        auto item = std::make_unique<Item>();
        item->name = file.section(':', 0, 0);
        item->isDir = false;
        item->size = file.section(':', 1);
        tree.Insert(item);
    }
}

QByteArray head(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(kHeadBytes) : QByteArray();
}

} // namespace

Q_DECLARE_METATYPE(UsbPlan::WriteMode)

class TestUsbPlan final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void modes_data();
    void modes();
    void decidesImage_data();
    void decidesImage();
    void decides_data();
    void decides();
    void labels_data();
    void labels();

private:
    QTemporaryDir m_dir;
    QMap<QString, QByteArray> m_heads; // the first bytes of each real image, by shape
};

void TestUsbPlan::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QString error;
    const QMap<QString, QString> images{
        {"isolinux", HybridImage::Isolinux(m_dir.path(), &error)},
        {"grub", HybridImage::GrubRescue(m_dir.path(), &error)},
        {"windows", HybridImage::Windows(m_dir.path(), &error)},
        {"data", HybridImage::Data(m_dir.path(), &error)},
        // The EFI boot image inside the isolinux one: FAT's boot sector.
        {"fat", m_dir.filePath("isolinux-tree/boot/efi.img")}};
    for (auto it = images.cbegin(); it != images.cend(); ++it) {
        QVERIFY2(!it.value().isEmpty(), qPrintable(it.key() + ": " + error));
        m_heads.insert(it.key(), head(it.value()));
        QVERIFY(m_heads[it.key()].size() >= 8192);
    }
}

// Real images of each shape, and heads that look almost like a table: a wrong
// Image choice overwrites a Windows installer's files way with a raw copy
// that does not start, a wrong Files choice loses a Linux image's boot code.
void TestUsbPlan::modes_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<WriteMode>("mode");
    QTest::addColumn<bool>("namesBootmgr"); // whether the reason names /bootmgr

    const QStringList linux{"isolinux/isolinux.bin:38912", "docs/readme.txt:18"};
    const QStringList windows{"bootmgr:400000", "efi/boot/bootx64.efi:1024"};
    QTest::newRow("isolinux hybrid") << m_heads["isolinux"] << linux << WriteMode::Image << false;
    QTest::newRow("grub-mkrescue") << m_heads["grub"] << linux << WriteMode::Image << false;
    QTest::newRow("Windows-shaped") << m_heads["windows"] << windows << WriteMode::Files << true;
    QTest::newRow("data only") << m_heads["data"] << linux << WriteMode::Files << false;
    // The table decides, whatever files the image also holds.
    QTest::newRow("isohybrid that also holds /bootmgr")
        << m_heads["isolinux"] << windows << WriteMode::Image << false;

    QByteArray empty(kHeadBytes, '\0');
    empty[510] = char(0x55);
    empty[511] = char(0xAA);
    QTest::newRow("boot signature over an empty table")
        << empty << windows << WriteMode::Files << true;
    // Boot code and messages where an MBR has its entries.
    QTest::newRow("FAT boot sector") << m_heads["fat"] << linux << WriteMode::Files << false;

    QByteArray gpt4k(kHeadBytes, '\0');
    gpt4k.replace(4096, 8, "EFI PART");
    Bytes::Put32(gpt4k, 4096 + 12, 92); // header size
    Bytes::Put32(gpt4k, 4096 + 24, 1);  // its own LBA
    QTest::newRow("GPT for 4096-byte sectors") << gpt4k << linux << WriteMode::Image << false;
    QByteArray gptOnly = m_heads["grub"];
    gptOnly.replace(446, 66, QByteArray(66, '\0'));
    QTest::newRow("GPT without a protective MBR") << gptOnly << linux << WriteMode::Image << false;
}

void TestUsbPlan::modes()
{
    QFETCH(QByteArray, head);
    QFETCH(QStringList, files);
    QFETCH(WriteMode, mode);
    QFETCH(bool, namesBootmgr);
    ItemTree tree;
    fill(tree, files);
    const ModeChoice choice = ChooseMode(head, tree);
    QCOMPARE(choice.mode, mode);
    QCOMPARE(HasPartitionTable(head), mode == WriteMode::Image);
    QVERIFY(!choice.reason.isEmpty());
    QCOMPARE(choice.reason.contains("/bootmgr"), namesBootmgr);
}

// The image brings its own partitions: the stick needs no room to spare.
void TestUsbPlan::decidesImage_data()
{
    QTest::addColumn<qint64>("capacity");
    QTest::addColumn<bool>("tooSmall");
    QTest::newRow("larger stick") << 16 * kGiB << false;
    QTest::newRow("exactly the image's size") << kGiB << false;
    QTest::newRow("one byte short") << kGiB - 1 << true;
}

void TestUsbPlan::decidesImage()
{
    QFETCH(qint64, capacity);
    QFETCH(bool, tooSmall);
    const Decision decision = DecideImage(kGiB, capacity);
    QCOMPARE(decision.mode, WriteMode::Image);
    QCOMPARE(decision.tooSmall, tooSmall);
    QCOMPARE(decision.refusals.size(), tooSmall ? 1 : 0);
    QVERIFY(decision.warnings.isEmpty());
}

void TestUsbPlan::decides_data()
{
    QTest::addColumn<QStringList>("files");
    QTest::addColumn<qint64>("capacity");
    QTest::addColumn<int>("scheme");
    QTest::addColumn<QString>("chosen");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("used");
    QTest::addColumn<bool>("bootCode");
    QTest::addColumn<QString>("split");
    QTest::addColumn<QString>("refusal"); // a text one refusal holds; empty: none
    QTest::addColumn<QString>("warning"); // the same for warnings
    const QStringList installer{"bootmgr:400000", "efi/boot/bootx64.efi:1500000",
                                "sources/boot.wim:500000000"};
    const qint64 stick = 16 * kGiB;
    const int mbr = int(Scheme::Mbr);
    const int gpt = int(Scheme::Gpt);
    QTest::newRow("installer, MBR, FAT32") << installer << stick << mbr << "FAT32"
                                           << ""
                                           << "FAT32" << true << ""
                                           << ""
                                           << "";
    QTest::newRow("FAT on a big stick") << installer << 8 * kGiB << mbr << "FAT"
                                        << ""
                                        << "FAT32" << true << ""
                                        << ""
                                        << "";
    QTest::newRow("FAT on a small stick") << installer << 2 * kGiB << mbr << "FAT"
                                          << ""
                                          << "FAT" << true << ""
                                          << ""
                                          << "";
    QTest::newRow("GPT forces FAT32") << installer << stick << gpt << "NTFS"
                                      << ""
                                      << "FAT32" << false << ""
                                      << ""
                                      << "";
    QTest::newRow("large install.wim is split")
        << installer + QStringList{"Sources/Install.WIM:5500000000"} << stick << mbr << "FAT32"
        << ""
        << "FAT32" << true << "Sources\\Install.WIM"
        << ""
        << "";
    QTest::newRow("file of exactly 4 GiB - 1 fits")
        << installer + QStringList{"data/a.bin:4294967295"} << stick << mbr << "FAT32"
        << ""
        << "FAT32" << true << ""
        << ""
        << "";
    QTest::newRow("other large file refuses FAT32")
        << installer + QStringList{"big/disk.vhd:4294967296"} << stick << mbr << "FAT32"
        << ""
        << "FAT32" << true << ""
        << "/big/disk.vhd is 4 GB, too large for FAT32"
        << "";
    QTest::newRow("NTFS takes it, but UEFI cannot read it")
        << installer + QStringList{"big/disk.vhd:6000000000"} << stick << mbr << "NTFS"
        << ""
        << "NTFS" << true << ""
        << ""
        << "cannot read NTFS";
    QTest::newRow("no bootmgr, EFI loader")
        << QStringList{"efi/boot/bootx64.efi:1"} << stick << mbr << "FAT32"
        << ""
        << "FAT32" << false << ""
        << ""
        << "through UEFI only";
    QTest::newRow("no loader at all") << QStringList{"readme.txt:1"} << stick << mbr << "exFAT"
                                      << ""
                                      << "exFAT" << false << ""
                                      << ""
                                      << "will only hold";
    // The label is checked for the file system actually used.
    QTest::newRow("label too long for exFAT") << installer << stick << mbr << "exFAT"
                                              << "Brenta 2024 x"
                                              << "exFAT" << true << ""
                                              << "holds at most 11 characters"
                                              << "cannot read exFAT";
    QTest::newRow("GPT label follows FAT32's rules")
        << installer << stick << gpt << "exFAT" << QString("Données") << "FAT32" << false << ""
        << "can hold only"
        << "";
    QTest::newRow("GPT without EFI loader") << QStringList{"bootmgr:1"} << stick << gpt << "FAT32"
                                            << ""
                                            << "FAT32" << false << ""
                                            << ""
                                            << "a GPT stick will not start";
    // "+efi boot image": the loader is only in the El Torito EFI boot image,
    // which a FAT stick is given.
    const QStringList linux{"isolinux/isolinux.bin:1", "+efi boot image"};
    QTest::newRow("EFI boot image, MBR") << linux << stick << mbr << "FAT32"
                                         << ""
                                         << "FAT32" << false << ""
                                         << ""
                                         << "through UEFI only";
    QTest::newRow("EFI boot image, GPT") << linux << stick << gpt << "FAT32"
                                         << ""
                                         << "FAT32" << false << ""
                                         << ""
                                         << "";
    QTest::newRow("EFI boot image, exFAT") << linux << stick << mbr << "exFAT"
                                           << ""
                                           << "exFAT" << false << ""
                                           << ""
                                           << "will only hold";
}

void TestUsbPlan::decides()
{
    QFETCH(QStringList, files);
    QFETCH(qint64, capacity);
    QFETCH(int, scheme);
    QFETCH(QString, chosen);
    QFETCH(QString, label);
    QFETCH(QString, used);
    QFETCH(bool, bootCode);
    QFETCH(QString, split);
    QFETCH(QString, refusal);
    QFETCH(QString, warning);
    const bool efiImage = files.removeAll("+efi boot image") > 0;
    ItemTree tree;
    fill(tree, files);
    const Decision decision = Decide(tree, kGiB, capacity, Scheme(scheme),
                                     *FileSystemFromName(chosen), label, kFatFileLimit, efiImage);
    QCOMPARE(Name(decision.fileSystem), used);
    QCOMPARE(decision.efiFromBootImage, efiImage && used.startsWith("FAT"));
    QCOMPARE(decision.bootCode, bootCode);
    QCOMPARE(decision.splitWim, split);
    QCOMPARE(decision.refusals.size(), refusal.isEmpty() ? 0 : 1);
    if (!refusal.isEmpty())
        QVERIFY2(decision.refusals.first().contains(refusal),
                 qPrintable(decision.refusals.first()));
    QCOMPARE(decision.warnings.size(), warning.isEmpty() ? 0 : 1);
    if (!warning.isEmpty())
        QVERIFY2(decision.warnings.first().contains(warning),
                 qPrintable(decision.warnings.first()));
    QVERIFY(!decision.tooSmall);

    // The stick must hold the image and 50 MiB more.
    QVERIFY(
        !Decide(tree, kGiB, kGiB + kSpareBytes, Scheme(scheme), *FileSystemFromName(chosen), label)
             .tooSmall);
    QVERIFY(Decide(tree, kGiB, kGiB + kSpareBytes - 1, Scheme(scheme), *FileSystemFromName(chosen),
                   label)
                .tooSmall);
}

// What passes here is given to mkfs after the stick was wiped: a label mkfs
// refuses would leave the stick empty and the burn failed.
void TestUsbPlan::labels_data()
{
    QTest::addColumn<QString>("fs");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");    // given to mkfs
    QTest::addColumn<QString>("problem"); // a part of the reason; empty: taken

    QTest::newRow("FAT32 upper case") << "FAT32"
                                      << "my stick"
                                      << "MY STICK"
                                      << "";
    QTest::newRow("FAT without the blanks around") << "FAT"
                                                   << "  STICK "
                                                   << "STICK"
                                                   << "";
    QTest::newRow("FAT32 11 characters") << "FAT32"
                                         << "ABCDEFGHIJK"
                                         << "ABCDEFGHIJK"
                                         << "";
    QTest::newRow("FAT32 12 characters") << "FAT32"
                                         << "ABCDEFGHIJKL"
                                         << ""
                                         << "at most 11 characters";
    QTest::newRow("FAT32 allowed punctuation") << "FAT32"
                                               << "!#$%&'()-@^"
                                               << "!#$%&'()-@^"
                                               << "";
    QTest::newRow("FAT32 dot") << "FAT32"
                               << "V1.0"
                               << ""
                               << "not \".\"";
    QTest::newRow("FAT32 non-ASCII") << "FAT32" << QString("Grün") << ""
                                     << "not \"ü\"";
    QTest::newRow("FAT non-ASCII that upper-cases to ASCII") << "FAT" << QString("Straße") << ""
                                                             << "not \"ß\"";
    QTest::newRow("exFAT keeps case and accents")
        << "exFAT" << QString("Données") << QString("Données") << "";
    QTest::newRow("exFAT 12 characters") << "exFAT"
                                         << "Brenta Stick"
                                         << ""
                                         << "An exFAT label holds at most 11";
    QTest::newRow("exFAT counts UTF-16 characters") << "exFAT" << QString("😀😀😀😀😀😀") << ""
                                                    << "at most 11 characters";
    QTest::newRow("NTFS 128 characters") << "NTFS" << QString(128, 'n') << QString(128, 'n') << "";
    QTest::newRow("NTFS 129 characters") << "NTFS" << QString(129, 'n') << ""
                                         << "at most 128 characters";
    QTest::newRow("control character") << "NTFS"
                                       << "a\tb"
                                       << ""
                                       << "control characters";
    QTest::newRow("none") << "exFAT"
                          << ""
                          << ""
                          << "";
}

void TestUsbPlan::labels()
{
    QFETCH(QString, fs);
    QFETCH(QString, label);
    QFETCH(QString, text);
    QFETCH(QString, problem);
    const Label checked = CheckLabel(*FileSystemFromName(fs), label);
    QCOMPARE(checked.text, text);
    if (problem.isEmpty())
        QVERIFY2(checked.problem.isEmpty(), qPrintable(checked.problem));
    else
        QVERIFY2(checked.problem.contains(problem), qPrintable(checked.problem));
}

QTEST_GUILESS_MAIN(TestUsbPlan)
#include "tst_usbplan.moc"
