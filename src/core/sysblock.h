#pragma once

#include <QString>

#include <sys/types.h>

// What sysfs tells about block devices, read without opening a device (so
// without any permission on it) and without udev.
namespace SysBlock {

// "sdb" for "sdb", or "" for something that cannot be a block device's name
// (sysfs writes a "/" in a kernel name as "!", so "cciss/c0d0" is "cciss!c0d0").
QString KernelName(QString name);

// True when sysfs knows a block device of that kernel name.
bool IsBlockName(const QString& name);

// First line of a sysfs attribute, trimmed; empty when it cannot be read.
QString ReadAttribute(const QString& path);

// The kernel's name ("sdb", "sdb1", "dm-0") of the block device with the
// given device number; empty when there is none.
QString NameOfDevice(dev_t number);

// The kernel's name of the block device an absolute path stands for: a device
// node, a link to one ("/dev/mapper/root"), or a file, which counts for the
// device its file system is on. Empty when there is none.
QString NameOfPath(const QString& path);

// Size in bytes of the block device with the kernel name `name`; 0 when it
// has no media or is not known.
qint64 SizeOf(const QString& name);

} // namespace SysBlock
