#include "media/drives.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <QSet>

#include <algorithm>
#include <memory>

#include <libudev.h>
#include <sys/stat.h>

#include "core/sysblock.h"

namespace {

const QLatin1String kClassBlock("/sys/class/block/");

// Mount points whose disk must never be offered for overwriting.
const QStringList kSystemMountPoints = {
    QStringLiteral("/"),     QStringLiteral("/boot"), QStringLiteral("/boot/efi"),
    QStringLiteral("/home"), QStringLiteral("/usr"),  QStringLiteral("/var"),
};

// Block devices that are never a drive to write an image to, whatever udev
// says about their bus or removable flag.
const QStringList kExcludedPrefixes = {
    QStringLiteral("loop"), QStringLiteral("ram"), QStringLiteral("zram"),
    QStringLiteral("dm-"),  QStringLiteral("md"),  QStringLiteral("sr"),
};

struct UdevFree
{
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_enumerate* e) const { udev_enumerate_unref(e); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
};
using UdevPtr = std::unique_ptr<udev, UdevFree>;
using EnumeratePtr = std::unique_ptr<udev_enumerate, UdevFree>;
using DevicePtr = std::unique_ptr<udev_device, UdevFree>;

struct Seam
{
    QMutex mutex;
    std::function<QList<RemovableDrive>()> removable;
    std::function<QList<OpticalDrive>()> optical;
};

Seam& seam()
{
    static Seam instance;
    return instance;
}

// A copy of the stand-in, so that it runs without the lock held.
template <typename Source> Source seamSource(Source Seam::*member)
{
    QMutexLocker locker(&seam().mutex);
    return seam().*member;
}

QString fromUdev(const char* text)
{
    return text ? QString::fromUtf8(text) : QString();
}

// Maps what a mount or swap table names ("/dev/sda2", "/dev/mapper/root",
// "/dev/disk/by-uuid/...", "UUID=...", a swap file) to the sysfs name of the
// block device that holds it; empty when it is not on a block device.
QString blockNameOf(QString source)
{
    static const std::pair<const char*, const char*> tags[] = {
        {"UUID=", "/dev/disk/by-uuid/"},
        {"PARTUUID=", "/dev/disk/by-partuuid/"},
        {"LABEL=", "/dev/disk/by-label/"},
        {"PARTLABEL=", "/dev/disk/by-partlabel/"},
    };
    for (const auto& [tag, folder] : tags) {
        if (source.startsWith(QLatin1String(tag))) {
            source = QLatin1String(folder) + source.mid(int(qstrlen(tag)));
            break;
        }
    }
    return SysBlock::NameOfPath(source);
}

// The whole disk of a partition ("sdb" for "sdb1"); a disk is its own.
QString diskOf(const QString& name)
{
    const QString dir = kClassBlock + name;
    if (!QFileInfo::exists(dir + QLatin1String("/partition")))
        return name;
    const QString parent = QFileInfo(QFileInfo(dir).canonicalFilePath()).path();
    const QString disk = QFileInfo(parent).fileName();
    return SysBlock::IsBlockName(disk) ? disk : name;
}

// Undoes the octal escapes of /proc/self/mounts and /proc/swaps ("\040").
QString unescapeField(const QByteArray& field)
{
    QByteArray out;
    out.reserve(field.size());
    for (int i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const QByteArray digits = field.mid(i + 1, 3);
            bool ok = false;
            const int value = digits.toInt(&ok, 8);
            if (ok && digits.size() == 3 && value < 256) {
                out += char(value);
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return QString::fromUtf8(out);
}

QList<QList<QByteArray>> readTable(const QString& path)
{
    QList<QList<QByteArray>> rows;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return rows;
    // /proc files report a size of 0: readAll() reads on to the real end.
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines) {
        const QByteArray fields = line.simplified();
        if (!fields.isEmpty())
            rows << fields.split(' ');
    }
    return rows;
}

// Every disk that holds a system file system or active swap, directly, through
// one of its partitions, or beneath a device-mapper or RAID device.
QSet<QString> systemDisks(const QString& mounts, const QString& swaps)
{
    QStringList pending;
    for (const QList<QByteArray>& row : readTable(mounts)) {
        if (row.size() < 2 || !kSystemMountPoints.contains(unescapeField(row[1])))
            continue;
        const QString source = unescapeField(row[0]);
        QString name = blockNameOf(source);
        // A root mounted without an initial RAM disk shows up as "/dev/root",
        // which has no node: the mount point's own device number tells.
        struct stat info;
        if (name.isEmpty() && source == QLatin1String("/dev/root") &&
            ::stat(QFile::encodeName(unescapeField(row[1])).constData(), &info) == 0)
            name = SysBlock::NameOfDevice(info.st_dev);
        if (!name.isEmpty())
            pending << name;
    }
    const QList<QList<QByteArray>> swapRows = readTable(swaps);
    for (const QList<QByteArray>& row : swapRows) {
        if (row.first() == "Filename")
            continue;
        const QString name = blockNameOf(unescapeField(row.first()));
        if (!name.isEmpty())
            pending << name;
    }

    // Walk down the stack: a device-mapper or RAID device lists the devices
    // it is built on under slaves/.
    QSet<QString> seen;
    QSet<QString> disks;
    while (!pending.isEmpty()) {
        const QString name = pending.takeLast();
        if (seen.contains(name))
            continue;
        seen.insert(name);
        disks.insert(diskOf(name));
        const QStringList slaves =
            QDir(kClassBlock + name + QLatin1String("/slaves"))
                .entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
        pending << slaves;
    }
    return disks;
}

// Device nodes in the kernel's order: runs of digits compare by value, runs of
// letters by length first, so "sdz" comes before "sdaa" and "sr2" before "sr10".
bool nodeLess(const QString& a, const QString& b)
{
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        const bool digits = a[i].isDigit();
        if (digits != b[j].isDigit())
            return digits;
        qsizetype iEnd = i;
        while (iEnd < a.size() && a[iEnd].isDigit() == digits)
            ++iEnd;
        qsizetype jEnd = j;
        while (jEnd < b.size() && b[jEnd].isDigit() == digits)
            ++jEnd;
        QStringView x = QStringView(a).mid(i, iEnd - i);
        QStringView y = QStringView(b).mid(j, jEnd - j);
        if (digits) {
            while (x.size() > 1 && x.front() == QLatin1Char('0'))
                x = x.mid(1);
            while (y.size() > 1 && y.front() == QLatin1Char('0'))
                y = y.mid(1);
        }
        if (x.size() != y.size())
            return x.size() < y.size();
        if (const int order = x.compare(y); order != 0)
            return order < 0;
        i = iEnd;
        j = jEnd;
    }
    return a.size() - i < b.size() - j;
}

// udev's block disks, each handed to `visit` with its sysfs name.
template <typename Visit> void forEachDisk(Visit visit)
{
    const UdevPtr context(udev_new());
    if (!context)
        return;
    const EnumeratePtr enumerate(udev_enumerate_new(context.get()));
    if (!enumerate || udev_enumerate_add_match_subsystem(enumerate.get(), "block") < 0 ||
        udev_enumerate_scan_devices(enumerate.get()) < 0)
        return;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(enumerate.get()))
    {
        const DevicePtr device(
            udev_device_new_from_syspath(context.get(), udev_list_entry_get_name(entry)));
        if (!device || fromUdev(udev_device_get_devtype(device.get())) != QLatin1String("disk"))
            continue;
        visit(device.get());
    }
}

QString nodeOf(udev_device* device)
{
    const QString node = fromUdev(udev_device_get_devnode(device));
    return node.isEmpty() ? QLatin1String("/dev/") + fromUdev(udev_device_get_sysname(device))
                          : node;
}

// "Vendor Model" from udev's identification (underscores stand for blanks
// there), else from the SCSI inquiry data sysfs keeps.
QString vendorAndModel(udev_device* device)
{
    QString vendor = fromUdev(udev_device_get_property_value(device, "ID_VENDOR"));
    QString model = fromUdev(udev_device_get_property_value(device, "ID_MODEL"));
    if (!vendor.isEmpty() || !model.isEmpty()) {
        vendor.replace(QLatin1Char('_'), QLatin1Char(' '));
        model.replace(QLatin1Char('_'), QLatin1Char(' '));
    } else {
        const QString dir = fromUdev(udev_device_get_syspath(device)) + QLatin1String("/device/");
        vendor = SysBlock::ReadAttribute(dir + QLatin1String("vendor"));
        model = SysBlock::ReadAttribute(dir + QLatin1String("model"));
    }
    return (vendor + QLatin1Char(' ') + model).simplified();
}

bool isOnUsb(udev_device* device)
{
    return fromUdev(udev_device_get_property_value(device, "ID_BUS")) == QLatin1String("usb") ||
           udev_device_get_parent_with_subsystem_devtype(device, "usb", nullptr) != nullptr;
}

} // namespace

QString OpticalDrive::Text() const
{
    const QString identification =
        QStringList{vendor, model, revision}.join(QLatin1Char(' ')).simplified();
    return identification.isEmpty() ? node : node + QLatin1String(": ") + identification;
}

QList<RemovableDrive> Drives::Removable(const QString& mounts, const QString& swaps)
{
    if (const auto source = seamSource(&Seam::removable))
        return source();

    const QSet<QString> system = systemDisks(mounts, swaps);
    QList<RemovableDrive> drives;
    forEachDisk([&](udev_device* device) {
        const QString name = fromUdev(udev_device_get_sysname(device));
        if (name.isEmpty() || system.contains(name))
            return;
        for (const QString& prefix : kExcludedPrefixes) {
            if (name.startsWith(prefix))
                return;
        }
        if (fromUdev(udev_device_get_property_value(device, "ID_CDROM")) == QLatin1String("1"))
            return;
        const bool removable =
            fromUdev(udev_device_get_sysattr_value(device, "removable")) == QLatin1String("1");
        if (!removable && !isOnUsb(device))
            return;
        if (fromUdev(udev_device_get_sysattr_value(device, "ro")) != QLatin1String("0"))
            return;
        const qint64 size =
            fromUdev(udev_device_get_sysattr_value(device, "size")).toLongLong() * 512;
        if (size <= 0)
            return;

        RemovableDrive drive;
        drive.node = nodeOf(device);
        drive.size = size;
        const QString identification = vendorAndModel(device);
        drive.text = drive.node + QLatin1String("  ") +
                     (identification.isEmpty() ? QString() : identification + QLatin1String("  ")) +
                     SizeText(size);
        drives << drive;
    });
    std::sort(drives.begin(), drives.end(), [](const RemovableDrive& a, const RemovableDrive& b) {
        return nodeLess(a.node, b.node);
    });
    return drives;
}

QList<OpticalDrive> Drives::Optical()
{
    if (const auto source = seamSource(&Seam::optical))
        return source();

    static const QRegularExpression srName(QStringLiteral("^sr\\d+$"));
    QList<OpticalDrive> drives;
    forEachDisk([&](udev_device* device) {
        const QString name = fromUdev(udev_device_get_sysname(device));
        if (fromUdev(udev_device_get_property_value(device, "ID_CDROM")) != QLatin1String("1") &&
            !srName.match(name).hasMatch())
            return;

        OpticalDrive drive;
        drive.node = nodeOf(device);
        const QString link = fromUdev(udev_device_get_syspath(device)) + QLatin1String("/device");
        drive.vendor = SysBlock::ReadAttribute(link + QLatin1String("/vendor"));
        drive.model = SysBlock::ReadAttribute(link + QLatin1String("/model"));
        drive.revision = SysBlock::ReadAttribute(link + QLatin1String("/rev"));

        // The SCSI device the block device belongs to is named "H:C:T:L".
        const QStringList address =
            QFileInfo(QFileInfo(link).symLinkTarget()).fileName().split(QLatin1Char(':'));
        QList<int> numbers;
        for (const QString& part : address) {
            bool ok = false;
            const int value = part.toInt(&ok);
            if (!ok || value < 0)
                break;
            numbers << value;
        }
        if (numbers.size() == 4) {
            drive.host = numbers[0];
            drive.channel = numbers[1];
            drive.target = numbers[2];
            drive.lun = numbers[3];
        }
        drives << drive;
    });
    std::sort(drives.begin(), drives.end(), [](const OpticalDrive& a, const OpticalDrive& b) {
        return nodeLess(a.node, b.node);
    });
    return drives;
}

Drives::NodeFacts Drives::Inspect(const QString& node, const QString& mounts, const QString& swaps)
{
    NodeFacts facts;
    struct stat info;
    if (::stat(QFile::encodeName(node).constData(), &info) != 0 || !S_ISBLK(info.st_mode))
        return facts;
    facts.blockDevice = true;
    facts.name = SysBlock::NameOfDevice(info.st_rdev);
    if (facts.name.isEmpty())
        return facts;
    facts.partition = QFileInfo::exists(kClassBlock + facts.name + QLatin1String("/partition"));
    facts.loop = facts.name.startsWith(QLatin1String("loop"));
    facts.removable = SysBlock::ReadAttribute(kClassBlock + facts.name +
                                              QLatin1String("/removable")) == QLatin1String("1");
    facts.holdsSystem = systemDisks(mounts, swaps).contains(diskOf(facts.name));

    const UdevPtr context(udev_new());
    if (context) {
        const DevicePtr device(udev_device_new_from_subsystem_sysname(
            context.get(), "block", QFile::encodeName(facts.name).constData()));
        if (device)
            facts.usb = isOnUsb(device.get());
    }
    return facts;
}

QStringList Drives::PartitionsOf(const QString& diskName)
{
    const QString name = SysBlock::KernelName(diskName);
    if (!SysBlock::IsBlockName(name))
        return {};
    QStringList parts;
    const QStringList entries =
        QDir(kClassBlock + name).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        if (entry.startsWith(name) && QFileInfo::exists(kClassBlock + name + QLatin1Char('/') +
                                                        entry + QLatin1String("/partition")))
            parts << entry;
    }
    std::sort(parts.begin(), parts.end(), nodeLess);
    return parts;
}

QString Drives::SizeText(qint64 bytes)
{
    const double value = static_cast<double>(std::max<qint64>(bytes, 0));
    if (value >= 1e12)
        return QString::number(value / 1e12, 'f', 1) + QLatin1String(" TB");
    if (value >= 1e9)
        return QString::number(value / 1e9, 'f', 1) + QLatin1String(" GB");
    if (value >= 1e6)
        return QString::number(value / 1e6, 'f', 0) + QLatin1String(" MB");
    return QString::number(value / 1e3, 'f', 0) + QLatin1String(" kB");
}

void DriveSeam::SetRemovable(std::function<QList<RemovableDrive>()> source)
{
    QMutexLocker locker(&seam().mutex);
    seam().removable = std::move(source);
}

void DriveSeam::SetOptical(std::function<QList<OpticalDrive>()> source)
{
    QMutexLocker locker(&seam().mutex);
    seam().optical = std::move(source);
}

void DriveSeam::Reset()
{
    QMutexLocker locker(&seam().mutex);
    seam().removable = nullptr;
    seam().optical = nullptr;
}
