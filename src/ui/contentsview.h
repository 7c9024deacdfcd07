#pragma once

#include <QMetaType>

struct Item;
class ItemTree;
class QTreeWidget;
class QTreeWidgetItem;

Q_DECLARE_METATYPE(Item*)

// Shows an item tree as a folder tree beside a file table, the way the
// extract and edit pages present an image. Tree items carry their Item; the
// file table is a CFolderModel.
namespace ContentsView {

// One top item titled with the tree's title, with every folder below it.
void FillTree(QTreeWidget* tree, ItemTree& contents);
Item* ItemOf(const QTreeWidgetItem* treeItem);
QTreeWidgetItem* FindTreeItem(QTreeWidgetItem* start, const Item* target);
// Selects and expands the folder's tree item, opening its parent if needed.
void ShowInTree(QTreeWidget* tree, const Item* folder);

} // namespace ContentsView
