#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <tuple>
#include <vector>

#include "iso/bootsetup.h"
#include "iso/imagesave.h"
#include "iso/itemtree.h"
#include "iso/listing.h"
#include "tools/job.h"

class CBuildJob;
class CEditSession;
class CExtractJob;
class CFileCopy;
class CListJob;
class CRunCommandThread;
class ScratchFolder;

// One of an edit session's long operations (loading, exporting, saving) as a
// job of its own: the session starts it, and its Stop() stops the session's
// work under way.
class CEditOperation final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CEditOperation)

public:
    CEditOperation(CEditSession& session, QObject* parent) : CJob(parent), m_session(session) {}
    void Stop() override;

private:
    friend class CEditSession;
    CEditSession& m_session;
};

// Everything behind the edit page that needs no widget. Loading an image
// lists it into an item tree and reads its boot setup; nothing is copied.
// Edits change the tree and are kept as a list of changes in the order they
// were made, which the save replays over the original image with xorriso, so
// the new image keeps every El Torito entry and the system area.
//
// Images whose files live in a UDF tree that their ISO 9660 tree does not
// show (Windows installers) cannot be written by xorriso, which writes no
// UDF: for them the session extracts a working copy, carries the edits out
// in it, and rebuilds the image with the image builder's UDF option and the
// original's El Torito entries. Nothing here blocks.
class CEditSession final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CEditSession)

public:
    // Reading: a save waits for the working copy (UDF way); Exporting: entries
    // leave the image; Copying: files are copied; Saving: the new image is
    // written.
    enum class Phase
    {
        Reading,
        Exporting,
        Copying,
        Saving
    };

    explicit CEditSession(QObject* parent = nullptr);
    ~CEditSession() override;

    // Lists the image, reads its boot setup and decides how it is saved;
    // Loading() ends when the tree can be edited, or with LoadProblem().
    void Load(const QString& image);
    QString Image() const { return m_image; }
    ItemTree& Contents() { return m_contents; }
    const ItemTree& Contents() const { return m_contents; }
    bool IsLoaded() const { return m_loaded; }
    // Loaded, and for the UDF way the working copy complete too.
    bool IsReady() const { return m_loaded && m_extract == nullptr; }
    bool IsListing() const;
    ImageSave::Way Way() const { return m_way; }
    const ImageSave::BootReport& Report() const { return m_report; }
    // The boot setup the image builder is given (UDF way only).
    const BootSetup::Plan& Boot() const { return m_boot; }
    QString Label() const { return m_label; }
    // Why the image could not be read (empty when it could).
    QString LoadProblem() const { return m_loadProblem; }
    const std::vector<ImageSave::Change>& Changes() const { return m_changes; }

    // UDF way: the working copy, filled in the background after the listing.
    QString WorkingCopy() const { return m_workingCopy; }
    bool IsExtracting() const { return m_extract != nullptr; }
    int ExtractProgress() const { return m_extractProgress; }

    // Edits. Added local files and folders go into `folder`; the entries
    // placed are returned (paths already in the folder are skipped).
    QList<Item*> Add(Item& folder, const QStringList& localPaths);
    // False (and `why` says so, unless nothing changes) when the name is
    // empty, holds a separator, names an entry that exists already, or the
    // entry is, or holds, a file the boot setup names.
    bool Rename(Item& item, const QString& newName, QString* why = nullptr);
    // Removes nothing (and `why` names the file) when one of the entries is,
    // or holds, a file the boot setup names.
    bool Remove(const QList<Item*>& items, QString* why = nullptr);
    void SetLabel(const QString& label);
    // The boot file at or below the entry, or empty.
    QString BootFileIn(const Item& item) const;
    // Why an edit of the entry holding `bootFile` is refused; `edit` is
    // "renamed" or "deleted".
    static QString BootFileText(const Item& item, const QString& bootFile, const QString& edit);
    // The path the entry has in the original image ("/" separated), or empty
    // for an added entry.
    QString OriginalPath(const Item& item) const;

    // Entries of the image are extracted by the extract page's reader, added
    // ones copied from disk; nothing in `destination` is replaced. Ends with
    // Exporting().
    void Export(const QList<const Item*>& items, const QString& destination);
    // Writes the new image; ends with Saving().
    void Save(const QString& output);
    // Ends a load, an export or a save; the operation ends once its tools
    // have and what they wrote is removed.
    void Stop();
    bool IsBusy() const { return m_task != Task::None; }
    QString OutputPath() const { return m_output; }
    // The phase of the export or save under way.
    Phase CurrentPhase() const { return m_phase; }

    CJob& Loading() { return *m_loading; }
    CJob& Exporting() { return *m_exporting; }
    CJob& Saving() { return *m_saving; }

Q_SIGNALS:
    // UDF way: the working copy is complete, or could not be made.
    void extracted(bool succeeded);
    // The entry of the image being exported.
    void exporting(const QString& entry);

private:
    enum class Task
    {
        None,
        Export,
        Save
    };

    void OnListed();
    void OnReported();
    void OnCounted();
    void Decide();
    void LoadFailed(const QString& problem);
    void StartWorkingCopy();
    void OnExtractLine(const QString& line);
    void OnExtracted();
    void Queue(const QString& source, const QString& target, int mode);
    void AddDirContents(Item& folder, const QString& localDir);
    QString LocalPath(const QString& name) const;
    int AddIndexOf(const Item* item) const;
    bool ReplayedAfter(size_t index) const;
    // Ends an export or a save; see Stop().
    void StopTask();
    // Moves a save or an export on as far as what it waits for allows: the
    // working copy, then the copies queued. Called whenever one of them has
    // news; it reads their state afresh, so a late or repeated call is harmless.
    void CheckCopies();
    // Lets go of the working copy's worker and tool without waiting for
    // either; the folder goes once both have ended.
    void DropWorkingCopy();
    // Lets go of the export's worker without waiting for it; `removed` goes
    // once it has ended, and then `afterwards` runs (on the worker's thread).
    void DropExporter(const QStringList& removed, std::function<void()> afterwards = {});
    // Tells the operation under way how far `phase` is.
    void Tell(Phase phase, int percent);
    // Gives an extracted entry the name and, for a folder, the contents the tree shows.
    bool PlaceExported(const QString& placed, const Item& item, QString* why);
    void StartExportCopies();
    void StartBuild();
    void Finish(bool succeeded, const QString& message);

    CEditOperation* m_loading = nullptr;
    CEditOperation* m_exporting = nullptr;
    CEditOperation* m_saving = nullptr;
    QString m_image;
    QString m_label;
    ItemTree m_contents;
    CListJob* m_list = nullptr;
    CRunCommandThread* m_reporter = nullptr;
    QStringList m_reportLines;
    CRunCommandThread* m_count = nullptr;
    qsizetype m_otherCount = -1; // entries of the tree not shown, or -1 when unknown
    bool m_countIsUdf = false;   // the other listing is the archive tool's (UDF first)
    bool m_needCount = false;
    bool m_hasUdf = false;
    bool m_listedByArchive = false;
    bool m_relisting = false;
    std::vector<Listing::FileSpan> m_files; // makes a listing the archive tool's
    bool m_loaded = false;
    ImageSave::Way m_way = ImageSave::Way::Xorriso;
    ImageSave::BootReport m_report;
    QString m_loadProblem;
    std::vector<ImageSave::Change> m_changes;
    std::vector<const Item*> m_changeItems; // the entry an Add change placed, else null

    // UDF way
    std::unique_ptr<ScratchFolder> m_dir;
    QString m_workingCopy;
    std::unique_ptr<CFileCopy> m_copier;
    CRunCommandThread* m_extract = nullptr;
    std::vector<std::tuple<QString, QString, int>> m_pending;
    BootSetup::Plan m_boot;
    int m_extractProgress = 0;
    CBuildJob* m_build = nullptr;

    CImageSaveJob* m_save = nullptr;
    CExtractJob* m_exportJob = nullptr;
    CJob* m_step = nullptr; // the tool job the export or save waits for
    std::unique_ptr<CFileCopy> m_exporter;
    Task m_task = Task::None;
    Phase m_phase = Phase::Reading;
    qint64 m_total = 0;
    QString m_output;
    QString m_destination;
    QStringList m_exportEntries;
    QStringList m_exportItems; // the extracted entries' names in the tree
    std::vector<std::pair<QString, QString>> m_exportCopies; // added entries: source, name
    std::vector<std::pair<QString, QString>>
        m_exportInto; // added files in edited folders: source, target
    QStringList m_exportTargets;
};
