#include "ui/contentsview.h"

#include <QTreeWidget>

#include "iso/itemtree.h"
#include "ui/fileicons.h"

namespace ContentsView {
namespace {

void addFolders(const Item& folder, QTreeWidgetItem* parent)
{
    for (const auto& child : folder.children) {
        if (!child->isDir)
            continue;
        auto* treeItem = new QTreeWidgetItem(parent);
        treeItem->setText(0, ItemTree::LastComponent(child->name));
        treeItem->setIcon(0, FileIcons::Folder());
        treeItem->setData(0, Qt::UserRole, QVariant::fromValue(child.get()));
        addFolders(*child, treeItem);
    }
}

} // namespace

void FillTree(QTreeWidget* tree, ItemTree& contents)
{
    tree->clear();
    auto* top = new QTreeWidgetItem;
    top->setText(0, contents.title);
    top->setData(0, Qt::UserRole, QVariant::fromValue(&contents.Root()));
    top->setIcon(0, FileIcons::Folder());
    tree->addTopLevelItem(top);
    addFolders(contents.Root(), top);
    top->setExpanded(true);
}

Item* ItemOf(const QTreeWidgetItem* treeItem)
{
    return treeItem ? treeItem->data(0, Qt::UserRole).value<Item*>() : nullptr;
}

QTreeWidgetItem* FindTreeItem(QTreeWidgetItem* start, const Item* target)
{
    if (start == nullptr)
        return nullptr;
    if (ItemOf(start) == target)
        return start;
    for (int i = 0; i < start->childCount(); ++i) {
        if (QTreeWidgetItem* found = FindTreeItem(start->child(i), target))
            return found;
    }
    return nullptr;
}

void ShowInTree(QTreeWidget* tree, const Item* folder)
{
    QTreeWidgetItem* item = FindTreeItem(tree->topLevelItem(0), folder);
    if (item == nullptr)
        return;
    if (item->parent() && !item->parent()->isExpanded())
        item->parent()->setExpanded(true);
    tree->clearSelection();
    item->setSelected(true);
    item->setExpanded(true);
    tree->setCurrentItem(item);
}

} // namespace ContentsView
