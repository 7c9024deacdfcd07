#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

// A file system on a loop device whose reads this process (and the tools it
// starts) may do only at `rate` bytes a second, through a block I/O cgroup
// named `group`: a slow disk, for real. Needs root; Available() says whether
// the machine can throttle at all.
class SlowDisk
{
public:
    SlowDisk(const QString& folder, qint64 rate, const QString& group)
        : m_mount(folder + "/mnt"), m_group(kRoot + '/' + group)
    {
        const QString image = folder + "/fs.img";
        QDir().mkpath(m_mount);
        QFile file(image);
        if (!file.open(QIODevice::WriteOnly) || !file.resize(256 * 1024 * 1024))
            return;
        file.close();
        if (!run("mkfs.ext4", {"-q", "-F", image}) ||
            !run("losetup", {"-f", "--show", image}, &m_device))
            return;
        m_mounted = run("mount", {m_device, m_mount});
        struct stat info
        {
        };
        ::stat(QFile::encodeName(m_device).constData(), &info);
        m_limit = QByteArray::number(major(info.st_rdev)) + ':' +
                  QByteArray::number(minor(info.st_rdev)) + ' ' + QByteArray::number(rate);
    }
    ~SlowDisk()
    {
        write(kRoot + "/cgroup.procs", QByteArray::number(::getpid()));
        QDir().rmdir(m_group);
        if (m_mounted)
            run("umount", {m_mount});
        if (!m_device.isEmpty())
            run("losetup", {"-d", m_device});
    }
    SlowDisk(const SlowDisk&) = delete;
    SlowDisk& operator=(const SlowDisk&) = delete;

    static bool Available()
    {
        return ::geteuid() == 0 && QFileInfo::exists(kRoot + "/blkio.throttle.read_bps_device");
    }
    bool IsMounted() const { return m_mounted; }
    QString Path(const QString& name) const { return m_mount + '/' + name; }
    // A file of `mebibytes` MiB, written before Throttle().
    bool WriteFile(const QString& name, int mebibytes) const
    {
        QFile file(Path(name));
        const QByteArray block(1024 * 1024, 'x');
        if (!file.open(QIODevice::WriteOnly))
            return false;
        for (int i = 0; i < mebibytes; ++i) {
            if (file.write(block) != block.size())
                return false;
        }
        return true;
    }
    // Mounted afresh, so nothing is in the page cache, and reads limited.
    bool Throttle()
    {
        return run("umount", {m_mount}) && run("mount", {m_device, m_mount}) &&
               QDir().mkpath(m_group) &&
               write(m_group + "/blkio.throttle.read_bps_device", m_limit) &&
               write(m_group + "/cgroup.procs", QByteArray::number(::getpid()));
    }

private:
    static bool run(const QString& program, const QStringList& arguments, QString* output = nullptr)
    {
        QProcess process;
        process.start(program, arguments);
        const bool ok = process.waitForFinished(60000) &&
                        process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
        if (output)
            *output = QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
        return ok;
    }
    static bool write(const QString& path, const QByteArray& text)
    {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
    }

    static inline const QString kRoot = QStringLiteral("/sys/fs/cgroup/blkio");
    QString m_mount;
    QString m_group;
    QString m_device;
    QByteArray m_limit;
    bool m_mounted = false;
};
