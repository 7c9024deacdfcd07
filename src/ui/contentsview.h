#pragma once

#include <QMetaType>

#include <QList>

struct Item;
class CFolderModel;
class ItemTree;
class QRect;
class QString;
class QTableView;
class QTreeWidget;
class QTreeWidgetItem;
class QWidget;
class SCheckBoxHeaderView;

Q_DECLARE_METATYPE(Item*)

// Shows an item tree as a folder tree beside a file table, the way the
// extract and edit pages present an image. Tree items carry their Item; the
// file table is a CFolderModel.
namespace ContentsView {

// The folder tree at its place: no header, no frame, one selection.
QTreeWidget* MakeTree(QWidget* parent, const QRect& geometry, const QString& styleSheet);
// The file table at its place over a new CFolderModel, with the tick-all
// header, fixed-height rows and the given column widths.
QTableView* MakeTable(QWidget* parent, const QRect& geometry, const QList<int>& widths,
                      CFolderModel** model, SCheckBoxHeaderView** header);

// One top item titled with the tree's title, with every folder below it.
void FillTree(QTreeWidget* tree, ItemTree& contents);
// A tree item for the folder below `parent`, with every folder below it.
QTreeWidgetItem* AddFolder(QTreeWidgetItem* parent, Item* folder);
Item* ItemOf(const QTreeWidgetItem* treeItem);
QTreeWidgetItem* FindTreeItem(QTreeWidgetItem* start, const Item* target);
// Selects and expands the folder's tree item, opening its parent if needed.
void ShowInTree(QTreeWidget* tree, const Item* folder);

} // namespace ContentsView
