#include "app/cli.h"

#include <QEventLoop>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "iso/eltorito.h"
#include "iso/isojobs.h"
#include "iso/itemtree.h"
#include "media/disctools.h"
#include "media/drives.h"

namespace Cli {

Request Parse(const QStringList& arguments)
{
    Request request;
    if (arguments.isEmpty())
        return request;

    const QString& first = arguments.first();
    const auto usageError = [&](const QString& error) {
        request.mode = Request::Mode::UsageError;
        request.error = error;
        return request;
    };
    if (first == QLatin1String("--version") || first == QLatin1String("-v")) {
        if (arguments.size() > 1)
            return usageError(QStringLiteral("--version takes no arguments."));
        request.mode = Request::Mode::Version;
        return request;
    }
    if (first == QLatin1String("--help") || first == QLatin1String("-h")) {
        request.mode = Request::Mode::Help;
        return request;
    }
    if (first == QLatin1String("--screenshots")) {
        if (arguments.size() != 2 || arguments.at(1).isEmpty())
            return usageError(QStringLiteral("--screenshots takes one folder."));
        request.mode = Request::Mode::Screenshots;
        request.directory = arguments.at(1);
        return request;
    }
    if (first == QLatin1String("list")) {
        if (arguments.size() != 2)
            return usageError(QStringLiteral("list takes one image."));
        request.mode = Request::Mode::List;
        request.image = arguments.at(1);
        return request;
    }
    if (first == QLatin1String("extract")) {
        if (arguments.size() < 3)
            return usageError(QStringLiteral("extract takes an image and a destination folder."));
        request.mode = Request::Mode::Extract;
        request.image = arguments.at(1);
        request.directory = arguments.at(2);
        request.entries = arguments.mid(3);
        return request;
    }
    if (first == QLatin1String("boot-info")) {
        if (arguments.size() != 2)
            return usageError(QStringLiteral("boot-info takes one image."));
        request.mode = Request::Mode::BootInfo;
        request.image = arguments.at(1);
        return request;
    }
    if (first == QLatin1String("drives")) {
        if (arguments.size() != 1)
            return usageError(QStringLiteral("drives takes no arguments."));
        request.mode = Request::Mode::Drives;
        return request;
    }
    if (first == QLatin1String("burn-disc")) {
        if (arguments.size() != 3)
            return usageError(QStringLiteral("burn-disc takes an image and a drive."));
        request.mode = Request::Mode::BurnDisc;
        request.image = arguments.at(1);
        request.device = arguments.at(2);
        return request;
    }
    if (first == QLatin1String("copy-disc")) {
        if (arguments.size() != 3)
            return usageError(QStringLiteral("copy-disc takes a drive and an output image."));
        request.mode = Request::Mode::CopyDisc;
        request.device = arguments.at(1);
        request.output = arguments.at(2);
        return request;
    }
    if (first == QLatin1String("create")) {
        QStringList rest = arguments.mid(1);
        if (rest.value(0) == QLatin1String("--type")) {
            if (!ImageBuild::TypeFromName(rest.value(1)))
                return usageError(QStringLiteral("--type takes joliet, iso9660 or udf."));
            request.type = rest.value(1);
            rest = rest.mid(2);
        }
        if (rest.size() < 2)
            return usageError(QStringLiteral("create takes an output image and at least one file or folder."));
        request.mode = Request::Mode::Create;
        request.image = rest.first();
        request.entries = rest.mid(1);
        return request;
    }
    return usageError(QStringLiteral("Unknown argument: %1").arg(first));
}

namespace {

void print(FILE* stream, const QString& text)
{
    std::fputs(text.toUtf8().constData(), stream);
}

void printTree(const Item& folder)
{
    for (const auto& child : folder.children) {
        QString path = child->name;
        path.replace(QLatin1Char('\\'), QLatin1Char('/'));
        print(stdout, QStringLiteral("%1\t%2\t%3\t%4\n")
                          .arg(child->isDir ? QStringLiteral("D") : QStringLiteral("F"), child->size,
                               child->time, path));
        printTree(*child);
    }
}

// Waits in an event loop until the job says it has finished.
template <typename Job>
void waitFor(Job& job)
{
    QEventLoop loop;
    QObject::connect(&job, &Job::finished, &loop, &QEventLoop::quit);
    if (job.IsRunning())
        loop.exec();
}

// Starts a job, waits for its end and reports as every terminal form does:
// exit status 0, or 1 with the job's message on standard error.
template <typename Job, typename Start>
int runToEnd(Job& job, bool showProgress, Start start)
{
    start();
    waitFor(job);
    if (showProgress)
        print(stderr, QStringLiteral("\r\033[K"));
    if (!job.Succeeded()) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(job.Message()));
        return 1;
    }
    return 0;
}

bool progressWanted()
{
    return ::isatty(STDERR_FILENO) == 1;
}

} // namespace

int RunList(const Request& request)
{
    ItemTree tree;
    CListJob job(tree);
    if (const int status = runToEnd(job, false, [&] { job.Start(request.image); }))
        return status;
    printTree(tree.Root());
    std::fflush(stdout);
    return 0;
}

int RunBootInfo(const Request& request)
{
    ElTorito::Error error = ElTorito::Error::None;
    const std::optional<ElTorito::Catalog> catalog = ElTorito::ReadFile(request.image, &error);
    if (!catalog) {
        print(stderr, QStringLiteral("brenta: %1 has no valid El Torito boot record: %2\n")
                          .arg(request.image, ElTorito::ErrorText(error)));
        return 1;
    }
    const ElTorito::Entry& entry = catalog->defaultEntry;
    QString text;
    text += QStringLiteral("bootable: %1\n").arg(entry.bootable ? "yes" : "no");
    text += QStringLiteral("media: %1\n").arg(ElTorito::MediaName(entry.media));
    text += QStringLiteral("load-size: %1\n").arg(entry.sectorCount);
    text += QStringLiteral("load-rba: %1\n").arg(entry.loadRba);
    for (const ElTorito::Entry& efi : catalog->efiEntries)
        text += QStringLiteral("efi-entry: load-rba=%1 sectors=%2\n").arg(efi.loadRba).arg(efi.sectorCount);
    print(stdout, text);
    return 0;
}

int RunCreate(const Request& request)
{
    for (const QString& path : request.entries) {
        if (!QFileInfo::exists(path)) {
            print(stderr, QStringLiteral("brenta: %1 does not exist.\n").arg(path));
            return 1;
        }
    }
    CCreateJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&job, &CCreateJob::progress, [](CCreateJob::Phase phase, qint64 value, qint64 maximum) {
            const double percent = maximum > 0 ? 100.0 * double(value) / double(maximum) : 0.0;
            print(stderr, QStringLiteral("\r\033[K%1 %2%")
                              .arg(phase == CCreateJob::Phase::Copying ? QStringLiteral("Copying")
                                                                       : QStringLiteral("Building"))
                              .arg(percent, 0, 'f', 1));
        });
    }
    return runToEnd(job, showProgress, [&] {
        job.Start(*ImageBuild::TypeFromName(request.type), request.image, request.entries);
    });
}

int RunExtract(const Request& request)
{
    CExtractJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&job, &CExtractJob::progress, [](int percent, const QString& entry) {
            print(stderr, QStringLiteral("\r\033[K%1% %2").arg(percent, 3).arg(entry));
        });
    }
    return runToEnd(job, showProgress, [&] { job.Start(request.image, request.directory, request.entries); });
}

int RunDrives(const Request& /*request*/)
{
    QString text;
    for (const RemovableDrive& drive : Drives::Removable())
        text += QStringLiteral("usb\t%1\t%2\n").arg(drive.node, drive.text);
    COpticalScan scan;
    QObject::connect(&scan, &COpticalScan::entry, [&text](const QString& entry, const QString& node) {
        text += QStringLiteral("optical\t%1\t%2\n").arg(node, entry);
    });
    scan.Start();
    waitFor(scan);
    print(stdout, text);
    return 0;
}

namespace {

// A drive named on the command line must be a block device node; what kind
// of drive it is, the disc tool finds out.
bool checkDevice(const QString& device)
{
    struct stat info;
    if (!device.startsWith(QLatin1Char('/')) || ::stat(QFile::encodeName(device).constData(), &info) != 0 ||
        !S_ISBLK(info.st_mode)) {
        print(stderr, QStringLiteral("brenta: %1 is not a drive's device node (such as /dev/sr0).\n").arg(device));
        return false;
    }
    return true;
}

// Waits for a disc job and reports its end: 0, or 1 with its message.
template <typename Job>
int finishDiscJob(Job& job, bool showProgress)
{
    bool succeeded = false;
    QString message;
    QEventLoop loop;
    QObject::connect(&job, &Job::finished, [&](bool ok, const QString& text) {
        succeeded = ok;
        message = text;
        loop.quit();
    });
    if (job.IsRunning())
        loop.exec();
    if (showProgress)
        print(stderr, QStringLiteral("\r\033[K"));
    if (!succeeded) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(message));
        return 1;
    }
    return 0;
}

} // namespace

int RunBurnDisc(const Request& request)
{
    if (!QFileInfo(request.image).isFile()) {
        print(stderr, QStringLiteral("brenta: %1 is not an image file.\n").arg(request.image));
        return 1;
    }
    if (!checkDevice(request.device))
        return 1;
    CDiscBurnJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&job, &CDiscBurnJob::progress, [](int percent) {
            print(stderr, QStringLiteral("\r\033[KBurning %1%").arg(percent));
        });
    }
    job.Start(request.image, request.device);
    return finishDiscJob(job, showProgress);
}

int RunCopyDisc(const Request& request)
{
    if (!checkDevice(request.device))
        return 1;
    if (!QFileInfo(QFileInfo(request.output).absolutePath()).isDir()) {
        print(stderr, QStringLiteral("brenta: the folder of %1 does not exist.\n").arg(request.output));
        return 1;
    }
    CDiscCopyJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        auto end = std::make_shared<qint64>(0);
        QObject::connect(&job, &CDiscCopyJob::sectors, [end](qint64 sectors) { *end = sectors; });
        QObject::connect(&job, &CDiscCopyJob::position, [end](qint64 sector) {
            if (*end > 0)
                print(stderr, QStringLiteral("\r\033[KReading %1%").arg(sector * 100 / *end));
        });
    }
    job.Start(request.device, request.output);
    return finishDiscJob(job, showProgress);
}

QString VersionText()
{
    return QStringLiteral("Brenta %1\n").arg(QStringLiteral(BRENTA_VERSION));
}

QString HelpText()
{
    return QStringLiteral(
        "Usage: brenta [OPTION]\n"
        "       brenta list IMAGE\n"
        "       brenta extract IMAGE DEST [ENTRY...]\n"
        "       brenta create [--type joliet|iso9660|udf] OUTPUT PATH...\n"
        "       brenta boot-info IMAGE\n"
        "       brenta drives\n"
        "       brenta burn-disc IMAGE DEVICE\n"
        "       brenta copy-disc DEVICE OUTPUT\n"
        "Burn, extract, create, edit and copy ISO 9660 disc images.\n"
        "\n"
        "Without an option Brenta opens its window.\n"
        "\n"
        "Commands:\n"
        "  list IMAGE             print every entry: D or F, size, time, path (tab separated)\n"
        "  extract IMAGE DEST [ENTRY...]\n"
        "                         extract the entries (paths inside the image, \"/\" between\n"
        "                         components; none means the whole image) into DEST\n"
        "  create [--type TYPE] OUTPUT PATH...\n"
        "                         build OUTPUT from the files and folders, each at the\n"
        "                         image's root under its own name (type joliet if not given)\n"
        "  boot-info IMAGE        print the image's El Torito boot setup\n"
        "  drives                 print the drives Brenta offers, USB ones first: usb or\n"
        "                         optical, the device node and the list text (tab separated)\n"
        "  burn-disc IMAGE DEVICE burn IMAGE to the disc in DEVICE and eject it\n"
        "  copy-disc DEVICE OUTPUT\n"
        "                         read the disc in DEVICE into the image file OUTPUT\n"
        "                         DEVICE is a device node such as /dev/sr0: one that\n"
        "                         'drives' lists, or any block device you name. Brenta\n"
        "                         checks only that it is a block device; the disc tools\n"
        "                         refuse a drive that cannot burn or read a disc.\n"
        "\n"
        "Options:\n"
        "  -h, --help             show this help and exit\n"
        "  -v, --version          show the version and exit\n"
        "  --screenshots FOLDER   render every window and dialog to PNG files in FOLDER\n"
        "\n"
        "Environment:\n"
        "  BRENTA_TOOLS_DIR       folder searched first for 7z/7z, cdrtools/mkisofs,\n"
        "                         cdrtools/cdrecord and cdrtools/readcd\n"
        "\n"
        "Logging: while a file named config.dat exists beside the brenta executable,\n"
        "Brenta appends its log to log.txt in ~/.local/share/brenta.\n");
}

} // namespace Cli
