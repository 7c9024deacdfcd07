#include <QtTest>

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

} // namespace

class TestUsbPlan final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void decides_data();
    void decides();
    void labels_data();
    void labels();
};

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
    const QStringList installer{"bootmgr:400000", "efi/boot/bootx64.efi:1500000", "sources/boot.wim:500000000"};
    const qint64 stick = 16 * kGiB;
    const int mbr = int(Scheme::Mbr);
    const int gpt = int(Scheme::Gpt);
    QTest::newRow("installer, MBR, FAT32") << installer << stick << mbr << "FAT32" << "" << "FAT32" << true << "" << ""
                                           << "";
    QTest::newRow("FAT on a big stick") << installer << 8 * kGiB << mbr << "FAT" << "" << "FAT32" << true << "" << ""
                                        << "";
    QTest::newRow("FAT on a small stick") << installer << 2 * kGiB << mbr << "FAT" << "" << "FAT" << true << "" << ""
                                          << "";
    QTest::newRow("GPT forces FAT32") << installer << stick << gpt << "NTFS" << "" << "FAT32" << false << "" << "" << "";
    QTest::newRow("large install.wim is split")
        << installer + QStringList{"Sources/Install.WIM:5500000000"} << stick << mbr << "FAT32" << "" << "FAT32" << true
        << "Sources\\Install.WIM" << "" << "";
    QTest::newRow("file of exactly 4 GiB - 1 fits") << installer + QStringList{"data/a.bin:4294967295"} << stick
                                                     << mbr << "FAT32" << "" << "FAT32" << true << "" << "" << "";
    QTest::newRow("other large file refuses FAT32")
        << installer + QStringList{"big/disk.vhd:4294967296"} << stick << mbr << "FAT32" << "" << "FAT32" << true << ""
        << "/big/disk.vhd is 4 GB, too large for FAT32" << "";
    QTest::newRow("NTFS takes it, but UEFI cannot read it")
        << installer + QStringList{"big/disk.vhd:6000000000"} << stick << mbr << "NTFS" << "" << "NTFS" << true << ""
        << "" << "cannot read NTFS";
    QTest::newRow("no bootmgr, EFI loader") << QStringList{"efi/boot/bootx64.efi:1"} << stick << mbr << "FAT32" << ""
                                            << "FAT32" << false << "" << "" << "through UEFI only";
    QTest::newRow("no loader at all") << QStringList{"readme.txt:1"} << stick << mbr << "exFAT" << "" << "exFAT" << false
                                      << "" << "" << "will only hold";
    // The label is checked for the file system actually used.
    QTest::newRow("label too long for exFAT") << installer << stick << mbr << "exFAT" << "Brenta 2024 x" << "exFAT"
                                              << true << "" << "holds at most 11 characters" << "cannot read exFAT";
    QTest::newRow("GPT label follows FAT32's rules") << installer << stick << gpt << "exFAT" << QString("Données")
                                                     << "FAT32" << false << "" << "can hold only" << "";
    QTest::newRow("GPT without EFI loader") << QStringList{"bootmgr:1"} << stick << gpt << "FAT32" << "" << "FAT32"
                                            << false << "" << "" << "a GPT stick will not start";
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
    ItemTree tree;
    fill(tree, files);
    const Decision decision = Decide(tree, kGiB, capacity, Scheme(scheme), *FileSystemFromName(chosen), label);
    QCOMPARE(Name(decision.fileSystem), used);
    QCOMPARE(decision.bootCode, bootCode);
    QCOMPARE(decision.splitWim, split);
    QCOMPARE(decision.refusals.size(), refusal.isEmpty() ? 0 : 1);
    if (!refusal.isEmpty())
        QVERIFY2(decision.refusals.first().contains(refusal), qPrintable(decision.refusals.first()));
    QCOMPARE(decision.warnings.size(), warning.isEmpty() ? 0 : 1);
    if (!warning.isEmpty())
        QVERIFY2(decision.warnings.first().contains(warning), qPrintable(decision.warnings.first()));
    QVERIFY(!decision.tooSmall);

    // The stick must hold the image and 50 MiB more.
    QVERIFY(!Decide(tree, kGiB, kGiB + kSpareBytes, Scheme(scheme), *FileSystemFromName(chosen), label).tooSmall);
    QVERIFY(Decide(tree, kGiB, kGiB + kSpareBytes - 1, Scheme(scheme), *FileSystemFromName(chosen), label).tooSmall);
}

// What passes here is given to mkfs after the stick was wiped: a label mkfs
// refuses would leave the stick empty and the burn failed.
void TestUsbPlan::labels_data()
{
    QTest::addColumn<QString>("fs");
    QTest::addColumn<QString>("label");
    QTest::addColumn<QString>("text");    // given to mkfs
    QTest::addColumn<QString>("problem"); // a part of the reason; empty: taken

    QTest::newRow("FAT32 upper case") << "FAT32" << "my stick" << "MY STICK" << "";
    QTest::newRow("FAT without the blanks around") << "FAT" << "  STICK " << "STICK" << "";
    QTest::newRow("FAT32 11 characters") << "FAT32" << "ABCDEFGHIJK" << "ABCDEFGHIJK" << "";
    QTest::newRow("FAT32 12 characters") << "FAT32" << "ABCDEFGHIJKL" << "" << "at most 11 characters";
    QTest::newRow("FAT32 allowed punctuation") << "FAT32" << "!#$%&'()-@^" << "!#$%&'()-@^" << "";
    QTest::newRow("FAT32 dot") << "FAT32" << "V1.0" << "" << "not \".\"";
    QTest::newRow("FAT32 non-ASCII") << "FAT32" << QString("Grün") << "" << "not \"ü\"";
    QTest::newRow("FAT non-ASCII that upper-cases to ASCII") << "FAT" << QString("Straße") << "" << "not \"ß\"";
    QTest::newRow("exFAT keeps case and accents") << "exFAT" << QString("Données") << QString("Données") << "";
    QTest::newRow("exFAT 12 characters") << "exFAT" << "Brenta Stick" << "" << "An exFAT label holds at most 11";
    QTest::newRow("exFAT counts UTF-16 characters") << "exFAT" << QString("😀😀😀😀😀😀") << ""
                                                    << "at most 11 characters";
    QTest::newRow("NTFS 128 characters") << "NTFS" << QString(128, 'n') << QString(128, 'n') << "";
    QTest::newRow("NTFS 129 characters") << "NTFS" << QString(129, 'n') << "" << "at most 128 characters";
    QTest::newRow("control character") << "NTFS" << "a\tb" << "" << "control characters";
    QTest::newRow("none") << "exFAT" << "" << "" << "";
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
