#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <vector>

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
    enum class Kind { Add, Rename, Delete, Label };
    Kind kind = Kind::Add;
    QString source; // Add: the local file or folder
    QString path;   // Add: where it goes (the new entry's own path); Rename, Delete: the entry
    QString newPath; // Rename: the entry's new path
    QString label;  // Label: the new volume label
};

// How an image is saved: by xorriso from the original, or (images whose files
// live in a UDF tree, such as Windows installers) rebuilt from an extraction
// with the image builder's UDF option and the original's El Torito entries.
enum class Way { Xorriso, UdfRebuild };

// What xorriso's reports say about an image's boot setup.
struct BootReport
{
    QStringList bootFiles;   // files the boot setup names: boot images, the catalogue
    QStringList asMkisofs;   // the original's build as xorriso -as mkisofs options
    QString systemArea;      // xorriso's one-line summary of the system area, or empty
};

// xorriso's arguments for the reports read into a BootReport.
QStringList ReportArguments(const QString& image);
BootReport ParseReport(const QStringList& lines);

} // namespace ImageSave

// Runs xorriso for one save: the new image is written into a part file beside
// `output` and renamed over it only when xorriso succeeded, so a failed or
// stopped save leaves an existing output as it was. progress() follows
// xorriso's own lines; finished() comes once.
class CImageSaveJob final : public QObject
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CImageSaveJob)

public:
    explicit CImageSaveJob(QObject* parent = nullptr);
    ~CImageSaveJob() override;

    void Start(const QString& image, const std::vector<ImageSave::Change>& changes, const QString& output);
    // Ends xorriso and removes the part file; no finished() follows.
    void Stop();
    bool IsRunning() const;
    bool Succeeded() const { return m_succeeded; }
    // Why the save failed, in xorriso's words where it gave any.
    QString Message() const { return m_message; }

Q_SIGNALS:
    void progress(int value); // hundredths of a percent, 0 to 10000
    void finished();

private:
    CRunCommandThread* m_runner = nullptr;
    QString m_output;
    QString m_part;
    bool m_succeeded = false;
    QString m_message;
};
