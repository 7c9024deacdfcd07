#include "iso/imagesave.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include "core/util.h"
#include "iso/isoprobe.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace ImageSave {
namespace {

// An entry's path as xorriso names it: absolute inside the image. It never
// starts with "-", so xorriso cannot read it as a command.
QString inImage(const QString& path)
{
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

// A report's path as the session names entries: without the leading "/".
QString entryPath(const QString& path)
{
    QString entry = path.trimmed();
    while (entry.startsWith(QLatin1Char('/')))
        entry.remove(0, 1);
    return entry;
}

// A file as xorriso must be given it: with "stdio:" it is taken for a file
// wherever it lies, also below /dev (a tmpfs in /dev/shm), never for a drive.
QString asFile(const QString& path)
{
    return QStringLiteral("stdio:") + QFileInfo(path).absoluteFilePath();
}

} // namespace

QStringList ReportArguments(const QString& image)
{
    return {QStringLiteral("-abort_on"),
            QStringLiteral("FAILURE"),
            QStringLiteral("-return_with"),
            QStringLiteral("FAILURE"),
            QStringLiteral("32"),
            QStringLiteral("-indev"),
            asFile(image),
            QStringLiteral("-report_el_torito"),
            QStringLiteral("plain"),
            QStringLiteral("-report_el_torito"),
            QStringLiteral("as_mkisofs"),
            QStringLiteral("-report_system_area"),
            QStringLiteral("plain")};
}

BootReport ParseReport(const QStringList& lines)
{
    // "El Torito img path :   1  /boot/x.img", "GPT partition path :   2  /efi.img"
    static const QRegularExpression numberedPath(QStringLiteral(
        "^(?:El Torito img path|GPT partition path|MBR partition path|APM partition path)\\s*:\\s*"
        "\\d+\\s+(/.*)$"));
    static const QLatin1String catalogPath("El Torito cat path :");
    static const QLatin1String summary("System area summary:");

    BootReport report;
    const auto addFile = [&report](const QString& path) {
        const QString entry = entryPath(path);
        if (!entry.isEmpty() && !report.bootFiles.contains(entry))
            report.bootFiles << entry;
    };
    for (const QString& raw : lines) {
        const QString line = raw.trimmed();
        if (line.startsWith(catalogPath)) {
            addFile(line.mid(catalogPath.size()));
        } else if (const QRegularExpressionMatch match = numberedPath.match(line);
                   match.hasMatch()) {
            addFile(match.captured(1));
        } else if (line.startsWith(summary)) {
            report.systemArea = line.mid(summary.size()).trimmed();
        } else if (line.startsWith(QLatin1Char('-'))) {
            report.asMkisofs << line;
        }
    }
    return report;
}

QStringList SaveArguments(const QString& image, const std::vector<Change>& changes,
                          const QString& part, bool joliet, bool rockRidge, bool alignCylinders)
{
    // Any complaint ends the run: a change that cannot be made (an entry
    // that is not there, a label that is too long) fails the save instead of
    // leaving an image without it. Names are taken as they are, never as
    // patterns, whatever "*" or "?" they hold.
    QStringList arguments{QStringLiteral("-abort_on"),    QStringLiteral("SORRY"),
                          QStringLiteral("-return_with"), QStringLiteral("SORRY"),
                          QStringLiteral("32"),           QStringLiteral("-iso_rr_pattern"),
                          QStringLiteral("off"),          QStringLiteral("-disk_pattern"),
                          QStringLiteral("off")};
    if (!rockRidge)
        arguments << QStringLiteral("-rockridge") << QStringLiteral("off");
    arguments << QStringLiteral("-indev") << asFile(image) << QStringLiteral("-outdev")
              << asFile(part) << QStringLiteral("-boot_image") << QStringLiteral("any")
              << QStringLiteral("replay");
    if (alignCylinders)
        arguments << QStringLiteral("-boot_image") << QStringLiteral("any")
                  << QStringLiteral("partition_cyl_align=on");
    // A loaded image keeps its Joliet tree only when asked.
    if (joliet)
        arguments << QStringLiteral("-joliet") << QStringLiteral("on")
                  << QStringLiteral("-compliance") << QStringLiteral("joliet_long_names");
    const QString endOfList = QStringLiteral("--");
    for (const Change& change : changes) {
        switch (change.kind) {
        case Change::Kind::Add:
            // -map takes exactly two arguments: a source named "-x" stays a source.
            arguments << QStringLiteral("-map") << QFileInfo(change.source).absoluteFilePath()
                      << inImage(change.path);
            break;
        case Change::Kind::Rename:
            arguments << QStringLiteral("-mv") << inImage(change.path) << inImage(change.newPath)
                      << endOfList;
            break;
        case Change::Kind::Delete:
            arguments << QStringLiteral("-rm_r") << inImage(change.path) << endOfList;
            break;
        case Change::Kind::Label:
            arguments << QStringLiteral("-volid") << change.label;
            break;
        }
    }
    // Written also when nothing changed: the user asked for a copy.
    arguments << QStringLiteral("-changes_pending") << QStringLiteral("yes")
              << QStringLiteral("-end");
    return arguments;
}

std::optional<int> ParseProgress(const QString& line)
{
    // "xorriso : UPDATE : Writing:      22531s   11.0%   fifo  30%  buf  50%"
    static const QRegularExpression writing(
        QStringLiteral("UPDATE\\s*:\\s*Writing:\\s*\\d+s\\s+(\\d+(?:\\.\\d+)?)%"));
    const QRegularExpressionMatch match = writing.match(line);
    if (!match.hasMatch())
        return std::nullopt;
    return qBound(0, qRound(match.captured(1).toDouble() * 100.0), 10000);
}

} // namespace ImageSave

CImageSaveJob::CImageSaveJob(QObject* parent) : CJob(parent) {}

CImageSaveJob::~CImageSaveJob()
{
    Stop();
}

void CImageSaveJob::Start(const QString& image, const std::vector<ImageSave::Change>& changes,
                          const QString& output)
{
    Stop();
    Begin();
    m_image = image;
    m_changes = changes;
    const IsoProbe::Trees trees = IsoProbe::Read(image);
    m_joliet = trees.joliet;
    m_rockRidge = trees.rockRidge || !trees.iso9660;
    m_alignCylinders = false;
    m_output = QFileInfo(output).absoluteFilePath();
    Run();
}

void CImageSaveJob::Run()
{
    m_part = Util::PartPath(m_output);
    m_complaints.clear();
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, &CImageSaveJob::OnLine);
    connect(m_runner, &CRunCommandThread::sigfinished, this, &CImageSaveJob::OnFinished);
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::Xorriso),
                         ImageSave::SaveArguments(m_image, m_changes, m_part, m_joliet, m_rockRidge,
                                                  m_alignCylinders));
    m_runner->StartCommand();
}

void CImageSaveJob::Stop()
{
    if (!IsRunning() || IsStopping())
        return;
    // The part file goes once the tool has ended, so it cannot write it again.
    CRunCommandThread::StopThen(m_runner,
                                [part = m_part, end = EndStopped(UnfinishedImageRemoved())] {
                                    QFile::remove(part);
                                    end();
                                });
}

void CImageSaveJob::OnLine(const QString& line)
{
    if (const std::optional<int> value = ImageSave::ParseProgress(line)) {
        Progress(*value / 100, QStringLiteral("Saving the image"));
        return;
    }
    // "xorriso : SORRY : ...", "libisofs: FAILURE : ...": the words after the severity.
    static const QRegularExpression complaint(QStringLiteral("\\b(?:SORRY|FAILURE|FATAL) : (.*)$"));
    const QRegularExpressionMatch match = complaint.match(line);
    if (match.hasMatch() && m_complaints.size() < 4)
        m_complaints << match.captured(1).trimmed();
}

void CImageSaveJob::OnFinished()
{
    const bool ran = m_runner->GetResult() == CRunCommandThread::Result::Success;
    const QString failure =
        m_runner->FailureText(ToolLocator::DisplayName(ToolLocator::Tool::Xorriso));
    CRunCommandThread::Dispose(m_runner);
    if (!ran || !QFileInfo(m_part).isFile()) {
        QFile::remove(m_part);
        // Some partition layouts (grub-mkrescue's GPT beside HFS+) are laid
        // out again only when the image ends on a cylinder boundary.
        if (!m_alignCylinders &&
            m_complaints.join(QLatin1Char(' ')).contains(QLatin1String("overlap"))) {
            m_alignCylinders = true;
            Run();
            return;
        }
        Finish(false, m_complaints.isEmpty()
                          ? QStringLiteral("The image could not be saved. %1").arg(failure)
                          : QStringLiteral("The image could not be saved. xorriso said: \"%1\"")
                                .arg(m_complaints.join(QStringLiteral(" / "))));
        return;
    }
    QString error;
    if (!Util::CommitPart(m_part, m_output, &error)) {
        Finish(false, QStringLiteral("The image was written but could not be saved as %1 (%2).")
                          .arg(m_output, error));
        return;
    }
    Progress(100, QStringLiteral("Saving the image"));
    Finish(true, QString());
}
