#include "iso/listing.h"

#include <memory>

#include "iso/itemtree.h"

namespace Listing {

QStringList Arguments(const QString& image)
{
    return {QStringLiteral("l"), QStringLiteral("--"), image};
}

bool IsSeparator(const QString& line)
{
    // The separator starts the line; a table line starts with its date. So an
    // entry whose name holds a run of hyphens never ends the table.
    return line.startsWith(QLatin1String("-------------------"));
}

bool IsSafePath(const QString& path)
{
    if (path.isEmpty())
        return false;
    for (const QStringView component : QStringView(path).split(QLatin1Char('/'))) {
        if (component.isEmpty() || component == QLatin1String(".") ||
            component == QLatin1String(".."))
            return false;
    }
    return true;
}

std::optional<Entry> ParseLine(const QString& line)
{
    QStringView text(line);
    while (text.endsWith(QLatin1Char('\n')) || text.endsWith(QLatin1Char('\r')))
        text.chop(1);
    if (text.size() <= 53)
        return std::nullopt;
    QString name = text.mid(53).toString();
    // Line ends inside a line cannot come from the tool; drop them as the
    // table's cutting rule does.
    if (name.contains(QLatin1Char('\r')) || name.contains(QLatin1Char('\n'))) {
        name.remove(QLatin1Char('\r'));
        name.remove(QLatin1Char('\n'));
    }
    Entry entry;
    entry.time = text.left(19).toString();
    entry.isDir = text.mid(20, 5).contains(QLatin1Char('D'));
    entry.size = text.mid(26, 12).trimmed().toString();
    entry.name = std::move(name);
    return entry;
}

bool Reader::Feed(const QString& line)
{
    if (m_finished)
        return false;
    if (IsSeparator(line)) {
        if (!m_inListing) {
            m_inListing = true;
            return false;
        }
        m_inListing = false;
        m_finished = true;
        return true;
    }
    if (!m_inListing)
        return false;
    std::optional<Entry> entry = ParseLine(line);
    if (!entry)
        return false;
    // Every file is recorded, so that the recorded order stays the order of
    // the tool's data; only the tree, from which entries are chosen, goes
    // without the unsafe ones.
    if (m_files != nullptr && !entry->isDir)
        m_files->push_back({entry->name, entry->size.toLongLong()});
    if (!IsSafePath(entry->name)) {
        m_leftOut << entry->name;
        return false;
    }
    auto item = std::make_unique<Item>();
    item->name = std::move(entry->name);
    item->isDir = entry->isDir;
    item->size = std::move(entry->size);
    item->time = std::move(entry->time);
    if (m_tree.Insert(item))
        ++m_entries;
    return false;
}

} // namespace Listing
