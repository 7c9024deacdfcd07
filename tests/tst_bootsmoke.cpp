// Starts sticks made the way Brenta makes them in an emulated PC: the real
// brenta-usb-helper prepares a loop device (partition, file system, GRUB's
// boot code), the archive tool copies an image onto it, and QEMU boots the
// backing file. The image holds tiny boot loaders that write a marker to the
// first serial port, so the boot is checked end to end: the boot sector, the
// core image, GRUB's search for /bootmgr through the file system driver, its
// chain-load, and for UEFI the firmware's own look at the partition. Images
// shaped as Linux distributions make them are written in disk image mode
// through the burn job and start with their own loaders.
//
// Needs root (loop devices, mounting) and qemu-system-i386; the UEFI rows also
// qemu-system-x86_64 and OVMF. Skips otherwise.

#include <QtTest>

#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <unistd.h>

#include "common/bootloaders.h"
#include "common/hybridimage.h"
#include "common/isofixture.h"
#include "iso/extraction.h"
#include "iso/imagesave.h"
#include "media/usbburn.h"

Q_DECLARE_METATYPE(UsbPlan::Scheme)
Q_DECLARE_METATYPE(UsbPlan::FileSystem)

namespace {

using BootLoaders::kBiosMarker;
using BootLoaders::kUefiMarker;

enum class Firmware
{
    Bios,
    Uefi
};

// Debian's OVMF: the firmware and the template of its variable store.
const QString kOvmfCode = QStringLiteral("/usr/share/OVMF/OVMF_CODE.fd");
const QString kOvmfVars = QStringLiteral("/usr/share/OVMF/OVMF_VARS.fd");

struct Run
{
    int exitCode = -1;
    QString output;
};

Run run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    process.waitForFinished(180000);
    Run result;
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = QString::fromUtf8(process.readAll());
    return result;
}

Run helper(const QStringList& arguments)
{
    return run(QStringLiteral(BRENTA_USB_HELPER), arguments);
}

QString systemTool(const QString& name)
{
    return QStandardPaths::findExecutable(name, {"/usr/sbin", "/usr/bin", "/sbin", "/bin"});
}

// What a start through `firmware` needs and this machine lacks, or nothing.
QString missingFirmware(Firmware firmware)
{
    if (firmware != Firmware::Uefi)
        return QString();
    if (systemTool("qemu-system-x86_64").isEmpty())
        return QStringLiteral("qemu-system-x86_64 is not installed");
    if (!QFileInfo::exists(kOvmfCode) || !QFileInfo::exists(kOvmfVars))
        return QStringLiteral("OVMF is not installed");
    return QString();
}

// A detached loop device lingers while anything still has it open, such as
// a FUSE driver writing its last blocks after its mount went away. The stick
// is complete once the kernel has let go of the backing file.
bool waitForDetach(const QString& loop)
{
    const QString backing = "/sys/block/" + QFileInfo(loop).fileName() + "/loop/backing_file";
    QElapsedTimer timer;
    timer.start();
    while (QFileInfo::exists(backing)) {
        if (timer.elapsed() > 20000)
            return false;
        QThread::msleep(50);
    }
    return true;
}

// The serial output without the terminal's colour and cursor codes, which
// GRUB sometimes puts in the middle of its prompt.
QByteArray plain(const QByteArray& serial)
{
    static const QRegularExpression codes(QStringLiteral("\x1b(\\[[0-9;?=]*[A-Za-z]|c)"));
    return QString::fromLatin1(serial).remove(codes).remove(QLatin1Char('\r')).toLatin1();
}

// The end of it, for failure messages.
QString readable(const QByteArray& serial)
{
    return QString::fromLatin1(plain(serial).right(1500));
}

struct Boot
{
    QByteArray serial;
    QString error; // QEMU's words when it did not run
};

// The firmware's and GRUB's ways of saying they found nothing to start.
const QList<QByteArray> kFailures{"grub rescue>", "Boot failed", "EFI Internal Shell",
                                  "No bootable option"};

// Boots `disk` and collects what reaches COM1 until `expected` or one of the
// failures appears, QEMU stops, or the time is up.
Boot bootStick(Firmware firmware, const QString& disk, const QString& work,
               const QByteArray& expected, bool cdrom = false)
{
    const QList<QByteArray> ends = QList<QByteArray>{expected} + kFailures;
    const int timeoutMs = firmware == Firmware::Bios ? 30000 : 60000;
    // Plain emulation: these boots take a second or a few either way, and a
    // /dev/kvm under nested virtualisation may hang in GRUB or crash OVMF.
    QStringList arguments{
        "-accel",      "tcg",
        "-nodefaults", "-display",
        "none",        "-no-reboot",
        "-serial",     "stdio",
        "-drive",      "file=" + disk + ",format=raw,if=ide" + (cdrom ? ",media=cdrom" : "")};
    QString program;
    if (firmware == Firmware::Bios) {
        program = systemTool("qemu-system-i386");
        // SeaBIOS copies its own and GRUB's screen output to this port, so a
        // failed boot shows GRUB's errors and its rescue prompt.
        QFile port(work + "/sercon-port");
        port.open(QIODevice::WriteOnly);
        port.write(QByteArray("\xf8\x03\0\0", 4));
        port.close();
        arguments << "-m"
                  << "64"
                  << "-fw_cfg"
                  << "name=etc/sercon-port,file=" + port.fileName();
        if (cdrom)
            arguments << "-boot"
                      << "d";
    } else {
        program = systemTool("qemu-system-x86_64");
        const QString vars = work + "/ovmf-vars.fd";
        QFile::remove(vars);
        QFile::copy(kOvmfVars, vars);
        QFile::setPermissions(vars, QFile::ReadOwner | QFile::WriteOwner);
        arguments << "-m"
                  << "128"
                  << "-drive"
                  << "if=pflash,format=raw,readonly=on,file=" + kOvmfCode << "-drive"
                  << "if=pflash,format=raw,file=" + vars;
    }

    Boot result;
    QProcess qemu;
    qemu.start(program, arguments);
    if (!qemu.waitForStarted(10000)) {
        result.error = qemu.errorString();
        return result;
    }
    QElapsedTimer timer;
    timer.start();
    const auto ended = [&] {
        const QByteArray text = plain(result.serial);
        for (const QByteArray& end : ends) {
            if (text.contains(end))
                return true;
        }
        return false;
    };
    while (qemu.state() == QProcess::Running && timer.elapsed() < timeoutMs && !ended()) {
        qemu.waitForReadyRead(200);
        result.serial += qemu.readAllStandardOutput();
    }
    qemu.kill();
    qemu.waitForFinished(10000);
    result.serial += qemu.readAllStandardOutput();
    if (result.serial.isEmpty())
        result.error = QString::fromUtf8(qemu.readAllStandardError());
    return result;
}

} // namespace

Q_DECLARE_METATYPE(Firmware)

class TestBootSmoke : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void boot_data();
    void boot();
    void imageMode_data();
    void imageMode();
    void savedImage_data();
    void savedImage();

private:
    QTemporaryDir m_saved;
    QMap<QString, QString> m_savedImages; // shape -> the saved image, one save per shape
};

void TestBootSmoke::initTestCase()
{
    if (::geteuid() != 0)
        QSKIP("needs root: loop devices, partitioning and mounting");
    for (const char* program :
         {"qemu-system-i386", "losetup", "genisoimage", "7z", "grub-mkimage"}) {
        if (systemTool(program).isEmpty())
            QSKIP(qPrintable(QString("%1 is not installed").arg(program)));
    }
    if (!QFileInfo::exists("/usr/lib/grub/i386-pc/boot.img"))
        QSKIP("GRUB's i386-pc images are not installed");
}

void TestBootSmoke::boot_data()
{
    QTest::addColumn<Firmware>("firmware");
    QTest::addColumn<UsbPlan::Scheme>("scheme");
    QTest::addColumn<UsbPlan::FileSystem>("fs");
    QTest::addColumn<bool>("loaders"); // whether the image holds /bootmgr and /efi/boot/bootx64.efi
    QTest::addColumn<QByteArray>("expected");

    using S = UsbPlan::Scheme;
    using F = UsbPlan::FileSystem;
    // GRUB reads each file system through its own driver in the core image.
    QTest::newRow("bios mbr fat32") << Firmware::Bios << S::Mbr << F::Fat32 << true << kBiosMarker;
    QTest::newRow("bios mbr fat16") << Firmware::Bios << S::Mbr << F::Fat << true << kBiosMarker;
    QTest::newRow("bios mbr ntfs") << Firmware::Bios << S::Mbr << F::Ntfs << true << kBiosMarker;
    QTest::newRow("bios mbr exfat") << Firmware::Bios << S::Mbr << F::Exfat << true << kBiosMarker;
    // Without /bootmgr GRUB gives up at its prompt: the marker comes only
    // from the loader it found.
    QTest::newRow("bios without bootmgr")
        << Firmware::Bios << S::Mbr << F::Fat32 << false << QByteArray("grub rescue>");
    // The firmware reads FAT itself; the MBR stick keeps GRUB in its first
    // sectors, which UEFI ignores.
    QTest::newRow("uefi gpt fat32") << Firmware::Uefi << S::Gpt << F::Fat32 << true << kUefiMarker;
    QTest::newRow("uefi mbr fat32") << Firmware::Uefi << S::Mbr << F::Fat32 << true << kUefiMarker;
    QTest::newRow("uefi without loader")
        << Firmware::Uefi << S::Gpt << F::Fat32 << false << QByteArray("EFI Internal Shell");
}

void TestBootSmoke::boot()
{
    QFETCH(Firmware, firmware);
    QFETCH(UsbPlan::Scheme, scheme);
    QFETCH(UsbPlan::FileSystem, fs);
    QFETCH(bool, loaders);
    QFETCH(QByteArray, expected);

    if (const QString missing = missingFirmware(firmware); !missing.isEmpty())
        QSKIP(qPrintable(missing));
    const QStringList tools = fs == UsbPlan::FileSystem::Ntfs ? QStringList{"mkfs.ntfs", "ntfs-3g"}
                              : fs == UsbPlan::FileSystem::Exfat ? QStringList{"mkfs.exfat"}
                                                                 : QStringList{"mkfs.vfat"};
    for (const QString& program : tools) {
        if (systemTool(program).isEmpty())
            QSKIP(qPrintable(program + " is not installed"));
    }

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QMap<QString, QByteArray> files{{"docs/readme.txt", "Brenta boot test\n"},
                                    {"sources/data.bin", QByteArray(300000, 'x')}};
    if (loaders) {
        files.insert("bootmgr", BootLoaders::Bios());
        files.insert("efi/boot/bootx64.efi", BootLoaders::Uefi());
    }
    QVERIFY(IsoFixture::WriteTree(dir.filePath("tree"), files));
    QString error;
    const QString iso =
        IsoFixture::Build(dir.filePath("tree"), dir.filePath("image.iso"), "joliet", &error);
    QVERIFY2(!iso.isEmpty(), qPrintable(error));

    const QString stick = IsoFixture::SparseFile(dir.filePath("stick.img"), 96);
    QVERIFY(!stick.isEmpty());
    Run step = run(systemTool("losetup"), {"-f", "--show", "-P", stick});
    const QString loop = step.output.trimmed();
    if (step.exitCode != 0 || !loop.startsWith("/dev/loop"))
        QSKIP(qPrintable("no loop device can be set up here: " + step.output.trimmed()));
    bool attached = true;
    const auto cleanup = qScopeGuard([&] {
        if (attached) {
            helper({"unmount", loop});
            run(systemTool("losetup"), {"-d", loop});
        }
    });

    step = helper(UsbBurn::PrepareArguments(loop, scheme, fs, "BRENTA"));
    QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    UsbBurn::HelperReport report;
    for (const QString& line : step.output.split('\n', Qt::SkipEmptyParts))
        UsbBurn::ReadHelperLine(line, report);
    QVERIFY2(!report.mounted.isEmpty(), qPrintable(step.output));

    // Boot code on every MBR stick, also the one without /bootmgr: that row
    // shows GRUB starting and then finding nothing to chain-load.
    if (scheme == UsbPlan::Scheme::Mbr) {
        step = helper({"bootcode", loop});
        QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    }

    step = run(systemTool("7z"), Extraction::Arguments(iso, report.mounted, {}, {"[BOOT]"}));
    QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    QCOMPARE(QFileInfo::exists(report.mounted + "/bootmgr"), loaders);

    step = helper({"unmount", loop});
    QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    step = run(systemTool("losetup"), {"-d", loop});
    QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    attached = false;
    QVERIFY2(waitForDetach(loop), "the loop device stays in use after the stick was unmounted");

    const QByteArray marker = firmware == Firmware::Bios ? kBiosMarker : kUefiMarker;
    const Boot result = bootStick(firmware, stick, dir.path(), expected);
    QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
    QVERIFY2(plain(result.serial).contains(expected), qPrintable(readable(result.serial)));
    QCOMPARE(plain(result.serial).contains(marker), loaders);
}

void TestBootSmoke::imageMode_data()
{
    QTest::addColumn<Firmware>("firmware");
    QTest::addColumn<QString>("shape");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("isohybrid bios") << Firmware::Bios << "isolinux" << HybridImage::kIsolinuxMarker;
    QTest::newRow("isohybrid uefi") << Firmware::Uefi << "isolinux" << HybridImage::kEfiImageMarker;
    QTest::newRow("grub-mkrescue bios")
        << Firmware::Bios << "grub" << HybridImage::kGrubMarker + " pc";
    QTest::newRow("grub-mkrescue uefi")
        << Firmware::Uefi << "grub" << HybridImage::kGrubMarker + " efi";
    // Files mode chosen: the loader comes from the image's EFI boot image.
    QTest::newRow("isohybrid files uefi")
        << Firmware::Uefi << "isolinux files" << HybridImage::kEfiImageMarker;
}

// Images built the way Linux distributions build theirs go onto the stick in
// disk image mode by themselves, through the job and the real helper, and the
// stick starts with the image's own loaders through the BIOS and UEFI.
void TestBootSmoke::imageMode()
{
    QFETCH(Firmware, firmware);
    QFETCH(QString, shape);
    QFETCH(QByteArray, expected);

    if (const QString missing = missingFirmware(firmware); !missing.isEmpty())
        QSKIP(qPrintable(missing));
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    QString error;
    const QString iso = shape == "grub" ? HybridImage::GrubRescue(dir.path(), &error)
                                        : HybridImage::Isolinux(dir.path(), &error);
    QVERIFY2(!iso.isEmpty(), qPrintable(error));
    // The job finds the helper through the tools folder.
    QVERIFY(QDir().mkpath(dir.filePath("tools/usbhelper")));
    QVERIFY(QFile::link(BRENTA_USB_HELPER, dir.filePath("tools/usbhelper/brenta-usb-helper")));
    qputenv("BRENTA_TOOLS_DIR", dir.filePath("tools").toUtf8());
    const auto unset = qScopeGuard([] { qunsetenv("BRENTA_TOOLS_DIR"); });

    const QString stick = IsoFixture::SparseFile(dir.filePath("stick.img"), 96);
    QVERIFY(!stick.isEmpty());
    Run step = run(systemTool("losetup"), {"-f", "--show", stick});
    const QString loop = step.output.trimmed();
    if (step.exitCode != 0 || !loop.startsWith("/dev/loop"))
        QSKIP(qPrintable("no loop device can be set up here: " + step.output.trimmed()));
    bool attached = true;
    const auto cleanup = qScopeGuard([&] {
        if (attached)
            run(systemTool("losetup"), {"-d", loop});
    });

    CUsbBurnJob job;
    QSignalSpy planned(&job, &CUsbBurnJob::planned);
    QSignalSpy finished(&job, &CUsbBurnJob::finished);
    CUsbBurnJob::Options options;
    options.image = iso;
    options.device = loop;
    const bool files = shape.endsWith(" files");
    options.autoMode = !files;
    job.Plan(options);
    QVERIFY(planned.wait(60000));
    QVERIFY2(planned.first().at(0).toBool(), qPrintable(planned.first().at(1).toString()));
    QCOMPARE(job.Decision().mode, files ? UsbPlan::WriteMode::Files : UsbPlan::WriteMode::Image);
    job.Burn();
    QVERIFY(finished.wait(120000));
    QVERIFY2(finished.first().at(0).toBool(), qPrintable(finished.first().at(1).toString()));

    step = run(systemTool("losetup"), {"-d", loop});
    QVERIFY2(step.exitCode == 0, qPrintable(step.output));
    attached = false;
    QVERIFY2(waitForDetach(loop), "the loop device stays in use after the stick was written");

    const Boot result = bootStick(firmware, stick, dir.path(), expected);
    QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
    QVERIFY2(plain(result.serial).contains(expected), qPrintable(readable(result.serial)));
}

void TestBootSmoke::savedImage_data()
{
    QTest::addColumn<QString>("shape");
    QTest::addColumn<Firmware>("firmware");
    QTest::addColumn<bool>("cdrom");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray grubPc = HybridImage::kGrubMarker + " pc";
    const QByteArray grubEfi = HybridImage::kGrubMarker + " efi";
    QTest::newRow("isohybrid cd bios")
        << "isolinux" << Firmware::Bios << true << HybridImage::kIsolinuxMarker;
    QTest::newRow("isohybrid disk bios")
        << "isolinux" << Firmware::Bios << false << HybridImage::kIsolinuxMarker;
    QTest::newRow("isohybrid cd uefi")
        << "isolinux" << Firmware::Uefi << true << HybridImage::kEfiImageMarker;
    QTest::newRow("isohybrid disk uefi")
        << "isolinux" << Firmware::Uefi << false << HybridImage::kEfiImageMarker;
    QTest::newRow("grub-mkrescue cd bios") << "grub" << Firmware::Bios << true << grubPc;
    QTest::newRow("grub-mkrescue disk bios") << "grub" << Firmware::Bios << false << grubPc;
    QTest::newRow("grub-mkrescue cd uefi") << "grub" << Firmware::Uefi << true << grubEfi;
    QTest::newRow("grub-mkrescue disk uefi") << "grub" << Firmware::Uefi << false << grubEfi;
}

// An edited image saved through xorriso starts with its own loaders wherever
// the original started: as a disc and as a disk, through the BIOS and UEFI.
void TestBootSmoke::savedImage()
{
    QFETCH(QString, shape);
    QFETCH(Firmware, firmware);
    QFETCH(bool, cdrom);
    QFETCH(QByteArray, expected);

    if (const QString missing = missingFirmware(firmware); !missing.isEmpty())
        QSKIP(qPrintable(missing));
    QVERIFY(m_saved.isValid());
    if (!m_savedImages.contains(shape)) {
        const QString dir = m_saved.filePath(shape);
        QVERIFY(QDir().mkpath(dir));
        QString error;
        const QString iso = shape == "grub" ? HybridImage::GrubRescue(dir, &error)
                                            : HybridImage::Isolinux(dir, &error);
        QVERIFY2(!iso.isEmpty(), qPrintable(error));
        QVERIFY(IsoFixture::WriteTree(dir, {{"added.txt", "added by the save\n"}}));
        ImageSave::Change add;
        add.source = dir + "/added.txt";
        add.path = "docs/added.txt";
        ImageSave::Change rename;
        rename.kind = ImageSave::Change::Kind::Rename;
        rename.path = "docs/readme.txt";
        rename.newPath = "docs/notes.txt";
        ImageSave::Change remove;
        remove.kind = ImageSave::Change::Kind::Delete;
        remove.path = "data";
        CImageSaveJob job;
        QSignalSpy finished(&job, &CImageSaveJob::finished);
        job.Start(iso, {add, rename, remove}, dir + "/saved.iso");
        QVERIFY(finished.wait(120000));
        QVERIFY2(job.Succeeded(), qPrintable(job.Message()));
        m_savedImages.insert(shape, dir + "/saved.iso");
    }

    const Boot result =
        bootStick(firmware, m_savedImages.value(shape), m_saved.filePath(shape), expected, cdrom);
    QVERIFY2(result.error.isEmpty(), qPrintable(result.error));
    QVERIFY2(plain(result.serial).contains(expected), qPrintable(readable(result.serial)));
}

QTEST_GUILESS_MAIN(TestBootSmoke)
#include "tst_bootsmoke.moc"
