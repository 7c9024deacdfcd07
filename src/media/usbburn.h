#pragma once

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "iso/itemtree.h"
#include "iso/listing.h"
#include "media/usbplan.h"
#include "tools/job.h"

class CListJob;
class CRunCommandThread;
class QIODevice;
class ScratchFolder;
class QThread;

namespace UsbBurn {

class ImageFeeder;

// One entry of the archive tool's technical listing ("l -slt"): its path,
// whether it is a folder, its size, its Unix mode ("-rwxr-xr-x", empty where
// the image keeps none) and, for a symbolic link, where it points.
struct ImageEntry
{
    QString path;
    bool folder = false;
    qint64 size = 0;
    QString mode;
    QString link;
    bool IsLink() const { return mode.startsWith(QLatin1Char('l')); }
};

// Collects the entries of a technical listing, line by line; the lines
// before the entries (the image's own properties) are passed over.
class TechnicalListing
{
public:
    void Read(const QString& line);
    const std::vector<ImageEntry>& Entries() const { return m_entries; }
    // Some entry carries a Unix mode (Rock Ridge without Joliet): the archive
    // tool would set it on every file it extracts, and make links.
    bool HasUnixModes() const;

private:
    bool m_inEntries = false;
    std::vector<ImageEntry> m_entries;
};

// The path inside the image that the symbolic link `link` ("docs/a.txt")
// pointing to `target` ("../b.txt") leads to, following further links
// (`links`: path → target) to a file or folder of `present`. Empty when it
// leads out of the image, to an absolute path, to nothing, in a circle, or
// to a folder that holds the link itself.
QString ResolveLink(const QString& link, const QString& target,
                    const QHash<QString, QString>& links, const QSet<QString>& present);

// The split parts' name pattern and size: "install.swm", "install2.swm", ...
// each at most 3,800 MiB, well below FAT's limit (or half of a smaller limit).
QStringList SplitArguments(const QString& wim, const QString& firstPart, qint64 fatFileLimit);

// The helper's arguments for preparing a stick. The helper mounts it for the
// user pkexec names, or for whoever runs it.
QStringList PrepareArguments(const QString& device, UsbPlan::Scheme scheme, UsbPlan::FileSystem fs,
                             const QString& label);

// What a helper run said: the folder it mounted, or its error line
// ("error: <step>: <reason>") without the prefix, or its refusal; while it
// writes or reads the whole stick, the bytes done so far and at the end the
// SHA-256 of what it read (64 lower-case hex digits).
struct HelperReport
{
    QString mounted;
    QString error;
    qint64 done = 0;
    QString sha256;
};
void ReadHelperLine(const QString& line, HelperReport& report);

// "300 MB of 1.17 GB, 85 MB/s, about 11 s left": how far a phase that moves
// `total` bytes is after `elapsedMs`; without the speed and time left until
// there is something to measure.
QString TransferText(qint64 done, qint64 total, qint64 elapsedMs);

// The SHA-256 a checksum file's `text` gives for the file `name`, in
// lower-case hex: lines "<hex>  name" or "<hex> *name" (a leading "./" is
// passed over) and "SHA256 (name) = <hex>"; where `bare`, also a line that is
// only the hash (a "<image>.sha256" file made for that one image). Empty when
// no line names it.
QByteArray PublishedSha256(const QByteArray& text, const QString& name, bool bare);

// The checksum file beside `image` that names it ("<image>.sha256",
// "<image>.sha256sum" or SHA256SUMS, in that order), by its file name, and
// the hash it gives; both empty when there is none.
struct PublishedChecksum
{
    QString file;
    QByteArray sha256;
};
PublishedChecksum FindPublishedChecksum(const QString& image);

struct VerifyResult
{
    bool ok = false;
    int files = 0;
    qint64 bytes = 0;
    QStringList problems; // "/sources/boot.wim differs from the image", ...
};

// Reads `stream` (every file of the listing, one after another, in the
// listing's order, as the archive tool writes them to standard output) and
// compares each file of `files` with the file under `root` (size and
// SHA-256). Files whose path is in `skipped` or that start with "[BOOT]/"
// are read from the stream but not compared. `progress` gets the bytes read
// so far; `stop` ends the comparison early (then the result is not ok).
VerifyResult Verify(QIODevice& stream, const std::vector<Listing::FileSpan>& files,
                    const QString& root, const QStringList& skipped,
                    const std::function<void(qint64)>& progress, const std::atomic<bool>& stop);

} // namespace UsbBurn

// Burns an image to a USB stick in two steps.
//
// Plan() reads the image's first sectors and, unless the caller chose, picks
// the mode: an image with a partition table is written as it is, any other
// has its files copied (UsbPlan::ChooseMode). For files mode it lists the
// image. It decides what the burn will do (UsbPlan) and writes nothing.
// planned() then tells whether the burn can go on; the decision's warnings
// are what the user must agree to first.
//
// Burn() in disk image mode: Brenta reads the image as the user, once, and
// hashes it while the privileged helper writes what it is given to the whole
// stick; the helper then reads back as many bytes and their SHA-256 must be
// the image's.
//
// Burn() in files mode does the writing step by step: the privileged helper wipes,
// partitions, formats and mounts the stick, writes boot code (MBR with
// /bootmgr), the archive tool extracts the image into the mounted partition
// as the user, wimlib splits an installer image too large for FAT, every file
// is read back after a remount and compared with the image (size and
// SHA-256), and the stick is unmounted and flushed. finished() comes once,
// with the success text only when every step succeeded; a failed step leaves
// the stick unmounted and its message names the step.
//
// Progress is told as the phase's title (PhaseTitle()) with its percentage,
// -1 while a phase cannot tell it. Stop() ends the step under way and, once
// its tool has ended, unmounts the stick where it is mounted; then
// finished(false) says the stick holds an incomplete burn. A burn already
// unmounting at its end goes on to it.
class CUsbBurnJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CUsbBurnJob)

public:
    enum class Phase
    {
        Checking,   // listing the image, deciding
        Writing,    // disk image mode: the image onto the whole stick; progress 0..100
        Formatting, // wiping, partitioning, making the file system, mounting
        BootCode,   // legacy BIOS boot code (MBR with /bootmgr only)
        Copying,    // the archive tool extracting onto the stick; progress 0..100
        Splitting,  // the installer image into parts below 4 GiB
        Verifying,  // reading back and comparing; progress 0..100 (or busy while remounting)
        Finishing,  // unmounting and flushing
    };
    Q_ENUM(Phase)

    struct Options
    {
        QString image;
        QString device; // "/dev/sdb"
        // Plan() picks the mode from the image unless autoMode is false.
        bool autoMode = true;
        UsbPlan::WriteMode mode = UsbPlan::WriteMode::Files;
        // Files mode only.
        UsbPlan::Scheme scheme = UsbPlan::Scheme::Mbr;
        UsbPlan::FileSystem fileSystem = UsbPlan::FileSystem::Fat32;
        QString label;
        // The largest file FAT takes; tests make it small to split small files.
        qint64 fatFileLimit = UsbPlan::kFatFileLimit;
    };

    explicit CUsbBurnJob(QObject* parent = nullptr);
    // A burn still under way is cut short and the stick unmounted.
    ~CUsbBurnJob() override;

    // The texts the progress dialog shows for each phase.
    static QString PhaseTitle(Phase phase);
    // "Burning Successfully..." followed by what was verified.
    static QString SuccessText(int files, qint64 bytes);
    // `sha256`: the image's, in hex; `checksumFile`: the file whose published
    // SHA-256 the image matched, if any.
    static QString ImageSuccessText(qint64 bytes, const QString& sha256,
                                    const QString& checksumFile = QString());
    static QString RestoredText(UsbPlan::FileSystem fs, const QString& label);

    void Plan(const Options& options);
    // The decision Plan() came to; valid after planned(true).
    const UsbPlan::Decision& Decision() const { return m_decision; }
    // Writes the stick; only after planned(true).
    void Burn();
    // Disk image mode, one of several sticks: writes what `feeder` gives on
    // its output `output`; the caller starts the feeder once every stick's
    // burn has begun. Only after planned(true).
    void BurnFrom(std::shared_ptr<UsbBurn::ImageFeeder> feeder, int output);
    // Gives a stick back as an ordinary one: the helper wipes every old
    // signature (an image's tables at the start and the end of the disk
    // too), makes one MBR partition with `fs` and `label`, and the stick is
    // left unmounted. finished() comes once; a label `fs` cannot hold ends
    // the job before anything is written.
    void Restore(const QString& device, UsbPlan::FileSystem fs, const QString& label);
    void Stop() override;
    // Disk image mode: the SHA-256 of the image in lower-case hex, taken as
    // it was written; empty until all of it was read (imageHashed()).
    QString ImageSha256() const { return QString::fromLatin1(m_imageSha256); }

    // The helper's command line, program first: the helper itself when Brenta
    // runs as root or the helper is a stand-in from BRENTA_TOOLS_DIR, else
    // pkexec with the helper.
    static QStringList HelperCommand(const QStringList& arguments);

Q_SIGNALS:
    // ok false: the burn cannot go on, `message` says why (nothing written).
    void planned(bool ok, const QString& message);
    // A new phase begins, before its first progressed(): for those that
    // follow the phases in their order.
    void phase(CUsbBurnJob::Phase phase);
    // Bytes, speed and time left of a phase that moves the whole image
    // (UsbBurn::TransferText), along with its progress.
    void transfer(const QString& text);
    // Disk image mode: the whole image was read and hashed (ImageSha256()).
    void imageHashed(const QString& sha256);

private:
    using Next = void (CUsbBurnJob::*)();
    // Takes a planned burn on, afresh; false when none is planned or one runs.
    bool BeginBurn();
    void OnListed();
    void PlanImage();
    // The installer image to split, as a path inside the image ("sources/install.wim"), or empty.
    QString SplitWim() const;
    // What the copy onto the stick leaves out of the image.
    QStringList CopiedExclusions() const;
    // `input`: a descriptor the helper reads its standard input from, taken over.
    void RunHelper(const QString& step, const QStringList& arguments, Next next, int input = -1);
    void RunTool(const QString& step, const QString& program, const QString& toolName,
                 const QStringList& arguments, Next next);
    // Runs one command; `onLine` gets its output lines, `onEnd` its end.
    void StartRunner(const QString& program, const QStringList& arguments,
                     const std::function<void(const QString&)>& onLine,
                     const std::function<void()>& onEnd, int input = -1);
    void StartWrite();
    void StartReadBack();
    void ReadBack();
    void Transferred(qint64 done);
    void StartBootCode();
    void StartCopy();
    // Files mode: the archive tool extracts onto the stick, or, for an image
    // with Unix modes and links the stick's file system cannot hold, Brenta
    // writes the files from the tool's stream itself.
    void StartToolCopy();
    void StartStreamCopy();
    void StartSplit();
    void SplitExtracted();
    // The /EFI tree of the image's EFI boot image onto the stick.
    void StartEfiCopy();
    void StartRemount();
    void StartVerify();
    // The files copied from the EFI boot image, against that image.
    void StartEfiVerify();
    // Compares `files` on the stick with the archive tool's stream of
    // `archive` (only its folder `only`, where given), then goes on with
    // `next`. Where `counted`, the progress goes from 0 to 100 with it.
    void RunVerifier(const QString& archive, const QString& only,
                     const std::vector<Listing::FileSpan>& files, const QStringList& skipped,
                     Next next, bool counted);
    // The EFI boot image, copied out of the image while its files are needed.
    QString EfiImage() const;
    void VerifySplit();
    void StartUnmount();
    void Burned();
    void StartRestoreUnmount();
    void Restored();
    // Ends the burn with "The USB stick was not burned. The step that failed:
    // <step>: <reason>", after unmounting the stick where it is mounted.
    void Fail(const QString& stepAndReason);
    void End(bool succeeded, const QString& message);
    void StopVerifier();
    // Tells a new phase with its first percentage (-1: cannot be told).
    void Enter(Phase phase, int percent);
    void Step(int percent);

    Options m_options;
    QByteArray m_head; // the image's first sectors
    ItemTree m_tree;
    std::vector<Listing::FileSpan> m_files;
    CListJob* m_list = nullptr;
    UsbPlan::Decision m_decision;
    bool m_planned = false;
    bool m_restoring = false; // Restore() rather than Burn()
    bool m_stopping = false;
    Phase m_phase = Phase::Checking;

    CRunCommandThread* m_runner = nullptr;
    UsbBurn::HelperReport m_report;
    QThread* m_verifier = nullptr;
    std::atomic<bool> m_stopVerify{false};
    UsbBurn::VerifyResult m_verified;
    std::unique_ptr<UsbBurn::TechnicalListing> m_entries;
    QStringList m_linkCopies; // links written as copies of their targets
    int m_linksLost = 0;      // links whose targets are not in the image
    qint64 m_efiOffset = 0;   // the EFI boot image in the image, in bytes
    qint64 m_efiLength = 0;
    bool m_efiCopied = false;
    std::unique_ptr<ScratchFolder> m_efiDir;
    std::unique_ptr<UsbBurn::TechnicalListing> m_efiEntries;
    std::vector<Listing::FileSpan> m_efiFiles;
    std::unique_ptr<ScratchFolder> m_wimDir;
    std::shared_ptr<UsbBurn::ImageFeeder> m_feeder;
    bool m_sharedFeeder = false; // the feeder feeds other sticks too
    int m_output = 0;            // this stick's output of the feeder
    qint64 m_imageSize = 0;
    QByteArray m_imageSha256; // hex, as the helper prints it
    UsbBurn::PublishedChecksum m_published;
    QElapsedTimer m_phaseClock;
    QString m_mountPoint;
    QString m_failure; // the message of a failed step, kept while the stick is unmounted
};

// Burns one image to several sticks at once, in disk image mode only. Every
// stick is planned on its own; one read of the image feeds all their helpers
// (a stick whose helper fails is left out of the feed, the others go on),
// each stick is read back and verified on its own, and finished() comes once
// with one "<device>: <result>" line per stick, succeeded only when every
// stick was burned. phase(), progress() and transfer() follow the stick
// furthest behind: the earliest phase of any stick still at work and, in it,
// the lowest progress; stickProgress() and stickFinished() tell of each.
// Stop() stops every stick's burn; finished() comes once all have ended.
class CUsbMultiBurnJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CUsbMultiBurnJob)

public:
    explicit CUsbMultiBurnJob(QObject* parent = nullptr);
    ~CUsbMultiBurnJob() override;

    // `options.device` is not used: each of `devices` is planned with the rest.
    // planned(false) names each stick that cannot be burned, and each for which
    // the image would go the files way.
    void Plan(const CUsbBurnJob::Options& options, const QStringList& devices);
    // The first stick's decision; valid after planned().
    const UsbPlan::Decision& Decision() const;
    // Only after planned(true).
    void Burn();
    void Stop() override;

Q_SIGNALS:
    void planned(bool ok, const QString& message);
    void phase(CUsbBurnJob::Phase phase);
    void transfer(const QString& text);
    // `percent` -1: the stick's phase cannot tell it.
    void stickProgress(const QString& device, int percent);
    void stickFinished(const QString& device, bool succeeded, const QString& message);
    // Once, when the first stick's helper has taken the whole image.
    void imageHashed(const QString& sha256);

private:
    // Where one stick's burn is.
    struct Stick
    {
        CUsbBurnJob::Phase phase = CUsbBurnJob::Phase::Checking;
        int percent = -1;
        QString transfer;
        bool running = false;
    };
    // Shows the stick furthest behind, where that changed.
    void Follow();

    std::shared_ptr<UsbBurn::ImageFeeder> m_feeder;
    std::vector<Stick> m_sticks;
    int m_shown = -1; // the stick whose progress is shown
    std::optional<CUsbBurnJob::Phase> m_shownPhase;
    int m_shownPercent = -2;
    bool m_hashTold = false;
    std::vector<std::unique_ptr<CUsbBurnJob>> m_jobs;
    QStringList m_devices;
    QString m_image;
    QStringList m_refusals;
    QStringList m_results;
    int m_pending = 0;
    bool m_allSucceeded = true;
};
