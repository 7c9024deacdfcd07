#include "media/disctools.h"

#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QRegularExpression>

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

#include "core/util.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace DiscTools {
namespace {

QString normalised(QString text)
{
    return Util::CollapseSpaces(text.toLower()).trimmed();
}

bool saidAny(const QStringList& lines, std::initializer_list<const char*> texts)
{
    for (const QString& line : lines) {
        for (const char* text : texts) {
            if (line.contains(QLatin1String(text), Qt::CaseInsensitive))
                return true;
        }
    }
    return false;
}

// The figure after `key` up to `until` (or the end), blanks allowed around it.
std::optional<qint64> numberAfter(const QString& line, const QString& key,
                                  const QString& until = QString())
{
    const qsizetype at = line.indexOf(key);
    if (at < 0)
        return std::nullopt;
    QString text = line.mid(at + key.size());
    if (!until.isEmpty()) {
        const qsizetype end = text.indexOf(until);
        if (end >= 0)
            text.truncate(end);
    }
    text.remove(QLatin1Char('\r')).remove(QLatin1Char('\n'));
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    return ok ? std::optional<qint64>(value) : std::nullopt;
}

const QString kBusy = QStringLiteral(
    "The drive is in use (a disc in it may be mounted). Unmount the disc and try again.");

} // namespace

std::optional<ScanLine> ParseScanLine(const QString& line)
{
    // "\t1,0,0\t100) 'VENDOR' 'PRODUCT' 'REV' Removable CD-ROM"
    static const QRegularExpression device(
        QStringLiteral(R"(^\t\s*(\d+),(\d+),(\d+)\s+\d+\)\s*('.*')(.*)$)"),
        QRegularExpression::DotMatchesEverythingOption);
    QString text = line;
    while (text.endsWith(QLatin1Char('\n')) || text.endsWith(QLatin1Char('\r')))
        text.chop(1);
    const QRegularExpressionMatch match = device.match(text);
    if (!match.hasMatch()) {
        Util::WriteLog(line + QStringLiteral("Not match the RegExp"));
        return std::nullopt;
    }
    ScanLine scan;
    scan.bus = match.captured(1).toInt();
    scan.target = match.captured(2).toInt();
    scan.lun = match.captured(3).toInt();
    scan.address =
        QStringLiteral("%1,%2,%3").arg(match.captured(1), match.captured(2), match.captured(3));
    const QString quoted = match.captured(4);
    scan.name = Util::CollapseSpaces(QString(quoted).remove(QLatin1Char('\''))).trimmed();
    const QStringList parts = quoted.split(QLatin1Char('\''));
    // 'vendor' 'product' 'rev' splits into "", vendor, " ", product, " ", rev, "".
    scan.product = parts.size() > 3 ? parts.at(3) : QString();
    const QString kind = match.captured(5).trimmed();
    scan.optical = kind.endsWith(QLatin1String("CD-ROM")) || kind.endsWith(QLatin1String("WORM"));
    return scan;
}

std::optional<QByteArray> InquiryProduct(const QString& node)
{
    const int fd = ::open(QFile::encodeName(node).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    unsigned char cdb[6] = {0x12, 0, 0, 0, 36, 0};
    unsigned char data[36] = {};
    unsigned char sense[32] = {};
    sg_io_hdr_t request;
    std::memset(&request, 0, sizeof request);
    request.interface_id = 'S';
    request.dxfer_direction = SG_DXFER_FROM_DEV;
    request.cmd_len = sizeof cdb;
    request.cmdp = cdb;
    request.dxfer_len = sizeof data;
    request.dxferp = data;
    request.mx_sb_len = sizeof sense;
    request.sbp = sense;
    request.timeout = 5000;
    const bool ok =
        ::ioctl(fd, SG_IO, &request) == 0 && (request.info & SG_INFO_OK_MASK) == SG_INFO_OK;
    ::close(fd);
    if (!ok)
        return std::nullopt;
    QByteArray product(reinterpret_cast<const char*>(data + 16), 16);
    const qsizetype zero = product.indexOf('\0');
    return zero >= 0 ? product.left(zero) : product;
}

QString MatchDrive(const ScanLine& line, const QList<OpticalDrive>& drives,
                   const InquiryFunction& inquiry)
{
    // The channel is not printed by the scan and not compared.
    for (const OpticalDrive& drive : drives) {
        if (drive.host == line.bus && drive.target == line.target && drive.lun == line.lun)
            return drive.node;
    }
    const QString name = normalised(line.name);
    for (const OpticalDrive& drive : drives) {
        if (drive.host >= 0 || !inquiry)
            continue;
        const std::optional<QByteArray> product = inquiry(drive.node);
        if (!product)
            continue;
        const QString wanted = normalised(QString::fromLatin1(*product));
        if (!wanted.isEmpty() && name.contains(wanted))
            return drive.node;
    }
    Util::WriteLog(
        QStringLiteral("No optical drive answers to %1 (%2)").arg(line.address, line.name));
    return QString();
}

QList<ListEntry> OpticalEntries(const QList<ScanLine>& scanned, const QList<OpticalDrive>& drives,
                                const InquiryFunction& inquiry, bool unscanned)
{
    QList<ListEntry> entries;
    QStringList listed;
    for (const ScanLine& line : scanned) {
        const QString node = MatchDrive(line, drives, inquiry);
        if (node.isEmpty() || listed.contains(node))
            continue;
        listed << node;
        entries.append({node + QStringLiteral(": ") + line.name, node});
    }
    // Drives the scan could not open (it needs the generic SCSI nodes) are
    // offered all the same, named as the system knows them.
    for (const OpticalDrive& drive : drives) {
        if (unscanned && !listed.contains(drive.node))
            entries.append({drive.Text(), drive.node});
    }
    return entries;
}

OpticalView ShowOptical(const QString& kept, const QList<ListEntry>& entries, bool done)
{
    OpticalView view;
    view.entries = entries;
    if (!entries.isEmpty())
        view.selected = 0;
    for (int i = 0; i < entries.size(); ++i) {
        if (!kept.isEmpty() && entries.at(i).node == kept)
            view.selected = i;
    }
    if (done && entries.isEmpty())
        view.placeholder = QStringLiteral("No CD/DVD drive found");
    return view;
}

std::optional<int> ParseBurnProgress(const QString& line)
{
    if (line.indexOf(QLatin1String("written (")) <= 0 || line.indexOf(QLatin1String("of")) <= 0)
        return std::nullopt;
    const qsizetype colon = line.indexOf(QLatin1Char(':'));
    if (colon <= 0)
        return std::nullopt;
    const QString rest = line.mid(colon + 1);
    const qsizetype of = rest.indexOf(QLatin1String("of"));
    if (of < 0)
        return std::nullopt;
    const qint64 written = rest.left(of).trimmed().toLongLong();
    const QString after = rest.mid(of + 2).trimmed();
    const qsizetype blank = after.indexOf(QLatin1Char(' '));
    if (blank < 0)
        return std::nullopt;
    const qint64 total = after.left(blank).toLongLong();
    if (total <= 0)
        return std::nullopt;
    return int(written * 100 / total);
}

QString BurnTransferText(const QString& line, qint64 elapsedMs)
{
    static const QRegularExpression pattern(
        QStringLiteral(R"(:\s*(\d+) of\s+(\d+) MB written.*?(?:\s(\d+(?:\.\d+)?x)\.?)?\s*$)"));
    const QRegularExpressionMatch match = pattern.match(line);
    if (!match.hasMatch())
        return QString();
    const qint64 written = match.captured(1).toLongLong();
    const qint64 total = match.captured(2).toLongLong();
    if (total <= 0)
        return QString();
    QString text = QStringLiteral("%1 of %2 MB").arg(written).arg(total);
    if (!match.captured(3).isEmpty())
        text += QStringLiteral(", ") + match.captured(3);
    if (written > 0 && written < total && elapsedMs > 0)
        text += QStringLiteral(", ") +
                Util::FormatTimeLeft(elapsedMs * (total - written) / written / 1000);
    return text;
}

std::optional<qint64> ParseReadEnd(const QString& line)
{
    return numberAfter(line, QStringLiteral("end:"));
}

std::optional<qint64> ParseReadAddress(const QString& line)
{
    return numberAfter(line, QStringLiteral("addr:"), QStringLiteral("cnt:"));
}

QStringList BurnArguments(const QString& node, const QString& image)
{
    // The image goes last and absolute, so it can never pass for an option.
    return {QStringLiteral("-v"),
            QStringLiteral("-eject"),
            QStringLiteral("dev=") + node,
            QStringLiteral("-sao"),
            QStringLiteral("driveropts=burnfree"),
            QFileInfo(image).absoluteFilePath()};
}

QStringList CopyArguments(const QString& node, const QString& output)
{
    return {QStringLiteral("-dev=") + node,
            QStringLiteral("-f=") + QFileInfo(output).absoluteFilePath()};
}

QStringList EjectArguments(const QString& node)
{
    return {QStringLiteral("dev=") + node, QStringLiteral("-eject")};
}

QString BurnFailure(int exitCode, const QStringList& lines)
{
    if (saidAny(lines, {"No disk / Wrong disk", "medium not present", "CD/DVD-Recorder not ready"}))
        return QStringLiteral(
            "There is no writable disc in the drive. Insert a blank disc and try again.");
    if (saidAny(lines, {"may not fit", "does not fit", "too small", "Not enough space"}))
        return QStringLiteral("The image does not fit on the disc in the drive.");
    if (saidAny(lines, {"Device or resource busy"}))
        return kBusy;
    if (saidAny(lines, {"no CD/DVD-Recorder", "Illegal write mode", "does not support SAO"}))
        return QStringLiteral("This drive cannot write discs of this kind.");
    if (exitCode == 254 || saidAny(lines, {"write error", "error after"}))
        return QStringLiteral(
            "Writing failed part of the way through; the disc is probably unusable.");
    if (saidAny(lines, {"Cannot open SCSI driver", "Cannot open"}))
        return QStringLiteral("The drive could not be opened.");
    return QString();
}

QString CopyFailure(int exitCode, const QStringList& lines)
{
    Q_UNUSED(exitCode)
    if (saidAny(lines, {"Device not ready", "medium not present"}))
        return QStringLiteral("There is no disc in the drive, or it is not ready yet.");
    if (saidAny(lines, {"not corrected", "could not be read correctly"}))
        return QStringLiteral(
            "Some sectors of the disc could not be read, so the image would be damaged.");
    if (saidAny(lines, {"Cannot write", "No space left"}))
        return QStringLiteral("The image file could not be written (is the disk full?).");
    if (saidAny(lines, {"Device or resource busy"}))
        return kBusy;
    if (saidAny(lines, {"Cannot open"}))
        return QStringLiteral("The drive could not be opened.");
    return QString();
}

QString EjectFailure(int exitCode, const QStringList& lines)
{
    Q_UNUSED(exitCode)
    if (saidAny(lines, {"Device or resource busy"}))
        return kBusy;
    if (saidAny(lines, {"No such file or directory", "Cannot open"}))
        return QStringLiteral("The drive could not be found.");
    return QString();
}

} // namespace DiscTools

namespace {

QString writerName()
{
    return ToolLocator::DisplayName(ToolLocator::Tool::DiscWriter);
}

// What the user reads when a disc tool did not succeed: the plain reason
// where the output tells it, then the tool's own words.
QString failureMessage(const QString& what, const QString& plain, const CRunCommandThread& runner,
                       const QString& toolName)
{
    QString text = what;
    if (!plain.isEmpty())
        text += QLatin1Char(' ') + plain;
    return text + QLatin1Char(' ') + runner.FailureText(toolName);
}

} // namespace

COpticalScan::COpticalScan(QObject* parent) : CJob(parent), m_inquiry(DiscTools::InquiryProduct) {}

COpticalScan::~COpticalScan()
{
    CRunCommandThread::Dispose(m_runner);
}

void COpticalScan::Start()
{
    Stop();
    Begin();
    m_scanned.clear();
    m_sent.clear();
    m_drives = Drives::Optical();
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, &COpticalScan::OnLine);
    connect(m_runner, &CRunCommandThread::sigfinished, this, &COpticalScan::OnFinished);
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::DiscWriter),
                         {QStringLiteral("-scanbus")});
    m_runner->StartCommand(QThread::InheritPriority);
}

void COpticalScan::Stop()
{
    // The scan writes nothing: it is done with as soon as it is let go.
    CRunCommandThread::Dispose(m_runner);
    Finish(false, StoppedMessage());
}

void COpticalScan::OnLine(const QString& line)
{
    const std::optional<DiscTools::ScanLine> scan = DiscTools::ParseScanLine(line);
    if (!scan)
        return;
    m_scanned << *scan;
    SendNew(false);
}

void COpticalScan::OnFinished()
{
    m_runner->deleteLater();
    m_runner = nullptr;
    SendNew(true);
    Finish(true, QString());
}

void COpticalScan::SendNew(bool unscanned)
{
    // The list as far as it is known; what was sent already stays where it is.
    const QList<DiscTools::ListEntry> known =
        DiscTools::OpticalEntries(m_scanned, m_drives, m_inquiry, unscanned);
    for (const DiscTools::ListEntry& drive : known) {
        if (!m_sent.contains(drive.node)) {
            m_sent << drive.node;
            Q_EMIT entry(drive.text, drive.node);
        }
    }
}

CDiscBurnJob::CDiscBurnJob(QObject* parent) : CJob(parent) {}

CDiscBurnJob::~CDiscBurnJob()
{
    CRunCommandThread::Dispose(m_runner);
}

void CDiscBurnJob::Start(const QString& image, const QString& node)
{
    if (IsRunning())
        return;
    Begin();
    m_trackWritten = false;
    m_clock.start();
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, [this](const QString& line) {
        if (line.contains(QLatin1String("Total bytes read/written")))
            m_trackWritten = true;
        if (const std::optional<int> percent = DiscTools::ParseBurnProgress(line))
            Progress(*percent, DiscTools::BurnTransferText(line, m_clock.elapsed()));
    });
    connect(m_runner, &CRunCommandThread::sigfinished, this, [this] {
        const bool ok =
            m_runner->GetResult() == CRunCommandThread::Result::Success && m_trackWritten;
        const QString message =
            ok ? QStringLiteral("Burning disc successfully.")
               : failureMessage(QStringLiteral("The disc was not burned."),
                                DiscTools::BurnFailure(m_runner->ExitCode(), m_runner->LastLines()),
                                *m_runner, writerName());
        m_runner->deleteLater();
        m_runner = nullptr;
        Finish(ok, message);
    });
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::DiscWriter),
                         DiscTools::BurnArguments(node, image));
    m_runner->StartCommand(QThread::InheritPriority);
}

CDiscCopyJob::CDiscCopyJob(QObject* parent) : CJob(parent) {}

CDiscCopyJob::~CDiscCopyJob()
{
    m_next.clear();
    Stop();
}

void CDiscCopyJob::Start(const QString& node, const QString& output)
{
    // A copy under way is stopped; its end is told first, and this copy
    // follows once its reader has ended.
    Stop();
    if (m_stopping) {
        m_next = QStringList{node, output};
        return;
    }
    Begin();
    m_output = QFileInfo(output).absoluteFilePath();
    // The disc is read into a part file that replaces the output only when
    // the copy is complete.
    m_part = Util::PartPath(m_output);
    m_end = -1;
    m_last = -1;
    m_readError = false;
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, [this](const QString& line) {
        // The reader tells the disc's sector count once, then each address it reads.
        if (m_end < 0) {
            if (const std::optional<qint64> end = DiscTools::ParseReadEnd(line))
                m_end = *end;
        }
        if (const std::optional<qint64> address = DiscTools::ParseReadAddress(line)) {
            m_last = *address;
            if (m_end > 0)
                Progress(int(qMin(m_last, m_end) * 100 / m_end), QString());
        }
        // The reader ends with status 0 even when it could not read or write
        // everything; only its words tell.
        if (line.contains(QLatin1String("not corrected")) ||
            line.contains(QLatin1String("Cannot write")))
            m_readError = true;
    });
    connect(m_runner, &CRunCommandThread::sigfinished, this, [this] {
        const bool complete = m_end >= 0 && m_last == m_end && !m_readError &&
                              QFileInfo(m_part).size() == m_end * 2048;
        bool ok = m_runner->GetResult() == CRunCommandThread::Result::Success && complete;
        QString message = QStringLiteral("Copy CD/DVD successfully!");
        QString error;
        if (ok && !Util::CommitPart(m_part, m_output, &error)) {
            ok = false;
            message = QStringLiteral("The disc was read but could not be saved as %1 (%2).")
                          .arg(m_output, error);
        } else if (!ok) {
            QString plain = DiscTools::CopyFailure(m_runner->ExitCode(), m_runner->LastLines());
            if (plain.isEmpty() && m_runner->GetResult() == CRunCommandThread::Result::Success)
                plain = QStringLiteral("The reader stopped before the end of the disc.");
            message = failureMessage(QStringLiteral("The disc was not copied."), plain, *m_runner,
                                     ToolLocator::DisplayName(ToolLocator::Tool::DiscReader));
            // An image with holes is worse than none.
            QFile::remove(m_part);
        }
        m_runner->deleteLater();
        m_runner = nullptr;
        Finish(ok, message);
    });
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::DiscReader),
                         DiscTools::CopyArguments(node, m_part));
    m_runner->StartCommand(QThread::InheritPriority);
}

void CDiscCopyJob::Stop()
{
    if (m_runner == nullptr)
        return;
    m_stopping = true;
    // The reader's file is removed once the reader has ended, so it cannot
    // write the file again afterwards; only then is the copy over.
    CRunCommandThread::StopThen(m_runner, [self = QPointer<CDiscCopyJob>(this), part = m_part] {
        QFile::remove(part);
        if (self == nullptr)
            return;
        self->m_stopping = false;
        self->Finish(false,
                     StoppedMessage() + QStringLiteral(" The unfinished image file was removed."));
        if (const QStringList next = std::exchange(self->m_next, QStringList()); !next.isEmpty())
            self->Start(next.at(0), next.at(1));
    });
}

CEjectJob::CEjectJob(QObject* parent) : CJob(parent) {}

CEjectJob::~CEjectJob()
{
    CRunCommandThread::Dispose(m_runner);
}

void CEjectJob::Start(const QString& node)
{
    // The tray is on its way already.
    if (IsRunning())
        return;
    Begin();
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::sigfinished, this, [this] {
        const bool ok = m_runner->GetResult() == CRunCommandThread::Result::Success;
        const QString message = ok ? QString()
                                   : failureMessage(QStringLiteral("The tray could not be opened."),
                                                    DiscTools::EjectFailure(m_runner->ExitCode(),
                                                                            m_runner->LastLines()),
                                                    *m_runner, writerName());
        m_runner->deleteLater();
        m_runner = nullptr;
        Finish(ok, message);
    });
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::DiscWriter),
                         DiscTools::EjectArguments(node));
    m_runner->StartCommand(QThread::InheritPriority);
}

void CEjectJob::Stop()
{
    CRunCommandThread::Dispose(m_runner);
    Finish(false, StoppedMessage());
}
