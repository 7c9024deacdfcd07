// A whole USB burn of an image of 1 GiB with 2,000 files to a loop device,
// step by step, against the same steps done with the tools by hand: wipefs,
// sfdisk, mkfs and mount; grub-mkimage and dd for the boot code; 7z x into
// the mount; a remount, sha256sum over every file on the stick and over the
// image's files as 7-Zip reads them; umount.
//
//
// With "image" instead of a file system: a disk image write of 1 GiB of
// random bytes to a loop device, Brenta's whole burn (the write, hashing the
// image as it streams, and the read-back through the helper) against dd with
// direct I/O and a flush, then sha256sum of the image and of as many bytes of
// the device. OpenSSL's timings for the same two hashes are printed beside,
// since coreutils' sha256sum does not use the processor's SHA instructions.
//
// In image mode the same image then goes to three loop devices at once,
// against Brenta's time for one.
// Usage (as root): bench_usb [FOLDER] [fat32|ntfs|exfat|image] [RUNS]
// FOLDER holds the image and the loop device's backing file (default a
// temporary folder). The helper is taken from beside this program. Each run
// starts with the page cache dropped.
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMap>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <cstdio>
#include <unistd.h>

#include "media/usbburn.h"

namespace {

double seconds(const QElapsedTimer& timer)
{
    return double(timer.nsecsElapsed()) / 1e9;
}

QString shell(const QString& command, int* code = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), command});
    process.waitForFinished(-1);
    if (code)
        *code = process.exitCode();
    else if (process.exitCode() != 0)
        std::fprintf(stderr, "failed: %s\n%s\n", qPrintable(command),
                     process.readAll().right(600).constData());
    return QString::fromUtf8(process.readAll());
}

// 2,000 files of 1 GiB in all, sizes spread from 4 KiB to about 1 MiB, in 40
// folders, and a /bootmgr so that the burn writes boot code.
QString makeImage(const QString& folder)
{
    const QString image = folder + QStringLiteral("/bench.iso");
    if (QFileInfo(image).size() > (1LL << 30))
        return image;
    const QString source = folder + QStringLiteral("/bench-src");
    QDir(source).removeRecursively();
    QRandomGenerator random(2026);
    const qint64 total = 1LL << 30;
    qint64 written = 0;
    QByteArray block(1 << 20, '\0');
    for (char& c : block)
        c = char(random.generate());
    for (int i = 0; i < 2000; ++i) {
        const QString dir = source + QStringLiteral("/folder%1").arg(i % 40);
        QDir().mkpath(dir);
        const qint64 size = i == 1999
                                ? total - written
                                : qMin<qint64>(4096 + random.bounded(1 << 20), total - written);
        QFile file(dir + QStringLiteral("/file%1.bin").arg(i));
        file.open(QIODevice::WriteOnly);
        block[0] = char(i);
        block[1] = char(i >> 8);
        for (qint64 left = size; left > 0; left -= block.size())
            file.write(block.constData(), qMin<qint64>(left, block.size()));
        written += size;
    }
    QFile loader(source + QStringLiteral("/bootmgr"));
    loader.open(QIODevice::WriteOnly);
    loader.write(QByteArray(400000, 'b'));
    loader.close();
    shell(QStringLiteral("genisoimage -quiet -J -R -o '%1' '%2'").arg(image, source));
    QDir(source).removeRecursively();
    return image;
}

// 1 GiB of random bytes, as an image without files would be written.
QString makeRandomImage(const QString& folder)
{
    const QString image = folder + QStringLiteral("/bench-random.img");
    if (QFileInfo(image).size() == (1LL << 30))
        return image;
    QFile file(image);
    file.open(QIODevice::WriteOnly);
    QRandomGenerator random(2026);
    QByteArray block(1 << 20, '\0');
    for (int i = 0; i < 1024; ++i) {
        random.fillRange(reinterpret_cast<quint32*>(block.data()), block.size() / 4);
        file.write(block);
    }
    return image;
}

void dropCaches()
{
    ::sync();
    QFile drop(QStringLiteral("/proc/sys/vm/drop_caches"));
    if (drop.open(QIODevice::WriteOnly))
        drop.write("3\n");
}

QString attach(const QString& backing)
{
    QFile file(backing);
    file.open(QIODevice::WriteOnly);
    file.resize(0);
    file.resize(1600LL << 20);
    file.close();
    return shell(QStringLiteral("losetup -f --show -P '%1'").arg(backing)).trimmed();
}

using Steps = QMap<QString, double>;

// Plans and burns with the job, waiting for each; a refusal or a failure is
// printed. False when the plan refused, so nothing was burned.
bool planAndBurn(CUsbBurnJob& job, const CUsbBurnJob::Options& options)
{
    QSignalSpy planned(&job, &CUsbBurnJob::planned);
    QSignalSpy finished(&job, &CUsbBurnJob::finished);
    job.Plan(options);
    planned.wait(600000);
    if (!planned.first().at(0).toBool()) {
        std::fprintf(stderr, "refused: %s\n", qPrintable(planned.first().at(1).toString()));
        return false;
    }
    job.Burn();
    finished.wait(3600000);
    if (!finished.first().at(0).toBool())
        std::fprintf(stderr, "burn failed: %s\n", qPrintable(finished.first().at(1).toString()));
    return true;
}

Steps burnWithBrenta(const QString& image, const QString& loop, UsbPlan::FileSystem fs)
{
    Steps steps;
    CUsbBurnJob job;
    QElapsedTimer timer;
    QString current;
    const auto close = [&] {
        if (!current.isEmpty())
            steps[current] += seconds(timer);
        timer.restart();
    };
    QObject::connect(&job, &CUsbBurnJob::phase, [&](CUsbBurnJob::Phase phase) {
        close();
        switch (phase) {
        case CUsbBurnJob::Phase::Checking:
            current = QStringLiteral("0 check");
            break;
        case CUsbBurnJob::Phase::Formatting:
            current = QStringLiteral("1 format");
            break;
        case CUsbBurnJob::Phase::BootCode:
            current = QStringLiteral("2 boot code");
            break;
        case CUsbBurnJob::Phase::Writing:
        case CUsbBurnJob::Phase::Copying:
        case CUsbBurnJob::Phase::Splitting:
            current = QStringLiteral("3 contents");
            break;
        case CUsbBurnJob::Phase::Verifying:
            current = QStringLiteral("4 verify");
            break;
        case CUsbBurnJob::Phase::Finishing:
            current = QStringLiteral("5 unmount");
            break;
        }
    });
    CUsbBurnJob::Options options;
    options.image = image;
    options.device = loop;
    options.fileSystem = fs;
    options.label = QStringLiteral("BENCH");
    ::sync();
    timer.start();
    if (planAndBurn(job, options))
        close();
    return steps;
}

// Times the steps of a burn as the job enters them.
struct StepClock
{
    Steps steps;
    QElapsedTimer timer;
    QString current;

    void Close()
    {
        if (!current.isEmpty())
            steps[current] += seconds(timer);
        timer.restart();
    }
    void Enter(CUsbBurnJob::Phase phase)
    {
        Close();
        current = phase == CUsbBurnJob::Phase::Checking  ? QStringLiteral("0 check")
                  : phase == CUsbBurnJob::Phase::Writing ? QStringLiteral("1 write")
                                                         : QStringLiteral("2 verify");
    }
};

Steps imageWithBrenta(const QString& image, const QString& loop)
{
    CUsbBurnJob job;
    StepClock clock;
    QObject::connect(&job, &CUsbBurnJob::phase,
                     [&](CUsbBurnJob::Phase phase) { clock.Enter(phase); });
    CUsbBurnJob::Options options;
    options.image = image;
    options.device = loop;
    options.autoMode = false;
    options.mode = UsbPlan::WriteMode::Image;
    dropCaches();
    clock.timer.start();
    if (planAndBurn(job, options))
        clock.Close();
    return clock.steps;
}

// The same image to several loop devices at once, from one read of it: the
// time of each step in seconds, a step lasting until the last stick is
// through it; nothing when a stick failed.
Steps imageToSeveral(const QString& image, const QStringList& loops)
{
    CUsbMultiBurnJob job;
    QSignalSpy planned(&job, &CUsbMultiBurnJob::planned);
    QSignalSpy finished(&job, &CUsbMultiBurnJob::finished);
    StepClock clock;
    // The job shows the stick furthest behind, so a phase ends for the last stick.
    QObject::connect(&job, &CUsbMultiBurnJob::phase,
                     [&](CUsbBurnJob::Phase phase) { clock.Enter(phase); });
    CUsbBurnJob::Options options;
    options.image = image;
    options.autoMode = false;
    options.mode = UsbPlan::WriteMode::Image;
    dropCaches();
    clock.timer.start();
    job.Plan(options, loops);
    planned.wait(600000);
    if (!planned.first().at(0).toBool()) {
        std::fprintf(stderr, "refused: %s\n", qPrintable(planned.first().at(1).toString()));
        return Steps();
    }
    job.Burn();
    finished.wait(3600000);
    clock.Close();
    if (!finished.first().at(0).toBool()) {
        std::fprintf(stderr, "burn failed:\n%s\n", qPrintable(finished.first().at(1).toString()));
        return Steps();
    }
    return clock.steps;
}

// dd, then the two hashes one after the other, as typed at a prompt; the
// hashes must agree. `openssl` gets OpenSSL's time for the same hashes.
Steps imageByHand(const QString& image, const QString& loop, double& openssl)
{
    Steps steps;
    const qint64 size = QFileInfo(image).size();
    dropCaches();
    QElapsedTimer timer;
    timer.start();
    shell(QStringLiteral("dd if='%1' of='%2' bs=4M oflag=direct conv=fsync status=none")
              .arg(image, loop));
    steps[QStringLiteral("1 write")] = seconds(timer);
    timer.restart();
    const QString sums = shell(
        QStringLiteral("sha256sum < '%1'; head -c %3 '%2' | sha256sum").arg(image, loop).arg(size));
    steps[QStringLiteral("2 verify")] = seconds(timer);
    const QStringList lines = sums.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    if (lines.size() != 2 || lines.at(0) != lines.at(1))
        std::fprintf(stderr, "the device does not hold the image:\n%s", qPrintable(sums));
    // The same hashes over the same cached bytes.
    timer.restart();
    shell(QStringLiteral("openssl dgst -sha256 '%1' >/dev/null; head -c %3 '%2' | openssl dgst "
                         "-sha256 >/dev/null")
              .arg(image, loop)
              .arg(size));
    openssl = seconds(timer);
    return steps;
}

void printSteps(const Steps& brenta, const Steps& hand)
{
    std::printf("%-12s %9s %9s\n", "step", "Brenta", "by hand");
    QStringList names = brenta.keys() + hand.keys();
    names.removeDuplicates();
    names.sort();
    for (const QString& name : names)
        std::printf("%-12s %8.2fs %8.2fs\n", qPrintable(name.mid(2)), brenta.value(name),
                    hand.value(name));
}

Steps burnByHand(const QString& image, const QString& loop, const QString& fs, const QString& work)
{
    Steps steps;
    const QString part = loop + QStringLiteral("p1");
    const QString mount = work + QStringLiteral("/hand-mount");
    QDir().mkpath(mount);
    const QString mkfs = fs == QLatin1String("ntfs") ? QStringLiteral("mkntfs -Q -L BENCH '%1'")
                         : fs == QLatin1String("exfat")
                             ? QStringLiteral("mkfs.exfat -L BENCH '%1'")
                             : QStringLiteral("mkfs.vfat -F 32 -n BENCH '%1'");
    const QString mountCommand =
        fs == QLatin1String("ntfs") ? QStringLiteral("ntfs-3g '%1' '%2'")
        : fs == QLatin1String("exfat")
            ? QStringLiteral("mount -t exfat '%1' '%2' 2>/dev/null || mount.exfat-fuse '%1' '%2'")
            : QStringLiteral("mount -t vfat '%1' '%2' 2>/dev/null || fusefat -o rw+ '%1' '%2'");
    const QString type = fs == QLatin1String("fat32") ? QStringLiteral("c") : QStringLiteral("7");
    ::sync();
    QElapsedTimer timer;
    timer.start();
    shell(
        QStringLiteral(
            "wipefs -a '%1' >/dev/null && printf 'label: dos\\nstart=1MiB, type=%2, bootable\\n' | "
            "sfdisk -q '%1' && partx -u '%1'; udevadm settle 2>/dev/null; ")
            .arg(loop, type) +
        mkfs.arg(part) + QStringLiteral(" >/dev/null && ") + mountCommand.arg(part, mount));
    steps[QStringLiteral("1 format")] = seconds(timer);
    timer.restart();
    shell(QStringLiteral(
              "printf 'search --file --set=root /bootmgr\\nntldr /bootmgr\\nboot\\n' > "
              "'%1/early.cfg' && "
              "grub-mkimage -O i386-pc -o '%1/core.img' -c '%1/early.cfg' -p '(,msdos1)/boot/grub' "
              "biosdisk part_msdos fat exfat ntfs search search_fs_file ntldr && "
              "dd if='%1/core.img' of='%2' bs=512 seek=1 conv=notrunc,fsync status=none && "
              "dd if=/usr/lib/grub/i386-pc/boot.img of='%2' bs=440 count=1 conv=notrunc,fsync "
              "status=none")
              .arg(work, loop));
    steps[QStringLiteral("2 boot code")] = seconds(timer);
    timer.restart();
    shell(QStringLiteral("7z x -y -o'%1' -x'![BOOT]' -- '%2' >/dev/null").arg(mount, image));
    steps[QStringLiteral("3 contents")] = seconds(timer);
    timer.restart();
    shell(
        QStringLiteral("sync; umount '%1' && ").arg(mount) + mountCommand.arg(part, mount) +
        QStringLiteral(" && (cd '%1' && find . -type f -print0 | xargs -0 sha256sum > /dev/null) & "
                       "7z x -so -- '%2' | sha256sum > /dev/null; wait")
            .arg(mount, image));
    steps[QStringLiteral("4 verify")] = seconds(timer);
    timer.restart();
    shell(QStringLiteral("sync; umount '%1'; sync").arg(mount));
    steps[QStringLiteral("5 unmount")] = seconds(timer);
    return steps;
}

double total(const Steps& steps)
{
    double sum = 0;
    for (double value : steps)
        sum += value;
    return sum;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (::geteuid() != 0) {
        std::fprintf(stderr, "bench_usb needs root for loop devices\n");
        return 1;
    }
    QTemporaryDir temporary;
    const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : temporary.path();
    const QString fsName = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral("fat32");
    const bool imageMode = fsName == QLatin1String("image");
    const int runs = argc > 3 ? qMax(1, QString::fromLocal8Bit(argv[3]).toInt()) : 1;
    const std::optional<UsbPlan::FileSystem> fs = UsbPlan::FileSystemFromName(fsName);
    if (!fs && !imageMode) {
        std::fprintf(stderr, "unknown file system %s\n", qPrintable(fsName));
        return 2;
    }
    // The real helper, run directly (as root), from beside this program.
    const QString tools = folder + QStringLiteral("/bench-tools");
    QDir().mkpath(tools + QStringLiteral("/usbhelper"));
    QFile::remove(tools + QStringLiteral("/usbhelper/brenta-usb-helper"));
    QFile::link(QCoreApplication::applicationDirPath() + QStringLiteral("/brenta-usb-helper"),
                tools + QStringLiteral("/usbhelper/brenta-usb-helper"));
    qputenv("BRENTA_TOOLS_DIR", tools.toUtf8());

    const QString image = imageMode ? makeRandomImage(folder) : makeImage(folder);
    std::printf("image %s: %.2f GiB\n", qPrintable(image),
                double(QFileInfo(image).size()) / (1 << 30));
    const QString backing = folder + QStringLiteral("/bench-stick.img");

    for (int run = 1; run <= runs; ++run) {
        const QString loop = attach(backing);
        const Steps brenta =
            imageMode ? imageWithBrenta(image, loop) : burnWithBrenta(image, loop, *fs);
        shell(QStringLiteral("losetup -d '%1'").arg(loop));
        const QString loop2 = attach(backing);
        double openssl = 0;
        const Steps hand = imageMode ? imageByHand(image, loop2, openssl)
                                     : burnByHand(image, loop2, fsName.toLower(), folder);
        shell(QStringLiteral("losetup -d '%1'").arg(loop2));
        QFile::remove(backing);

        std::printf("run %d of %d\n", run, runs);
        printSteps(brenta, hand);
        std::printf("%-12s %8.2fs %8.2fs   ratio %.2f\n", "total", total(brenta), total(hand),
                    total(brenta) / total(hand));
        if (imageMode)
            std::printf("the two hashes with openssl dgst instead: %.2fs, by hand in all %.2fs, "
                        "ratio %.2f\n",
                        openssl, hand.value(QStringLiteral("1 write")) + openssl,
                        total(brenta) / (hand.value(QStringLiteral("1 write")) + openssl));
        if (imageMode) {
            QStringList loops;
            for (int i = 1; i <= 3; ++i)
                loops << attach(backing + QString::number(i));
            const Steps three = imageToSeveral(image, loops);
            for (int i = 1; i <= 3; ++i) {
                shell(QStringLiteral("losetup -d '%1'").arg(loops.at(i - 1)));
                QFile::remove(backing + QString::number(i));
            }
            std::printf("%-12s %9s %9s\n", "step", "1 stick", "3 sticks");
            for (const QString& name : {QStringLiteral("1 write"), QStringLiteral("2 verify")})
                std::printf("%-12s %8.2fs %8.2fs   ratio %.2f\n", qPrintable(name.mid(2)),
                            brenta.value(name), three.value(name),
                            three.value(name) / brenta.value(name));
            std::printf("three sticks at once %8.2fs   ratio to one stick %.2f\n", total(three),
                        total(three) / total(brenta));
        }
        std::fflush(stdout);
    }
    return 0;
}
