#pragma once

#include <QObject>
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

class CListJob;
class CRunCommandThread;
class QIODevice;
class ScratchFolder;
class QThread;

namespace UsbBurn {

// The percentage at the start of an archive tool progress line
// (" 45% 12 - boot/file" → 45); nothing for lines without "% " after some text.
std::optional<int> ParseCopyProgress(const QString& line);

// The extraction onto the stick: the whole image except the archive tool's
// "[BOOT]" pseudo-folder and, where it is split instead, the installer image.
QStringList CopyArguments(const QString& image, const QString& mountPoint, const QString& skipped);

// The split parts' name pattern and size: "install.swm", "install2.swm", ...
// each at most 3,800 MiB, well below FAT's limit (or half of a smaller limit).
QStringList SplitArguments(const QString& wim, const QString& firstPart, qint64 fatFileLimit);

// The helper's arguments for preparing a stick. The helper mounts it for the
// user pkexec names, or for whoever runs it.
QStringList PrepareArguments(const QString& device, UsbPlan::Scheme scheme, UsbPlan::FileSystem fs,
                             const QString& label);

// What a helper run said: the folder it mounted, or its error line
// ("error: <step>: <reason>") without the prefix, or its refusal.
struct HelperReport
{
    QString mounted;
    QString error;
};
void ReadHelperLine(const QString& line, HelperReport& report);

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
VerifyResult Verify(QIODevice& stream, const std::vector<Listing::FileSpan>& files, const QString& root,
                    const QStringList& skipped, const std::function<void(qint64)>& progress,
                    const std::atomic<bool>& stop);

} // namespace UsbBurn

// Burns an image to a USB stick in two steps.
//
// Plan() lists the image and decides what the burn will do (UsbPlan); it
// writes nothing. planned() then tells whether the burn can go on; the
// decision's warnings are what the user must agree to first.
//
// Burn() does the writing, step by step: the privileged helper wipes,
// partitions, formats and mounts the stick, writes boot code (MBR with
// /bootmgr), the archive tool extracts the image into the mounted partition
// as the user, wimlib splits an installer image too large for FAT, every file
// is read back after a remount and compared with the image (size and
// SHA-256), and the stick is unmounted and flushed. finished() comes once,
// with the success text only when every step succeeded; a failed step leaves
// the stick unmounted and its message names the step.
class CUsbBurnJob final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CUsbBurnJob)

public:
    enum class Phase {
        Checking,   // listing the image, deciding
        Formatting, // wiping, partitioning, making the file system, mounting
        BootCode,   // legacy BIOS boot code (MBR with /bootmgr only)
        Copying,    // the archive tool extracting onto the stick; progress 0..100
        Splitting,  // the installer image into parts below 4 GiB
        Verifying,  // reading back and comparing; progress 0..100
        Finishing,  // unmounting and flushing
    };
    Q_ENUM(Phase)

    struct Options
    {
        QString image;
        QString device; // "/dev/sdb"
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
    static QString PhaseText(Phase phase);
    // "Burning Successfully..." followed by what was verified.
    static QString SuccessText(int files, qint64 bytes);

    void Plan(const Options& options);
    // The decision Plan() came to; valid after planned(true).
    const UsbPlan::Decision& Decision() const { return m_decision; }
    // Writes the stick; only after planned(true).
    void Burn();
    bool IsRunning() const { return m_running; }

    // The helper's command line, program first: the helper itself when Brenta
    // runs as root or the helper is a stand-in from BRENTA_TOOLS_DIR, else
    // pkexec with the helper.
    static QStringList HelperCommand(const QStringList& arguments);

Q_SIGNALS:
    // ok false: the burn cannot go on, `message` says why (nothing written).
    void planned(bool ok, const QString& message);
    void phase(CUsbBurnJob::Phase phase);
    // Progress of the current phase; maximum 0 means busy.
    void progress(int value, int maximum);
    void finished(bool succeeded, const QString& message);

private:
    using Next = void (CUsbBurnJob::*)();
    void OnListed();
    // The installer image to split, as a path inside the image ("sources/install.wim"), or empty.
    QString SplitWim() const;
    void RunHelper(const QString& step, const QStringList& arguments, Next next);
    void RunTool(const QString& step, const QString& program, const QString& toolName, const QStringList& arguments,
                 Next next);
    // Runs one command; `onLine` gets its output lines, `onEnd` its end.
    void StartRunner(const QString& program, const QStringList& arguments,
                     const std::function<void(const QString&)>& onLine, const std::function<void()>& onEnd);
    void StartBootCode();
    void StartCopy();
    void StartSplit();
    void SplitExtracted();
    void StartRemount();
    void StartVerify();
    void VerifySplit();
    void StartUnmount();
    void Succeeded();
    // Ends the burn with "The USB stick was not burned. The step that failed:
    // <step>: <reason>", after unmounting the stick where it is mounted.
    void Fail(const QString& stepAndReason);
    void End(bool succeeded, const QString& message);
    void StopVerifier();

    Options m_options;
    ItemTree m_tree;
    std::vector<Listing::FileSpan> m_files;
    CListJob* m_list = nullptr;
    UsbPlan::Decision m_decision;
    bool m_planned = false;
    bool m_running = false;

    CRunCommandThread* m_runner = nullptr;
    UsbBurn::HelperReport m_report;
    QThread* m_verifier = nullptr;
    std::atomic<bool> m_stopVerify{false};
    UsbBurn::VerifyResult m_verified;
    std::unique_ptr<ScratchFolder> m_wimDir;
    QString m_mountPoint;
    QString m_failure; // the message of a failed step, kept while the stick is unmounted
};
