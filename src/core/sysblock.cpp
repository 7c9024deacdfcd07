#include "core/sysblock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

const QLatin1String kClassBlock("/sys/class/block/");
const QLatin1String kDevBlock("/sys/dev/block/");

} // namespace

QString SysBlock::KernelName(QString name)
{
    name.replace(QLatin1Char('/'), QLatin1Char('!'));
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        return QString();
    return name;
}

bool SysBlock::IsBlockName(const QString& name)
{
    return !name.isEmpty() && QFileInfo::exists(kClassBlock + name);
}

QString SysBlock::ReadAttribute(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readLine(4096)).trimmed();
}

// Through /sys/dev/block or, where that index is missing, by reading every
// block device's "dev".
QString SysBlock::NameOfDevice(dev_t number)
{
    // Major 0 is the kernel's numbering of file systems without a device.
    if (major(number) == 0)
        return QString();
    const QString id = QStringLiteral("%1:%2").arg(major(number)).arg(minor(number));
    const QString linked = QFileInfo(kDevBlock + id).canonicalFilePath();
    if (!linked.isEmpty())
        return QFileInfo(linked).fileName();
    const QStringList names =
        QDir(kClassBlock).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        if (ReadAttribute(kClassBlock + name + QLatin1String("/dev")) == id)
            return name;
    }
    return QString();
}

QString SysBlock::NameOfPath(const QString& path)
{
    if (!path.startsWith(QLatin1Char('/')))
        return QString();

    // The device number is the reliable key: it survives renamed and linked
    // nodes.
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) == 0) {
        const QString name = S_ISBLK(info.st_mode)   ? NameOfDevice(info.st_rdev)
                             : S_ISREG(info.st_mode) ? NameOfDevice(info.st_dev)
                                                     : QString();
        if (!name.isEmpty())
            return name;
    }

    // Else by name: the node the path leads to, "/dev/dm-0" for "/dev/mapper/root".
    QString target = QFileInfo(path).canonicalFilePath();
    if (target.isEmpty())
        target = QDir::cleanPath(path);
    if (!target.startsWith(QLatin1String("/dev/")))
        return QString();
    const QString name = KernelName(target.mid(5));
    return IsBlockName(name) ? name : QString();
}

qint64 SysBlock::SizeOf(const QString& name)
{
    if (KernelName(name) != name || !IsBlockName(name))
        return 0;
    bool ok = false;
    const qint64 sectors =
        ReadAttribute(kClassBlock + name + QLatin1String("/size")).toLongLong(&ok);
    return ok && sectors > 0 ? sectors * 512 : 0;
}
