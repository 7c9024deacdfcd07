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
    return line.contains(QLatin1String("-------------------"));
}

std::optional<Entry> ParseLine(QString line)
{
    line.remove(QLatin1Char('\r'));
    line.remove(QLatin1Char('\n'));
    if (line.size() <= 53)
        return std::nullopt;
    Entry entry;
    entry.time = line.left(19);
    entry.isDir = line.mid(20, 5).contains(QLatin1Char('D'));
    entry.size = line.mid(26, 12).trimmed();
    entry.name = line.mid(53);
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
    auto item = std::make_unique<Item>();
    item->name = entry->name;
    item->isDir = entry->isDir;
    item->size = entry->size;
    item->time = entry->time;
    if (m_tree.Insert(item))
        ++m_entries;
    return false;
}

} // namespace Listing
