#pragma once

#include <QString>
#include <QStringList>

#include <optional>
#include <vector>

class ItemTree;

// The archive tool's listing ("7z l") as Brenta reads it: a fixed-column
// table between two separator lines of hyphens.
namespace Listing {

struct Entry
{
    QString time; // columns 0-18, as printed
    bool isDir = false;
    QString size; // trimmed; empty for folders
    QString name; // the path inside the image, as printed ("/" separated)
};

// A file of the listing, in the tool's order: the order in which the tool
// also writes the files' data when it extracts them all to standard output.
struct FileSpan
{
    QString name; // "/" separated, as printed
    qint64 size = 0;
};

// The list command's arguments. "--" ends the switches, so an image whose
// name starts with "-" or "@" is read as a file name.
QStringList Arguments(const QString& image);

bool IsSeparator(const QString& line);

// True for a path that stays inside the folder it is taken from: relative,
// "/" between components, and no component empty, "." or "..". A crafted
// image can list names such as "../../notes.txt" or "/home/me/notes.txt".
bool IsSafePath(const QString& path);

// Cuts one table line; nothing when it has no name (53 characters or fewer
// once line ends are removed).
std::optional<Entry> ParseLine(const QString& line);

// Feeds a listing into an item tree line by line. Entries whose names are not
// safe paths are left out of the tree and kept aside, for the caller to tell.
class Reader final
{
public:
    explicit Reader(ItemTree& tree) : m_tree(tree) {}

    // Returns true when this line ended the table.
    bool Feed(const QString& line);
    // Also appends every file line to `files`, duplicates included.
    void RecordFiles(std::vector<FileSpan>* files) { m_files = files; }
    bool Finished() const { return m_finished; }
    // Between the separators, where every line is an entry.
    bool InTable() const { return m_inListing; }
    int Entries() const { return m_entries; }
    QStringList LeftOut() const { return m_leftOut; }

private:
    ItemTree& m_tree;
    std::vector<FileSpan>* m_files = nullptr;
    bool m_inListing = false;
    bool m_finished = false;
    int m_entries = 0;
    QStringList m_leftOut;
};

} // namespace Listing
