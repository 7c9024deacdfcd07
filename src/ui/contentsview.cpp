#include "ui/contentsview.h"

#include <QHeaderView>
#include <QTableView>
#include <QTreeWidget>

#include "iso/itemtree.h"
#include "ui/fileicons.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"

namespace ContentsView {
namespace {

void addFolders(const Item& folder, QTreeWidgetItem* parent)
{
    for (const auto& child : folder.children) {
        if (child->isDir)
            AddFolder(parent, child.get());
    }
}

} // namespace

QTreeWidgetItem* AddFolder(QTreeWidgetItem* parent, Item* folder)
{
    auto* treeItem = new QTreeWidgetItem(parent);
    treeItem->setText(0, ItemTree::LastComponent(folder->name));
    treeItem->setIcon(0, FileIcons::Folder());
    treeItem->setData(0, Qt::UserRole, QVariant::fromValue(folder));
    addFolders(*folder, treeItem);
    return treeItem;
}

QTreeWidget* MakeTree(QWidget* parent, const QRect& geometry, const QString& styleSheet)
{
    auto* tree = new QTreeWidget(parent);
    tree->setObjectName(QStringLiteral("tree"));
    tree->move(geometry.topLeft());
    tree->setFixedSize(geometry.size());
    tree->setHeaderHidden(true);
    tree->setFrameShape(QFrame::NoFrame);
    tree->setSelectionMode(QAbstractItemView::SingleSelection);
    tree->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    tree->header()->setStretchLastSection(false);
    tree->setAttribute(Qt::WA_MacShowFocusRect, false);
    tree->setStyleSheet(styleSheet);
    return tree;
}

QTableView* MakeTable(QWidget* parent, const QRect& geometry, const QList<int>& widths,
                      CFolderModel** model, SCheckBoxHeaderView** header)
{
    auto* table = new QTableView(parent);
    table->setObjectName(QStringLiteral("list"));
    table->move(geometry.topLeft());
    table->setFixedSize(geometry.size());
    *model = new CFolderModel(table);
    table->setModel(*model);
    *header = new SCheckBoxHeaderView(Qt::Horizontal, table);
    table->setHorizontalHeader(*header);
    (*header)->setVisible(true);
    (*header)->setHighlightSections(false);
    QFont headerFont = (*header)->font();
    headerFont.setWeight(QFont::Normal);
    (*header)->setFont(headerFont);
    table->verticalHeader()->setVisible(false);
    // Rows of one height: the view then never measures a hundred thousand of them.
    table->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    table->verticalHeader()->setDefaultSectionSize(30);
    for (int column = 0; column < widths.size(); ++column)
        table->setColumnWidth(column, widths[column]);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::ExtendedSelection);
    table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    table->setItemDelegate(new NoFocusDelegate(table));
    table->setContextMenuPolicy(Qt::CustomContextMenu);
    table->setStyleSheet(FileListStyle::Table());
    return table;
}

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
