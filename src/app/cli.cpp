#include "app/cli.h"

#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QScopeGuard>
#include <QSocketNotifier>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <sys/stat.h>
#include <unistd.h>

#include "iso/editsession.h"
#include "iso/eltorito.h"
#include "iso/isojobs.h"
#include "iso/itemtree.h"
#include "media/disctools.h"
#include "media/drives.h"
#include "media/usbburn.h"
#include "tools/filecopy.h"

namespace Cli {

namespace {

bool isOption(const QString& argument)
{
    return argument.startsWith(QLatin1String("--"));
}

// The commands whose usage "COMMAND --help" prints.
const QStringList& commandNames()
{
    static const QStringList names{QStringLiteral("list"),      QStringLiteral("extract"),
                                   QStringLiteral("create"),    QStringLiteral("boot-info"),
                                   QStringLiteral("drives"),    QStringLiteral("burn-disc"),
                                   QStringLiteral("burn-usb"),  QStringLiteral("restore-usb"),
                                   QStringLiteral("copy-disc"), QStringLiteral("edit")};
    return names;
}

// A command's words after its name. "--" ends the options: what follows it is
// an operand even when it starts with "-", so an entry named "--x" can be given.
struct Words
{
    QStringList head; // before "--": options and operands
    QStringList tail; // after "--": operands only
};

Words splitWords(const QStringList& arguments)
{
    const QStringList words = arguments.mid(1);
    const qsizetype end = words.indexOf(QStringLiteral("--"));
    if (end < 0)
        return {words, {}};
    return {words.mid(0, end), words.mid(end + 1)};
}

// The words of a command without options: all of them are operands.
QStringList operandsOf(const Words& words)
{
    return words.head + words.tail;
}

// An option of a command: how many values follow it, and what is said when
// they do not.
struct OptionSpec
{
    int values = 0;
    QString missing; // empty: "<option> takes a value."
};

// Walks a command's words in any order: operands are collected into
// `operands` (those after "--" last), each known option is handed with its
// values to `take`, which says what is wrong with them or nothing. A value
// never starts like an option: "--label --yes" is a forgotten label, not a
// label.
QString scanOptions(const QString& command, const Words& words,
                    const QHash<QString, OptionSpec>& known,
                    const std::function<QString(const QString&, const QStringList&)>& take,
                    QStringList& operands)
{
    const QStringList& head = words.head;
    for (int i = 0; i < head.size(); ++i) {
        const QString& option = head.at(i);
        if (!isOption(option)) {
            operands << option;
            continue;
        }
        const auto spec = known.constFind(option);
        if (spec == known.cend())
            return QStringLiteral("Unknown %1 option: %2").arg(command, option);
        QStringList values;
        for (int v = 0; v < spec->values; ++v) {
            if (i + 1 >= head.size() || isOption(head.at(i + 1)))
                return spec->missing.isEmpty() ? QStringLiteral("%1 takes a value.").arg(option)
                                               : spec->missing;
            values << head.at(++i);
        }
        if (const QString wrong = take(option, values); !wrong.isEmpty())
            return wrong;
    }
    operands << words.tail;
    return QString();
}

// burn-usb IMAGE DEVICE [DEVICE...] and its options, in any order. Returns what
// is wrong, or nothing.
QString parseBurnUsb(const Words& words, Request& request)
{
    QStringList operands;
    const QHash<QString, OptionSpec> known{{QStringLiteral("--yes"), {}},
                                           {QStringLiteral("--scheme"), {1, {}}},
                                           {QStringLiteral("--fs"), {1, {}}},
                                           {QStringLiteral("--label"), {1, {}}},
                                           {QStringLiteral("--mode"), {1, {}}}};
    const QString wrong = scanOptions(
        QStringLiteral("burn-usb"), words, known,
        [&request](const QString& option, const QStringList& values) -> QString {
            if (option == QLatin1String("--yes")) {
                request.yes = true;
                return QString();
            }
            const QString& value = values.first();
            if (option == QLatin1String("--mode")) {
                if (value.compare(QLatin1String("image"), Qt::CaseInsensitive) == 0)
                    request.writeMode = UsbPlan::WriteMode::Image;
                else if (value.compare(QLatin1String("files"), Qt::CaseInsensitive) == 0)
                    request.writeMode = UsbPlan::WriteMode::Files;
                else if (value.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0)
                    request.writeMode.reset();
                else
                    return QStringLiteral("--mode takes auto, image or files.");
                return QString();
            }
            request.filesOptions << option;
            if (option == QLatin1String("--scheme")) {
                if (value.compare(QLatin1String("mbr"), Qt::CaseInsensitive) == 0)
                    request.scheme = UsbPlan::Scheme::Mbr;
                else if (value.compare(QLatin1String("gpt"), Qt::CaseInsensitive) == 0)
                    request.scheme = UsbPlan::Scheme::Gpt;
                else
                    return QStringLiteral("--scheme takes mbr or gpt.");
            } else if (option == QLatin1String("--fs")) {
                const std::optional<UsbPlan::FileSystem> fileSystem =
                    UsbPlan::FileSystemFromName(value);
                if (!fileSystem)
                    return QStringLiteral("--fs takes fat32, ntfs, exfat or fat.");
                request.fileSystem = *fileSystem;
            } else {
                request.label = value;
            }
            return QString();
        },
        operands);
    if (!wrong.isEmpty())
        return wrong;
    if (operands.size() < 2)
        return QStringLiteral("burn-usb takes an image and a USB disk.");
    request.image = operands.at(0);
    request.device = operands.at(1);
    for (const QString& device : operands.mid(2)) {
        if (device == request.device || request.moreDevices.contains(device))
            return QStringLiteral("%1 is named twice.").arg(device);
        request.moreDevices << device;
    }
    if (request.writeMode == UsbPlan::WriteMode::Image && !request.filesOptions.isEmpty())
        return QStringLiteral("%1 is for files mode; in image mode the image is written as it is.")
            .arg(request.filesOptions.first());
    if (!request.moreDevices.isEmpty() &&
        (request.writeMode == UsbPlan::WriteMode::Files || !request.filesOptions.isEmpty()))
        return QStringLiteral("Several USB disks are written at once only in image mode.");
    return QString();
}

// restore-usb DEVICE and its options, in any order. Returns what is wrong, or
// nothing.
QString parseRestoreUsb(const Words& words, Request& request)
{
    QStringList operands;
    const QHash<QString, OptionSpec> known{{QStringLiteral("--yes"), {}},
                                           {QStringLiteral("--fs"), {1, {}}},
                                           {QStringLiteral("--label"), {1, {}}}};
    const QString wrong = scanOptions(
        QStringLiteral("restore-usb"), words, known,
        [&request](const QString& option, const QStringList& values) -> QString {
            if (option == QLatin1String("--yes")) {
                request.yes = true;
            } else if (option == QLatin1String("--label")) {
                request.label = values.first();
            } else {
                // FAT16 is for images that need it, not for a stick to keep.
                const std::optional<UsbPlan::FileSystem> fileSystem =
                    UsbPlan::FileSystemFromName(values.first());
                if (!fileSystem || *fileSystem == UsbPlan::FileSystem::Fat)
                    return QStringLiteral("--fs takes fat32, exfat or ntfs.");
                request.fileSystem = *fileSystem;
            }
            return QString();
        },
        operands);
    if (!wrong.isEmpty())
        return wrong;
    if (operands.size() != 1)
        return QStringLiteral("restore-usb takes one USB disk.");
    request.device = operands.first();
    return QString();
}

// edit IMAGE OUTPUT and its changes, kept in the order given. Returns what is
// wrong, or nothing.
QString parseEdit(const Words& words, Request& request)
{
    QStringList operands;
    const QHash<QString, OptionSpec> known{
        {QStringLiteral("--add"), {1, {}}},
        {QStringLiteral("--delete"), {1, {}}},
        {QStringLiteral("--label"), {1, {}}},
        {QStringLiteral("--rename"),
         {2, QStringLiteral("--rename takes an entry and a new name.")}}};
    const QString wrong = scanOptions(
        QStringLiteral("edit"), words, known,
        [&request](const QString& option, const QStringList& values) -> QString {
            QStringList edit = QStringList{option} + values;
            if (option == QLatin1String("--add")) {
                // PATH=FOLDER puts PATH into FOLDER; a path that exists as written
                // is taken whole, "=" and all.
                const QString value = edit.takeLast();
                const qsizetype equals = value.lastIndexOf(QLatin1Char('='));
                if (equals > 0 && !QFileInfo::exists(value))
                    edit << value.left(equals) << value.mid(equals + 1);
                else
                    edit << value << QString();
            }
            request.edits << edit;
            return QString();
        },
        operands);
    if (!wrong.isEmpty())
        return wrong;
    if (operands.size() < 2)
        return QStringLiteral("edit takes an image and an output image.");
    if (operands.size() > 2)
        return QStringLiteral("edit takes one image and one output image; %1 is neither.")
            .arg(operands.at(2));
    request.image = operands.at(0);
    request.output = operands.at(1);
    return QString();
}

} // namespace

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
    if (!commandNames().contains(first))
        return usageError(QStringLiteral("Unknown argument: %1").arg(first));

    const Words words = splitWords(arguments);
    if (words.head.contains(QStringLiteral("--help")) ||
        words.head.contains(QStringLiteral("-h"))) {
        request.mode = Request::Mode::Help;
        request.command = first;
        return request;
    }
    const QStringList operands = operandsOf(words);
    if (first == QLatin1String("list")) {
        if (operands.size() != 1)
            return usageError(QStringLiteral("list takes one image."));
        request.mode = Request::Mode::List;
        request.image = operands.at(0);
        return request;
    }
    if (first == QLatin1String("extract")) {
        if (operands.size() < 2)
            return usageError(QStringLiteral("extract takes an image and a destination folder."));
        request.mode = Request::Mode::Extract;
        request.image = operands.at(0);
        request.directory = operands.at(1);
        request.entries = operands.mid(2);
        return request;
    }
    if (first == QLatin1String("boot-info")) {
        if (operands.size() != 1)
            return usageError(QStringLiteral("boot-info takes one image."));
        request.mode = Request::Mode::BootInfo;
        request.image = operands.at(0);
        return request;
    }
    if (first == QLatin1String("drives")) {
        if (!operands.isEmpty())
            return usageError(QStringLiteral("drives takes no arguments."));
        request.mode = Request::Mode::Drives;
        return request;
    }
    if (first == QLatin1String("burn-disc")) {
        if (operands.size() != 2)
            return usageError(QStringLiteral("burn-disc takes an image and a drive."));
        request.mode = Request::Mode::BurnDisc;
        request.image = operands.at(0);
        request.device = operands.at(1);
        return request;
    }
    if (first == QLatin1String("burn-usb")) {
        const QString error = parseBurnUsb(words, request);
        if (!error.isEmpty())
            return usageError(error);
        request.mode = Request::Mode::BurnUsb;
        return request;
    }
    if (first == QLatin1String("restore-usb")) {
        const QString error = parseRestoreUsb(words, request);
        if (!error.isEmpty())
            return usageError(error);
        request.mode = Request::Mode::RestoreUsb;
        return request;
    }
    if (first == QLatin1String("copy-disc")) {
        if (operands.size() != 2)
            return usageError(QStringLiteral("copy-disc takes a drive and an output image."));
        request.mode = Request::Mode::CopyDisc;
        request.device = operands.at(0);
        request.output = operands.at(1);
        return request;
    }
    if (first == QLatin1String("edit")) {
        const QString error = parseEdit(words, request);
        if (!error.isEmpty())
            return usageError(error);
        request.mode = Request::Mode::Edit;
        return request;
    }
    // create [--type TYPE] OUTPUT PATH...: the type comes first when given.
    QStringList rest = words.head;
    if (rest.value(0) == QLatin1String("--type")) {
        if (!ImageBuild::TypeFromName(rest.value(1)))
            return usageError(QStringLiteral("--type takes joliet, iso9660 or udf."));
        request.type = rest.value(1);
        rest = rest.mid(2);
    }
    rest << words.tail;
    if (rest.size() < 2)
        return usageError(
            QStringLiteral("create takes an output image and at least one file or folder."));
    request.mode = Request::Mode::Create;
    request.image = rest.first();
    request.entries = rest.mid(1);
    return request;
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
                          .arg(child->isDir ? QStringLiteral("D") : QStringLiteral("F"),
                               child->size, child->time, path));
        printTree(*child);
    }
}

int g_signalPipe[2] = {-1, -1};

void onSignal(int number)
{
    const int saved = errno;
    const char byte = char(number);
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[1], &byte, 1);
    errno = saved;
}

// While it lives, SIGINT, SIGTERM and SIGHUP do not end Brenta at once: each
// is handed to `handle` from the event loop, so that a job can be stopped and
// what it made removed before Brenta exits. The handler itself only writes
// the signal's number into a pipe.
class SignalCatcher final
{
public:
    explicit SignalCatcher(std::function<void(int)> handle) : m_handle(std::move(handle))
    {
        if (::pipe2(g_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
            return;
        m_notifier = std::make_unique<QSocketNotifier>(g_signalPipe[0], QSocketNotifier::Read);
        QObject::connect(m_notifier.get(), &QSocketNotifier::activated, [this] {
            char byte = 0;
            while (::read(g_signalPipe[0], &byte, 1) == 1)
                m_handle(byte);
        });
        struct sigaction action = {};
        action.sa_handler = onSignal;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        for (size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &action, &m_previous[i]);
    }

    ~SignalCatcher()
    {
        if (!m_notifier)
            return;
        for (size_t i = 0; i < kSignals.size(); ++i)
            ::sigaction(kSignals[i], &m_previous[i], nullptr);
        m_notifier.reset();
        ::close(g_signalPipe[0]);
        ::close(g_signalPipe[1]);
        g_signalPipe[0] = g_signalPipe[1] = -1;
    }

    SignalCatcher(const SignalCatcher&) = delete;
    SignalCatcher& operator=(const SignalCatcher&) = delete;

private:
    static constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};

    std::function<void(int)> m_handle;
    std::unique_ptr<QSocketNotifier> m_notifier;
    std::array<struct sigaction, 3> m_previous = {};
};

// The exit status of a terminal form that a signal stopped, as a shell
// reports a process that signal ended: 130 for SIGINT, 143 for SIGTERM,
// 129 for SIGHUP.
int stoppedBy(int signal)
{
    return 128 + signal;
}

bool progressWanted()
{
    return ::isatty(STDERR_FILENO) == 1;
}

// Starts a job with `start` and waits for its end (Jobs::Wait). A SIGINT,
// SIGTERM or SIGHUP on the way asks `stopOnSignal` (by default: yes) and,
// where it says so, stops the job; the wait goes on until the job has ended,
// so what it made is removed before Brenta exits. Returns the signal that
// stopped the job, or 0.
int waitForJob(CJob& job, const std::function<void()>& start,
               const std::function<bool()>& stopOnSignal = {})
{
    int caught = 0;
    const SignalCatcher catcher([&](int signal) {
        if (caught != 0 || (stopOnSignal && !stopOnSignal()))
            return;
        caught = signal;
        job.Stop();
    });
    start();
    Jobs::Wait(job);
    return caught;
}

// Runs a job to its end (waitForJob) and reports as every terminal form
// does: exit status 0, or 1 with the job's message on standard error; a job
// a signal stopped exits as a shell reports that signal.
int runJob(CJob& job, bool showProgress, const std::function<void()>& start,
           const std::function<bool()>& stopOnSignal = {})
{
    const int caught = waitForJob(job, start, stopOnSignal);
    const bool succeeded = job.Succeeded();
    if (showProgress)
        print(stderr, QStringLiteral("\r\033[K"));
    if (caught != 0 && !succeeded)
        return stoppedBy(caught);
    if (!succeeded) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(job.Message()));
        return 1;
    }
    return 0;
}

} // namespace

int RunList(const Request& request)
{
    ItemTree tree;
    CListJob job(tree);
    if (const int status = runJob(job, false, [&] { job.Start(request.image); }))
        return status;
    print(stderr, QStringLiteral("brenta: the %1 tree\n").arg(job.Tree()));
    if (!job.Warning().isEmpty())
        print(stderr, QStringLiteral("brenta: warning: %1\n").arg(job.Warning()));
    for (const QString& name : job.LeftOut())
        print(stderr,
              QStringLiteral(
                  "brenta: warning: left out %1: the name leads outside the image's folders.\n")
                  .arg(name));
    printTree(tree.Root());
    std::fflush(stdout);
    return 0;
}

int RunBootInfo(const Request& request)
{
    ElTorito::Error error = ElTorito::Error::None;
    const std::optional<QString> text = ElTorito::BootInfo(request.image, &error);
    if (!text) {
        print(stderr, QStringLiteral("brenta: %1 has no valid El Torito boot record: %2\n")
                          .arg(request.image, ElTorito::ErrorText(error)));
        return 1;
    }
    print(stdout, *text);
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
        QObject::connect(&job, &CJob::progressed, [&job](int percent) {
            print(stderr, QStringLiteral("\r\033[K%1 %2%")
                              .arg(job.CurrentPhase() == CCreateJob::Phase::Copying
                                       ? QStringLiteral("Copying")
                                       : QStringLiteral("Building"))
                              .arg(percent));
        });
    }
    const int status = runJob(job, showProgress, [&] {
        job.Start(*ImageBuild::TypeFromName(request.type), request.image, request.entries);
    });
    // A stop leaves the copy worker ending on its own; its staging folder
    // goes when it has, which this process waits for before it exits.
    CFileCopy::WaitForRetired();
    return status;
}

int RunExtract(const Request& request)
{
    CExtractJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&job, &CExtractJob::extracting, [&job](const QString& entry) {
            print(stderr,
                  QStringLiteral("\r\033[K%1% %2").arg(qMax(job.Percent(), 0), 3).arg(entry));
        });
    }
    const int status = runJob(
        job, showProgress, [&] { job.Start(request.image, request.directory, request.entries); });
    if (status == 0 && !job.Message().isEmpty())
        print(stderr, QStringLiteral("brenta: warning: %1\n").arg(job.Message()));
    return status;
}

int RunDrives(const Request& /*request*/)
{
    QString text;
    for (const RemovableDrive& drive : Drives::Removable())
        text += QStringLiteral("usb\t%1\t%2\n").arg(drive.node, drive.text);
    COpticalScan scan;
    QObject::connect(&scan, &COpticalScan::entry,
                     [&text](const QString& entry, const QString& node) {
                         text += QStringLiteral("optical\t%1\t%2\n").arg(node, entry);
                     });
    scan.Start();
    Jobs::Wait(scan);
    print(stdout, text);
    return 0;
}

namespace {

// A drive named on the command line must be a block device node; what kind
// of drive it is, the disc tool finds out.
bool checkDevice(const QString& device)
{
    struct stat info;
    if (!device.startsWith(QLatin1Char('/')) ||
        ::stat(QFile::encodeName(device).constData(), &info) != 0 || !S_ISBLK(info.st_mode)) {
        print(stderr,
              QStringLiteral("brenta: %1 is not a drive's device node (such as /dev/sr0).\n")
                  .arg(device));
        return false;
    }
    return true;
}

// Starts the planning of a USB burn with `start` and runs the event loop
// until the job says whether the burn can go on, and why not.
template <typename Job, typename Start> std::pair<bool, QString> awaitPlan(Job& job, Start start)
{
    std::optional<std::pair<bool, QString>> said;
    QEventLoop loop;
    QObject::connect(&job, &Job::planned, &loop, [&](bool ok, const QString& message) {
        said.emplace(ok, message);
        loop.quit();
    });
    start();
    if (!said)
        loop.exec();
    return *said;
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
        QObject::connect(&job, &CDiscBurnJob::progressed, [](int percent) {
            print(stderr, QStringLiteral("\r\033[KBurning %1%").arg(percent));
        });
    }
    // A burn cut short would ruin the disc: it goes on, and Brenta with it.
    bool told = false;
    return runJob(
        job, showProgress, [&] { job.Start(request.image, request.device); },
        [&told] {
            if (!told)
                print(stderr,
                      QStringLiteral(
                          "\nbrenta: a disc burn cannot be stopped; it goes on to its end.\n"));
            told = true;
            return false;
        });
}

namespace {

// Asks on the terminal before a stick is erased; true for "y" or "yes".
bool agreesToErase(const QString& device)
{
    print(stderr, QStringLiteral("All data on %1 will be erased. Continue? [y/N] ").arg(device));
    std::fflush(stderr);
    char line[64] = {};
    if (std::fgets(line, sizeof line, stdin) == nullptr)
        return false;
    const QString answer = QString::fromLocal8Bit(line).trimmed().toLower();
    return answer == QLatin1String("y") || answer == QLatin1String("yes");
}

// Each phase on a line of its own; on a terminal the line also shows the
// phase's percentage as it changes.
class UsbBurnReport
{
public:
    explicit UsbBurnReport(bool terminal) : m_terminal(terminal) {}

    void Phase(CUsbBurnJob::Phase phase)
    {
        EndLine();
        m_text = CUsbBurnJob::PhaseTitle(phase);
        m_percent = -1;
        m_transfer.clear();
        print(stderr, m_terminal ? m_text : m_text + QLatin1Char('\n'));
        m_open = m_terminal;
    }

    // `percent` -1: the phase cannot tell it.
    void Progress(int percent)
    {
        if (!m_terminal || percent < 0)
            return;
        if (percent == m_percent)
            return;
        m_percent = percent;
        m_transfer.clear();
        Show();
    }

    // Bytes, speed and time left, after the percentage.
    void Transfer(const QString& text)
    {
        if (!m_terminal || m_percent < 0)
            return;
        m_transfer = text;
        Show();
    }

    void EndLine()
    {
        if (m_open)
            print(stderr, QStringLiteral("\n"));
        m_open = false;
    }

private:
    void Show()
    {
        QString line = QStringLiteral("\r\033[K%1 %2%").arg(m_text).arg(m_percent);
        if (!m_transfer.isEmpty())
            line += QStringLiteral(" (%1)").arg(m_transfer);
        print(stderr, line);
    }

    bool m_terminal;
    bool m_open = false;
    QString m_text;
    int m_percent = -1;
    QString m_transfer;
};

// Plans and burns with `job`, a CUsbBurnJob or, for several sticks, a
// CUsbMultiBurnJob; `plan` starts its planning.
template <typename Job, typename PlanStart>
int burnUsb(const Request& request, Job& job, PlanStart plan)
{
    UsbBurnReport report(progressWanted());
    CUsbBurnJob::Options options;
    options.image = request.image;
    options.device = request.device;
    options.scheme = request.scheme;
    options.fileSystem = request.fileSystem;
    options.label = request.label;
    options.autoMode = !request.writeMode.has_value();
    options.mode = request.writeMode.value_or(UsbPlan::WriteMode::Files);
    QObject::connect(&job, &Job::phase,
                     [&report](CUsbBurnJob::Phase phase) { report.Phase(phase); });
    QObject::connect(&job, &CJob::progressed, [&report](int percent) { report.Progress(percent); });
    QObject::connect(&job, &Job::transfer,
                     [&report](const QString& text) { report.Transfer(text); });
    const auto [plannedOk, refusal] = awaitPlan(job, [&] { plan(options); });
    report.EndLine();
    // The mode, once it is known, also when the plan refuses the burn.
    const UsbPlan::Decision& decision = job.Decision();
    const bool image = decision.mode == UsbPlan::WriteMode::Image;
    if (!decision.modeReason.isEmpty()) {
        print(stderr, QStringLiteral("Mode: %1: %2\n")
                          .arg(image ? QStringLiteral("image") : QStringLiteral("files"),
                               decision.modeReason));
    }
    if (!decision.checksumFile.isEmpty()) {
        print(stderr,
              QStringLiteral("Checksum: %1 names the image; its SHA-256 is compared with the "
                             "image's as the image is written.\n")
                  .arg(decision.checksumFile));
    }
    if (!plannedOk) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(refusal));
        return 1;
    }
    if (image && !request.filesOptions.isEmpty()) {
        print(stderr,
              QStringLiteral("brenta: warning: %1 is not used: the image is written as it is.\n")
                  .arg(request.filesOptions.join(QStringLiteral(", "))));
    }
    if (!image && decision.fileSystem != request.fileSystem) {
        print(stderr,
              QStringLiteral("brenta: the stick gets %1 instead of %2.\n")
                  .arg(UsbPlan::Name(decision.fileSystem), UsbPlan::Name(request.fileSystem)));
    }
    for (const QString& warning : decision.warnings)
        print(stderr, QStringLiteral("brenta: warning: %1\n").arg(warning));
    if (!request.yes &&
        !agreesToErase(
            (QStringList{request.device} + request.moreDevices).join(QStringLiteral(", ")))) {
        print(stderr, QStringLiteral("Nothing was written.\n"));
        return 1;
    }

    const int caught = waitForJob(job, [&] { job.Burn(); });
    report.EndLine();
    const bool succeeded = job.Succeeded();
    const QString message = job.Message();
    if (caught != 0 && !succeeded) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(message));
        return stoppedBy(caught);
    }
    // Several sticks: one result line each, those that were burned too.
    if (!succeeded && request.moreDevices.isEmpty()) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(message));
        return 1;
    }
    print(stdout, message + QLatin1Char('\n'));
    return succeeded ? 0 : 1;
}

} // namespace

int RunBurnUsb(const Request& request)
{
    if (!QFileInfo(request.image).isFile()) {
        print(stderr, QStringLiteral("brenta: %1 is not an image file.\n").arg(request.image));
        return 1;
    }
    const QStringList devices = QStringList{request.device} + request.moreDevices;
    // What each device really is, the helper checks before it touches it.
    for (const QString& device : devices) {
        if (!device.startsWith(QLatin1Char('/'))) {
            print(stderr, QStringLiteral("brenta: %1 is not a device node (such as /dev/sdb).\n")
                              .arg(device));
            return 1;
        }
    }
    if (devices.size() > 1) {
        CUsbMultiBurnJob job;
        return burnUsb(request, job,
                       [&](const CUsbBurnJob::Options& options) { job.Plan(options, devices); });
    }
    CUsbBurnJob job;
    return burnUsb(request, job, [&](const CUsbBurnJob::Options& options) { job.Plan(options); });
}

int RunRestoreUsb(const Request& request)
{
    // What the device really is, the helper checks before it touches it.
    if (!request.device.startsWith(QLatin1Char('/'))) {
        print(stderr, QStringLiteral("brenta: %1 is not a device node (such as /dev/sdb).\n")
                          .arg(request.device));
        return 1;
    }
    // A label the file system cannot hold is refused before the question.
    const UsbPlan::Label label = UsbPlan::CheckLabel(request.fileSystem, request.label);
    if (!label.problem.isEmpty()) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(label.problem));
        return 1;
    }
    if (!request.yes && !agreesToErase(request.device)) {
        print(stderr, QStringLiteral("Nothing was written.\n"));
        return 1;
    }
    UsbBurnReport report(progressWanted());
    CUsbBurnJob job;
    QObject::connect(&job, &CUsbBurnJob::phase,
                     [&report](CUsbBurnJob::Phase phase) { report.Phase(phase); });
    const int caught =
        waitForJob(job, [&] { job.Restore(request.device, request.fileSystem, request.label); });
    report.EndLine();
    if (!job.Succeeded()) {
        print(stderr, QStringLiteral("brenta: %1\n").arg(job.Message()));
        return caught != 0 ? stoppedBy(caught) : 1;
    }
    print(stdout, job.Message() + QLatin1Char('\n'));
    return 0;
}

int RunCopyDisc(const Request& request)
{
    if (!checkDevice(request.device))
        return 1;
    if (!QFileInfo(QFileInfo(request.output).absolutePath()).isDir()) {
        print(stderr,
              QStringLiteral("brenta: the folder of %1 does not exist.\n").arg(request.output));
        return 1;
    }
    CDiscCopyJob job;
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&job, &CDiscCopyJob::progressed, [](int percent) {
            print(stderr, QStringLiteral("\r\033[KReading %1%").arg(percent));
        });
    }
    return runJob(job, showProgress, [&] { job.Start(request.device, request.output); });
}

namespace {

// An entry named on the command line ("/" or "\\" between components, a
// leading "/" or none), or null.
Item* findEntry(CEditSession& session, const QString& entry)
{
    QString name = entry;
    name.replace(QLatin1Char('/'), QLatin1Char('\\'));
    while (name.startsWith(QLatin1Char('\\')))
        name.remove(0, 1);
    while (name.endsWith(QLatin1Char('\\')))
        name.chop(1);
    return name.isEmpty() ? &session.Contents().Root() : session.Contents().Find(name);
}

// Applies one change as the edit page would; returns what went wrong.
QString applyEdit(CEditSession& session, const QStringList& edit)
{
    const QString& option = edit.first();
    if (option == QLatin1String("--label")) {
        session.SetLabel(edit.at(1));
        return QString();
    }
    if (option == QLatin1String("--add")) {
        const QString& path = edit.at(1);
        if (!QFileInfo::exists(path))
            return QStringLiteral("%1 does not exist.").arg(path);
        Item* folder = findEntry(session, edit.at(2));
        if (folder == nullptr || !folder->isDir)
            return QStringLiteral("The image has no folder %1.").arg(edit.at(2));
        if (session.Add(*folder, {path}).isEmpty())
            return QStringLiteral("The image already has an entry named %1 there.")
                .arg(QFileInfo(path).fileName());
        return QString();
    }
    Item* item = findEntry(session, edit.at(1));
    if (item == nullptr || item == &session.Contents().Root())
        return QStringLiteral("The image has no entry %1.").arg(edit.at(1));
    QString why;
    if (option == QLatin1String("--rename")) {
        if (!session.Rename(*item, edit.at(2), &why))
            return why.isEmpty() ? QStringLiteral("%1 already has that name.").arg(edit.at(1))
                                 : why;
        return QString();
    }
    if (!session.Remove({item}, &why))
        return why;
    return QString();
}

} // namespace

int RunEdit(const Request& request)
{
    if (!QFileInfo(request.image).isFile()) {
        print(stderr, QStringLiteral("brenta: %1 does not exist.\n").arg(request.image));
        return 1;
    }
    // A session let go while its working copy is being written leaves the
    // copy worker ending on its own; the folder goes when it has, which this
    // process waits for before it exits (after the session, declared below).
    const auto waitForCopies = qScopeGuard([] { CFileCopy::WaitForRetired(); });
    CEditSession session;
    if (const int status = runJob(session.Loading(), false, [&] { session.Load(request.image); }))
        return status;
    for (const QStringList& edit : request.edits) {
        const QString problem = applyEdit(session, edit);
        if (!problem.isEmpty()) {
            print(stderr, QStringLiteral("brenta: %1\n")
                              .arg(QString(problem).replace(QLatin1Char('\n'), QLatin1Char(' '))));
            return 1;
        }
    }
    const bool showProgress = progressWanted();
    if (showProgress) {
        QObject::connect(&session.Saving(), &CJob::progressed, [&session](int percent) {
            print(stderr, QStringLiteral("\r\033[K%1 %2%")
                              .arg(session.CurrentPhase() == CEditSession::Phase::Saving
                                       ? QStringLiteral("Saving")
                                       : QStringLiteral("Reading"))
                              .arg(percent));
        });
    }
    return runJob(session.Saving(), showProgress, [&] { session.Save(request.output); });
}

QString VersionText()
{
    return QStringLiteral("Brenta %1\n").arg(QStringLiteral(BRENTA_VERSION));
}

namespace {

// One terminal form: its synopsis (continuation lines indented as they stand
// under "brenta "), its heading in the list of commands and what it does.
struct CommandUsage
{
    const char* name;
    QStringList synopsis;
    QString heading;
    QStringList about;
};

const QList<CommandUsage>& commandUsages()
{
    static const QList<CommandUsage> usages{
        {"list",
         {QStringLiteral("list IMAGE")},
         QStringLiteral("list IMAGE"),
         {QStringLiteral("print every entry: D or F, size, time, path (tab separated)")}},
        {"extract",
         {QStringLiteral("extract IMAGE DEST [ENTRY...]")},
         QStringLiteral("extract IMAGE DEST [ENTRY...]"),
         {QStringLiteral("extract the entries (paths inside the image, \"/\" between"),
          QStringLiteral("components; none means the whole image) into DEST")}},
        {"create",
         {QStringLiteral("create [--type joliet|iso9660|udf] OUTPUT PATH...")},
         QStringLiteral("create [--type TYPE] OUTPUT PATH..."),
         {QStringLiteral("build OUTPUT from the files and folders, each at the"),
          QStringLiteral("image's root under its own name (type joliet if not given)")}},
        {"boot-info",
         {QStringLiteral("boot-info IMAGE")},
         QStringLiteral("boot-info IMAGE"),
         {QStringLiteral("print the image's El Torito boot setup")}},
        {"drives",
         {QStringLiteral("drives")},
         QStringLiteral("drives"),
         {QStringLiteral("print the drives Brenta offers, USB ones first: usb or"),
          QStringLiteral("optical, the device node and the list text (tab separated)")}},
        {"burn-disc",
         {QStringLiteral("burn-disc IMAGE DEVICE")},
         QStringLiteral("burn-disc IMAGE DEVICE"),
         {QStringLiteral("burn IMAGE to the disc in DEVICE and eject it")}},
        {"burn-usb",
         {QStringLiteral("burn-usb IMAGE DEVICE [DEVICE...] [--mode auto|image|files]"),
          QStringLiteral("                [--scheme mbr|gpt] [--fs fat32|ntfs|exfat|fat]"),
          QStringLiteral("                [--label LABEL] [--yes]")},
         QStringLiteral("burn-usb IMAGE DEVICE [DEVICE...] [OPTION...]"),
         {QStringLiteral("erase the USB disk DEVICE (such as /dev/sdb) and put"),
          QStringLiteral("IMAGE on it, then check it; asks first unless --yes."),
          QStringLiteral("--mode image writes IMAGE as it is and reads it back,"),
          QStringLiteral("and compares it with SHA256SUMS or IMAGE.sha256 beside"),
          QStringLiteral("it where one names it;"),
          QStringLiteral("--mode files copies its files onto a new file system,"),
          QStringLiteral("makes it bootable where the image allows and checks"),
          QStringLiteral("every file; --mode auto (the default) takes image for"),
          QStringLiteral("an image with a partition table, else files."),
          QStringLiteral("Files mode only: --scheme mbr|gpt (mbr if not given;"),
          QStringLiteral("gpt takes FAT32), --fs fat32|ntfs|exfat|fat (fat32),"),
          QStringLiteral("--label LABEL (refused with --mode image, unused when"),
          QStringLiteral("auto picks image). Several DEVICEs are written at once"),
          QStringLiteral("from one read of IMAGE, in image mode only, one result"),
          QStringLiteral("line each")}},
        {"restore-usb",
         {QStringLiteral("restore-usb DEVICE [--fs fat32|exfat|ntfs] [--label LABEL]"),
          QStringLiteral("                   [--yes]")},
         QStringLiteral("restore-usb DEVICE [OPTION...]"),
         {QStringLiteral("erase the USB disk DEVICE, whatever it held (an image"),
          QStringLiteral("written as it is too), and leave one partition with"),
          QStringLiteral("--fs fat32|exfat|ntfs (fat32 if not given) and --label"),
          QStringLiteral("LABEL; asks first unless --yes")}},
        {"copy-disc",
         {QStringLiteral("copy-disc DEVICE OUTPUT")},
         QStringLiteral("copy-disc DEVICE OUTPUT"),
         {QStringLiteral("read the disc in DEVICE into the image file OUTPUT"),
          QStringLiteral("DEVICE is a device node such as /dev/sr0: one that"),
          QStringLiteral("'drives' lists, or any block device you name. Brenta"),
          QStringLiteral("checks only that it is a block device; the disc tools"),
          QStringLiteral("refuse a drive that cannot burn or read a disc.")}},
        {"edit",
         {QStringLiteral("edit IMAGE OUTPUT [--add PATH[=FOLDER]]..."),
          QStringLiteral("            [--rename ENTRY NEWNAME]... [--delete ENTRY]..."),
          QStringLiteral("            [--label LABEL]")},
         QStringLiteral("edit IMAGE OUTPUT [CHANGE...]"),
         {QStringLiteral("write OUTPUT: IMAGE with the changes, applied in the"),
          QStringLiteral("order given, and its whole boot setup."),
          QStringLiteral("--add PATH[=FOLDER] adds a file or folder (into the"),
          QStringLiteral("root, or FOLDER); --rename ENTRY NEWNAME gives an"),
          QStringLiteral("entry a new last name; --delete ENTRY removes it;"),
          QStringLiteral("--label LABEL sets the volume label. Entries are paths"),
          QStringLiteral("inside the image, \"/\" between components. Files the"),
          QStringLiteral("boot setup names cannot be renamed or deleted")}},
    };
    return usages;
}

// "brenta " and the synopsis, continuation lines under the first one's words.
QString synopsisLines(const QString& lead, const CommandUsage& usage)
{
    QString text;
    for (const QString& line : usage.synopsis) {
        const QString start = text.isEmpty() ? lead + QStringLiteral("brenta ")
                                             : QString(lead.size(), QLatin1Char(' '));
        text += start + line + QLatin1Char('\n');
    }
    return text;
}

// The heading and what the command does, in two columns where the heading fits.
QString commandEntry(const CommandUsage& usage)
{
    const int column = 25;
    const QString indent(column, QLatin1Char(' '));
    QString text = QStringLiteral("  ") + usage.heading;
    QStringList about = usage.about;
    if (text.size() < column)
        text += QString(column - text.size(), QLatin1Char(' ')) + about.takeFirst();
    text += QLatin1Char('\n');
    for (const QString& line : about)
        text += indent + line + QLatin1Char('\n');
    return text;
}

const char kOptionsText[] =
    "Options:\n"
    "  -h, --help             show this help and exit\n"
    "  -v, --version          show the version and exit\n"
    "  --screenshots FOLDER   render every window and dialog to PNG files in FOLDER\n"
    "\n"
    "Environment:\n"
    "  BRENTA_TOOLS_DIR       folder searched first for 7z/7z, cdrtools/mkisofs,\n"
    "                         cdrtools/cdrecord, cdrtools/readcd, wimlib/wimlib-imagex,\n"
    "                         xorriso/xorriso and usbhelper/brenta-usb-helper\n"
    "\n"
    "Logging: while a file named config.dat exists beside the brenta executable,\n"
    "Brenta appends its log to log.txt in ~/.local/share/brenta.\n";

} // namespace

QString HelpText()
{
    QString text = QStringLiteral("Usage: brenta [OPTION]\n");
    for (const CommandUsage& usage : commandUsages())
        text += synopsisLines(QStringLiteral("       "), usage);
    text += QStringLiteral("Burn, extract, create, edit and copy ISO 9660 disc images.\n"
                           "\n"
                           "Without an option Brenta opens its window.\n"
                           "\n"
                           "Commands:\n");
    for (const CommandUsage& usage : commandUsages())
        text += commandEntry(usage);
    return text + QLatin1Char('\n') + QLatin1String(kOptionsText);
}

QString UsageText(const QString& command)
{
    for (const CommandUsage& usage : commandUsages()) {
        if (command != QLatin1String(usage.name))
            continue;
        QString text = synopsisLines(QStringLiteral("Usage: "), usage) + QLatin1Char('\n');
        for (const QString& line : usage.about)
            text += QStringLiteral("  ") + line + QLatin1Char('\n');
        return text + QStringLiteral("\n"
                                     "\"--\" ends the options: what follows it is taken as it is,\n"
                                     "even when it starts with \"-\".\n");
    }
    return HelpText();
}

} // namespace Cli
