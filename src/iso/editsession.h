#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

#include "iso/bootsetup.h"
#include "iso/itemtree.h"

class CBuildJob;
class CFileCopy;
class CListJob;
class CRunCommandThread;
class QTimer;
class ScratchFolder;

// Everything behind the edit page that needs no widget: an image listed into
// an item tree, its whole contents extracted into a working copy of the
// session's own, edits that change both, and saving a new image built from the
// working copy with the original's boot setup and volume label.
//
// Edits made before the working copy is complete are kept in order and handed
// to the copy worker once it is; export and save first wait for the working
// copy and for every edit to be carried out. Nothing here blocks: waiting is
// done by polling, and the phases are reported by progress().
class CEditSession final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CEditSession)

public:
    enum class Phase { Extracting, Copying, Building };
    struct Job
    {
        QString source;
        QString target;
        int mode = 0; // CFileCopy::Mode
    };

    explicit CEditSession(QObject* parent = nullptr);
    ~CEditSession() override;

    // Starts listing the image and extracting it into a fresh working copy;
    // the previous image's working copy is removed once its tool has ended,
    // so no file of it can reach the new one.
    void Load(const QString& image);
    QString Image() const { return m_image; }
    ItemTree& Contents() { return m_contents; }
    const ItemTree& Contents() const { return m_contents; }
    QString WorkingCopy() const { return m_workingCopy; }
    const BootSetup::Plan& Boot() const { return m_boot; }
    QString Label() const { return m_label; }
    bool IsListing() const;
    bool IsExtracting() const { return m_extract != nullptr; }
    // Listing and extraction are over: edits go straight to the copy worker.
    bool IsReady() const { return !m_image.isEmpty() && !IsListing() && !IsExtracting(); }
    int ExtractProgress() const { return m_extractProgress; }
    // Why the image could not be read (empty when it could).
    QString LoadProblem() const { return m_loadProblem; }
    int PendingCount() const { return int(m_pending.size()); }

    // Edits. Added local files and folders go into `folder`; the entries
    // placed are returned (paths already in the folder are skipped).
    QList<Item*> Add(Item& folder, const QStringList& localPaths);
    // False (and `why` says so) when the name is empty, holds a separator,
    // or names an entry that exists already.
    bool Rename(Item& item, const QString& newName, QString* why = nullptr);
    void Remove(const QList<Item*>& items);
    // The working copy path of an entry.
    QString LocalPath(const QString& name) const;

    // Copies entries into a folder under free names ("a (2).txt" beside an
    // existing "a.txt"); the export ends with exportFinished().
    void Export(const QList<const Item*>& items, const QString& destination);
    // Builds the new image; ends with saveFinished().
    void Save(const QString& output);
    // Ends an export or a save. The edits themselves are never dropped: they
    // go on in the background, so the working copy keeps matching the tree.
    void Stop();
    bool IsBusy() const { return m_task != Task::None; }
    QString OutputPath() const { return m_output; }

Q_SIGNALS:
    void listed(bool succeeded);
    void extracted(bool succeeded);
    // Extracting: percent of 100; Copying: KiB; Building: hundredths of a percent of 10000.
    void progress(CEditSession::Phase phase, qint64 value, qint64 maximum);
    void exportFinished(bool succeeded, const QString& message);
    void saveFinished(bool succeeded, const QString& message);

private:
    enum class Task { None, Export, Save };

    void Queue(const QString& source, const QString& target, int mode);
    void OnListed();
    void OnExtractLine(const QString& line);
    void OnExtracted();
    void BecomeReady();
    void AddDirContents(Item& folder, const QString& localDir);
    void Poll();
    void StartExportCopies();
    void StartBuild();
    void Finish(bool succeeded, const QString& message);
    void RetireWorkingCopy();

    QString m_image;
    QString m_label;
    QString m_workingCopy;
    QString m_bootDir;
    ItemTree m_contents;
    std::unique_ptr<ScratchFolder> m_dir;
    std::unique_ptr<CFileCopy> m_copier;
    std::unique_ptr<CFileCopy> m_exporter;
    CListJob* m_list = nullptr;
    CRunCommandThread* m_extract = nullptr;
    CBuildJob* m_build = nullptr;
    QTimer* m_poll = nullptr;
    std::vector<Job> m_pending;
    BootSetup::Plan m_boot;
    int m_extractProgress = 0;
    bool m_pseudoBootFolder = false;
    QString m_loadProblem;

    Task m_task = Task::None;
    Phase m_phase = Phase::Extracting;
    qint64 m_total = 0;
    QString m_output;
    std::vector<Job> m_exportJobs;
    QStringList m_exportTargets;
    std::vector<std::unique_ptr<ScratchFolder>> m_retired; // of earlier images, being removed
};
