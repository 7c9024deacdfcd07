#include "iso/editsession.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <functional>

#include "core/logging.h"
#include "core/util.h"
#include "iso/extraction.h"
#include "iso/isojobs.h"
#include "iso/isoprobe.h"
#include "iso/listing.h"
#include "tools/filecopy.h"
#include "tools/runcommandthread.h"
#include "tools/toollocator.h"

namespace {

using Change = ImageSave::Change;

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

void removePseudoBootFolder(ItemTree& tree)
{
    for (const auto& child : tree.Root().children) {
        if (isPseudoBootFolder(*child)) {
            tree.Remove(child->name);
            return;
        }
    }
}

// An item's path as the changes name it: "/" between components.
QString imagePath(const QString& name)
{
    QString path = name;
    path.replace(kSeparator, QLatin1Char('/'));
    return path;
}

bool isWithin(const QString& name, const QString& folder)
{
    return name == folder || name.startsWith(folder + kSeparator);
}

bool sameBytes(const QString& a, const QString& b)
{
    QFile left(a);
    QFile right(b);
    if (left.size() != right.size() || !left.open(QIODevice::ReadOnly) ||
        !right.open(QIODevice::ReadOnly))
        return false;
    while (!left.atEnd()) {
        if (left.read(1 << 20) != right.read(1 << 20))
            return false;
    }
    return true;
}

// A file of the working copy with the boot image's bytes, as a path relative
// to the copy, or empty: the builder then points the catalogue at it instead
// of adding the boot image as a file of its own.
QString sameFileIn(const QString& root, const QString& bootImage)
{
    const qint64 size = QFileInfo(bootImage).size();
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::NoSymLinks,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        if (it.fileInfo().size() == size && sameBytes(it.filePath(), bootImage))
            return QDir(root).relativeFilePath(it.filePath());
    }
    return QString();
}

} // namespace

void CEditOperation::Stop()
{
    m_session.Stop();
}

CEditSession::CEditSession(QObject* parent) : QObject(parent)
{
    m_loading = new CEditOperation(*this, this);
    m_exporting = new CEditOperation(*this, this);
    m_saving = new CEditOperation(*this, this);
    m_list = new CListJob(m_contents, this);
    connect(m_list, &CListJob::finished, this, &CEditSession::OnListed);
    // A tool's end after a stop is the stop's to report.
    m_save = new CImageSaveJob(this);
    m_build = new CBuildJob(this);
    for (CJob* job : {static_cast<CJob*>(m_save), static_cast<CJob*>(m_build)}) {
        connect(job, &CJob::progressed, this,
                [this](int percent) { Tell(Phase::Saving, percent); });
        connect(job, &CJob::finished, this, [this, job](bool ok, const QString& message) {
            if (m_step != job)
                return; // a stopped save's, whose end is the stop's to report
            m_step = nullptr;
            Finish(ok, ok ? QString() : message);
        });
    }
    m_exportJob = new CExtractJob(this);
    connect(m_exportJob, &CJob::progressed, this,
            [this](int percent) { Tell(Phase::Exporting, percent); });
    connect(m_exportJob, &CExtractJob::extracting, this, &CEditSession::exporting);
    connect(m_exportJob, &CJob::finished, this, [this] {
        if (m_step != m_exportJob)
            return;
        m_step = nullptr;
        if (!m_exportJob->Succeeded()) {
            Finish(false, m_exportJob->Message());
            return;
        }
        const QStringList placed = m_exportJob->Placed();
        for (qsizetype i = 0; i < placed.size() && i < m_exportItems.size(); ++i) {
            const Item* item = m_contents.Find(m_exportItems.at(i));
            QString why;
            if (item && !PlaceExported(placed.at(i), *item, &why)) {
                Finish(false, why);
                return;
            }
        }
        StartExportCopies();
    });
}

CEditSession::~CEditSession()
{
    Stop();
    m_list->Stop();
    CRunCommandThread::Dispose(m_reporter);
    CRunCommandThread::Dispose(m_count);
    DropWorkingCopy();
}

void CEditSession::DropWorkingCopy()
{
    // The folder goes once the worker and the tool have both ended, so
    // neither writes into it afterwards; whichever ends last removes it.
    std::shared_ptr<ScratchFolder> dir(std::move(m_dir));
    const auto ended = [dir]() mutable { dir.reset(); };
    if (m_copier) {
        disconnect(m_copier.get(), nullptr, this, nullptr);
        CFileCopy::Retire(std::move(m_copier), ended);
    }
    CRunCommandThread::StopThen(m_extract, ended);
}

bool CEditSession::IsListing() const
{
    return !m_image.isEmpty() && !m_loaded && m_loadProblem.isEmpty();
}

void CEditSession::Load(const QString& image)
{
    Stop();
    m_loading->Begin();
    m_list->Stop();
    CRunCommandThread::Dispose(m_reporter);
    CRunCommandThread::Dispose(m_count);
    DropWorkingCopy();
    m_pending.clear();
    m_workingCopy.clear();
    m_image = image;
    m_loaded = false;
    m_relisting = false;
    m_loadProblem.clear();
    m_extractProgress = 0;
    m_boot = BootSetup::Plan();
    m_reportLines.clear();
    m_report = ImageSave::BootReport();
    m_changes.clear();
    m_changeItems.clear();
    m_way = ImageSave::Way::Xorriso;
    m_label = BootSetup::VolumeLabel(image);

    m_list->Start(image);

    // The boot setup is read alongside: which files it names, so that an edit
    // cannot take them away.
    m_reporter = new CRunCommandThread;
    CRunCommandThread* report = m_reporter;
    connect(report, &CRunCommandThread::standoutputlines, this,
            [this](const QStringList& lines) { m_reportLines << lines; });
    connect(report, &CRunCommandThread::sigfinished, this, &CEditSession::OnReported);
    report->SetCommand(ToolLocator::Find(ToolLocator::Tool::Xorriso),
                       ImageSave::ReportArguments(image));
    report->StartCommand();

    // An image with a UDF tree is saved by xorriso only when its ISO 9660
    // tree shows as much: the archive tool lists the UDF tree, Brenta's
    // reader the ISO 9660 one (with or without Rock Ridge). The listing shown
    // is one of the two; the other is only counted.
    const IsoProbe::Trees trees = IsoProbe::Read(image);
    m_hasUdf = trees.udf;
    m_needCount = trees.udf;
    m_otherCount = -1;
    if (!m_needCount)
        return;
    const QString reader = ToolLocator::Find(ToolLocator::Tool::IsoReader);
    const bool shownByReader = trees.rockRidge && !reader.isEmpty();
    m_countIsUdf = shownByReader;
    if (!shownByReader && reader.isEmpty())
        return; // nothing to compare with: the UDF tree is taken to be the image's
    // Only the number of entries is kept; the tree goes with the runner.
    struct Counted
    {
        ItemTree tree;
        Listing::Reader reader{tree};
    };
    auto counted = std::make_shared<Counted>();
    m_count = new CRunCommandThread;
    connect(m_count, &CRunCommandThread::standoutputlines, this,
            [counted](const QStringList& lines) {
                for (const QString& line : lines)
                    counted->reader.Feed(line);
            });
    connect(m_count, &CRunCommandThread::sigfinished, this, [this, counted] {
        if (m_count->GetResult() == CRunCommandThread::Result::Success &&
            counted->reader.Finished()) {
            removePseudoBootFolder(counted->tree);
            m_otherCount = counted->tree.Count();
        }
        OnCounted();
    });
    if (shownByReader)
        m_count->SetCommand(ToolLocator::Find(ToolLocator::Tool::Archive),
                            Listing::Arguments(image));
    else
        m_count->SetCommand(reader, {QStringLiteral("list"), image});
    m_count->StartCommand();
}

void CEditSession::LoadFailed(const QString& problem)
{
    if (!m_loadProblem.isEmpty())
        return;
    m_loadProblem = problem;
    m_list->Stop();
    CRunCommandThread::Dispose(m_reporter);
    CRunCommandThread::Dispose(m_count);
    m_loading->Finish(false, problem);
}

void CEditSession::OnListed()
{
    if (!m_loadProblem.isEmpty())
        return;
    if (!m_list->Succeeded()) {
        LoadFailed(m_list->Message());
        return;
    }
    removePseudoBootFolder(m_contents);
    m_listedByArchive = m_list->Tree() != QLatin1String("Rock Ridge");
    if (m_relisting) {
        m_relisting = false;
        m_list->RecordFiles(nullptr);
    }
    Decide();
}

void CEditSession::OnReported()
{
    const bool ok = m_reporter->GetResult() == CRunCommandThread::Result::Success;
    const QString failure =
        ok ? QString()
           : m_reporter->FailureText(ToolLocator::DisplayName(ToolLocator::Tool::Xorriso));
    m_reporter->deleteLater();
    m_reporter = nullptr;
    // An image of UDF alone has nothing xorriso reads; it is rebuilt from its
    // UDF tree, whose boot setup the El Torito reader measures.
    if (!ok && !m_hasUdf) {
        LoadFailed(QStringLiteral("The image's boot setup could not be read. %1").arg(failure));
        return;
    }
    m_report = ok ? ImageSave::ParseReport(m_reportLines) : ImageSave::BootReport();
    m_reportLines.clear();
    for (QString& file : m_report.bootFiles) {
        while (file.startsWith(QLatin1Char('/')))
            file.remove(0, 1);
    }
    Decide();
}

void CEditSession::OnCounted()
{
    m_count->deleteLater();
    m_count = nullptr;
    Decide();
}

void CEditSession::Decide()
{
    if (!m_loadProblem.isEmpty() || m_loaded || m_list->IsRunning() || m_reporter || m_count)
        return;
    if (m_needCount) {
        // A count that could not be taken leaves the UDF tree as the image's:
        // the rebuild keeps it, xorriso would lose it.
        bool udfHoldsMore = true;
        if (m_otherCount >= 0) {
            const qsizetype shown = m_contents.Count();
            const qsizetype other = m_otherCount;
            udfHoldsMore = m_countIsUdf ? other > shown : shown > other;
            qCDebug(lcIso) << "entries shown" << shown << "other tree" << other;
        }
        m_needCount = false;
        if (udfHoldsMore) {
            m_way = ImageSave::Way::UdfRebuild;
            if (!m_listedByArchive) {
                // The tree shown must be the UDF one, which the archive tool lists.
                m_relisting = true;
                m_list->RecordFiles(&m_files);
                m_list->Start(m_image);
                return;
            }
        }
    }
    if (m_way == ImageSave::Way::UdfRebuild && !m_dir) {
        StartWorkingCopy();
        if (!m_loadProblem.isEmpty())
            return;
    }
    m_loaded = true;
    qCDebug(lcIso) << "loaded, saved by"
                   << (m_way == ImageSave::Way::Xorriso ? "xorriso" : "a UDF rebuild")
                   << "boot files" << m_report.bootFiles;
    m_loading->Finish(true, QString());
}

void CEditSession::StartWorkingCopy()
{
    m_dir = std::make_unique<ScratchFolder>(QStringLiteral("edit"));
    if (!m_dir->IsValid()) {
        LoadFailed(QStringLiteral("Cannot prepare a working folder in %1 (%2).")
                       .arg(Util::ScratchDir(), m_dir->ErrorString()));
        return;
    }
    m_workingCopy = m_dir->FilePath(QStringLiteral("contents"));
    QDir().mkpath(m_workingCopy);
    m_boot = BootSetup::Prepare(m_image, m_dir->FilePath(QStringLiteral("boot")));
    m_copier = std::make_unique<CFileCopy>();
    // A save waits for the edits carried out in the copy: the worker says
    // how far it is and when its queue has run empty.
    const auto saveWaits = [this] {
        if (m_task == Task::Save)
            CheckCopies();
    };
    connect(m_copier.get(), &CFileCopy::progress, this, saveWaits);
    connect(m_copier.get(), &CFileCopy::idle, this, saveWaits);
    m_extract = new CRunCommandThread;
    connect(m_extract, &CRunCommandThread::standoutputline, this, &CEditSession::OnExtractLine);
    connect(m_extract, &CRunCommandThread::sigfinished, this, &CEditSession::OnExtracted);
    m_extract->SetCommand(ToolLocator::Find(ToolLocator::Tool::Archive),
                          Extraction::Arguments(m_image, m_workingCopy, {}));
    m_extract->StartCommand(QThread::InheritPriority);
}

void CEditSession::OnExtractLine(const QString& line)
{
    const std::optional<Extraction::Progress> progress = Extraction::ParseProgress(line);
    if (!progress || progress->percent == m_extractProgress)
        return;
    m_extractProgress = progress->percent;
    if (m_task == Task::Save)
        CheckCopies();
}

void CEditSession::OnExtracted()
{
    const bool ok = m_extract->GetResult() == CRunCommandThread::Result::Success;
    const QString failure =
        ok ? QString()
           : m_extract->FailureText(ToolLocator::DisplayName(ToolLocator::Tool::Archive));
    m_extract->deleteLater();
    m_extract = nullptr;
    if (!ok) {
        m_pending.clear();
        m_loadProblem =
            QStringLiteral("The image could not be read completely, so it cannot be edited. %1")
                .arg(failure);
        Q_EMIT extracted(false);
        if (m_task == Task::Save)
            CheckCopies();
        return;
    }
    m_extractProgress = 100;
    if (QFileInfo(LocalPath(kPseudoBootFolder)).isDir() && !m_contents.Find(kPseudoBootFolder))
        m_copier->AddJob(LocalPath(kPseudoBootFolder), QString(), CFileCopy::Delete);
    for (const auto& [source, target, mode] : m_pending)
        m_copier->AddJob(source, target, mode);
    m_pending.clear();
    Q_EMIT extracted(true);
    if (m_task == Task::Save)
        CheckCopies();
}

void CEditSession::Queue(const QString& source, const QString& target, int mode)
{
    if (m_way != ImageSave::Way::UdfRebuild || !m_copier)
        return;
    if (m_extract)
        m_pending.emplace_back(source, target, mode);
    else
        m_copier->AddJob(source, target, mode);
}

QString CEditSession::LocalPath(const QString& name) const
{
    return name.isEmpty() ? m_workingCopy : m_workingCopy + QLatin1Char('/') + imagePath(name);
}

int CEditSession::AddIndexOf(const Item* item) const
{
    for (size_t i = 0; i < m_changeItems.size(); ++i) {
        if (m_changeItems[i] == item)
            return int(i);
    }
    return -1;
}

bool CEditSession::ReplayedAfter(size_t index) const
{
    // An Add can be rewritten or dropped while no rename or deletion follows
    // it: the paths it was made among are then still those of the tree.
    for (size_t i = index + 1; i < m_changes.size(); ++i) {
        if (m_changes[i].kind == Change::Kind::Rename || m_changes[i].kind == Change::Kind::Delete)
            return true;
    }
    return false;
}

QString CEditSession::BootFileIn(const Item& item) const
{
    if (!item.source.isEmpty())
        return QString();
    const QString path = imagePath(item.name);
    for (const QString& file : m_report.bootFiles) {
        if (file.compare(path, Qt::CaseInsensitive) == 0 ||
            (item.isDir && file.startsWith(path + QLatin1Char('/'), Qt::CaseInsensitive)))
            return QLatin1Char('/') + file;
    }
    return QString();
}

QString CEditSession::BootFileText(const Item& item, const QString& bootFile, const QString& edit)
{
    // The path goes on a line of its own, where a dialog does not break it.
    return QStringLiteral("%1 cannot be %2: the image starts from %3\n%4")
        .arg(ItemTree::LastComponent(item.name), edit,
             item.isDir ? QStringLiteral("a file in it,") : QStringLiteral("it,"), bootFile);
}

QString CEditSession::OriginalPath(const Item& item) const
{
    if (!item.source.isEmpty())
        return QString();
    QString path = imagePath(item.name);
    for (auto it = m_changes.crbegin(); it != m_changes.crend(); ++it) {
        if (it->kind != Change::Kind::Rename)
            continue;
        if (path == it->newPath)
            path = it->path;
        else if (path.startsWith(it->newPath + QLatin1Char('/')))
            path = it->path + path.mid(it->newPath.size());
    }
    return path;
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
        Change change;
        change.kind = Change::Kind::Add;
        change.source = info.absoluteFilePath();
        change.path = imagePath(name);
        m_changes.push_back(change);
        m_changeItems.push_back(raw);
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
    const QFileInfoList entries = QDir(localDir).entryInfoList(QDir::Dirs | QDir::Files |
                                                               QDir::Drives | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        Item* child = m_contents.Append(
            folder, ItemTree::FromLocal(entry, folder.name + kSeparator + entry.fileName()));
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
    if (name.contains(kSeparator) || name.contains(QLatin1Char('/')) ||
        name == QLatin1String(".") || name == QLatin1String(".."))
        return refuse(QStringLiteral("A name cannot be \".\" or \"..\", nor contain / or \\."));
    if (const QString bootFile = BootFileIn(item); !bootFile.isEmpty())
        return refuse(BootFileText(item, bootFile, QStringLiteral("renamed")));
    if (!m_contents.Rename(old, name))
        return refuse(QStringLiteral("There is already an entry named \"%1\" here.").arg(name));
    Queue(LocalPath(old), LocalPath(item.name), CFileCopy::Move);

    const QString from = imagePath(old);
    const QString to = imagePath(item.name);
    if (const int added = AddIndexOf(&item); added >= 0 && !ReplayedAfter(size_t(added))) {
        m_changes[size_t(added)].path = to;
        return true;
    }
    if (!m_changes.empty() && m_changes.back().kind == Change::Kind::Rename &&
        m_changes.back().newPath == from) {
        // A second name for the entry just renamed replaces the first.
        m_changes.back().newPath = to;
        if (m_changes.back().path == to) {
            m_changes.pop_back();
            m_changeItems.pop_back();
        }
        return true;
    }
    Change change;
    change.kind = Change::Kind::Rename;
    change.path = from;
    change.newPath = to;
    m_changes.push_back(change);
    m_changeItems.push_back(nullptr);
    return true;
}

bool CEditSession::Remove(const QList<Item*>& items, QString* why)
{
    for (const Item* item : items) {
        if (const QString bootFile = BootFileIn(*item); !bootFile.isEmpty()) {
            if (why)
                *why = BootFileText(*item, bootFile, QStringLiteral("deleted"));
            return false;
        }
    }
    QStringList names;
    for (const Item* item : items)
        names << item->name;
    for (const QString& name : std::as_const(names)) {
        if (!m_contents.Find(name))
            continue;
        // Files added and not yet saved over are simply forgotten; the entry
        // goes with a deletion unless it was such a file itself.
        bool forgotten = false;
        for (size_t i = m_changes.size(); i-- > 0;) {
            const Item* added = m_changeItems[i];
            if (!added || !isWithin(added->name, name))
                continue;
            if (ReplayedAfter(i)) {
                m_changeItems[i] = nullptr;
                continue;
            }
            forgotten = forgotten || added->name == name;
            m_changes.erase(m_changes.begin() + std::ptrdiff_t(i));
            m_changeItems.erase(m_changeItems.begin() + std::ptrdiff_t(i));
        }
        if (!forgotten) {
            Change change;
            change.kind = Change::Kind::Delete;
            change.path = imagePath(name);
            m_changes.push_back(change);
            m_changeItems.push_back(nullptr);
        }
        Queue(LocalPath(name), QString(), CFileCopy::Delete);
        m_contents.Remove(name);
    }
    return true;
}

void CEditSession::SetLabel(const QString& label)
{
    m_label = label;
    for (size_t i = 0; i < m_changes.size(); ++i) {
        if (m_changes[i].kind == Change::Kind::Label) {
            m_changes.erase(m_changes.begin() + std::ptrdiff_t(i));
            m_changeItems.erase(m_changeItems.begin() + std::ptrdiff_t(i));
            break;
        }
    }
    Change change;
    change.kind = Change::Kind::Label;
    change.label = label;
    m_changes.push_back(change);
    m_changeItems.push_back(nullptr);
}

void CEditSession::Export(const QList<const Item*>& items, const QString& destination)
{
    StopTask();
    m_task = Task::Export;
    m_exporting->Begin();
    m_phase = Phase::Exporting;
    m_destination = destination;
    m_exportEntries.clear();
    m_exportItems.clear();
    m_exportCopies.clear();
    m_exportInto.clear();
    m_exportTargets.clear();
    for (const Item* item : items) {
        if (item->source.isEmpty()) {
            m_exportEntries << OriginalPath(*item);
            m_exportItems << item->name;
        } else
            m_exportCopies.emplace_back(item->source, ItemTree::LastComponent(item->name));
    }
    if (m_exportEntries.isEmpty()) {
        StartExportCopies();
        return;
    }
    // The listing checks the entries; it is the image's own while no entry
    // was renamed.
    const bool renamed =
        std::any_of(m_changes.cbegin(), m_changes.cend(),
                    [](const Change& change) { return change.kind == Change::Kind::Rename; });
    Tell(Phase::Exporting, 0);
    m_step = m_exportJob;
    m_exportJob->Start(m_image, destination, m_exportEntries, renamed ? nullptr : &m_contents);
}

bool CEditSession::PlaceExported(const QString& placed, const Item& item, QString* why)
{
    const QString shown = ItemTree::LastComponent(item.name);
    const QString original = OriginalPath(item);
    const auto fail = [why](const QString& text) {
        *why = text;
        return false;
    };
    // The extracted entry is the image's; an edited folder is made again as
    // the tree shows it: entries moved to their new names, deleted ones left
    // out, added files copied from disk.
    const auto edited = [&](const Change& change) {
        const QString inside = imagePath(item.name) + QLatin1Char('/');
        return change.path.startsWith(original + QLatin1Char('/')) ||
               change.path.startsWith(inside) || change.newPath.startsWith(inside);
    };
    QString from = placed;
    std::unique_ptr<QTemporaryDir> rebuilt;
    if (item.isDir && std::any_of(m_changes.cbegin(), m_changes.cend(), edited)) {
        rebuilt = std::make_unique<QTemporaryDir>(
            QDir(m_destination).filePath(QStringLiteral(".brenta-export-XXXXXX")));
        if (!rebuilt->isValid())
            return fail(QStringLiteral("Cannot write into %1 (%2).")
                            .arg(m_destination, rebuilt->errorString()));
        std::function<bool(const Item&)> walk = [&](const Item& folder) {
            for (const auto& child : folder.children) {
                const QString relative = imagePath(child->name.mid(item.name.size() + 1));
                const QString target = rebuilt->filePath(relative);
                if (!child->source.isEmpty()) {
                    if (child->isDir && !QFileInfo(child->source).isSymLink())
                        QDir().mkpath(target);
                    else
                        m_exportInto.emplace_back(child->source, target);
                } else if (child->isDir) {
                    QDir().mkpath(target);
                } else {
                    const QString source = placed + OriginalPath(*child).mid(original.size());
                    if (!QDir().rename(source, target))
                        return fail(
                            QStringLiteral("%1 could not be moved to %2.").arg(source, target));
                }
                if (child->isDir && !walk(*child))
                    return false;
            }
            return true;
        };
        if (!walk(item))
            return false;
        Extraction::RemoveTree(placed);
        from = rebuilt->path();
    } else if (original.section(QLatin1Char('/'), -1) == shown) {
        return true;
    }
    const QString target = QDir(m_destination).filePath(Extraction::FreeName(m_destination, shown));
    if (!QDir().rename(from, target))
        return fail(QStringLiteral("%1 could not be renamed to %2.").arg(from, target));
    if (rebuilt) {
        rebuilt->setAutoRemove(false);
        QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                          QFile::ExeOther);
        for (auto& [source, copy] : m_exportInto) {
            if (copy.startsWith(from + QLatin1Char('/')))
                copy = target + copy.mid(from.size());
        }
    }
    return true;
}

void CEditSession::StartExportCopies()
{
    if (m_exportCopies.empty() && m_exportInto.empty()) {
        Finish(true, m_exportEntries.isEmpty() ? QString() : m_exportJob->Message());
        return;
    }
    // A worker of the export's own, which a stop ends at once.
    m_exporter = std::make_unique<CFileCopy>();
    const auto exportWaits = [this] {
        if (m_task == Task::Export)
            CheckCopies();
    };
    connect(m_exporter.get(), &CFileCopy::progress, this, exportWaits);
    connect(m_exporter.get(), &CFileCopy::idle, this, exportWaits);
    for (const auto& [source, name] : m_exportCopies) {
        const QString target =
            QDir(m_destination).filePath(Extraction::FreeName(m_destination, name));
        m_exportTargets << target;
        m_exporter->AddJob(source, target, CFileCopy::CopyAs);
    }
    for (const auto& [source, target] : m_exportInto)
        m_exporter->AddJob(source, target, CFileCopy::CopyAs);
    m_total = m_exporter->RemainingBytes();
    Tell(Phase::Copying, 0);
}

void CEditSession::Save(const QString& output)
{
    StopTask();
    m_task = Task::Save;
    m_saving->Begin();
    m_output = QFileInfo(output).absoluteFilePath();
    if (!m_loaded) {
        Finish(false,
               m_loadProblem.isEmpty() ? QStringLiteral("No image is open.") : m_loadProblem);
        return;
    }
    if (m_way == ImageSave::Way::Xorriso) {
        Tell(Phase::Saving, 0);
        m_step = m_save;
        m_save->Start(m_image, m_changes, m_output);
        return;
    }
    m_phase = Phase::Reading;
    CheckCopies();
}

void CEditSession::CheckCopies()
{
    if (m_task == Task::None)
        return;
    if (m_phase == Phase::Reading) {
        if (!m_loadProblem.isEmpty()) {
            Finish(false, m_loadProblem);
            return;
        }
        if (IsExtracting()) {
            Tell(Phase::Reading, m_extractProgress);
            return;
        }
        Tell(Phase::Copying, 0);
        m_total = m_copier->RemainingBytes();
    }
    if (m_phase != Phase::Copying)
        return;
    CFileCopy* const worker = m_task == Task::Export ? m_exporter.get() : m_copier.get();
    if (!worker)
        return;
    const qint64 remaining = worker->RemainingBytes();
    // The worker sizes what was queued as it goes: the whole grows with it.
    m_total = qMax(m_total, remaining);
    if (remaining >= 1) {
        Tell(Phase::Copying, m_total > 0 ? int((m_total - remaining) * 100 / m_total) : 0);
        return;
    }
    const QStringList failures = worker->TakeFailures();
    if (!failures.isEmpty()) {
        Finish(false, QStringLiteral("These could not be copied: %1")
                          .arg(failures.join(QStringLiteral("; "))));
        return;
    }
    if (m_task == Task::Export)
        Finish(true, m_exportEntries.isEmpty() ? QString() : m_exportJob->Message());
    else
        StartBuild();
}

void CEditSession::StartBuild()
{
    Tell(Phase::Saving, 0);

    // The catalogue points at a file of the tree with the boot image's bytes
    // where there is one; otherwise the boot image goes into the root, hidden
    // from the tree, as the catalogue does.
    BootSetup::Plan plan = m_boot;
    QList<QPair<QString, QString>> rootFiles;
    QStringList hidden;
    for (BootSetup::BootImage& boot : plan.images) {
        const QString same = sameFileIn(m_workingCopy, boot.path);
        if (!same.isEmpty()) {
            boot.file = same;
            continue;
        }
        boot.file = Extraction::FreeName(m_workingCopy, boot.file);
        rootFiles << qMakePair(boot.file, boot.path);
        hidden << boot.file;
    }
    const QString catalog = Extraction::FreeName(m_workingCopy, QStringLiteral("boot.catalog"));
    QStringList bootOptions = BootSetup::Arguments(plan, catalog);
    if (!bootOptions.isEmpty())
        hidden << catalog;
    for (const QString& name : std::as_const(hidden))
        bootOptions << QStringLiteral("-hide") << name << QStringLiteral("-hide-joliet") << name;
    m_step = m_build;
    m_build->Run(
        [&](const QString& part) {
            return ImageBuild::EditArguments(m_label, bootOptions, part, m_workingCopy, rootFiles);
        },
        m_output);
}

void CEditSession::Stop()
{
    if (m_loading->IsRunning() && !m_loading->IsStopping()) {
        // A listing writes nothing: the load ends without waiting for its tools.
        m_loadProblem = CJob::StoppedMessage();
        m_list->Stop();
        CRunCommandThread::Dispose(m_reporter);
        CRunCommandThread::Dispose(m_count);
        m_loading->EndStopped()();
    }
    StopTask();
}

void CEditSession::StopTask()
{
    if (m_task == Task::None)
        return;
    CEditOperation* const operation = m_task == Task::Export ? m_exporting : m_saving;
    const std::function<void()> end = operation->EndStopped(
        m_task == Task::Export
            ? CJob::StoppedMessage() + QStringLiteral(" The files exported so far were removed.")
            : CJob::UnfinishedImageRemoved());
    m_task = Task::None;
    // At most one tool or copy is under way; the operation ends once it has
    // ended and what it wrote is gone.
    CJob* const running = std::exchange(m_step, nullptr);
    if (running != nullptr && running->IsRunning()) {
        connect(running, &CJob::finished, this, end, Qt::SingleShotConnection);
        running->Stop();
        DropExporter({});
    } else if (m_exporter) {
        DropExporter(m_exportTargets, end);
    } else {
        end();
    }
    m_exportTargets.clear();
}

void CEditSession::DropExporter(const QStringList& removed, std::function<void()> afterwards)
{
    if (!m_exporter) {
        if (afterwards)
            afterwards();
        return;
    }
    disconnect(m_exporter.get(), nullptr, this, nullptr);
    CFileCopy::Retire(std::move(m_exporter), [removed, afterwards = std::move(afterwards)] {
        for (const QString& target : removed) {
            if (QFileInfo(target).isDir())
                QDir(target).removeRecursively();
            else
                QFile::remove(target);
        }
        if (afterwards)
            afterwards();
    });
}

void CEditSession::Tell(Phase phase, int percent)
{
    m_phase = phase;
    if (m_task == Task::None)
        return;
    CEditOperation* const operation = m_task == Task::Export ? m_exporting : m_saving;
    const bool udf = m_way == ImageSave::Way::UdfRebuild;
    QString text;
    switch (phase) {
    case Phase::Reading:
        text = QStringLiteral("Reading the image (1 of 3)");
        break;
    case Phase::Exporting:
        text = QStringLiteral("Extracting files (1 of 2)");
        break;
    case Phase::Copying:
        text = m_task == Task::Save        ? QStringLiteral("Copying files (2 of 3)")
               : m_exportEntries.isEmpty() ? QStringLiteral("Copying files")
                                           : QStringLiteral("Copying files (2 of 2)");
        break;
    case Phase::Saving:
        text = udf ? QStringLiteral("Building the image (3 of 3)")
                   : QStringLiteral("Saving the image");
        break;
    }
    operation->Progress(percent, text);
}

void CEditSession::Finish(bool succeeded, const QString& message)
{
    const Task task = m_task;
    if (task == Task::None)
        return;
    m_task = Task::None;
    DropExporter({});
    m_exportTargets.clear();
    (task == Task::Export ? m_exporting : m_saving)->Finish(succeeded, message);
}
