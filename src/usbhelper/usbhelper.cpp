#include "usbhelper/usbhelper.h"

#include <QUuid>

namespace UsbHelper {

namespace {

bool parseScheme(const QString& text, Scheme& scheme)
{
    if (text == QLatin1String("mbr"))
        scheme = Scheme::Mbr;
    else if (text == QLatin1String("gpt"))
        scheme = Scheme::Gpt;
    else
        return false;
    return true;
}

bool parseFileSystem(const QString& text, FileSystem& fs)
{
    if (text == QLatin1String("fat32"))
        fs = FileSystem::Fat32;
    else if (text == QLatin1String("fat"))
        fs = FileSystem::Fat;
    else if (text == QLatin1String("ntfs"))
        fs = FileSystem::Ntfs;
    else if (text == QLatin1String("exfat"))
        fs = FileSystem::Exfat;
    else
        return false;
    return true;
}

// Digits only, no sign, no leading zero, at most 18 of them: what fits a
// qint64 and means one number whoever reads it.
bool parseSize(const QString& text, qint64& bytes)
{
    if (text.isEmpty() || text.size() > 18 || text.front() == QLatin1Char('0'))
        return false;
    for (const QChar c : text) {
        if (c < QLatin1Char('0') || c > QLatin1Char('9'))
            return false;
    }
    bytes = text.toLongLong();
    return true;
}

bool hasControl(const QString& text)
{
    for (const QChar c : text) {
        if (c.category() == QChar::Other_Control)
            return true;
    }
    return false;
}

} // namespace

QString UsageText()
{
    return QStringLiteral(
        "usage: brenta-usb-helper check DEVICE\n"
        "       brenta-usb-helper prepare DEVICE --scheme mbr|gpt --fs fat32|fat|ntfs|exfat"
        " [--label LABEL]\n"
        "       brenta-usb-helper bootcode DEVICE\n"
        "       brenta-usb-helper remount DEVICE --fs fat32|fat|ntfs|exfat\n"
        "       brenta-usb-helper unmount DEVICE\n"
        "       brenta-usb-helper write DEVICE --size BYTES    (the image on standard input)\n"
        "       brenta-usb-helper hash DEVICE --size BYTES\n"
        "The stick is mounted for the user pkexec names in PKEXEC_UID, or for the caller.\n");
}

bool ParseArguments(const QStringList& arguments, Request& request, QString& error)
{
    request = Request();
    if (arguments.isEmpty()) {
        error = QStringLiteral("no command given");
        return false;
    }
    const QString command = arguments.first();
    const QStringList rest = arguments.mid(1);
    if (rest.isEmpty() || rest.first().startsWith(QLatin1Char('-'))) {
        error = QStringLiteral("no device given");
        return false;
    }
    request.device = rest.first();

    if (command == QLatin1String("check") || command == QLatin1String("unmount") ||
        command == QLatin1String("bootcode")) {
        request.command = command == QLatin1String("check")     ? Command::Check
                          : command == QLatin1String("unmount") ? Command::Unmount
                                                                : Command::BootCode;
        if (rest.size() != 1) {
            error = QStringLiteral("unexpected argument \"%1\"").arg(rest.at(1));
            return false;
        }
        return true;
    }
    if (command == QLatin1String("write") || command == QLatin1String("hash")) {
        request.command = command == QLatin1String("write") ? Command::Write : Command::Hash;
        if (rest.size() < 2) {
            error = QStringLiteral("%1 needs --size").arg(command);
            return false;
        }
        if (rest.at(1) != QLatin1String("--size")) {
            error = QStringLiteral("unknown option \"%1\"").arg(rest.at(1));
            return false;
        }
        if (rest.size() < 3) {
            error = QStringLiteral("\"--size\" needs a value");
            return false;
        }
        if (!parseSize(rest.at(2), request.size)) {
            error = QStringLiteral("bad value \"%1\" for \"--size\"").arg(rest.at(2));
            return false;
        }
        if (rest.size() > 3) {
            error = QStringLiteral("unexpected argument \"%1\"").arg(rest.at(3));
            return false;
        }
        return true;
    }
    if (command != QLatin1String("prepare") && command != QLatin1String("remount")) {
        error = QStringLiteral("unknown command \"%1\"").arg(command);
        return false;
    }

    const bool prepare = command == QLatin1String("prepare");
    request.command = prepare ? Command::Prepare : Command::Remount;
    bool haveScheme = false;
    bool haveFs = false;
    bool haveLabel = false;
    for (int i = 1; i < rest.size(); i += 2) {
        const QString option = rest.at(i);
        if (i + 1 >= rest.size()) {
            error = QStringLiteral("\"%1\" needs a value").arg(option);
            return false;
        }
        const QString value = rest.at(i + 1);
        bool* seen = nullptr;
        bool ok = true;
        if (option == QLatin1String("--scheme") && prepare) {
            seen = &haveScheme;
            ok = parseScheme(value, request.scheme);
        } else if (option == QLatin1String("--fs")) {
            seen = &haveFs;
            ok = parseFileSystem(value, request.fs);
        } else if (option == QLatin1String("--label") && prepare) {
            seen = &haveLabel;
            request.label = value;
        } else {
            error = QStringLiteral("unknown option \"%1\"").arg(option);
            return false;
        }
        if (*seen) {
            error = QStringLiteral("\"%1\" given twice").arg(option);
            return false;
        }
        *seen = true;
        if (!ok) {
            error = QStringLiteral("bad value \"%1\" for \"%2\"").arg(value, option);
            return false;
        }
    }
    if (prepare && (!haveScheme || !haveFs)) {
        error = QStringLiteral("prepare needs --scheme and --fs");
        return false;
    }
    // Checked before anything is written: mkfs refusing it would leave the
    // stick wiped.
    if (const QString problem = UsbPlan::CheckLabel(request.fs, request.label).problem;
        !problem.isEmpty()) {
        error = problem;
        return false;
    }
    if (!prepare && !haveFs) {
        error = QStringLiteral("remount needs --fs");
        return false;
    }
    return true;
}

bool ParseUid(const QByteArray& text, uint& uid)
{
    if (text.isEmpty() || text.size() > 10)
        return false;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return false;
    }
    const qulonglong value = text.toULongLong();
    if (value >= 0xffffffffULL)
        return false;
    uid = uint(value);
    return true;
}

bool IsPlainDevicePath(const QString& path)
{
    if (!path.startsWith(QLatin1String("/dev/")) || path.size() <= 5 || hasControl(path))
        return false;
    const QStringList parts = path.mid(1).split(QLatin1Char('/'));
    for (const QString& part : parts) {
        if (part.isEmpty() || part == QLatin1String(".") || part == QLatin1String(".."))
            return false;
    }
    return true;
}

QString Refusal(const QString& path, const Drives::NodeFacts& facts)
{
    if (!IsPlainDevicePath(path))
        return QStringLiteral("%1 is not a device path under /dev").arg(path);
    if (!facts.blockDevice)
        return QStringLiteral("%1 is not a block device").arg(path);
    if (facts.name.isEmpty())
        return QStringLiteral("%1 is unknown to the kernel").arg(path);
    if (facts.partition)
        return QStringLiteral("%1 is a partition, not a whole disk").arg(path);
    if (facts.holdsSystem)
        return QStringLiteral("%1 holds a file system or swap space the running system uses")
            .arg(path);
    if (!facts.loop && !facts.usb && !facts.removable)
        return QStringLiteral("%1 is neither a USB disk nor a removable disk").arg(path);
    return QString();
}

QString PartitionName(const QString& diskName, int number)
{
    const bool digitEnd = !diskName.isEmpty() && diskName.back().isDigit();
    return diskName + (digitEnd ? QStringLiteral("p") : QString()) + QString::number(number);
}

QString PartitionType(Scheme scheme, FileSystem fs)
{
    if (scheme == Scheme::Gpt)
        return QStringLiteral("EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"); // Microsoft basic data
    switch (fs) {
    case FileSystem::Fat32:
        return QStringLiteral("c"); // FAT32 with LBA
    case FileSystem::Fat:
        return QStringLiteral("6"); // FAT16 over 32 MB
    case FileSystem::Ntfs:
    case FileSystem::Exfat:
        return QStringLiteral("7");
    }
    return QString();
}

namespace {

// 128 entries of 128 bytes, a whole number of sectors of any size up to 16 KiB.
constexpr qint64 kGptEntriesBytes = 128 * 128;

void putLittle(QByteArray& data, qint64 offset, quint64 value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        data[offset + i] = char((value >> (8 * i)) & 0xff);
}

// Cylinder, head and sector of a sector number as MBR entries keep them, for
// the 255 heads and 63 sectors of a disk that BIOS addresses by LBA; beyond
// what they can say, the largest value.
QByteArray chs(qint64 lba)
{
    constexpr qint64 heads = 255;
    constexpr qint64 perTrack = 63;
    if (lba >= 1024 * heads * perTrack)
        return QByteArray("\xfe\xff\xff", 3);
    const qint64 cylinder = lba / (heads * perTrack);
    const qint64 head = (lba / perTrack) % heads;
    const qint64 sector = lba % perTrack + 1;
    QByteArray out(3, '\0');
    out[0] = char(head);
    out[1] = char((sector & 0x3f) | ((cylinder >> 2) & 0xc0));
    out[2] = char(cylinder & 0xff);
    return out;
}

// The MBR of `sectorSize` bytes with one entry, the boot code area empty.
QByteArray mbrSector(int sectorSize, quint32 signature, bool bootable, quint8 type, qint64 start,
                     qint64 count)
{
    QByteArray sector(sectorSize, '\0');
    putLittle(sector, 0x1b8, signature, 4);
    constexpr int entry = 0x1be;
    sector[entry] = char(bootable ? 0x80 : 0x00);
    sector.replace(entry + 1, 3, chs(start));
    sector[entry + 4] = char(type);
    sector.replace(entry + 5, 3, chs(start + count - 1));
    putLittle(sector, entry + 8, quint64(start), 4);
    putLittle(sector, entry + 12, quint64(count), 4);
    sector[0x1fe] = char(0x55);
    sector[0x1ff] = char(0xaa);
    return sector;
}

// A GUID as GPT stores it: the first three fields little-endian.
QByteArray guidBytes(const QUuid& id)
{
    QByteArray out(16, '\0');
    putLittle(out, 0, id.data1, 4);
    putLittle(out, 4, id.data2, 2);
    putLittle(out, 6, id.data3, 2);
    for (int i = 0; i < 8; ++i)
        out[8 + i] = char(id.data4[i]);
    return out;
}

// A random (version 4) GUID from 16 random bytes.
QUuid randomGuid(const QByteArray& bytes)
{
    QUuid id = QUuid::fromRfc4122(bytes.left(16));
    id.data3 = ushort((id.data3 & 0x0fff) | 0x4000);
    id.data4[0] = uchar((id.data4[0] & 0x3f) | 0x80);
    return id;
}

QByteArray gptHeader(int sectorSize, qint64 current, qint64 backup, qint64 firstUsable,
                     qint64 lastUsable, const QByteArray& diskGuid, qint64 entriesAt,
                     quint32 entriesCrc)
{
    constexpr int headerSize = 92;
    QByteArray header(sectorSize, '\0');
    header.replace(0, 8, "EFI PART");
    putLittle(header, 8, 0x00010000, 4);
    putLittle(header, 12, headerSize, 4);
    putLittle(header, 24, quint64(current), 8);
    putLittle(header, 32, quint64(backup), 8);
    putLittle(header, 40, quint64(firstUsable), 8);
    putLittle(header, 48, quint64(lastUsable), 8);
    header.replace(56, 16, diskGuid);
    putLittle(header, 72, quint64(entriesAt), 8);
    putLittle(header, 80, 128, 4); // entries
    putLittle(header, 84, 128, 4); // bytes each
    putLittle(header, 88, entriesCrc, 4);
    putLittle(header, 16, Crc32(QByteArrayView(header).first(headerSize)), 4);
    return header;
}

} // namespace

quint32 Crc32(QByteArrayView data)
{
    quint32 crc = 0xffffffffU;
    for (const char byte : data) {
        crc ^= quint8(byte);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ (0xedb88320U & (0U - (crc & 1U)));
    }
    return ~crc;
}

Extent PartitionExtent(Scheme scheme, int sectorSize, qint64 sectors)
{
    Extent extent;
    if (sectorSize < 512 || sectorSize > 4096 || kPartitionStart % sectorSize != 0)
        return extent;
    const qint64 perMiB = kPartitionStart / sectorSize;
    extent.start = perMiB;
    if (scheme == Scheme::Mbr) {
        // An MBR counts sectors in 32 bits; a larger disk keeps the rest unused.
        extent.count = qMin<qint64>(sectors - extent.start, 0xffffffffLL);
    } else {
        // Up to the last whole MiB before the backup entries, as partitioning
        // tools leave it.
        const qint64 lastUsable = sectors - 2 - kGptEntriesBytes / sectorSize;
        extent.count = (lastUsable + 1) / perMiB * perMiB - extent.start;
    }
    if (extent.count < perMiB)
        extent.count = 0;
    return extent;
}

QList<DiskWrite> PartitionTable(Scheme scheme, FileSystem fs, int sectorSize, qint64 sectors,
                                const QByteArray& random)
{
    const Extent extent = PartitionExtent(scheme, sectorSize, sectors);
    if (extent.count == 0 || random.size() < 36)
        return {};
    if (scheme == Scheme::Mbr) {
        quint32 signature = 0;
        for (int i = 0; i < 4; ++i)
            signature |= quint32(quint8(random[i])) << (8 * i);
        const quint8 type = quint8(PartitionType(scheme, fs).toUInt(nullptr, 16));
        return {{0, mbrSector(sectorSize, signature ? signature : 1, true, type, extent.start,
                              extent.count)}};
    }

    const qint64 entrySectors = kGptEntriesBytes / sectorSize;
    const qint64 firstUsable = 2 + entrySectors;
    const qint64 lastUsable = sectors - 2 - entrySectors;
    const QByteArray diskGuid = guidBytes(randomGuid(random.mid(4, 16)));
    QByteArray entries(kGptEntriesBytes, '\0');
    entries.replace(0, 16, guidBytes(QUuid(QStringLiteral("{%1}").arg(PartitionType(scheme, fs)))));
    entries.replace(16, 16, guidBytes(randomGuid(random.mid(20, 16))));
    putLittle(entries, 32, quint64(extent.start), 8);
    putLittle(entries, 40, quint64(extent.start + extent.count - 1), 8);
    const quint32 entriesCrc = Crc32(entries);
    const qint64 backupEntries = sectors - 1 - entrySectors;
    // The protective MBR covers the whole disk, or as much as 32 bits count.
    const QByteArray protective =
        mbrSector(sectorSize, 0, false, 0xee, 1, qMin<qint64>(sectors - 1, 0xffffffffLL));
    return {
        {0, protective},
        {sectorSize,
         gptHeader(sectorSize, 1, sectors - 1, firstUsable, lastUsable, diskGuid, 2, entriesCrc)},
        {2LL * sectorSize, entries},
        {backupEntries * sectorSize, entries},
        {(sectors - 1) * sectorSize, gptHeader(sectorSize, sectors - 1, 1, firstUsable, lastUsable,
                                               diskGuid, backupEntries, entriesCrc)},
    };
}

ToolCall MakeFileSystem(FileSystem fs, const QString& partition, const QString& label,
                        qint64 startSector)
{
    const QString name = UsbPlan::CheckLabel(fs, label).text;
    ToolCall call;
    switch (fs) {
    case FileSystem::Fat32:
    case FileSystem::Fat:
        call.program = QStringLiteral("mkfs.vfat");
        call.arguments = {QStringLiteral("-F"),
                          fs == FileSystem::Fat32 ? QStringLiteral("32") : QStringLiteral("16")};
        if (startSector > 0)
            call.arguments << QStringLiteral("-h") << QString::number(startSector);
        if (!name.isEmpty())
            call.arguments << QStringLiteral("-n") << name;
        break;
    case FileSystem::Ntfs:
        call.program = QStringLiteral("mkfs.ntfs");
        call.arguments = {QStringLiteral("-Q")};
        if (startSector > 0)
            call.arguments << QStringLiteral("-p") << QString::number(startSector)
                           << QStringLiteral("-H") << QStringLiteral("255") << QStringLiteral("-S")
                           << QStringLiteral("63");
        if (!name.isEmpty())
            call.arguments << QStringLiteral("-L") << name;
        break;
    case FileSystem::Exfat:
        call.program = QStringLiteral("mkfs.exfat");
        if (!name.isEmpty())
            call.arguments << QStringLiteral("-n") << name;
        break;
    }
    call.arguments << partition;
    return call;
}

QList<ToolCall> MountCalls(FileSystem fs, const QString& partition, const QString& mountPoint,
                           uint uid, uint gid)
{
    const QString owner = kMountFlags.join(QLatin1Char(',')) +
                          QStringLiteral(",uid=%1,gid=%2,umask=022").arg(uid).arg(gid);
    const QString kernelType =
        fs == FileSystem::Exfat ? QStringLiteral("exfat") : QStringLiteral("vfat");
    switch (fs) {
    case FileSystem::Fat32:
    case FileSystem::Fat:
        // fusefat names its mount "fusefat" unless told otherwise; the device
        // as the name lets GRUB find the partition behind the boot folder.
        return {
            {QStringLiteral("mount"),
             {QStringLiteral("-t"), kernelType, QStringLiteral("-o"),
              owner + QStringLiteral(",shortname=mixed,utf8"), partition, mountPoint}},
            {QStringLiteral("fusefat"),
             {QStringLiteral("-o"),
              QStringLiteral("rw+,allow_other,fsname=") + partition + QLatin1Char(',') + owner,
              partition, mountPoint}},
        };
    case FileSystem::Exfat:
        return {
            {QStringLiteral("mount"),
             {QStringLiteral("-t"), kernelType, QStringLiteral("-o"), owner, partition,
              mountPoint}},
            {QStringLiteral("mount.exfat-fuse"),
             {QStringLiteral("-o"), QStringLiteral("allow_other,") + owner, partition, mountPoint}},
        };
    case FileSystem::Ntfs:
        return {{QStringLiteral("ntfs-3g"), {QStringLiteral("-o"), owner, partition, mountPoint}}};
    }
    return {};
}

namespace {

// Undoes the octal escapes of the kernel's mount tables ("\040" for a blank).
QString unescapeField(const QByteArray& field)
{
    QByteArray out;
    for (int i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int value = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok && value < 256) {
                out += char(value);
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return QString::fromUtf8(out);
}

} // namespace

QList<MountEntry> ParseMountInfo(const QByteArray& text)
{
    // "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue":
    // optional fields until "-", then type, source and the file system's options.
    QList<MountEntry> list;
    for (const QByteArray& line : text.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        const qsizetype dash = fields.indexOf("-", 6);
        if (fields.size() < 6 || dash < 0 || dash + 2 >= fields.size())
            continue;
        const QList<QByteArray> numbers = fields[2].split(':');
        if (numbers.size() != 2)
            continue;
        MountEntry entry;
        bool okId = false;
        bool okMajor = false;
        bool okMinor = false;
        entry.id = fields[0].toInt(&okId);
        entry.major = numbers[0].toUInt(&okMajor);
        entry.minor = numbers[1].toUInt(&okMinor);
        if (!okId || !okMajor || !okMinor)
            continue;
        entry.point = unescapeField(fields[4]);
        entry.options = QString::fromUtf8(fields[5]).split(QLatin1Char(','));
        entry.type = unescapeField(fields[dash + 1]);
        entry.source = unescapeField(fields[dash + 2]);
        list << entry;
    }
    return list;
}

bool IsRemovableMediaFolder(const QString& point)
{
    for (const QString& root : {QStringLiteral("/media/"), QStringLiteral("/run/media/"),
                                kMountRoot + QLatin1Char('/')}) {
        if (point.startsWith(root) && point.size() > root.size())
            return true;
    }
    return false;
}

QStringList MissingMountFlags(const MountEntry& mount)
{
    QStringList missing;
    for (const QString& flag : kMountFlags) {
        if (!mount.options.contains(flag))
            missing << flag;
    }
    return missing;
}

QString FileSystemName(FileSystem fs)
{
    switch (fs) {
    case FileSystem::Fat32:
        return QStringLiteral("fat32");
    case FileSystem::Fat:
        return QStringLiteral("fat");
    case FileSystem::Ntfs:
        return QStringLiteral("ntfs");
    case FileSystem::Exfat:
        return QStringLiteral("exfat");
    }
    return QString();
}

QString GrubEarlyConfig()
{
    return QStringLiteral("search --no-floppy --file --set=root /bootmgr\n"
                          "ntldr /bootmgr\n"
                          "boot\n");
}

QStringList GrubImageArguments(const QString& moduleDir, const QString& config)
{
    return {QStringLiteral("-O"),
            QStringLiteral("i386-pc"),
            QStringLiteral("-d"),
            moduleDir,
            QStringLiteral("-c"),
            config,
            QStringLiteral("-p"),
            QStringLiteral("(,msdos1)/boot/grub"),
            QStringLiteral("biosdisk"),
            QStringLiteral("part_msdos"),
            QStringLiteral("fat"),
            QStringLiteral("exfat"),
            QStringLiteral("ntfs"),
            QStringLiteral("search"),
            QStringLiteral("search_fs_file"),
            QStringLiteral("ntldr")};
}

namespace {

// Where GRUB's first sector keeps what it patches at install time.
constexpr int kBpbStart = 0x03;
constexpr int kBpbEnd = 0x5a;
constexpr int kKernelSector = 0x5c;
constexpr int kDriveCheck = 0x66;
constexpr int kTableStart = 0x1b8; // disk signature, then the partition table
constexpr int kTableEnd = 0x1fe;
constexpr int kSector = 512;
// The block list at the end of the core image's first sector: start (64 bits)
// and length (16 bits) of the rest of the core image.
constexpr int kBlockList = kSector - 12;

} // namespace

bool BootSectors(const QByteArray& mbr, const QByteArray& bootImage, const QByteArray& coreImage,
                 qint64 firstPartitionStart, BootCode& code, QString& error)
{
    if (mbr.size() != kSector || bootImage.size() != kSector || coreImage.size() < 2 * kSector) {
        error = QStringLiteral("the boot images are damaged");
        return false;
    }
    const qint64 coreSectors = (coreImage.size() + kSector - 1) / kSector;
    // The core image lives between the MBR and the first partition.
    if (1 + coreSectors > firstPartitionStart) {
        error = QStringLiteral(
                    "the boot code (%1 sectors) does not fit before the partition at sector %2")
                    .arg(coreSectors)
                    .arg(firstPartitionStart);
        return false;
    }
    code.mbr = bootImage;
    code.mbr.replace(kBpbStart, kBpbEnd - kBpbStart, mbr.mid(kBpbStart, kBpbEnd - kBpbStart));
    code.mbr.replace(kTableStart, kTableEnd - kTableStart,
                     mbr.mid(kTableStart, kTableEnd - kTableStart));
    code.mbr[kTableEnd] = char(0x55);
    code.mbr[kTableEnd + 1] = char(0xaa);
    putLittle(code.mbr, kKernelSector, 1, 8);
    // The stick is a hard disk: use the drive the firmware booted from, as
    // told, instead of guessing between floppy and disk.
    code.mbr[kDriveCheck] = char(0x90);
    code.mbr[kDriveCheck + 1] = char(0x90);

    code.core = coreImage;
    code.core.append(QByteArray(coreSectors * kSector - coreImage.size(), '\0'));
    putLittle(code.core, kBlockList, 2, 8);
    putLittle(code.core, kBlockList + 8, quint64(coreSectors - 1), 2);
    return true;
}

bool IsMountOfDisk(const MountEntry& mount, const QStringList& numbers,
                   const QStringList& partitions)
{
    if (mount.major != 0)
        return numbers.contains(QStringLiteral("%1:%2").arg(mount.major).arg(mount.minor));
    if (!mount.type.startsWith(QLatin1String("fuse")))
        return false;
    for (const QString& partition : partitions) {
        if (mount.point == kMountRoot + QLatin1Char('/') + partition &&
            mount.source == QStringLiteral("/dev/") + partition)
            return true;
    }
    return false;
}

QString ErrorLine(const QString& step, const QString& reason, const QStringList& toolOutput,
                  int maxLines)
{
    QStringList words;
    for (auto it = toolOutput.crbegin(); it != toolOutput.crend() && words.size() < maxLines;
         ++it) {
        const QString line = it->simplified();
        if (!line.isEmpty())
            words.prepend(line);
    }
    QString text = QStringLiteral("error: %1: %2.").arg(step, reason);
    if (!words.isEmpty())
        text += QLatin1Char(' ') + words.join(QLatin1Char(' '));
    return text;
}

} // namespace UsbHelper
