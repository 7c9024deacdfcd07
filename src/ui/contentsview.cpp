#include "ui/contentsview.h"

#include <QTableWidget>
#include <QTreeWidget>

#include "app/util.h"
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

void FillTable(QTableWidget* table, const Item* folder)
{
    table->setRowCount(0);
    if (folder == nullptr)
        return;
    table->setUpdatesEnabled(false);
    table->setRowCount(static_cast<int>(folder->children.size()));
    // The rows exist now; their cells are new data only, so the model's
    // per-cell change signals (which make a large folder slow) are held back
    // and the view is repainted once at the end.
    QAbstractItemModel* model = table->model();
    const bool wasBlocked = model->blockSignals(true);
    int row = 0;
    for (const auto& child : folder->children) {
        const QString name = ItemTree::LastComponent(child->name);
        auto* nameItem = new QTableWidgetItem(child->isDir ? FileIcons::Folder() : FileIcons::Icon(name), name);
        nameItem->setCheckState(Qt::Unchecked);
        QString size;
        QString type;
        if (child->isDir) {
            nameItem->setData(Qt::UserRole, FolderMark);
            type = QStringLiteral("Folder");
        } else {
            size = Util::FormatSize(static_cast<qint64>(child->size.toULongLong()));
            type = FileIcons::Type(name);
        }
        table->setItem(row, 0, nameItem);
        table->setItem(row, 1, new QTableWidgetItem(size));
        table->setItem(row, 2, new QTableWidgetItem(type));
        table->setItem(row, 3, new QTableWidgetItem(child->time));
        ++row;
    }
    model->blockSignals(wasBlocked);
    table->setUpdatesEnabled(true);
    table->viewport()->update();
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
