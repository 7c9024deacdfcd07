#include "iso/isojobs.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>

#include "core/util.h"
#include "tools/filecopy.h"

#include "iso/extraction.h"
#include "iso/itemtree.h"
#include "iso/listing.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace {

QString archiveToolName()
{
    return ToolLocator::DisplayName(ToolLocator::Tool::Archive);
}

// A failed run of the archive tool in plain words, quoting the tool's
// reasons where it gave any.
QString archiveFailure(const CRunCommandThread& runner, const QStringList& lines)
{
    const CRunCommandThread::Result result = runner.GetResult();
    const QStringList reasons = Extraction::Reasons(lines);
    if (reasons.isEmpty() || result == CRunCommandThread::Result::StartFailed ||
        result == CRunCommandThread::Result::Stopped)
        return runner.FailureText(archiveToolName());
    return QStringLiteral("%1 said: \"%2\"")
        .arg(archiveToolName(), reasons.join(QStringLiteral("\", \"")));
}

// The Rock Ridge reader's "error: " lines, or its failure in plain words.
QString readerFailure(const CRunCommandThread& runner, const QStringList& lines)
{
    QStringList reasons;
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("error: ")))
            reasons << line.mid(7);
    }
    const QString name = ToolLocator::DisplayName(ToolLocator::Tool::IsoReader);
    if (reasons.isEmpty() || runner.GetResult() == CRunCommandThread::Result::Stopped)
        return runner.FailureText(name);
    return QStringLiteral("%1 said: \"%2\"").arg(name, reasons.join(QStringLiteral("\", \"")));
}

// The archive tool's complaints about an image's structure that still let it
// list and extract every entry: a UDF tree of folders only, a boot record
// that is not El Torito, a file that runs past the end of the image.
bool OnlyHeaderComplaints(const QStringList& reasons)
{
    static const QStringList kHeaderComplaints = {
        QStringLiteral("Headers Error"), QStringLiteral("Unexpected end of archive"),
        QStringLiteral("There are data after the end of archive"),
        QStringLiteral("Unconfirmed start of archive")};
    return !reasons.isEmpty() &&
           std::all_of(reasons.cbegin(), reasons.cend(),
                       [](const QString& reason) { return kHeaderComplaints.contains(reason); });
}

} // namespace

CListJob::CListJob(ItemTree& tree, QObject* parent) : CJob(parent), m_tree(tree) {}

CListJob::~CListJob()
{
    CRunCommandThread::Dispose(m_runner);
}

void CListJob::Start(const QString& image)
{
    CRunCommandThread::Dispose(m_runner);
    Begin();
    m_tree.Clear();
    m_tree.title = QFileInfo(image).fileName();
    m_warning.clear();
    m_treeName.clear();
    m_leftOut.clear();

    // The tree grows while the tool is still listing, batch by batch, so
    // little is left to do when it ends; a failed listing leaves it empty.
    m_reader = std::make_unique<Listing::Reader>(m_tree);
    if (m_files != nullptr) {
        m_files->clear();
        m_reader->RecordFiles(m_files);
    }
    m_runner = new CRunCommandThread;
    m_said.clear();
    connect(m_runner, &CRunCommandThread::standoutputlines, this, [this](const QStringList& lines) {
        for (const QString& line : lines) {
            if (!m_reader->InTable() && !Listing::IsSeparator(line))
                m_said << line;
            m_reader->Feed(line);
        }
    });
    connect(m_runner, &CRunCommandThread::sigfinished, this, &CListJob::OnFinished);
    m_trees = IsoProbe::Read(image);
    const QString reader = m_trees.rockRidge && m_files == nullptr
                               ? ToolLocator::Find(ToolLocator::Tool::IsoReader)
                               : QString();
    m_byReader = !reader.isEmpty();
    if (m_byReader)
        m_runner->SetCommand(reader, {QStringLiteral("list"), image});
    else
        m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::Archive),
                             Listing::Arguments(image));
    m_runner->StartCommand();
}

void CListJob::Stop()
{
    if (!IsRunning() || IsStopping())
        return;
    m_reader.reset();
    m_said.clear();
    ClearTree();
    // A listing writes nothing: its end needs no wait for the tool.
    CRunCommandThread::Dispose(m_runner);
    EndStopped()();
}

void CListJob::ClearTree()
{
    const QString title = m_tree.title;
    m_tree.Clear();
    m_tree.title = title;
    m_treeName.clear();
    m_warning.clear();
}

void CListJob::OnFinished()
{
    const CRunCommandThread::Result result = m_runner->GetResult();
    bool succeeded = m_reader->Finished() && result == CRunCommandThread::Result::Success;
    if (m_byReader) {
        QStringList warnings;
        for (const QString& line : std::as_const(m_said)) {
            if (line.startsWith(QLatin1String("warning: ")))
                warnings << line.mid(9);
        }
        m_warning = warnings.join(QLatin1Char(' '));
        m_treeName = QStringLiteral("Rock Ridge");
    } else {
        // A listing the tool completed is shown, with its complaints about
        // the image's structure as a warning.
        const QStringList reasons = Extraction::Reasons(m_said);
        if (!succeeded && m_reader->Finished() && result == CRunCommandThread::Result::Failed &&
            m_runner->ExitCode() == 2 && OnlyHeaderComplaints(reasons)) {
            succeeded = true;
            m_warning = QStringLiteral("%1 reported: %2.")
                            .arg(archiveToolName(), reasons.join(QStringLiteral(", ")));
        }
        const bool openedAsUdf =
            std::any_of(m_said.cbegin(), m_said.cend(), [](const QString& line) {
                return line.trimmed() == QLatin1String("Type = Udf");
            });
        m_treeName = IsoProbe::TreeName(m_trees, openedAsUdf);
    }
    QString message;
    if (!succeeded) {
        ClearTree();
        message = QStringLiteral("The image could not be opened. %1")
                      .arg(m_byReader ? readerFailure(*m_runner, m_said)
                                      : archiveFailure(*m_runner, m_said));
    }
    m_leftOut = m_reader->LeftOut();
    m_said.clear();
    m_runner->deleteLater();
    m_runner = nullptr;
    m_reader.reset();
    Finish(succeeded, message);
}

CExtractJob::CExtractJob(QObject* parent) : CJob(parent) {}

CExtractJob::~CExtractJob()
{
    Stop();
}

void CExtractJob::Start(const QString& image, const QString& destination,
                        const QStringList& entries, const ItemTree* contents)
{
    Stop();
    Begin();
    m_placed.clear();
    m_lines.clear();
    m_image = image;
    m_destination = destination;
    m_entries = entries;

    if (entries.isEmpty() || contents != nullptr) {
        Extract(contents);
        return;
    }
    // Entries named on a command line are checked against the image's own
    // listing before anything is extracted.
    m_listed = std::make_unique<ItemTree>();
    m_list = new CListJob(*m_listed, this);
    connect(m_list, &CListJob::finished, this, &CExtractJob::OnListed);
    m_list->Start(image);
}

void CExtractJob::OnListed()
{
    const bool listed = m_list->Succeeded();
    const QString message = m_list->Message();
    m_list->deleteLater();
    m_list = nullptr;
    if (!listed) {
        m_listed.reset();
        Finish(false, message);
        return;
    }
    Extract(m_listed.get());
    m_listed.reset();
}

void CExtractJob::Extract(const ItemTree* contents)
{
    if (contents != nullptr) {
        const QString wrong = Extraction::CheckEntries(m_entries, *contents);
        if (!wrong.isEmpty()) {
            FinishLater(false, QStringLiteral("Nothing was extracted. %1").arg(wrong));
            return;
        }
    }
    if (const QString wrong = Extraction::PrepareDestination(m_destination); !wrong.isEmpty()) {
        FinishLater(false, QStringLiteral("Nothing was extracted. %1").arg(wrong));
        return;
    }
    QTemporaryDir staging(QDir(m_destination).filePath(QStringLiteral(".brenta-extract-XXXXXX")));
    if (!staging.isValid()) {
        FinishLater(false, QStringLiteral("Nothing was extracted. Cannot write into %1: %2.")
                               .arg(m_destination, staging.errorString()));
        return;
    }
    staging.setAutoRemove(false);
    m_staging = staging.path();
    const bool rockRidge = IsoProbe::Read(m_image).rockRidge;
    const QString reader = rockRidge ? ToolLocator::Find(ToolLocator::Tool::IsoReader) : QString();
    m_byReader = !reader.isEmpty();
    if (m_byReader) {
        StartReader(reader);
        return;
    }
    if (rockRidge) {
        // The archive tool would turn the image's links into empty files.
        Extraction::RemoveTree(m_staging);
        m_staging.clear();
        FinishLater(false,
                    QStringLiteral("Nothing was extracted. Brenta's reader of Rock Ridge images "
                                   "(brenta-isoread) is not installed."));
        return;
    }
    StartArchive();
}

void CExtractJob::StartArchive()
{
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, &CExtractJob::OnLine);
    connect(m_runner, &CRunCommandThread::sigfinished, this, &CExtractJob::OnFinished);
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::Archive),
                         Extraction::Arguments(m_image, m_staging, m_entries));
    m_runner->StartCommand();
}

void CExtractJob::StartReader(const QString& reader)
{
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, &CExtractJob::OnLine);
    connect(m_runner, &CRunCommandThread::sigfinished, this, &CExtractJob::OnFinished);
    m_runner->SetCommand(reader,
                         QStringList{QStringLiteral("extract"), m_image, m_staging} + m_entries);
    m_runner->StartCommand();
}

void CExtractJob::Stop()
{
    if (!IsRunning() || IsStopping())
        return;
    if (m_list != nullptr) {
        disconnect(m_list, nullptr, this, nullptr);
        m_list->Stop();
        m_list->deleteLater();
        m_list = nullptr;
    }
    m_listed.reset();
    // The staging folder goes once the tool has ended, or the tool could write
    // into it again after the removal; only then does the run end.
    const QString removed = QStringLiteral(" Nothing was extracted: the folder is as it was.");
    CRunCommandThread::StopThen(
        m_runner, [staging = m_staging, end = EndStopped(StoppedMessage() + removed)] {
            if (!staging.isEmpty())
                Extraction::RemoveTree(staging);
            end();
        });
    m_staging.clear();
}

void CExtractJob::OnLine(const QString& line)
{
    m_lines << line;
    if (const std::optional<Extraction::Progress> step = Extraction::ParseProgress(line)) {
        Progress(step->percent, QStringLiteral("Extracting files"));
        Q_EMIT extracting(step->name);
    }
}

void CExtractJob::OnFinished()
{
    if (m_byReader) {
        OnReaderFinished();
        return;
    }
    const CRunCommandThread::Result result = m_runner->GetResult();
    const QStringList reasons = Extraction::Reasons(m_lines);
    const bool headersOnly = result == CRunCommandThread::Result::Failed &&
                             m_runner->ExitCode() == 2 && OnlyHeaderComplaints(reasons);
    const bool toolOk =
        (result == CRunCommandThread::Result::Success && Extraction::OutputSaysOk(m_lines)) ||
        headersOnly;
    const QString failure = toolOk ? QString() : archiveFailure(*m_runner, m_lines);
    m_runner->deleteLater();
    m_runner = nullptr;
    m_lines.clear();
    if (!toolOk) {
        Fail(failure);
        return;
    }
    PlaceExtracted(QStringList(),
                   headersOnly ? QStringLiteral("%1 reported: %2.")
                                     .arg(archiveToolName(), reasons.join(QStringLiteral(", ")))
                               : QString());
}

void CExtractJob::OnReaderFinished()
{
    // Exit status 2: every entry was written except those it names.
    const CRunCommandThread::Result result = m_runner->GetResult();
    const bool readerOk =
        result == CRunCommandThread::Result::Success ||
        (result == CRunCommandThread::Result::Failed && m_runner->ExitCode() == 2);
    const QString failure = readerOk ? QString() : readerFailure(*m_runner, m_lines);
    QStringList notWritten;
    QStringList notWrittenPaths;
    for (const QString& line : std::as_const(m_lines)) {
        if (!line.startsWith(QLatin1String("failed: ")))
            continue;
        notWritten << line.mid(8);
        notWrittenPaths << line.mid(8).section(QStringLiteral(": "), 0, 0);
    }
    m_runner->deleteLater();
    m_runner = nullptr;
    m_lines.clear();
    if (!readerOk) {
        Fail(failure);
        return;
    }
    PlaceExtracted(notWrittenPaths,
                   notWritten.isEmpty()
                       ? QString()
                       : QStringLiteral("%1 could not be extracted (everything else was): %2.")
                             .arg(notWritten.size() == 1
                                      ? QStringLiteral("1 entry")
                                      : QStringLiteral("%1 entries").arg(notWritten.size()),
                                  notWritten.join(QStringLiteral("; "))));
}

void CExtractJob::Fail(const QString& failure)
{
    Extraction::RemoveTree(m_staging);
    m_staging.clear();
    Finish(false, QStringLiteral("Extracting failed. %1").arg(failure));
}

void CExtractJob::PlaceExtracted(const QStringList& notWritten, const QString& notice)
{
    QStringList entries = m_entries;
    if (entries.isEmpty()) {
        entries = QDir(m_staging).entryList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    for (const QString& path : notWritten)
        entries.removeAll(path);
    const Extraction::MoveResult moved = Extraction::MoveUp(m_staging, entries, m_destination);
    m_staging.clear();
    m_placed = moved.placed;
    if (!moved.ok) {
        Finish(false, QStringLiteral("Extracting failed. %1").arg(moved.message));
        return;
    }
    // Entries the reader could not write make the extraction a failure that
    // names them; the archive tool's complaints about headers do not.
    Finish(notWritten.isEmpty(), notice);
}

CBuildJob::~CBuildJob()
{
    Stop();
}

void CBuildJob::Start(ImageBuild::Type type, const QString& output, const QString& sourceDir,
                      const QString& phase)
{
    Run([&](const QString& part) { return ImageBuild::Arguments(type, part, sourceDir); },
        QFileInfo(output).absoluteFilePath(), phase);
    m_suggestUdf = type != ImageBuild::Type::Udf;
}

void CBuildJob::Run(const Arguments& arguments, const QString& output, const QString& phase)
{
    Stop();
    Begin();
    m_suggestUdf = false;
    m_phase = phase;
    m_output = output;
    m_part = Util::PartPath(output);
    m_runner = new CRunCommandThread;
    connect(m_runner, &CRunCommandThread::standoutputline, this, [this](const QString& line) {
        if (const std::optional<int> value = ImageBuild::ParseProgress(line, false))
            Progress(*value / 100, m_phase);
    });
    connect(m_runner, &CRunCommandThread::sigfinished, this, &CBuildJob::OnFinished);
    m_runner->SetCommand(ToolLocator::Find(ToolLocator::Tool::ImageBuilder), arguments(m_part));
    m_runner->StartCommand();
}

void CBuildJob::Stop()
{
    if (!IsRunning() || IsStopping())
        return;
    CRunCommandThread::StopThen(m_runner,
                                [part = m_part, end = EndStopped(UnfinishedImageRemoved())] {
                                    QFile::remove(part);
                                    end();
                                });
}

void CBuildJob::OnFinished()
{
    bool succeeded =
        m_runner->GetResult() == CRunCommandThread::Result::Success && QFileInfo(m_part).isFile();
    QString message;
    QString error;
    if (succeeded && !Util::CommitPart(m_part, m_output, &error)) {
        succeeded = false;
        message = QStringLiteral("The image was built but could not be saved as %1 (%2).")
                      .arg(m_output, error);
    } else if (!succeeded) {
        message = QStringLiteral("The image could not be created. %1")
                      .arg(m_runner->FailureText(
                          ToolLocator::DisplayName(ToolLocator::Tool::ImageBuilder)));
        const QString said = m_runner->LastLines().join(QLatin1Char(' '));
        if (m_suggestUdf && said.contains(QLatin1String("larger than 4GiB"), Qt::CaseInsensitive))
            message += QStringLiteral(
                " A file of 4 GB or more fits only in a UDF image: choose UDF and try again.");
        QFile::remove(m_part);
    }
    CRunCommandThread::Dispose(m_runner);
    Finish(succeeded, message);
}

CCreateJob::CCreateJob(QObject* parent) : CJob(parent)
{
    m_build = new CBuildJob(this);
    connect(m_build, &CJob::progressed, this, [this](int percent, const QString& phase) {
        if (m_building)
            Progress(percent, phase);
    });
    connect(m_build, &CJob::finished, this, [this](bool ok, const QString& message) {
        // A stopped build ends its run through Stop(), once its part file is gone.
        if (!m_building)
            return;
        m_building = false;
        End(ok, message);
    });
}

CCreateJob::~CCreateJob()
{
    Stop();
    Retire();
}

void CCreateJob::Start(ImageBuild::Type type, const QString& output, const QStringList& paths)
{
    Stop();
    Retire();
    m_oneGo = true;
    if (!PrepareStaging(QStringLiteral("create"))) {
        Begin();
        FinishLater(false, m_prepareProblem);
        return;
    }
    for (const QString& path : paths) {
        const QFileInfo info(path);
        Add(info.absoluteFilePath(), info.fileName());
    }
    Build(type, output);
}

bool CCreateJob::Prepare()
{
    m_oneGo = false;
    return PrepareStaging(QStringLiteral("page"));
}

bool CCreateJob::PrepareStaging(const QString& stem)
{
    if (m_staging && m_staging->IsValid() && m_worker)
        return true;
    Retire();
    m_prepareProblem.clear();
    m_staging = std::make_unique<ScratchFolder>(stem);
    if (!m_staging->IsValid()) {
        m_prepareProblem = QStringLiteral("Cannot prepare the files in %1 (%2).")
                               .arg(Util::ScratchDir(), m_staging->ErrorString());
        return false;
    }
    m_worker = std::make_unique<CFileCopy>();
    connect(m_worker.get(), &CFileCopy::progress, this, &CCreateJob::OnCopyProgress);
    connect(m_worker.get(), &CFileCopy::idle, this, [this] {
        if (m_copying)
            CheckCopies();
    });
    return true;
}

QString CCreateJob::StagingPath() const
{
    return m_staging ? m_staging->Path() : QString();
}

void CCreateJob::Add(const QString& source, const QString& name)
{
    if (m_worker)
        m_worker->AddJob(source, m_staging->FilePath(name), CFileCopy::CopyAs);
}

void CCreateJob::Remove(const QString& source, const QString& name)
{
    if (!m_worker)
        return;
    m_worker->RemoveJob(source);
    m_worker->AddJob(m_staging->FilePath(name), QString(), CFileCopy::Delete);
}

void CCreateJob::Build(ImageBuild::Type type, const QString& output)
{
    Stop();
    Begin();
    m_type = type;
    m_output = output;
    m_phase = Phase::Copying;
    if (!m_worker) {
        FinishLater(false, m_staging ? QStringLiteral("Cannot prepare the files in %1 (%2).")
                                           .arg(Util::ScratchDir(), m_staging->ErrorString())
                                     : QStringLiteral("Nothing to build from."));
        return;
    }
    m_copying = true;
    m_total = m_worker->RemainingBytes();
    CheckCopies();
}

void CCreateJob::OnCopyProgress(qint64 remaining)
{
    if (!m_copying)
        return;
    // Folders queued last may be sized only now: the whole grows with them.
    m_total = qMax(m_total, remaining);
    Progress(m_total > 0 ? int((m_total - remaining) * 100 / m_total) : 0,
             QStringLiteral("Copying files (1 of 2)"));
}

void CCreateJob::CheckCopies()
{
    const qint64 remaining = m_worker->RemainingBytes();
    if (remaining > 0) {
        // The worker says when its queue has run empty.
        OnCopyProgress(remaining);
        return;
    }
    m_copying = false;
    const QStringList failures = m_worker->TakeFailures();
    if (m_oneGo)
        m_worker.reset(); // idle, so it ends at once
    if (!failures.isEmpty()) {
        End(false, QStringLiteral("These could not be read, so no image was made: %1")
                       .arg(failures.join(QStringLiteral("; "))));
        return;
    }
    m_phase = Phase::Building;
    const QString building = QStringLiteral("Building the image (2 of 2)");
    Progress(0, building);
    m_building = true;
    m_build->Start(m_type, m_output, m_staging->Path(), building);
}

void CCreateJob::Stop()
{
    if (!IsRunning() || IsStopping())
        return;
    m_copying = false;
    const bool building = std::exchange(m_building, false);
    const std::function<void()> end =
        EndStopped(building ? UnfinishedImageRemoved()
                            : StoppedMessage() + QStringLiteral(" No image was made."));
    if (building) {
        // The half-built image goes before the build's end, and so before this run's.
        connect(m_build, &CJob::finished, this, end, Qt::SingleShotConnection);
        m_build->Stop();
    }
    if (m_oneGo)
        Retire();
    if (!building)
        end();
}

void CCreateJob::End(bool succeeded, const QString& message)
{
    if (m_oneGo) {
        // The worker has ended by now; its folder goes at once.
        m_worker.reset();
        m_staging.reset();
    }
    Finish(succeeded, message);
}

void CCreateJob::Retire()
{
    m_copying = false;
    if (!m_worker) {
        m_staging.reset();
        return;
    }
    // The folder is removed on the worker's thread once it has ended, so a
    // copy under way is never joined here.
    CFileCopy::Retire(std::move(m_worker), [staging = m_staging.release()] { delete staging; });
}
