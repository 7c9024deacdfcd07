#pragma once

#include <QMetaType>

struct Item;
class ItemTree;
class QTableWidget;
class QTreeWidget;
class QTreeWidgetItem;

Q_DECLARE_METATYPE(Item*)

// Shows an item tree as a folder tree beside a file table, the way the
// extract and edit pages present an image. Tree items carry their Item; row i
// of the table shows child i of the current folder.
namespace ContentsView {

// One top item titled with the tree's title, with every folder below it.
void FillTree(QTreeWidget* tree, ItemTree& contents);
// The folder's children: name with icon and an unticked box, size, type, time.
void FillTable(QTableWidget* table, const Item* folder);
Item* ItemOf(const QTreeWidgetItem* treeItem);
QTreeWidgetItem* FindTreeItem(QTreeWidgetItem* start, const Item* target);
// Selects and expands the folder's tree item, opening its parent if needed.
void ShowInTree(QTreeWidget* tree, const Item* folder);

// Folder rows carry this in Qt::UserRole of column 0.
constexpr int FolderMark = 1;

} // namespace ContentsView
