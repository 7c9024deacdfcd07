#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

class ItemTree;

// Extracting entries of an image with the archive tool, and moving them up
// from the folder chain the tool recreates to the destination itself.
namespace Extraction {

struct Progress
{
    int percent = 0;
    QString name; // the entry being extracted
};

// The archive tool's progress lines: " 37% 12 - boot/bcd" → 37 and
// "boot/bcd", " 45%" → 45 and no name; nothing for other lines.
std::optional<Progress> ParseProgress(const QString& line);

// The extract command. Entries are paths inside the image with "/" between
// components; none means the whole image. Names are matched literally (no
// wildcards, no recursion into same-named files elsewhere) and "--" keeps an
// image or entry whose name starts with "-" or "@" from being read as a switch
// or a list file. `excluded` are paths inside the image left out, each with
// everything in it.
QStringList Arguments(const QString& image, const QString& outputDir, const QStringList& entries,
                      const QStringList& excluded = QStringList());

// True when the tool's last words say the extraction went well.
bool OutputSaysOk(const QStringList& lines);

// Why the tool failed, in its own words: the text of each error header
// ("ERROR: ...", "ERRORS:", "System ERROR:", "Command Line Error:") with the
// line that follows it, without "errno=N : " prefixes, each reason once.
// "System ERROR:" / "errno=28 : No space left on device" gives "No space
// left on device"; "ERROR: x.iso" / "Cannot open the file as archive" gives
// "x.iso: Cannot open the file as archive".
QStringList Reasons(const QStringList& lines);

// Makes the destination folder where it is missing. What is wrong with it,
// naming it and the reason, or an empty string.
QString PrepareDestination(const QString& destination);

// What is wrong with the entries asked for, naming them, or an empty string.
// Each must be a safe path (see Listing::IsSafePath) that the image's
// listing holds.
QString CheckEntries(const QStringList& entries, const ItemTree& contents);

struct MoveResult
{
    bool ok = true;
    QString message;    // what went wrong, when not ok
    QStringList placed; // the paths the entries now have in the destination
};

// Moves each entry (a "/" separated path below staging) up into destination
// under its own last name. An existing file or folder in the destination is
// never replaced: the entry gets a free name ("name (2).ext") instead. Only
// what really lies inside staging is moved: an unsafe entry, or one whose
// folder resolves (through a symbolic link, say) to a place outside staging,
// is refused; a link itself is moved as a link, never followed. The staging
// folder is removed afterwards, with whatever else it still holds.
MoveResult MoveUp(const QString& staging, const QStringList& entries, const QString& destination);

// Removes a file or a folder with everything in it, read-only folders
// included; symbolic links are removed, never followed.
void RemoveTree(const QString& path);

// "name (2).ext", "name (3).ext", ...: the first that does not exist in dir.
QString FreeName(const QString& dir, const QString& name);

} // namespace Extraction
