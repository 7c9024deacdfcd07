#include "iso/itemtree.h"

#include <algorithm>

#include "core/util.h"

namespace {

constexpr QChar kSeparator = QLatin1Char('\\');

} // namespace

ItemTree::ItemTree() : m_root(std::make_unique<Item>()) {}

void ItemTree::Clear()
{
    title.clear();
    spare.clear();
    m_index.clear();
    m_root = std::make_unique<Item>();
}

void ItemTree::Swap(ItemTree& other)
{
    std::swap(title, other.title);
    std::swap(spare, other.spare);
    std::swap(m_root, other.m_root);
    m_index.swap(other.m_index);
}

bool ItemTree::Insert(std::unique_ptr<Item>& item)
{
    if (!item || item->name.isEmpty())
        return false;
    item->name.replace(QLatin1Char('/'), kSeparator);
    const QString& name = item->name;
    if (m_index.contains(name))
        return false;

    // Walk down from the deepest folder that exists already: find the longest
    // existing prefix, then create the missing folders below it.
    Item* parent = m_root.get();
    qsizetype start = 0;
    for (qsizetype cut = name.lastIndexOf(kSeparator); cut > 0;
         cut = name.lastIndexOf(kSeparator, cut - 1)) {
        if (Item* found = m_index.value(name.left(cut), nullptr)) {
            parent = found;
            start = cut + 1;
            break;
        }
    }
    for (qsizetype next = name.indexOf(kSeparator, start); next >= 0;
         next = name.indexOf(kSeparator, next + 1)) {
        auto folder = std::make_unique<Item>();
        folder->name = name.left(next);
        Item* raw = folder.get();
        parent->children.push_back(std::move(folder));
        m_index.insert(raw->name, raw);
        parent = raw;
    }
    Item* raw = item.get();
    parent->children.push_back(std::move(item));
    m_index.insert(raw->name, raw);
    return true;
}

Item* ItemTree::Append(Item& folder, std::unique_ptr<Item> child)
{
    Item* raw = child.get();
    folder.children.push_back(std::move(child));
    m_index.insert(raw->name, raw);
    return raw;
}

Item* ItemTree::Find(const QString& path) const
{
    if (path.isEmpty())
        return nullptr;
    return m_index.value(path, nullptr);
}

void ItemTree::Remove(const QString& path)
{
    Item* item = Find(path);
    if (item == nullptr)
        return;
    const QString parentPath = ParentPath(path);
    Item* parent = parentPath.isEmpty() ? m_root.get() : Find(parentPath);
    if (parent == nullptr)
        return;
    auto& siblings = parent->children;
    const auto at =
        std::find_if(siblings.begin(), siblings.end(),
                     [item](const std::unique_ptr<Item>& child) { return child.get() == item; });
    if (at == siblings.end())
        return;
    Unindex(*item);
    siblings.erase(at);
}

bool ItemTree::Rename(const QString& path, const QString& newName)
{
    Item* item = Find(path);
    const QString renamed = ReplaceLastComponent(path, newName);
    if (item == nullptr || newName.isEmpty() || newName.contains(kSeparator) ||
        m_index.contains(renamed))
        return false;
    Unindex(*item);
    Reindex(*item, renamed);
    return true;
}

void ItemTree::Reindex(Item& item, const QString& name)
{
    item.name = name;
    m_index.insert(name, &item);
    for (auto& child : item.children)
        Reindex(*child, name + kSeparator + LastComponent(child->name));
}

void ItemTree::Unindex(const Item& item)
{
    m_index.remove(item.name);
    for (const auto& child : item.children)
        Unindex(*child);
}

std::unique_ptr<Item> ItemTree::FromLocal(const QFileInfo& info, const QString& name)
{
    auto item = std::make_unique<Item>();
    item->name = name;
    item->source = info.absoluteFilePath();
    item->isDir = info.isDir();
    item->size = info.isDir() ? QString() : QString::number(info.size());
    item->time = Util::FormatTime(info.lastModified());
    return item;
}

QString ItemTree::LastComponent(const QString& path)
{
    return path.mid(path.lastIndexOf(kSeparator) + 1);
}

QString ItemTree::ParentPath(const QString& path)
{
    const qsizetype cut = path.lastIndexOf(kSeparator);
    return cut < 0 ? QString() : path.left(cut);
}

QString ItemTree::ReplaceLastComponent(const QString& path, const QString& name)
{
    const QString parent = ParentPath(path);
    return parent.isEmpty() ? name : parent + kSeparator + name;
}
