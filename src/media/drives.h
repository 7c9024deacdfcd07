#pragma once

#include <QList>
#include <QObject>
#include <QString>

#include <functional>

// The drives the burn and copy pages offer, found through udev, and the
// monitor that tells when one is plugged in or pulled out.
//
// A drive is named by its whole-disk device node ("/dev/sdb", "/dev/sr0").

struct RemovableDrive
{
    QString node; // "/dev/sdb"
    QString text; // "/dev/sdb  Vendor Model  14.9 GB"
    qint64 size = 0;
};

struct OpticalDrive
{
    QString node;     // "/dev/sr0"
    QString vendor;   // from sysfs device/vendor, trimmed
    QString model;    // device/model, trimmed
    QString revision; // device/rev, trimmed
    // SCSI address from the device link's H:C:T:L; -1 when unknown.
    int host = -1;
    int channel = -1;
    int target = -1;
    int lun = -1;
    // "/dev/sr0: VENDOR MODEL REV" (blanks collapsed)
    QString Text() const;
};

namespace Drives {

// Whole USB disks (ID_BUS=usb or a USB ancestor) or disks marked removable,
// with media and writable, in device-node order; never loop, RAM, zram,
// device-mapper or RAID devices, nor a disk that holds a mounted system file
// system (/, /boot, /boot/efi, /home, /usr, /var) or active swap, through any
// of its partitions or holders. `mounts` and `swaps` are the tables to read
// (tests give their own).
QList<RemovableDrive> Removable(const QString& mounts = QStringLiteral("/proc/self/mounts"),
                                const QString& swaps = QStringLiteral("/proc/swaps"));

// Every optical drive udev knows (ID_CDROM=1), in /dev/srN order.
QList<OpticalDrive> Optical();

// Decimal units as disk makers print them: "14.9 GB", "500 MB", "2.0 TB".
QString SizeText(qint64 bytes);

// What the machine says about one block device node, for deciding whether it
// may be overwritten. Nothing here is a decision yet.
struct NodeFacts
{
    bool blockDevice = false; // the path is a block device node
    QString name;             // its kernel name ("sdb", "loop3"), empty when unknown
    bool partition = false;   // a partition, not a whole disk
    bool loop = false;        // a loop device
    bool removable = false;   // sysfs removable flag set
    bool usb = false;         // ID_BUS=usb or a USB ancestor
    bool holdsSystem = false; // holds a system file system or swap, directly or stacked
};

// The facts about `node` ("/dev/sdb"), with the system disks found as
// Removable() finds them.
NodeFacts Inspect(const QString& node, const QString& mounts = QStringLiteral("/proc/self/mounts"),
                  const QString& swaps = QStringLiteral("/proc/swaps"));

// The kernel names of the partitions of a whole disk ("sdb1", "loop0p1"), in
// order; empty for a disk without partitions or an unknown name.
QStringList PartitionsOf(const QString& diskName);

} // namespace Drives

// Watches udev's block devices: "add" and "remove" of a disk or partition
// emit changed() once per burst (a stick and its partitions arrive within
// milliseconds); "change" (a disc inserted or taken out) emits nothing.
class CDriveMonitor final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CDriveMonitor)

public:
    // Events closer together than `settleMs` make one changed().
    explicit CDriveMonitor(QObject* parent = nullptr, int settleMs = 250);
    ~CDriveMonitor() override;
    bool IsWatching() const;

Q_SIGNALS:
    void changed();

private:
    struct Private;
    Private* d;
};

// Lets tests and the screenshots stand in for the machine's drives: while a
// source is set, Drives::Removable() and Drives::Optical() return what it gives.
namespace DriveSeam {

void SetRemovable(std::function<QList<RemovableDrive>()> source);
void SetOptical(std::function<QList<OpticalDrive>()> source);
void Reset();

} // namespace DriveSeam
