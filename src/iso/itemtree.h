#pragma once

#include <QFileInfo>
#include <QHash>
#include <QString>

#include <memory>
#include <vector>

// One file or folder of an image (or of a collection of local files).
// `name` is the full path inside the image with "\" between components; the
// root's name is empty. An Item owns its children.
struct Item
{
    QString name;
    QString source; // the local path an added entry comes from; empty for listed ones
    bool isDir = true;
    QString size; // bytes as decimal text; empty for implicit folders
    QString time; // "yyyy-MM-dd hh:mm:ss" as the tool printed it; empty for implicit folders
    int flags = 0;
    std::vector<std::unique_ptr<Item>> children;

    Item() = default;
    Item(const Item&) = delete;
    Item& operator=(const Item&) = delete;
};

// The contents of an image as a tree of Items, built from paths.
//
// Insert keeps the listing's rules: children stay in insertion order, missing
// parent folders are made implicitly, and an entry whose path exists already
// is ignored (so a folder listed after its files keeps its implicit, empty
// time and size). An index from each path to its Item makes Insert and Find
// take constant time per component, however wide a folder is.
class ItemTree final
{
public:
    ItemTree();
    ItemTree(const ItemTree&) = delete;
    ItemTree& operator=(const ItemTree&) = delete;

    void Clear();
    // Exchanges the whole contents with `other`'s.
    void Swap(ItemTree& other);
    // Takes the item when it is placed; returns false (and leaves the item
    // with the caller) when its name is empty or its path exists already.
    bool Insert(std::unique_ptr<Item>& item);
    // Appends a child whose path is known to be new (a folder just read from
    // disk) without the walk Insert makes; returns it.
    Item* Append(Item& folder, std::unique_ptr<Item> child);
    Item* Find(const QString& path) const;
    void Remove(const QString& path);
    // Gives the entry a new last name component, and everything below it the
    // new path; false when the entry is missing or the new path exists.
    bool Rename(const QString& path, const QString& newName);

    Item& Root() { return *m_root; }
    const Item& Root() const { return *m_root; }
    QString title;
    QString spare;

    qsizetype Count() const { return m_index.size(); }

    // An entry for a local file or folder, named `name`, its source the
    // file's absolute path.
    static std::unique_ptr<Item> FromLocal(const QFileInfo& info, const QString& name);

    // Path helpers ("\" separated).
    static QString LastComponent(const QString& path);
    static QString ParentPath(const QString& path);
    static QString ReplaceLastComponent(const QString& path, const QString& name);

private:
    void Unindex(const Item& item);
    void Reindex(Item& item, const QString& name);

    std::unique_ptr<Item> m_root;
    QHash<QString, Item*> m_index;
};
