#include <QtTest>

#include <QProcess>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "common/standins.h"
#include "usbhelper/usbhelper.h"

using namespace UsbHelper;

Q_DECLARE_METATYPE(Drives::NodeFacts)

namespace {

constexpr uint kNobody = 65534;

struct Run
{
    int exitCode = -1;
    QStringList lines;
    QString Text() const { return lines.join('\n'); }
};

QString helperPath()
{
    // Another build of the helper can be tried against these tests.
    return qEnvironmentVariable("BRENTA_TEST_USB_HELPER", QStringLiteral(BRENTA_USB_HELPER));
}

Run helper(const QStringList& arguments,
           const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment(),
           const QByteArray& input = QByteArray())
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(helperPath(), arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(120000);
    Run run;
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.lines = QString::fromUtf8(process.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return run;
}

QString tool(const QString& program, const QStringList& arguments, int* exitCode = nullptr)
{
    QProcess process;
    process.start(program, arguments);
    process.waitForFinished(60000);
    if (exitCode)
        *exitCode = process.exitCode();
    return QString::fromUtf8(process.readAllStandardOutput());
}

QByteArray sha256Of(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result() : QByteArray();
}

QByteArray randomBytes(qint64 size)
{
    QByteArray bytes((size + 3) & ~qint64(3), Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(bytes.data()),
                                          bytes.size() / 4);
    bytes.truncate(size);
    return bytes;
}

// The per-mount options of the top mount at `folder`; empty when nothing is mounted there.
QStringList mountOptions(const QString& folder)
{
    QFile file(QStringLiteral("/proc/self/mountinfo"));
    file.open(QIODevice::ReadOnly);
    QStringList options;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 5 && QString::fromUtf8(fields[4]) == folder)
            options = QString::fromUtf8(fields[5]).split(',');
    }
    return options;
}

bool mounted(const QString& folder)
{
    return !mountOptions(folder).isEmpty();
}

// Whether the mount at `folder` keeps device files, set-user-ID bits and
// programs of the stick from working.
bool hardened(const QString& folder)
{
    const QStringList options = mountOptions(folder);
    return options.contains("nosuid") && options.contains("nodev") && options.contains("noexec");
}

// A loop device over a new sparse file in a folder of its own, with
// partition scanning (root only); detached, after anything the helper left
// mounted is unmounted, when it goes.
class LoopDevice
{
public:
    explicit LoopDevice(qint64 mib, int sectorSize = 512)
    {
        QFile file(Image());
        if (::geteuid() != 0 || !file.open(QIODevice::WriteOnly) || !file.resize(mib << 20))
            return;
        file.close();
        int code = 0;
        const QString node =
            tool("losetup",
                 {"-f", "--show", "-P", "--sector-size", QString::number(sectorSize), Image()},
                 &code)
                .trimmed();
        if (code == 0 && node.startsWith("/dev/loop"))
            m_node = node;
    }
    ~LoopDevice()
    {
        if (m_node.isEmpty())
            return;
        while (mounted(Folder()))
            tool("umount", {Folder()});
        QDir().rmdir(Folder());
        tool("losetup", {"-d", m_node});
    }
    Q_DISABLE_COPY_MOVE(LoopDevice)

    bool IsValid() const { return !m_node.isEmpty(); }
    QString Node() const { return m_node; }
    QString Partition() const { return m_node + "p1"; }
    // Where the helper mounts the first partition.
    QString Folder() const { return "/run/brenta/" + m_node.mid(5) + "p1"; }
    // The loop device's file, and the folder it lies in, for the test's own files.
    QString Image() const { return m_dir.filePath("stick.img"); }
    QString DirPath() const { return m_dir.path(); }
    QString FilePath(const QString& name) const { return m_dir.filePath(name); }

private:
    QTemporaryDir m_dir;
    QString m_node;
};

Drives::NodeFacts usbDisk()
{
    Drives::NodeFacts facts;
    facts.blockDevice = true;
    facts.name = QStringLiteral("sdb");
    facts.usb = true;
    return facts;
}

// One partition table, as sfdisk takes it on standard input.
bool partition(const QString& node, const QByteArray& table)
{
    QProcess sfdisk;
    sfdisk.start("sfdisk", {"--quiet", node});
    sfdisk.write(table);
    sfdisk.closeWriteChannel();
    return sfdisk.waitForFinished() && sfdisk.exitCode() == 0;
}

} // namespace

class TestUsbHelper : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void refusal_data();
    void refusal();
    void bootSectors();
    void mountOfDisk_data();
    void mountOfDisk();
    void sizeArguments_data();
    void sizeArguments();
    void usageAndRefusalsOfTheProgram_data();
    void usageAndRefusalsOfTheProgram();
    void endToEnd_data();
    void endToEnd();
    void otherFileSystemsAreLeftMounted_data();
    void otherFileSystemsAreLeftMounted();
    void refusedBeforeWriting_data();
    void refusedBeforeWriting();
    void imageWrittenAndHashed_data();
    void imageWrittenAndHashed();
    void imageNotWritten_data();
    void imageNotWritten();
    void stickRemovedWhileWriting();
    void toolsDieWithTheHelper_data();
    void toolsDieWithTheHelper();
};

void TestUsbHelper::refusal_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<Drives::NodeFacts>("facts");
    QTest::addColumn<QString>("reason"); // a word of the refusal; empty: accepted

    Drives::NodeFacts facts = usbDisk();
    QTest::newRow("usb disk") << "/dev/sdb" << facts << "";
    QTest::newRow("link to a usb disk") << "/dev/disk/by-id/usb-stick" << facts << "";
    QTest::newRow("relative") << "dev/sdb" << facts << "not a device path";
    QTest::newRow("dot dot") << "/dev/../tmp/x" << facts << "not a device path";

    facts = usbDisk();
    facts.partition = true;
    QTest::newRow("partition") << "/dev/sdb1" << facts << "partition";
    facts = usbDisk();
    facts.holdsSystem = true;
    QTest::newRow("system usb disk") << "/dev/sdb" << facts << "running system";
    facts = usbDisk();
    facts.usb = false;
    QTest::newRow("internal disk") << "/dev/sda" << facts << "neither";
    facts.removable = true;
    QTest::newRow("removable internal reader") << "/dev/sdc" << facts << "";
    facts = Drives::NodeFacts();
    QTest::newRow("not a block device") << "/dev/null" << facts << "not a block device";
    facts.blockDevice = true;
    facts.name = "loop3";
    facts.loop = true;
    QTest::newRow("loop") << "/dev/loop3" << facts << "";
    facts.holdsSystem = true;
    QTest::newRow("loop holding the system") << "/dev/loop3" << facts << "running system";
    facts = usbDisk();
    facts.name.clear();
    QTest::newRow("unknown to the kernel") << "/dev/sdz" << facts << "unknown";
}

void TestUsbHelper::refusal()
{
    QFETCH(QString, path);
    QFETCH(Drives::NodeFacts, facts);
    QFETCH(QString, reason);
    const QString refusal = Refusal(path, facts);
    if (reason.isEmpty())
        QVERIFY2(refusal.isEmpty(), qPrintable(refusal));
    else
        QVERIFY2(refusal.contains(reason), qPrintable(refusal));
}

void TestUsbHelper::bootSectors()
{
    // The disk's own table and signature survive; the boot sector points at
    // sector 1 and the core image's block list at the sectors after it.
    QByteArray mbr(512, '\0');
    for (int i = 0x1b8; i < 0x1fe; ++i)
        mbr[i] = char(i);
    mbr[0x1fe] = char(0x55);
    mbr[0x1ff] = char(0xaa);
    QByteArray boot(512, char(0xcc));
    const QByteArray core(3 * 512 + 7, char(0x11));
    BootCode code;
    QString error;
    QVERIFY(BootSectors(mbr, boot, core, 2048, code, error));
    QCOMPARE(code.mbr.mid(0x1b8, 0x1fe - 0x1b8), mbr.mid(0x1b8, 0x1fe - 0x1b8));
    QCOMPARE(code.mbr.mid(0x1fe), QByteArray("\x55\xaa"));
    QCOMPARE(code.mbr.mid(0x5c, 8), QByteArray("\x01\0\0\0\0\0\0\0", 8));
    QCOMPARE(code.core.size(), 4 * 512);
    QCOMPARE(code.core.mid(500, 10), QByteArray("\x02\0\0\0\0\0\0\0\x03\0", 10));
    QCOMPARE(code.core.mid(510, 2), core.mid(510, 2));

    // Too little room before the partition, or damaged images: refused.
    QVERIFY(!BootSectors(mbr, boot, core, 4, code, error));
    QVERIFY(error.contains("does not fit"));
    QVERIFY(BootSectors(mbr, boot, core, 5, code, error));
    QVERIFY(!BootSectors(mbr, boot.left(100), core, 2048, code, error));
}

void TestUsbHelper::mountOfDisk_data()
{
    QTest::addColumn<QString>("line"); // of /proc/self/mountinfo
    QTest::addColumn<bool>("ofDisk");

    QTest::newRow("kernel mount of the partition")
        << "40 27 8:17 / /media/u/STICK rw,nosuid - vfat /dev/sdb1 rw" << true;
    QTest::newRow("kernel mount of the whole disk")
        << "40 27 8:16 / /media/u/STICK rw - vfat /dev/sdb rw" << true;
    QTest::newRow("another disk named like the stick")
        << "40 27 8:33 / /mnt rw - vfat /dev/sdb1 rw" << false;
    QTest::newRow("the helper's FUSE mount")
        << "40 27 0:52 / /run/brenta/sdb1 rw - fuse /dev/sdb1 rw" << true;
    QTest::newRow("FUSE elsewhere, named like the stick")
        << "40 27 0:52 / /home/u/m rw - fuse /dev/sdb1 rw" << false;
    QTest::newRow("FUSE in the helper's folder of another partition")
        << "40 27 0:52 / /run/brenta/sdb1 rw - fuse /dev/sdc1 rw" << false;
    QTest::newRow("not FUSE in the helper's folder")
        << "40 27 0:52 / /run/brenta/sdb1 rw - tmpfs /dev/sdb1 rw" << false;
    QTest::newRow("below the helper's folder")
        << "40 27 0:52 / /run/brenta/sdb1/x rw - fuse /dev/sdb1 rw" << false;
}

void TestUsbHelper::mountOfDisk()
{
    QFETCH(QString, line);
    QFETCH(bool, ofDisk);
    const QList<MountEntry> entries = ParseMountInfo(line.toUtf8());
    QCOMPARE(entries.size(), 1);
    QCOMPARE(IsMountOfDisk(entries.first(), {"8:16", "8:17"}, {"sdb1"}), ofDisk);
}

// The size is how many bytes root writes to a disk: only a plain decimal
// number is taken, never one that a sign, a base or an overflow turns into
// another.
void TestUsbHelper::sizeArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<qint64>("size"); // 0: wrong usage

    QTest::newRow("write") << QStringList{"write", "/dev/sdb", "--size", "1000001"}
                           << qint64(1000001);
    QTest::newRow("hash, 18 digits")
        << QStringList{"hash", "/dev/sdb", "--size", "999999999999999999"}
        << qint64(999999999999999999);
    QTest::newRow("no size") << QStringList{"write", "/dev/sdb"} << qint64(0);
    QTest::newRow("zero") << QStringList{"hash", "/dev/sdb", "--size", "0"} << qint64(0);
    QTest::newRow("sign") << QStringList{"write", "/dev/sdb", "--size", "+512"} << qint64(0);
    QTest::newRow("exponent") << QStringList{"write", "/dev/sdb", "--size", "1e9"} << qint64(0);
    QTest::newRow("beyond 64 bits")
        << QStringList{"write", "/dev/sdb", "--size", "18446744073709551617"} << qint64(0);
    QTest::newRow("another option")
        << QStringList{"write", "/dev/sdb", "--fs", "fat32"} << qint64(0);
    QTest::newRow("size twice") << QStringList{"hash", "/dev/sdb", "--size",
                                               "512",  "--size",   "1024"}
                                << qint64(0);
}

void TestUsbHelper::sizeArguments()
{
    QFETCH(QStringList, arguments);
    QFETCH(qint64, size);
    Request request;
    QString error;
    QCOMPARE(ParseArguments(arguments, request, error), size > 0);
    if (size > 0)
        QCOMPARE(request.size, size);
}

void TestUsbHelper::usageAndRefusalsOfTheProgram_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("output");

    QTest::newRow("usage") << QStringList{"prepare", "/dev/null"} << 2 << "usage:";
    QTest::newRow("not a device") << QStringList{"check", "/dev/null"} << 3
                                  << "refused: /dev/null is not a block";
    // A stick pulled out takes its node with it.
    QTest::newRow("no such device")
        << QStringList{"hash", "/dev/brenta-no-stick", "--size", "1"} << 3
        << "refused: /dev/brenta-no-stick is not there: the stick was removed";
    QTest::newRow("escape from dev")
        << QStringList{"unmount", "/dev/../etc/passwd"} << 3 << "refused: ";
    QTest::newRow("prepare refused before writing")
        << QStringList{"prepare", "/dev/zero", "--scheme", "mbr", "--fs", "fat32"} << 3
        << "refused: ";
    // The user the stick is mounted for comes from pkexec, never from the caller.
    QTest::newRow("owner given") << QStringList{"remount", "/dev/sdb", "--fs",
                                                "fat32",   "--owner",  "0:0"}
                                 << 2 << "unknown option \"--owner\"";
    QTest::newRow("label with a line feed")
        << QStringList{"prepare", "/dev/sdb", "--scheme", "mbr", "--fs", "fat32", "--label", "a\nb"}
        << 2 << "control characters";
    // The disk holding "/", whatever it is on this machine, when it has a node.
    struct stat info;
    QVERIFY(::stat("/", &info) == 0);
    const QString link =
        QFileInfo(QString("/sys/dev/block/%1:%2").arg(major(info.st_dev)).arg(minor(info.st_dev)))
            .canonicalFilePath();
    const QString disk =
        "/dev/" + QFileInfo(QFileInfo::exists(link + "/partition") ? QFileInfo(link).path() : link)
                      .fileName();
    if (!link.isEmpty() && QFileInfo::exists(disk))
        QTest::newRow("the system's disk") << QStringList{"check", disk} << 3 << "refused: ";
}

void TestUsbHelper::usageAndRefusalsOfTheProgram()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, output);
    const Run run = helper(arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.Text().contains(output), qPrintable(run.Text()));
    QVERIFY(!run.Text().contains("step:"));
}

// Every file system the helper makes, through the kernel's driver where it has
// one and through the FUSE drivers: the table and label it wrote, the owner's
// right to write, and mounts that give the stick's files no power over the
// machine (no device files, set-user-ID programs or programs at all).
void TestUsbHelper::endToEnd_data()
{
    QTest::addColumn<QString>("scheme");
    QTest::addColumn<QString>("fs");
    QTest::addColumn<bool>("fuse"); // the kernel's driver is kept out
    QTest::addColumn<int>("sectorSize");
    QTest::addColumn<QString>("type");   // as sfdisk --dump prints it
    QTest::addColumn<QString>("fsType"); // as blkid -p prints it
    QTest::addColumn<QString>("given");  // the label
    QTest::addColumn<QString>("label");  // as blkid -p prints it

    const QString basicData = "type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7";
    QTest::newRow("mbr fat32") << "mbr"
                               << "fat32" << false << 512 << "type=c, bootable"
                               << "vfat"
                               << "brenta"
                               << "BRENTA";
    QTest::newRow("mbr fat through FUSE") << "mbr"
                                          << "fat" << true << 512 << "type=6, bootable"
                                          << "vfat"
                                          << "Brenta"
                                          << "BRENTA";
    QTest::newRow("mbr ntfs") << "mbr"
                              << "ntfs" << false << 512 << "type=7, bootable"
                              << "ntfs" << QString("Données") << QString("Données");
    QTest::newRow("gpt exfat") << "gpt"
                               << "exfat" << false << 512 << basicData << "exfat"
                               << QString("Données") << QString("Données");
    QTest::newRow("mbr exfat through FUSE") << "mbr"
                                            << "exfat" << true << 512 << "type=7, bootable"
                                            << "exfat"
                                            << "Brenta"
                                            << "Brenta";
    QTest::newRow("gpt fat32, 4096-byte sectors") << "gpt"
                                                  << "fat32" << false << 4096 << basicData << "vfat"
                                                  << "brenta"
                                                  << "BRENTA";
}

void TestUsbHelper::endToEnd()
{
    QFETCH(QString, scheme);
    QFETCH(QString, fs);
    QFETCH(bool, fuse);
    QFETCH(int, sectorSize);
    QFETCH(QString, type);
    QFETCH(QString, fsType);
    QFETCH(QString, given);
    QFETCH(QString, label);

    for (const char* program :
         {"losetup", "sfdisk", "wipefs", "blkid", "mkfs.vfat", "mkfs.exfat", "mkfs.ntfs"}) {
        if (QStandardPaths::findExecutable(program, {"/usr/sbin", "/usr/bin", "/sbin", "/bin"})
                .isEmpty())
            QSKIP(qPrintable(QString("%1 is not installed").arg(program)));
    }
    const LoopDevice stick(96, sectorSize);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    const QString loop = stick.Node();
    const QString partName = loop.mid(5) + "p1";
    const QString folder = stick.Folder();
    int code = -1;
    // A "mount" that fails leaves the FUSE driver to do the work.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (fuse) {
        QVERIFY(
            Standins::Write(stick.FilePath("tools/system/mount"),
                            "#!/bin/sh\necho \"mount: unknown filesystem type\" >&2\nexit 32\n"));
        environment.insert("BRENTA_TOOLS_DIR", stick.FilePath("tools"));
    }
    // Through pkexec, the stick is mounted for the user it names, who owns
    // the loop device's file; the stand-in tools are only honoured for root
    // itself, who gets the stick.
    const uint owner = fuse ? 0 : kNobody;
    if (!fuse)
        environment.insert("PKEXEC_UID", QString::number(kNobody));
    QVERIFY(::chown(QFile::encodeName(stick.Image()).constData(), kNobody, kNobody) == 0);

    Run run =
        helper({"prepare", loop, "--scheme", scheme, "--fs", fs, "--label", given}, environment);
    QVERIFY2(run.exitCode == 0, qPrintable(run.Text()));
    QCOMPARE(run.lines, (QStringList{"step: wiping", "step: partitioning", "step: formatting",
                                     "step: mounting", "mounted: " + folder}));
    QVERIFY2(hardened(folder), qPrintable(mountOptions(folder).join(',')));

    // Writable by its owner.
    QCOMPARE(QFileInfo(folder).ownerId(), owner);
    tool("setpriv",
         {QString("--reuid=%1").arg(owner), QString("--regid=%1").arg(owner), "--clear-groups",
          "sh", "-c", "echo written > '" + folder + "/by-owner.txt'"},
         &code);
    QCOMPARE(code, 0);
    const auto written = [&] {
        QFile file(folder + "/by-owner.txt");
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    QCOMPARE(written(), QByteArray("written\n"));

    // The table is whole (for GPT: both headers and entry arrays, checksums)
    // and the partition starts at 1 MiB.
    const QString verified = tool("sfdisk", {"--verify", loop}, &code);
    QVERIFY2(code == 0 && verified.contains("No errors detected"), qPrintable(verified));
    const QString dump = tool("sfdisk", {"--dump", loop});
    QVERIFY2(dump.contains(QString("start=%1").arg((1 << 20) / sectorSize, 12)) &&
                 dump.contains(type),
             qPrintable(dump));
    const QString probe = tool("blkid", {"-p", "-o", "export", "/dev/" + partName});
    QVERIFY2(probe.contains("TYPE=" + fsType + "\n"), qPrintable(probe));
    QCOMPARE(tool("blkid", {"-p", "-o", "value", "-s", "LABEL", "/dev/" + partName}), label + "\n");

    // GRUB's boot code goes onto MBR sticks and leaves their table as it was
    // (that it starts the machine is the boot test's).
    if (scheme == "gpt") {
        run = helper({"bootcode", loop}, environment);
        QCOMPARE(run.exitCode, 1);
        QVERIFY(run.Text().contains("no MBR partition table"));
    } else if (sectorSize == 512 && QFileInfo::exists("/usr/lib/grub/i386-pc/boot.img")) {
        run = helper({"bootcode", loop}, environment);
        QVERIFY2(run.exitCode == 0, qPrintable(run.Text()));
        QCOMPARE(tool("sfdisk", {"--dump", loop}), dump);
    }

    // A remount keeps what was written, the owner's right to write and the
    // stick's powerlessness.
    run = helper({"remount", loop, "--fs", fs}, environment);
    QCOMPARE(QFileInfo(folder).ownerId(), owner);
    QVERIFY2(run.exitCode == 0, qPrintable(run.Text()));
    QCOMPARE(run.lines.last(), "mounted: " + folder);
    QVERIFY2(hardened(folder), qPrintable(mountOptions(folder).join(',')));
    QCOMPARE(written(), QByteArray("written\n"));

    run = helper({"unmount", loop}, environment);
    QVERIFY2(run.exitCode == 0, qPrintable(run.Text()));
    QCOMPARE(run.lines, QStringList{"step: unmounting"});
    QVERIFY(!mounted(folder));
    QVERIFY(!QFileInfo::exists(folder));
}

// A mount belongs to the stick only when the kernel mounted the stick itself.
// Whoever can mount something (a FUSE driver, a container) can name it after
// the stick, and root must not unmount it for them: the mount point is theirs
// to swap for a link to somewhere else.
void TestUsbHelper::otherFileSystemsAreLeftMounted_data()
{
    QTest::addColumn<QString>(
        "source"); // "link": a link to the stick; "node": the stick's own path

    QTest::newRow("named by a link to the stick") << "link";
    QTest::newRow("named like the stick") << "node";
}

void TestUsbHelper::otherFileSystemsAreLeftMounted()
{
    QFETCH(QString, source);
    const LoopDevice stick(16);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    const QString link = stick.FilePath("stick-link");
    QVERIFY(QFile::link(stick.Node(), link));
    const QString folder = stick.FilePath("theirs");
    QVERIFY(QDir().mkpath(folder));
    int code = -1;
    const QString said = tool(
        "mount", {"-t", "tmpfs", "-o", "size=1m", source == "link" ? link : stick.Node(), folder},
        &code);
    QVERIFY2(code == 0, qPrintable(said));
    const auto unmountTheirs = qScopeGuard([&] {
        while (mounted(folder))
            tool("umount", {folder});
    });

    const Run run = helper({"unmount", stick.Node()});
    QVERIFY2(run.exitCode == 0, qPrintable(run.Text()));
    QVERIFY(mounted(folder));
}

// Nothing is written to a disk that is not the caller's to change, nor when
// the work could not end well. The helper says why and leaves the stick as
// it was.
void TestUsbHelper::refusedBeforeWriting_data()
{
    QTest::addColumn<QStringList>("arguments"); // "%1" is the stick
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QString>("pkexecUid"); // empty: root itself calls
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>(
        "reason"); // in the refusal; "%1" is the stick, "%2" the test's folder

    const QStringList prepare{"prepare", "%1", "--scheme", "mbr", "--fs", "fat32"};
    const QStringList unmount{"unmount", "%1"};
    const QStringList write{"write", "%1", "--size", "1048576"};
    const QStringList hash{"hash", "%1", "--size", "1048576"};
    // A disk that something else uses: mounted where the desktop does not
    // mount removable media (a server's data, a container's root), or held
    // open by another program.
    QTest::newRow("whole disk mounted elsewhere") << prepare << "mount disk"
                                                  << "" << 3 << "is mounted at %2/data";
    QTest::newRow("partition mounted elsewhere") << prepare << "mount partition"
                                                 << "" << 3 << "is mounted at %2/data";
    QTest::newRow("held open exclusively") << prepare << "exclusive"
                                           << "" << 3 << "in use";
    QTest::newRow("held open by a program") << prepare << "open"
                                            << "" << 3 << "in use by sleep";
    QTest::newRow("image write, partition mounted elsewhere") << write << "mount partition"
                                                              << "" << 3 << "is mounted at %2/data";
    QTest::newRow("hash, whole disk mounted elsewhere") << hash << "mount disk"
                                                        << "" << 3 << "is mounted at %2/data";
    // Any user polkit lets through may name any loop device, and a loop
    // device can read any file, the system's own images too: through pkexec
    // the helper takes only a loop device over a file of the user pkexec
    // names, as the kernel holds it (a file put in its place later does not
    // count; the kernel names a deleted file "<path> (deleted)").
    QTest::newRow("another user's file") << prepare << ""
                                         << "65534" << 3 << "belongs to another user";
    QTest::newRow("unmount, another user's file") << unmount << ""
                                                  << "65534" << 3 << "belongs to another user";
    QTest::newRow("own file named like another's") << prepare << "swapped"
                                                   << "65534" << 3 << "cannot be found";
    QTest::newRow("unmount, own file named like another's") << unmount << "swapped"
                                                            << "65534" << 3 << "cannot be found";
    QTest::newRow("not a user id") << prepare << ""
                                   << "65534x" << 3 << "PKEXEC_UID is not a user id";
    QTest::newRow("unknown user") << unmount << ""
                                  << "4000000000" << 3 << "unknown to the system";
    // A label the file system cannot take (which labels those are is the
    // plan's test): mkfs refusing it after the wipe would leave the stick empty.
    QTest::newRow("FAT32 label with a dot") << prepare + QStringList{"--label", "V1.0"} << ""
                                            << "" << 2 << "can hold only";
    QTest::newRow("image larger than the stick")
        << QStringList{"write", "%1", "--size", "16777728"} << ""
        << "" << 3 << "refused: %1 holds 16777216 bytes, fewer than the image's 16777728";
}

void TestUsbHelper::refusedBeforeWriting()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, setup);
    QFETCH(QString, pkexecUid);
    QFETCH(int, exitCode);
    QFETCH(QString, reason);
    if (setup.startsWith("mount") &&
        QStandardPaths::findExecutable("mkfs.ext2", {"/usr/sbin", "/sbin"}).isEmpty())
        QSKIP("mkfs.ext2 is not installed");
    const LoopDevice stick(16);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    {
        // Bytes that a wipe would change.
        QFile disk(stick.Node());
        QVERIFY(disk.open(QIODevice::WriteOnly));
        QVERIFY(disk.write(QByteArray(1 << 20, 'x')) == 1 << 20);
    }
    const QString folder = stick.FilePath("data");
    const auto unmountData = qScopeGuard([&] {
        while (mounted(folder))
            tool("umount", {folder});
    });
    QProcess holder;
    int exclusive = -1;
    const auto close = qScopeGuard([&] {
        if (exclusive >= 0)
            ::close(exclusive);
        holder.kill();
        holder.waitForFinished();
    });
    if (setup.startsWith("mount")) {
        QString node = stick.Node();
        if (setup == "mount partition") {
            QVERIFY(partition(node, "start=1MiB\n"));
            tool("partx", {"-u", node});
            node = stick.Partition();
            QTRY_VERIFY(QFileInfo::exists(node));
        }
        int code = -1;
        tool("mkfs.ext2", {"-q", "-F", node}, &code);
        QCOMPARE(code, 0);
        QVERIFY(QDir().mkpath(folder));
        const QString said = tool("mount", {node, folder}, &code);
        QVERIFY2(code == 0, qPrintable(said));
    } else if (setup == "exclusive") {
        exclusive =
            ::open(QFile::encodeName(stick.Node()).constData(), O_RDONLY | O_EXCL | O_CLOEXEC);
        QVERIFY(exclusive >= 0);
    } else if (setup == "open") {
        holder.setStandardInputFile(stick.Node());
        holder.start("sleep", {"60"});
        QVERIFY(holder.waitForStarted());
    } else if (setup == "swapped") {
        QVERIFY(QFile::remove(stick.Image()));
        QFile own(stick.Image() + " (deleted)");
        QVERIFY(own.open(QIODevice::WriteOnly));
        own.close();
        QVERIFY(::chown(QFile::encodeName(own.fileName()).constData(), kNobody, kNobody) == 0);
    }
    const QByteArray before = sha256Of(stick.Node());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!pkexecUid.isEmpty())
        environment.insert("PKEXEC_UID", pkexecUid);

    arguments.replaceInStrings("%1", stick.Node());
    const Run run = helper(arguments, environment,
                           arguments.first() == "write" ? QByteArray(arguments.at(3).toInt(), 'x')
                                                        : QByteArray());
    QCOMPARE(run.exitCode, exitCode);
    reason.replace("%1", stick.Node()).replace("%2", stick.DirPath());
    QVERIFY2(run.Text().contains(reason), qPrintable(run.Text()));
    if (exitCode == 3)
        QVERIFY2(run.lines.last().startsWith("refused: ") && run.lines.last().contains(reason),
                 qPrintable(run.Text()));
    QCOMPARE(mounted(folder), setup.startsWith("mount"));
    QCOMPARE(sha256Of(stick.Node()), before);
}

// What Brenta streams lands on the stick byte for byte from its first byte,
// ending exactly where the image ends, though direct I/O takes only whole
// blocks and an image rarely ends on one; the hash reads back just those
// bytes from the stick itself. Progress comes every 32 MiB and at the end.
void TestUsbHelper::imageWrittenAndHashed_data()
{
    QTest::addColumn<int>("sectorSize");
    QTest::addColumn<qint64>("size");

    QTest::newRow("512-byte blocks, odd end") << 512 << qint64((33 << 20) + 12345);
    QTest::newRow("4096-byte blocks, ending between them") << 4096 << qint64((5 << 20) + 1536);
}

void TestUsbHelper::imageWrittenAndHashed()
{
    QFETCH(int, sectorSize);
    QFETCH(qint64, size);
    const LoopDevice stick(40, sectorSize);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    // What lies beyond the image stays as it was.
    const qint64 fillFrom = size & ~qint64((1 << 20) - 1);
    const QByteArray fill(2 << 20, char(0xa5));
    {
        QFile disk(stick.Node());
        QVERIFY(disk.open(QIODevice::WriteOnly) && disk.seek(fillFrom) &&
                disk.write(fill) == fill.size());
        QVERIFY(disk.flush() && ::fsync(disk.handle()) == 0);
    }
    const QByteArray image = randomBytes(size);
    const QString sizeText = QString::number(size);

    Run run = helper({"write", stick.Node(), "--size", sizeText},
                     QProcessEnvironment::systemEnvironment(), image);
    QStringList expected{"step: writing"};
    for (qint64 done = 32 << 20; done < size; done += 32 << 20)
        expected << QString("written: %1").arg(done);
    QCOMPARE(run.lines, expected << "written: " + sizeText);
    QCOMPARE(run.exitCode, 0);
    QFile file(stick.Image());
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray onStick = file.read(fillFrom + fill.size());
    QVERIFY(onStick.left(size) == image);
    QCOMPARE(onStick.mid(size), fill.mid(size - fillFrom));

    // The read-back proves what the stick holds, not what the kernel
    // remembers having written: a byte the stick lost fails the check even
    // while the page cache still holds the byte as it was written.
    QFile disk(stick.Node());
    QVERIFY(disk.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    QVERIFY(disk.read(size) == image);
    QByteArray changed = image;
    changed[size - 1] = char(~changed.back());
    {
        QFile backing(stick.Image());
        QVERIFY(backing.open(QIODevice::ReadWrite) && backing.seek(size - 1) &&
                backing.write(changed.right(1)) == 1);
    }
    QVERIFY(disk.seek(0) && disk.read(size) == image);

    run = helper({"hash", stick.Node(), "--size", sizeText});
    QCOMPARE(run.exitCode, 0);
    QCOMPARE(run.lines,
             QStringList(expected)
                     .replaceInStrings("written:", "read:")
                     .replaceInStrings("writing", "verifying")
                 << "sha256: " +
                        QCryptographicHash::hash(changed, QCryptographicHash::Sha256).toHex());
}

// Nothing short of the whole image passes: standard input that ends early
// fails the write, and an image the stick cannot hold fails the read-back.
void TestUsbHelper::imageNotWritten_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<qint64>("fed"); // bytes on standard input
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("lines"); // "%1" is the stick

    QTest::newRow("image ends early")
        << "write" << qint64(3 << 20) << qint64((2 << 20) + 5) << 1
        << QStringList{"step: writing",
                       "error: writing: the image ended after 2097157 of 3145728 bytes."};
    QTest::newRow("hash beyond the stick")
        << "hash" << qint64((16 << 20) + 512) << qint64(0) << 1
        << QStringList{
               "step: verifying",
               "error: verifying: %1 holds only 16777216 bytes, fewer than the image's 16777728."};
}

void TestUsbHelper::imageNotWritten()
{
    QFETCH(QString, command);
    QFETCH(qint64, size);
    QFETCH(qint64, fed);
    QFETCH(int, exitCode);
    QFETCH(QStringList, lines);
    const LoopDevice stick(16);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    const Run run = helper({command, stick.Node(), "--size", QString::number(size)},
                           QProcessEnvironment::systemEnvironment(), QByteArray(fed, 'x'));
    QCOMPARE(run.lines, lines.replaceInStrings("%1", stick.Node()));
    QCOMPARE(run.exitCode, exitCode);
}

// A stick pulled out while the image goes to it fails the write with how far
// it got, never a success. The kernel takes a vanished disk's size to
// nothing, as it does for a loop device whose file is emptied when told to
// look again. (Detaching the loop device would not do: the kernel leaves it
// attached while the helper holds it open.)
void TestUsbHelper::stickRemovedWhileWriting()
{
    const LoopDevice stick(64);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(helperPath(), {"write", stick.Node(), "--size", QString::number(48 << 20)});
    QVERIFY(process.waitForStarted());
    const auto reap = qScopeGuard([&] {
        process.kill();
        process.waitForFinished();
    });
    process.write(QByteArray(33 << 20, 'x'));
    while (process.bytesToWrite() > 0 && process.waitForBytesWritten(60000)) {
    }
    QByteArray said = process.readAll();
    while (!said.contains("written: 33554432\n") && process.waitForReadyRead(60000))
        said += process.readAll();
    QVERIFY2(said.contains("written: 33554432\n"), said.constData());

    QVERIFY(QFile::resize(stick.Image(), 0));
    int code = -1;
    tool("losetup", {"-c", stick.Node()}, &code);
    QCOMPARE(code, 0);
    process.write(QByteArray(15 << 20, 'x'));
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished(60000));
    said += process.readAll();
    QCOMPARE(process.exitCode(), 1);
    QVERIFY2(said.endsWith("\nerror: writing: " + stick.Node().toUtf8() +
                           " was removed (No space left on device) after 33554432 bytes.\n"),
             said.constData());
}

void TestUsbHelper::toolsDieWithTheHelper_data()
{
    QTest::addColumn<QStringList>("arguments"); // the device goes second
    QTest::addColumn<QString>("tool");          // the one that is killed with the helper
    QTest::newRow("prepare") << QStringList{"prepare", "--scheme", "mbr", "--fs", "fat32"}
                             << "mkfs.vfat";
    QTest::newRow("boot code") << QStringList{"bootcode"} << "grub-mkimage";
}

// A helper that is killed (its caller gone, a burn cut short) takes its tools
// with it, so that no mkfs goes on writing to a stick nobody waits for, and
// leaves none of its temporary files behind.
void TestUsbHelper::toolsDieWithTheHelper()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, tool);

    const LoopDevice stick(16);
    if (!stick.IsValid())
        QSKIP("needs root and a free loop device");
    if (arguments.first() == "bootcode") {
        // The boot code goes only onto a disk with an MBR partition table.
        QVERIFY(partition(stick.Node(), "start=2048, type=c\n"));
    }
    QVERIFY(Standins::Write(stick.FilePath("tools/system/" + tool),
                            "#!/bin/sh\necho $$ > \"$BRENTA_TEST_PID\"\nexec sleep 60\n"));
    const QString temporary = stick.FilePath("tmp");
    QVERIFY(QDir().mkpath(temporary));
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("BRENTA_TOOLS_DIR", stick.FilePath("tools"));
    environment.insert("BRENTA_TEST_PID", stick.FilePath("tool.pid"));
    environment.insert("TMPDIR", temporary);

    QProcess helper;
    helper.setProcessEnvironment(environment);
    helper.start(helperPath(), QStringList{arguments.first(), stick.Node()} + arguments.mid(1));
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(stick.FilePath("tool.pid")).size() > 0, 20000);
    QFile pidFile(stick.FilePath("tool.pid"));
    QVERIFY(pidFile.open(QIODevice::ReadOnly));
    const pid_t pid = pid_t(pidFile.readAll().trimmed().toInt());
    QVERIFY(pid > 0);
    const auto reap = qScopeGuard([pid] { ::kill(pid, SIGKILL); });
    const QString running = QString("/proc/%1").arg(pid);
    QVERIFY(QFileInfo::exists(running));
    helper.kill();
    QVERIFY(helper.waitForFinished());
    QTRY_VERIFY_WITH_TIMEOUT(!QFileInfo::exists(running), 5000);
    QCOMPARE(QDir(temporary).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
             QStringList());
}

QTEST_GUILESS_MAIN(TestUsbHelper)
#include "tst_usbhelper.moc"
