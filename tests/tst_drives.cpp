#include <QtTest>

#include <QTemporaryDir>

#include <umockdev.h>

#include "core/sysblock.h"
#include "core/util.h"
#include "media/drives.h"

// Runs under umockdev-wrapper: every test gets a fresh fake /sys and /dev
// holding the machine below, and the code under test asks udev as usual.
//
//   sda   internal ATA disk, sda1                      never offered
//   sdb   USB stick (ID_BUS=usb), sdb1 sdb2            offered
//   sdc   internal card reader, removable, sdc1        offered, named by sysfs
//   sdd   USB enclosure, not removable, partition      offered through its USB ancestor
//         node /dev/enclosure/part1 (kernel name sdd1)
//   sde   USB card reader without a card (size 0)      never
//   sdf   write-protected USB stick                    never
//   loop0 removable, writable                          never
//   dm-0 on sdb2, md0 on sdc1 and sdd1                 never
//   sr0, sr2 (no ID_CDROM), sr10 (no SCSI address)     optical drives
namespace {

const QString kAta = "/devices/pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0";
const QString kStickScsi =
    "/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0";
const QString kReaderScsi =
    "/devices/pci0000:00/0000:00:1c.0/0000:03:00.0/host7/target7:0:0/7:0:0:0";
const QString kEnclosureUsb = "/devices/pci0000:00/0000:00:14.0/usb2/2-2";
const QString kSr0Scsi = "/devices/pci0000:00/0000:00:1f.2/ata2/host1/target1:0:0/1:0:0:0";
const QString kSr2Scsi = "/devices/pci0000:00/0000:00:1f.2/ata3/host2/target2:0:0/2:0:0:0";
const QString kStick = kStickScsi + "/block/sdb";
const QString kReader = kReaderScsi + "/block/sdc";
const QString kEnclosure = kEnclosureUsb + "/2-2:1.0/host8/target8:0:0/8:0:0:0/block/sdd";
const QString kSr10 = "/devices/virtual/block/sr10";
const QString kMissing = "<no such file>";

// A device in umockdev's record format.
QString record(const QString& path, const QStringList& lines)
{
    return "P: " + path + '\n' + lines.join('\n') + "\n\n";
}

// A block device: "disk" or "partition", its node under /dev, "major:minor",
// size in sectors and further lines.
QString block(const QString& path, const QString& type, const QString& node, const QString& number,
              qint64 sectors, const QStringList& more = {})
{
    return record(path, QStringList{"N: " + node, "E: DEVNAME=/dev/" + node, "E: SUBSYSTEM=block",
                                    "E: DEVTYPE=" + type, "A: dev=" + number,
                                    "A: size=" + QString::number(sectors)} +
                            more);
}

QString disk(const QString& path, const QString& number, qint64 sectors, const QStringList& more)
{
    return block(path, "disk", path.section('/', -1), number, sectors, more);
}

QString machine()
{
    const QStringList writableStick = {"A: removable=1", "A: ro=0", "E: ID_BUS=usb"};
    return record(kAta, {"E: SUBSYSTEM=scsi"}) +
           disk(kAta + "/block/sda", "8:0", 976773168,
                {"A: removable=0", "A: ro=0", "E: ID_MODEL=Fast_Disk"}) +
           block(kAta + "/block/sda/sda1", "partition", "sda1", "8:1", 976771072,
                 {"A: partition=1"}) +
           record("/devices/pci0000:00/0000:00:14.0/usb2/2-1",
                  {"E: SUBSYSTEM=usb", "E: DEVTYPE=usb_device"}) +
           record(kStickScsi, {"E: SUBSYSTEM=scsi"}) +
           disk(kStick, "8:16", 31266816,
                writableStick + QStringList{"E: ID_VENDOR=ACME", "E: ID_MODEL=Stick"}) +
           block(kStick + "/sdb1", "partition", "sdb1", "8:17", 2048000, {"A: partition=1"}) +
           block(kStick + "/sdb2", "partition", "sdb2", "8:18", 29216768, {"A: partition=2"}) +
           record(kReaderScsi, {"E: SUBSYSTEM=scsi"}) +
           disk(kReader, "8:32", 976562, {"A: removable=1", "A: ro=0"}) +
           block(kReader + "/sdc1", "partition", "sdc1", "8:33", 974848, {"A: partition=1"}) +
           record(kEnclosureUsb, {"E: SUBSYSTEM=usb", "E: DEVTYPE=usb_device"}) +
           disk(kEnclosure, "8:48", 1953525168,
                {"A: removable=0", "A: ro=0", "E: ID_VENDOR=Big_Box",
                 "E: ID_MODEL=USB_3.0__Disk_"}) +
           block(kEnclosure + "/sdd1", "partition", "enclosure/part1", "8:49", 1953523120,
                 {"A: partition=1"}) +
           disk(kEnclosureUsb + "/2-2:1.0/host9/target9:0:0/9:0:0:0/block/sde", "8:64", 0,
                writableStick) +
           disk(kEnclosureUsb + "/2-2:1.0/host9/target9:0:1/9:0:1:0/block/sdf", "8:80", 31266816,
                {"A: removable=1", "A: ro=1", "E: ID_BUS=usb"}) +
           disk("/devices/virtual/block/loop0", "7:0", 2048, {"A: removable=1", "A: ro=0"}) +
           disk("/devices/virtual/block/dm-0", "254:0", 29212672, {"A: removable=0", "A: ro=0"}) +
           disk("/devices/virtual/block/md0", "9:0", 974720, {"A: removable=0", "A: ro=0"}) +
           record(kSr0Scsi, {"E: SUBSYSTEM=scsi", "A: vendor=ACMECORP", "A: rev=R001"}) +
           disk(kSr0Scsi + "/block/sr0", "11:0", 2097151,
                {"A: removable=1", "A: ro=0", "E: ID_CDROM=1"}) +
           record(kSr2Scsi,
                  {"E: SUBSYSTEM=scsi", "A: vendor=OTHER", "A: model=BD   DRIVE", "A: rev=2.00"}) +
           disk(kSr2Scsi + "/block/sr2", "11:2", 0, {"A: removable=1"}) +
           disk(kSr10, "11:10", 0, {"A: removable=1", "E: ID_CDROM=1"});
}

// Qt text where umockdev takes a C string.
struct Utf8
{
    explicit Utf8(const QString& text) : bytes(text.toUtf8()) {}
    operator const char*() const { return bytes.constData(); }
    QByteArray bytes;
};

QStringList texts(const QList<RemovableDrive>& drives)
{
    QStringList list;
    for (const RemovableDrive& drive : drives)
        list << drive.text;
    return list;
}

} // namespace

class TestDrives final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void sizeText_data();
    void sizeText();

    void removable_data();
    void removable();
    void removableWithoutNames();
    void optical();
    void deviceSize_data();
    void deviceSize();
    void diskTotalSizeOfPaths();

    void monitor_data();
    void monitor();

private:
    // A sysfs link (slaves/sdb2, device), relative as the kernel makes them.
    void link(const QString& from, const QString& name, const QString& to);
    // A link under the fake /dev ("mapper/root" -> "../dm-0").
    void devLink(const QString& name, const QString& target);
    QString table(const QString& name, const QString& text);

    UMockdevTestbed* m_bed = nullptr;
    QTemporaryDir m_dir;
};

void TestDrives::initTestCase()
{
    // The preload library is what makes /sys and /dev the testbed's.
    if (!qEnvironmentVariable("LD_PRELOAD").contains("libumockdev-preload"))
        QSKIP("needs umockdev-wrapper (ctest starts it so)");
    QVERIFY(m_dir.isValid());
}

void TestDrives::init()
{
    m_bed = umockdev_testbed_new();
    GError* error = nullptr;
    QVERIFY2(umockdev_testbed_add_from_string(m_bed, Utf8(machine()), &error),
             error ? error->message : "");
    // Values with blanks at the ends, as drives report them.
    umockdev_testbed_set_attribute(m_bed, Utf8("/sys" + kSr0Scsi), "model", "DVDRW UNIT-100  ");
    umockdev_testbed_set_attribute(m_bed, Utf8("/sys" + kReaderScsi), "vendor", "Generic ");
    umockdev_testbed_set_attribute(m_bed, Utf8("/sys" + kReaderScsi), "model", " Card   Reader ");
    link(kSr0Scsi + "/block/sr0", "device", kSr0Scsi);
    link(kSr2Scsi + "/block/sr2", "device", kSr2Scsi);
    link(kReader, "device", kReaderScsi);
    link("/devices/virtual/block/dm-0", "slaves/sdb2", kStick + "/sdb2");
    link("/devices/virtual/block/md0", "slaves/sdc1", kReader + "/sdc1");
    link("/devices/virtual/block/md0", "slaves/sdd1", kEnclosure + "/sdd1");
    devLink("mapper/root", "../dm-0");
    devLink("disk/by-uuid/1234-ABCD", "../../sdc1");
    devLink("disk/by-label/my swap", "../../sdb2");
}

void TestDrives::cleanup()
{
    if (m_bed)
        g_object_unref(m_bed);
    m_bed = nullptr;
}

void TestDrives::link(const QString& from, const QString& name, const QString& to)
{
    const QString dir = QFileInfo(from + '/' + name).path();
    umockdev_testbed_set_attribute_link(m_bed, Utf8("/sys" + from), Utf8(name),
                                        Utf8(QDir(dir).relativeFilePath(to)));
}

void TestDrives::devLink(const QString& name, const QString& target)
{
    char* root = umockdev_testbed_get_root_dir(m_bed);
    const QString path = QFile::decodeName(root) + "/dev/" + name;
    g_free(root);
    QVERIFY(QDir().mkpath(QFileInfo(path).path()));
    QVERIFY(QFile::link(target, path));
}

QString TestDrives::table(const QString& name, const QString& text)
{
    QFile file(m_dir.filePath(name));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text.toUtf8()) < 0)
        qFatal("cannot write %s", qPrintable(file.fileName()));
    return file.fileName();
}

void TestDrives::sizeText_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("text");
    // Megabytes, gigabytes with a decimal and terabytes show in the drive texts below.
    QTest::newRow("negative") << qint64(-5) << "0 kB";
    QTest::newRow("kilobytes") << qint64(999'400) << "999 kB";
    QTest::newRow("rounds down") << qint64(15'931'539'456) << "15.9 GB";
}

void TestDrives::sizeText()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, text);
    QCOMPARE(Drives::SizeText(bytes), text);
}

void TestDrives::removable_data()
{
    QTest::addColumn<QString>("mounts");
    QTest::addColumn<QString>("swaps");
    QTest::addColumn<QStringList>("expected");

    const QString root = "/dev/sda1 / ext4 rw,relatime 0 0\n";
    const QString noSwap = "Filename\t\t\t\tType\t\tSize\t\tUsed\t\tPriority\n";
    // The names come from sysfs when udev has none, trimmed, and with udev's
    // underscores turned back into blanks.
    const QString sdb = "/dev/sdb  ACME Stick  16.0 GB";
    const QString sdc = "/dev/sdc  Generic Card Reader  500 MB";
    const QString sdd = "/dev/sdd  Big Box USB 3.0 Disk  1.0 TB";
    const QStringList all = {sdb, sdc, sdd};

    QTest::newRow("user mounts keep their disks")
        << root + "/dev/sdb1 /media/user/STICK vfat rw 0 0\n/dev/sdc1 /home/user/card vfat rw 0 0\n"
                  "/dev/enclosure/part1 /var/tmp/x ext4 rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n"
        << noSwap << all;
    QTest::newRow("no tables") << kMissing << kMissing << all;
    QTest::newRow("partition at /home") << root + "/dev/sdb1 /home ext4 rw 0 0\n"
                                        << noSwap << QStringList{sdc, sdd};
    QTest::newRow("whole disk at /boot/efi") << root + "/dev/sdc /boot/efi vfat rw 0 0\n"
                                             << noSwap << QStringList{sdb, sdd};
    QTest::newRow("swap partition") << root << noSwap + "/dev/sdb2  partition\t1048572\t0\t-2\n"
                                    << QStringList{sdc, sdd};
    QTest::newRow("swap through an escaped link")
        << root << noSwap + "/dev/disk/by-label/my\\040swap partition 1 0 -2\n"
        << QStringList{sdc, sdd};
    QTest::newRow("root on device mapper") << "/dev/mapper/root / ext4 rw 0 0\n"
                                           << noSwap << QStringList{sdc, sdd};
    QTest::newRow("/var through a uuid link")
        << root + "/dev/disk/by-uuid/1234-ABCD /var ext4 rw 0 0\n"
        << noSwap << QStringList{sdb, sdd};
    QTest::newRow("/var by UUID=") << root + "UUID=1234-ABCD /var ext4 rw 0 0\n"
                                   << noSwap << QStringList{sdb, sdd};
    // Only the device number ties this node to the kernel's sdd1.
    QTest::newRow("node named apart from its device")
        << root + "/dev/enclosure/part1 /usr ext4 rw 0 0\n"
        << noSwap << QStringList{sdb, sdc};
    QTest::newRow("/usr on RAID") << root + "/dev/md0 /usr ext4 rw 0 0\n"
                                  << noSwap << QStringList{sdb};
}

void TestDrives::removable()
{
    QFETCH(QString, mounts);
    QFETCH(QString, swaps);
    QFETCH(QStringList, expected);
    const QString mountsFile =
        mounts == kMissing ? m_dir.filePath("missing") : table("mounts", mounts);
    const QString swapsFile = swaps == kMissing ? m_dir.filePath("missing") : table("swaps", swaps);
    QCOMPARE(texts(Drives::Removable(mountsFile, swapsFile)), expected);
}

void TestDrives::removableWithoutNames()
{
    // Without any identification the size follows the node directly.
    umockdev_testbed_set_property(m_bed, Utf8("/sys" + kStick), "ID_VENDOR", "");
    umockdev_testbed_set_property(m_bed, Utf8("/sys" + kStick), "ID_MODEL", "");
    QCOMPARE(Drives::Removable(table("mounts", ""), table("swaps", "")).value(0).text,
             "/dev/sdb  16.0 GB");
}

void TestDrives::optical()
{
    const QList<OpticalDrive> drives = Drives::Optical();
    QStringList found;
    for (const OpticalDrive& drive : drives)
        found << drive.node;
    QCOMPARE(found, (QStringList{"/dev/sr0", "/dev/sr2", "/dev/sr10"}));

    // The SCSI address from the sysfs path is what matches a drive to the
    // writer's bus scan; names are trimmed and their blank runs collapsed.
    const OpticalDrive& sr0 = drives[0];
    QCOMPARE(QList<int>({sr0.host, sr0.channel, sr0.target, sr0.lun}), QList<int>({1, 0, 0, 0}));
    QCOMPARE(sr0.Text(), "/dev/sr0: ACMECORP DVDRW UNIT-100 R001");
    QCOMPARE(drives[1].Text(), "/dev/sr2: OTHER BD DRIVE 2.00");
    QCOMPARE(QList<int>({drives[2].host, drives[2].channel, drives[2].target, drives[2].lun}),
             QList<int>({-1, -1, -1, -1}));
    QCOMPARE(drives[2].Text(), "/dev/sr10");
}

void TestDrives::deviceSize_data()
{
    QTest::addColumn<QString>("node");
    QTest::addColumn<qint64>("bytes");
    QTest::newRow("kernel name") << "sdb" << qint64(16'008'609'792);
    QTest::newRow("partition") << "/dev/sdb1" << qint64(2'048'000) * 512;
    QTest::newRow("through a link") << "/dev/mapper/root" << qint64(29'212'672) * 512;
    QTest::newRow("no media") << "/dev/sde" << qint64(0);
    QTest::newRow("unknown device") << "/dev/sdz" << qint64(0);
    QTest::newRow("climbing out") << ".." << qint64(0);
}

void TestDrives::deviceSize()
{
    QFETCH(QString, node);
    QFETCH(qint64, bytes);
    // A device node goes by its path, a kernel name ("sdb") straight to sysfs.
    if (node.startsWith("/dev/"))
        QCOMPARE(Util::DiskTotalSize(node), bytes);
    else
        QCOMPARE(SysBlock::SizeOf(node), bytes);
}

void TestDrives::diskTotalSizeOfPaths()
{
    QVERIFY(Util::DiskTotalSize("/") > 0);
    QVERIFY(Util::DiskTotalSize(m_dir.path()) > 0);
    QCOMPARE(Util::DiskTotalSize(m_dir.filePath("missing/file")), qint64(0));
    QCOMPARE(Util::DiskTotalSize(QString()), qint64(0));
}

void TestDrives::monitor_data()
{
    QTest::addColumn<QStringList>("events"); // action, device, action, device, ...
    QTest::addColumn<int>("expected");
    QTest::newRow("stick and its partitions arrive")
        << QStringList{"add", kStick, "add", kStick + "/sdb1", "add", kStick + "/sdb2"} << 1;
    QTest::newRow("stick pulled out")
        << QStringList{"remove", kStick + "/sdb2", "remove", kStick + "/sdb1", "remove", kStick}
        << 1;
    QTest::newRow("disc inserted and other actions")
        << QStringList{"change", kSr10, "bind", kStick, "move", kStick, "online", kStick} << 0;
}

void TestDrives::monitor()
{
    QFETCH(QStringList, events);
    QFETCH(int, expected);
    constexpr int kSettle = 300;
    CDriveMonitor monitor(nullptr, kSettle);
    QVERIFY(monitor.IsWatching());
    QSignalSpy spy(&monitor, &CDriveMonitor::changed);

    for (int i = 0; i + 1 < events.size(); i += 2)
        umockdev_testbed_uevent(m_bed, Utf8("/sys" + events[i + 1]), Utf8(events[i]));
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), expected, 5000);
    QTest::qWait(3 * kSettle);
    QCOMPARE(spy.count(), expected);

    // Still watching: what came before was read and judged, not lost.
    umockdev_testbed_uevent(m_bed, Utf8("/sys" + kEnclosure), "add");
    QTRY_COMPARE_WITH_TIMEOUT(spy.count(), expected + 1, 5000);
}

QTEST_GUILESS_MAIN(TestDrives)
#include "tst_drives.moc"
