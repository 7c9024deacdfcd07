#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

#include "media/drives.h"
#include "tools/job.h"

class CRunCommandThread;

// The disc writer's bus scan, the burn and read progress lines, and the jobs
// that burn an image, copy a disc and eject a tray with the disc tools.
namespace DiscTools {

// One device line of "-scanbus": "\t1,0,0\t100) 'ACMECORP' 'DVDRW UNIT-100  ' 'R001' Removable
// CD-ROM".
struct ScanLine
{
    int bus = 0;
    int target = 0;
    int lun = 0;
    QString address;      // "1,0,0" as printed
    QString name;         // "ACMECORP DVDRW UNIT-100 R001" (quotes removed, blanks collapsed)
    QString product;      // "DVDRW UNIT-100  " as quoted
    bool optical = false; // the line ends in "CD-ROM" or "WORM"
};
// Nothing for lines that are not device lines (headers, empty slots, banners).
std::optional<ScanLine> ParseScanLine(const QString& line);

// Reads a drive's INQUIRY product identification (bytes 16 to 31); nothing
// when the drive cannot be asked.
using InquiryFunction = std::function<std::optional<QByteArray>(const QString& node)>;
// SG_IO INQUIRY on the device node, opened read-only and non-blocking.
std::optional<QByteArray> InquiryProduct(const QString& node);

// The drive of `drives` a scan line names: the one at the same host, target
// and lun; where a drive's address is unknown, the first whose INQUIRY
// product (lower case, blanks collapsed) is contained in the line's name.
// Empty when none matches.
QString MatchDrive(const ScanLine& line, const QList<OpticalDrive>& drives,
                   const InquiryFunction& inquiry);

// The optical list: drives the scan names, in its order, each paired with its
// node, then every other drive udev knows, in node order. Entries are
// (text, node), the text "/dev/sr0: ACMECORP DVDRW UNIT-100 R001". Without
// `unscanned`, only the drives the scan named.
struct ListEntry
{
    QString text;
    QString node;
};
QList<ListEntry> OpticalEntries(const QList<ScanLine>& scanned, const QList<OpticalDrive>& drives,
                                const InquiryFunction& inquiry, bool unscanned = true);

// What an optical list shows while it is refilled: the entries found so far,
// the one to select (-1: none) and, for an empty list once the refill has
// ended, the text that says so.
struct OpticalView
{
    QList<ListEntry> entries;
    int selected = -1;
    QString placeholder;
};
// The drive selected before the refill (`kept`, a node) is selected again as
// soon as it is found; until then, and when it is not found, the first entry.
OpticalView ShowOptical(const QString& kept, const QList<ListEntry>& entries, bool done);

// "Track 01:   12 of  650 MB written (fifo 100%) ..." → 12 * 100 / 650; nothing
// for other lines or a total of 0.
std::optional<int> ParseBurnProgress(const QString& line);
// What a progress line of the writer tells, for the progress dialog: "12 of
// 650 MB, 4.0x, about 3 min left", the time left worked out from the
// `elapsedMs` the burn has taken so far; empty for other lines.
QString BurnTransferText(const QString& line, qint64 elapsedMs);
// "end:   2275968" → 2275968.
std::optional<qint64> ParseReadEnd(const QString& line);
// "addr:  1000000 cnt: 32" or "addr: 300" → the address.
std::optional<qint64> ParseReadAddress(const QString& line);

// The tools' argument lists.
QStringList BurnArguments(const QString& node, const QString& image);
QStringList CopyArguments(const QString& node, const QString& output);
QStringList EjectArguments(const QString& node);

// The plain reason a disc writer or reader run failed, as far as its exit
// status and its last lines tell ("There is no disc in the drive, ..."),
// empty when they do not.
QString BurnFailure(int exitCode, const QStringList& lines);
QString CopyFailure(int exitCode, const QStringList& lines);
QString EjectFailure(int exitCode, const QStringList& lines);

} // namespace DiscTools

// Fills an optical list: runs the bus scan and pairs its lines with the
// drives udev knows, then adds those the scan did not name. entry() comes for
// each drive as it is known; finished(true) once at the end, whatever the
// scan itself could open (the drives udev knows are listed all the same).
// The scan runs on the runner's thread, so the window never waits for it.
class COpticalScan final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(COpticalScan)

public:
    explicit COpticalScan(QObject* parent = nullptr);
    ~COpticalScan() override;

    void Start();
    void Stop() override;
    // Replaces the INQUIRY (tests).
    void SetInquiry(DiscTools::InquiryFunction inquiry) { m_inquiry = std::move(inquiry); }

Q_SIGNALS:
    void entry(const QString& text, const QString& node);

private:
    void OnLine(const QString& line);
    void OnFinished();
    // Sends the entries not sent yet; `unscanned`: those of drives the scan did not name too.
    void SendNew(bool unscanned);

    CRunCommandThread* m_runner = nullptr;
    QList<DiscTools::ScanLine> m_scanned;
    QStringList m_sent;
    QList<OpticalDrive> m_drives;
    DiscTools::InquiryFunction m_inquiry;
};

// Burns an image to the disc in a drive with the disc writer, telling the
// share written; finished() says "Burning disc successfully." or what went
// wrong. A burn cannot be stopped once started (that would ruin the disc):
// Stop() leaves it going to its end, and a Start() while it runs does nothing.
class CDiscBurnJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CDiscBurnJob)

public:
    explicit CDiscBurnJob(QObject* parent = nullptr);
    ~CDiscBurnJob() override;
    void Start(const QString& image, const QString& node);
    void Stop() override {}

private:
    CRunCommandThread* m_runner = nullptr;
    bool m_trackWritten = false;
    QElapsedTimer m_clock;
};

// Reads the disc in a drive into an image file with the disc reader, through
// a part file that replaces the output only when the whole disc was read;
// finished() says "Copy CD/DVD successfully!" or what went wrong. Stop() ends
// the reader and, once it has ended, removes the part file; the output stays
// as it was. A Start() while a stopped reader is still ending begins once it
// has.
class CDiscCopyJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CDiscCopyJob)

public:
    explicit CDiscCopyJob(QObject* parent = nullptr);
    ~CDiscCopyJob() override;
    void Start(const QString& node, const QString& output);
    void Stop() override;

private:
    CRunCommandThread* m_runner = nullptr;
    bool m_stopping = false;
    // A copy asked for while a stopped one was still ending: node and output.
    QStringList m_next;
    QString m_output;
    QString m_part;
    qint64 m_end = -1;
    qint64 m_last = -1;
    bool m_readError = false;
};

// Opens a drive's tray with the disc writer; a Start() while one runs does
// nothing. Stop() lets the writer go; the tray may still open.
class CEjectJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CEjectJob)

public:
    explicit CEjectJob(QObject* parent = nullptr);
    ~CEjectJob() override;
    void Start(const QString& node);
    void Stop() override;

private:
    CRunCommandThread* m_runner = nullptr;
};
