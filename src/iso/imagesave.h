#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

#include "tools/job.h"

class CRunCommandThread;

// Saving an edited image without copying it: xorriso writes the new image
// from the original and a list of changes, replaying the original's whole
// boot setup (every El Torito entry and the system area: isohybrid MBR, GPT,
// APM, GRUB's MBR), its Rock Ridge tree, Joliet names and volume label.
namespace ImageSave {

// One edit, in the order the user made it. Paths are inside the image, "/"
// between components, without a leading "/".
struct Change
{
    enum class Kind
    {
        Add,
        Rename,
        Delete,
        Label
    };
    Kind kind = Kind::Add;
    QString source;  // Add: the local file or folder
    QString path;    // Add: where it goes (the new entry's own path); Rename, Delete: the entry
    QString newPath; // Rename: the entry's new path
    QString label;   // Label: the new volume label
};

// How an image is saved: by xorriso from the original, or (images whose files
// live in a UDF tree, such as Windows installers) rebuilt from an extraction
// with the image builder's UDF option and the original's El Torito entries.
enum class Way
{
    Xorriso,
    UdfRebuild
};

// What xorriso's reports say about an image's boot setup.
struct BootReport
{
    QStringList bootFiles; // files the boot setup names: boot images, the catalogue
    QStringList asMkisofs; // the original's build as xorriso -as mkisofs options
    QString systemArea;    // xorriso's one-line summary of the system area, or empty
};

// xorriso's arguments for the reports read into a BootReport.
QStringList ReportArguments(const QString& image);
BootReport ParseReport(const QStringList& lines);

// xorriso's arguments for writing `image` with `changes` applied into
// `part`. `joliet` and `rockRidge` say which trees the original has, so that
// the new image has the same. `alignCylinders` pads the image to whole
// cylinders, which lets xorriso lay out some partition tables it otherwise
// refuses to rebuild (grub-mkrescue's GPT with HFS+ and an EFI partition).
QStringList SaveArguments(const QString& image, const std::vector<Change>& changes,
                          const QString& part, bool joliet, bool rockRidge,
                          bool alignCylinders = false);

// The progress in xorriso's "UPDATE : Writing: ... 45.6%" line, in
// hundredths of a percent; nothing for other lines.
std::optional<int> ParseProgress(const QString& line);

} // namespace ImageSave

// Runs xorriso for one save: the new image is written into a part file beside
// `output` and renamed over it only when xorriso succeeded, so a failed or
// stopped save leaves an existing output as it was. Progress follows
// xorriso's own lines; a failure's message says why, in xorriso's words
// where it gave any.
class CImageSaveJob final : public CJob
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CImageSaveJob)

public:
    explicit CImageSaveJob(QObject* parent = nullptr);
    ~CImageSaveJob() override;

    void Start(const QString& image, const std::vector<ImageSave::Change>& changes,
               const QString& output);
    // Ends xorriso; the part file goes once it has ended.
    void Stop() override;

private:
    void Run();
    void OnLine(const QString& line);
    void OnFinished();

    CRunCommandThread* m_runner = nullptr;
    QString m_image;
    std::vector<ImageSave::Change> m_changes;
    bool m_joliet = false;
    bool m_rockRidge = true;
    bool m_alignCylinders = false;
    QStringList m_complaints; // xorriso's SORRY and FAILURE lines
    QString m_output;
    QString m_part;
};
