#include "iso/editsession.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include "app/util.h"
#include "iso/extraction.h"
#include "iso/isojobs.h"
#include "tools/filecopy.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace {

constexpr QChar kSeparator = QLatin1Char('\\');
// The archive tool shows an image's boot images as files of this folder; they
// are not files of the image, and the boot setup is carried over by itself.
const QString kPseudoBootFolder = QStringLiteral("[BOOT]");

bool isPseudoBootFolder(const Item& item)
{
    if (item.name != kPseudoBootFolder || !item.isDir || !item.time.trimmed().isEmpty())
        return false;
    for (const auto& child : item.children) {
        if (child->isDir || !child->time.trimmed().isEmpty())
            return false;
    }
    return true;
}

bool sameBytes(const QString& a, const QString& b)
{
    QFile left(a);
    QFile right(b);
    if (left.size() != right.size() || !left.open(QIODevice::ReadOnly) || !right.open(QIODevice::ReadOnly))
        return false;
    while (!left.atEnd()) {
        if (left.read(1 << 20) != right.read(1 << 20))
            return false;
    }
    return true;
}

QString archiveToolName()
{
    return ToolLocator::DisplayName(ToolLocator::Tool::Archive);
}

} // namespace

CEditSession::CEditSession(QObject* parent) : QObject(parent)
{
    m_copier = std::make_unique<CFileCopy>();
    m_list = new CListJob(m_contents, this);
    connect(m_list, &CListJob::finished, this, &CEditSession::OnListed);
    m_build = new CBuildJob(this);
    connect(m_build, &CBuildJob::progress, this,
            [this](int value) { Q_EMIT progress(Phase::Building, value, 10000); });
    // The build puts the image in place only when it is whole, so a failed
    // save never costs the file that was there.
    connect(m_build, &CBuildJob::finished, this, [this] {
        Finish(m_build->Succeeded(), m_build->Succeeded() ? QString() : m_build->Message());
    });
    m_poll = new QTimer(this);
    m_poll->setInterval(100);
    connect(m_poll, &QTimer::timeout, this, &CEditSession::Poll);
}

CEditSession::~CEditSession()
{
    m_poll->stop();
    m_list->Stop();
    if (m_extract) {
        m_extract->terminate();
        delete m_extract; // waits until the tool has ended
    }
    m_build->Stop();
    m_exporter.reset();
    // The worker is stopped and joined before its folders are removed; folders
    // of earlier images whose removal it had not reached are removed here.
    m_copier.reset();
    m_retired.clear();
    m_dir.reset();
}

bool CEditSession::IsListing() const
{
    return m_list->IsRunning();
}

void CEditSession::RetireWorkingCopy()
{
    if (m_extract) {
        // The tool is ended and waited for, so it writes nothing more.
        m_extract->terminate();
        delete m_extract;
        m_extract = nullptr;
    }
    m_copier->ClearJobs();
    m_pending.clear();
    if (!m_dir)
        return;
    // Removing a large tree takes a while: the worker does it, and the folder
    // stays this session's own (locked) until the session ends.
    m_copier->AddJob(m_dir->Path(), QString(), CFileCopy::Delete);
    m_retired.push_back(std::move(m_dir));
}

void CEditSession::Load(const QString& image)
{
    Stop();
    m_list->Stop();
    RetireWorkingCopy();
    m_image = image;
    m_loadProblem.clear();
    m_extractProgress = 0;
    m_pseudoBootFolder = false;
    m_boot = BootSetup::Plan();

    m_dir = std::make_unique<ScratchFolder>(QStringLiteral("edit"));
    if (!m_dir->IsValid()) {
        m_loadProblem = QStringLiteral("Cannot prepare a working folder in %1 (%2).")
                            .arg(Util::ScratchDir(), m_dir->ErrorString());
        m_contents.Clear();
        QMetaObject::invokeMethod(this, [this] { Q_EMIT listed(false); }, Qt::QueuedConnection);
        return;
    }
    m_workingCopy = m_dir->FilePath(QStringLiteral("contents"));
    m_bootDir = m_dir->FilePath(QStringLiteral("boot"));
    QDir().mkpath(m_workingCopy);

    m_list->Start(image);

    m_boot = BootSetup::Prepare(image, m_bootDir);
    m_label = BootSetup::VolumeLabel(image);
    qDebug() << "CEditSession: boot images" << m_boot.images.size() << "problems" << m_boot.problems;

    m_extract = new CRunCommandThread;
    connect(m_extract, &CRunCommandThread::standoutputline, this, &CEditSession::OnExtractLine);
    connect(m_extract, &CRunCommandThread::sigfinished, this, &CEditSession::OnExtracted);
    m_extract->SetCommand(ToolLocator::Find(ToolLocator::Tool::Archive),
                          Extraction::Arguments(image, m_workingCopy, {}));
    m_extract->StartCommand(QThread::InheritPriority);
}

void CEditSession::OnListed()
{
    if (!m_list->Succeeded()) {
        m_loadProblem = m_list->Message();
        Q_EMIT listed(false);
        return;
    }
    const auto& top = m_contents.Root().children;
    for (const auto& child : top) {
        if (isPseudoBootFolder(*child)) {
            m_contents.Remove(child->name);
            m_pseudoBootFolder = true;
            break;
        }
    }
    Q_EMIT listed(true);
    if (!IsExtracting())
        BecomeReady();
}

void CEditSession::OnExtractLine(const QString& line)
{
    if (const std::optional<Extraction::Progress> progress = Extraction::ParseProgress(line))
        m_extractProgress = progress->percent;
}

void CEditSession::OnExtracted()
{
    const bool ok = m_extract->GetResult() == CRunCommandThread::Result::Success;
    const QString failure = ok ? QString() : m_extract->FailureText(archiveToolName());
    m_extract->deleteLater();
    m_extract = nullptr;
    qDebug() << "CEditSession: extraction finished" << ok;
    if (!ok) {
        m_pending.clear();
        m_loadProblem = QStringLiteral("The image could not be read completely, so it cannot be edited. %1").arg(failure);
        Q_EMIT extracted(false);
        return;
    }
    m_extractProgress = 100;
    Q_EMIT extracted(true);
    if (!IsListing() && m_loadProblem.isEmpty())
        BecomeReady();
}

void CEditSession::BecomeReady()
{
    if (m_pseudoBootFolder)
        m_copier->AddJob(LocalPath(kPseudoBootFolder), QString(), CFileCopy::Delete);
    for (const Job& job : m_pending)
        m_copier->AddJob(job.source, job.target, job.mode);
    m_pending.clear();
}

void CEditSession::Queue(const QString& source, const QString& target, int mode)
{
    if (IsReady() && m_loadProblem.isEmpty())
        m_copier->AddJob(source, target, mode);
    else
        m_pending.push_back(Job{source, target, mode});
}

QString CEditSession::LocalPath(const QString& name) const
{
    if (name.isEmpty())
        return m_workingCopy;
    QString local = name;
    local.replace(kSeparator, QLatin1Char('/'));
    return m_workingCopy + QLatin1Char('/') + local;
}

QList<Item*> CEditSession::Add(Item& folder, const QStringList& localPaths)
{
    QList<Item*> added;
    for (const QString& path : localPaths) {
        const QFileInfo info(path);
        if (!info.exists())
            continue;
        const QString name =
            folder.name.isEmpty() ? info.fileName() : folder.name + kSeparator + info.fileName();
        std::unique_ptr<Item> item = ItemTree::FromLocal(info, name);
        Item* raw = item.get();
        if (!m_contents.Insert(item))
            continue;
        added << raw;
        if (raw->isDir) {
            AddDirContents(*raw, info.absoluteFilePath());
            Queue(info.absoluteFilePath(), LocalPath(name), CFileCopy::CopyAs);
        } else {
            Queue(info.absoluteFilePath(), LocalPath(name), CFileCopy::Copy);
        }
    }
    return added;
}

void CEditSession::AddDirContents(Item& folder, const QString& localDir)
{
    // The entries the copy takes along: hidden ones are left out by both.
    const QFileInfoList entries =
        QDir(localDir).entryInfoList(QDir::Dirs | QDir::Files | QDir::Drives | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        Item* child = m_contents.Append(folder, ItemTree::FromLocal(entry, folder.name + kSeparator + entry.fileName()));
        if (child->isDir && !entry.isSymLink())
            AddDirContents(*child, entry.absoluteFilePath());
    }
}

bool CEditSession::Rename(Item& item, const QString& newName, QString* why)
{
    const QString name = newName.trimmed();
    const QString old = item.name;
    const auto refuse = [why](const QString& text) {
        if (why)
            *why = text;
        return false;
    };
    if (name.isEmpty() || name == ItemTree::LastComponent(old))
        return refuse(QString());
    if (name.contains(kSeparator) || name.contains(QLatin1Char('/')) || name == QLatin1String(".") ||
        name == QLatin1String(".."))
        return refuse(QStringLiteral("A name cannot be \".\" or \"..\", nor contain / or \\."));
    if (!m_contents.Rename(old, name))
        return refuse(QStringLiteral("There is already an entry named \"%1\" here.").arg(name));
    Queue(LocalPath(old), LocalPath(item.name), CFileCopy::Move);
    return true;
}

void CEditSession::Remove(const QList<Item*>& items)
{
    QStringList names;
    for (const Item* item : items)
        names << item->name;
    for (const QString& name : std::as_const(names)) {
        Queue(LocalPath(name), QString(), CFileCopy::Delete);
        m_contents.Remove(name);
    }
}

void CEditSession::Export(const QList<const Item*>& items, const QString& destination)
{
    Stop();
    m_task = Task::Export;
    m_phase = Phase::Extracting;
    m_exportJobs.clear();
    m_exportTargets.clear();
    for (const Item* item : items) {
        const QString source = item->source.isEmpty() ? LocalPath(item->name) : item->source;
        const QString target = QDir(destination).filePath(
            Extraction::FreeName(destination, ItemTree::LastComponent(item->name)));
        m_exportJobs.push_back(Job{source, target, CFileCopy::CopyAs});
    }
    Poll();
    if (m_task != Task::None)
        m_poll->start();
}

void CEditSession::Save(const QString& output)
{
    Stop();
    m_task = Task::Save;
    m_phase = Phase::Extracting;
    m_output = QFileInfo(output).absoluteFilePath();
    Poll();
    if (m_task != Task::None)
        m_poll->start();
}

void CEditSession::Poll()
{
    if (m_phase == Phase::Extracting) {
        if (!m_loadProblem.isEmpty() || m_image.isEmpty()) {
            Finish(false, m_image.isEmpty() ? QStringLiteral("No image is open.") : m_loadProblem);
            return;
        }
        if (!IsReady()) {
            Q_EMIT progress(Phase::Extracting, m_extractProgress, 100);
            return;
        }
        qDebug() << "Extract finished!!!";
        m_phase = Phase::Copying;
        m_total = m_copier->RemainingBytes();
    }
    if (m_phase == Phase::Copying) {
        CFileCopy& worker = m_exporter ? *m_exporter : *m_copier;
        const qint64 remaining = worker.RemainingBytes();
        if (remaining >= 1) {
            Q_EMIT progress(Phase::Copying, (m_total - remaining) >> 10, m_total >> 10);
            return;
        }
        const QStringList failures = worker.TakeFailures();
        if (!failures.isEmpty()) {
            Finish(false, QStringLiteral("These could not be copied: %1").arg(failures.join(QStringLiteral("; "))));
            return;
        }
        qDebug() << "file copy finished!!!";
        if (m_task == Task::Export && !m_exporter) {
            StartExportCopies();
            return;
        }
        if (m_task == Task::Export) {
            Finish(true, QString());
            return;
        }
        StartBuild();
    }
}

void CEditSession::StartExportCopies()
{
    // A worker of the export's own, so stopping the export never touches the
    // edits still to be carried out in the working copy.
    m_exporter = std::make_unique<CFileCopy>();
    for (const Job& job : std::as_const(m_exportJobs)) {
        m_exportTargets << job.target;
        m_exporter->AddJob(job.source, job.target, job.mode);
    }
    m_total = m_exporter->RemainingBytes();
    Q_EMIT progress(Phase::Copying, 0, m_total >> 10);
}

void CEditSession::StartBuild()
{
    m_poll->stop();
    m_phase = Phase::Building;
    Q_EMIT progress(Phase::Building, 0, 10000);

    // Boot images go into the root under their own names, unless the root
    // holds something else of that name; an identical file is used as it is.
    BootSetup::Plan plan = m_boot;
    QList<QPair<QString, QString>> rootFiles;
    for (BootSetup::BootImage& boot : plan.images) {
        const QString existing = QDir(m_workingCopy).filePath(boot.file);
        if (QFileInfo(existing).isFile() && sameBytes(existing, boot.path))
            continue;
        if (QFileInfo::exists(existing))
            boot.file = Extraction::FreeName(m_workingCopy, boot.file);
        rootFiles << qMakePair(boot.file, boot.path);
    }
    const QStringList bootOptions = BootSetup::Arguments(plan, QStringLiteral("boot.catalog"));
    m_build->Run(
        [&](const QString& part) {
            return ImageBuild::EditArguments(m_label, bootOptions, part, m_workingCopy, rootFiles);
        },
        m_output, true);
}

void CEditSession::Stop()
{
    if (m_task == Task::None)
        return;
    m_poll->stop();
    m_build->Stop();
    if (m_exporter) {
        m_exporter.reset(); // a copy under way is cut short
        for (const QString& target : std::as_const(m_exportTargets)) {
            if (QFileInfo(target).isDir())
                QDir(target).removeRecursively();
            else
                QFile::remove(target);
        }
    }
    m_exportTargets.clear();
    m_task = Task::None;
}

void CEditSession::Finish(bool succeeded, const QString& message)
{
    m_poll->stop();
    const Task task = m_task;
    m_task = Task::None;
    m_exporter.reset();
    m_exportTargets.clear();
    if (task == Task::Export)
        Q_EMIT exportFinished(succeeded, message);
    else if (task == Task::Save)
        Q_EMIT saveFinished(succeeded, message);
}
