#pragma once

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

#include "iso/extraction.h"
#include "iso/imagebuild.h"
#include "iso/isoprobe.h"
#include "iso/listing.h"
#include "tools/job.h"

class CFileCopy;
class QTimer;
class ScratchFolder;

class CRunCommandThread;
class ItemTree;

// Lists an image into an item tree. An image with a Rock Ridge tree is read
// by Brenta's own reader, which shows that tree exactly; any other by the
// archive tool (its UDF or Joliet tree, or the plain ISO 9660 one). Used
// alike by the pages and by the command line. A failed listing leaves the
// tree empty.
class CListJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CListJob)

public:
    explicit CListJob(ItemTree& tree, QObject* parent = nullptr);
    ~CListJob() override;

    // Clears the tree, titles it with the image's file name and starts.
    void Start(const QString& image);
    // Ends the tool; the tree is left empty.
    void Stop() override;

    // Entries whose names would lead outside a folder they are extracted
    // to; they are not in the tree.
    QStringList LeftOut() const { return m_leftOut; }
    // Records the files in the archive tool's order too (from the next
    // Start()): the order in which it writes their data when it extracts
    // them all to standard output. The listing then comes from that tool.
    void RecordFiles(std::vector<Listing::FileSpan>* files) { m_files = files; }
    // The tree shown: "Rock Ridge", "UDF", "Joliet" or "ISO 9660"; after success.
    QString Tree() const { return m_treeName; }
    // After success: what the reader complained about in an image it could
    // still list completely (damaged headers, data after the end), or empty.
    QString Warning() const { return m_warning; }

private:
    void OnFinished();
    void ClearTree();

    ItemTree& m_tree;
    bool m_byReader = false; // Brenta's Rock Ridge reader, not the archive tool
    QString m_treeName;
    QString m_warning;
    IsoProbe::Trees m_trees;
    std::vector<Listing::FileSpan>* m_files = nullptr;
    CRunCommandThread* m_runner = nullptr;
    std::unique_ptr<Listing::Reader> m_reader;
    QStringList m_said; // the tool's lines outside the table, where it tells what went wrong
    QStringList m_leftOut;
};

// Extracts entries of an image into a destination folder so that the folder
// receives the entries themselves: the tool writes into a hidden staging
// folder inside the destination, and the entries are then moved up under free
// names, so nothing that was there before is ever overwritten or deleted.
// The staging folder goes at the end, whatever the outcome. An image with a
// Rock Ridge tree is extracted by Brenta's own reader (links as links, modes
// and times kept, entries it cannot write named); any other by the archive
// tool.
class CExtractJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CExtractJob)

public:
    explicit CExtractJob(QObject* parent = nullptr);
    ~CExtractJob() override;

    // Entries are paths inside the image with "/" between components; none
    // means the whole image. Each must be an entry of the image's listing:
    // `contents` is that listing when the caller has it already (it is read
    // during the call only); without it the job lists the image first.
    void Start(const QString& image, const QString& destination, const QStringList& entries,
               const ItemTree* contents = nullptr);
    // Ends the tool; what it had written goes once it has ended. The
    // finished() message of a failure says why; after success, what was not
    // extracted, if anything.
    void Stop() override;

    QStringList Placed() const { return m_placed; }

Q_SIGNALS:
    // The entry being extracted, just after the progress it makes.
    void extracting(const QString& entry);

private:
    void OnListed();
    void Extract(const ItemTree* contents);
    void StartArchive();
    void StartReader(const QString& reader);
    void OnLine(const QString& line);
    void OnFinished();
    void OnReaderFinished();
    // Ends with the reader's or the tool's failure, its output removed.
    void Fail(const QString& failure);
    // Moves what was extracted up into the destination, all but `notWritten`.
    void PlaceExtracted(const QStringList& notWritten, const QString& notice);

    std::unique_ptr<ItemTree> m_listed;
    CListJob* m_list = nullptr;
    CRunCommandThread* m_runner = nullptr;
    QString m_image;
    QString m_destination;
    QString m_staging;
    QStringList m_entries;
    QStringList m_lines;
    bool m_byReader = false;
    QStringList m_placed;
};

// Runs the image builder over a folder and tells honestly how it went: a
// build the tool refuses ends with its reasons. The image is written into a
// part file beside the output and renamed over it only when the build
// succeeded, so a failed or stopped build leaves the output as it was.
class CBuildJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CBuildJob)

public:
    // The builder's arguments for writing the image into `part`.
    using Arguments = std::function<QStringList(const QString& part)>;

    explicit CBuildJob(QObject* parent = nullptr) : CJob(parent) {}
    ~CBuildJob() override;

    void Start(ImageBuild::Type type, const QString& output, const QString& sourceDir,
               const QString& phase = QString());
    // Runs the builder with the arguments `arguments` gives; `phase` is the
    // phase text its progress is told with.
    void Run(const Arguments& arguments, const QString& output, const QString& phase = QString());
    // Ends the builder; its part file goes once it has ended.
    void Stop() override;

private:
    void OnFinished();

    bool m_suggestUdf = false;
    QString m_phase;
    QString m_output;
    QString m_part;
    CRunCommandThread* m_runner = nullptr;
};

// Builds an image from local files and folders copied into a staging folder
// of this job's own (so no other job's files can ever end up in its image),
// then runs the image builder on that folder. Files that cannot be copied
// fail the job instead of being left out.
//
// Used in one go (Start: copy the given paths, build, remove the folder) or
// as a lasting session, as the create page keeps it: entries are copied in
// the background as they are added, and Build waits for those copies. The
// copy worker says when it is done, so nothing is polled, and stopping never
// waits for a copy under way. Progress is told in two phases, "Copying
// files (1 of 2)" and "Building the image (2 of 2)".
class CCreateJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CCreateJob)

public:
    enum class Phase
    {
        Copying,
        Building
    };

    explicit CCreateJob(QObject* parent = nullptr);
    // The staging folder goes once its copy worker has ended.
    ~CCreateJob() override;

    // Copies each path under its own name, builds, and removes the folder.
    void Start(ImageBuild::Type type, const QString& output, const QStringList& paths);

    // Makes the session's staging folder and starts its copy worker, unless
    // done before; false when the folder cannot be made, which Build() then
    // ends with.
    bool Prepare();
    QString StagingPath() const;
    // Copies `source` to `name`, a path inside the image with "/" between
    // components, in the background.
    void Add(const QString& source, const QString& name);
    // Drops a copy of `source` still queued and deletes what `name` holds.
    void Remove(const QString& source, const QString& name);
    // Waits for the copies, then builds the image from the staging folder.
    void Build(ImageBuild::Type type, const QString& output);

    // Ends the wait or the builder; a half-built image is removed once the
    // builder has ended. In one go the copies end too; in a session they go on.
    void Stop() override;
    Phase CurrentPhase() const { return m_phase; }

private:
    bool PrepareStaging(const QString& stem);
    void OnCopyProgress(qint64 remaining);
    void CheckCopies();
    void End(bool succeeded, const QString& message);
    // Stops the worker and removes the staging folder once it has ended.
    void Retire();

    bool m_oneGo = false;
    bool m_copying = false;
    bool m_building = false; // this run's build is under way
    Phase m_phase = Phase::Copying;
    QString m_prepareProblem; // why the staging folder could not be made
    ImageBuild::Type m_type = ImageBuild::Type::Joliet;
    QString m_output;
    std::unique_ptr<ScratchFolder> m_staging;
    std::unique_ptr<CFileCopy> m_worker;
    CBuildJob* m_build = nullptr;
    qint64 m_total = 0;
};
