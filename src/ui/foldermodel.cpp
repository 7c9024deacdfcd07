#include "ui/foldermodel.h"

#include "core/util.h"
#include "iso/itemtree.h"
#include "ui/fileicons.h"

void CFolderModel::SetFolder(const Item* folder)
{
    beginResetModel();
    m_folder = folder;
    m_rows.clear();
    if (folder && !m_filter.isEmpty()) {
        for (size_t i = 0; i < folder->children.size(); ++i) {
            if (ItemTree::LastComponent(folder->children[i]->name)
                    .contains(m_filter, Qt::CaseInsensitive))
                m_rows.push_back(static_cast<int>(i));
        }
    }
    m_checked.assign(static_cast<size_t>(rowCount()), 0);
    endResetModel();
}

void CFolderModel::SetFilter(const QString& filter)
{
    m_filter = filter.trimmed();
    SetFolder(m_folder);
}

const Item* CFolderModel::ItemAt(int row) const
{
    if (m_folder == nullptr || row < 0 || row >= rowCount())
        return nullptr;
    const size_t child =
        m_filter.isEmpty() ? static_cast<size_t>(row) : static_cast<size_t>(m_rows[size_t(row)]);
    return m_folder->children[child].get();
}

QList<const Item*> CFolderModel::CheckedItems() const
{
    QList<const Item*> items;
    for (int row = 0; row < rowCount(); ++row) {
        if (m_checked[static_cast<size_t>(row)])
            items << ItemAt(row);
    }
    return items;
}

bool CFolderModel::IsChecked(int row) const
{
    return row >= 0 && row < rowCount() && m_checked[static_cast<size_t>(row)] != 0;
}

void CFolderModel::SetChecked(int row, bool checked)
{
    if (row < 0 || row >= rowCount())
        return;
    m_checked[static_cast<size_t>(row)] = checked ? 1 : 0;
    const QModelIndex cell = index(row, NameColumn);
    Q_EMIT dataChanged(cell, cell, {Qt::CheckStateRole});
}

void CFolderModel::SetAllChecked(bool checked)
{
    if (rowCount() == 0)
        return;
    std::fill(m_checked.begin(), m_checked.end(), checked ? 1 : 0);
    Q_EMIT dataChanged(index(0, NameColumn), index(rowCount() - 1, NameColumn),
                       {Qt::CheckStateRole});
}

QStringList CFolderModel::CheckedNames() const
{
    QStringList names;
    for (const Item* item : CheckedItems())
        names << ItemTree::LastComponent(item->name);
    return names;
}

int CFolderModel::rowCount(const QModelIndex& parent) const
{
    if (parent.isValid() || m_folder == nullptr)
        return 0;
    return static_cast<int>(m_filter.isEmpty() ? m_folder->children.size() : m_rows.size());
}

int CFolderModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant CFolderModel::data(const QModelIndex& index, int role) const
{
    const Item* item = ItemAt(index.row());
    if (item == nullptr)
        return QVariant();
    const int column = index.column();
    if (role == Qt::DisplayRole) {
        switch (column) {
        case NameColumn:
            return ItemTree::LastComponent(item->name);
        case SizeColumn:
            return item->isDir ? QString()
                               : Util::FormatSize(static_cast<qint64>(item->size.toULongLong()));
        case TypeColumn:
            return item->isDir ? QStringLiteral("Folder")
                               : FileIcons::Type(ItemTree::LastComponent(item->name));
        case TimeColumn:
            return item->time;
        default:
            return QVariant();
        }
    }
    if (column != NameColumn)
        return QVariant();
    if (role == Qt::DecorationRole)
        return item->isDir ? FileIcons::Folder()
                           : FileIcons::Icon(ItemTree::LastComponent(item->name));
    if (role == Qt::CheckStateRole)
        return IsChecked(index.row()) ? Qt::Checked : Qt::Unchecked;
    if (role == Qt::UserRole && item->isDir)
        return FolderMark;
    return QVariant();
}

bool CFolderModel::setData(const QModelIndex& index, const QVariant& value, int role)
{
    if (role != Qt::CheckStateRole || index.column() != NameColumn ||
        ItemAt(index.row()) == nullptr)
        return false;
    SetChecked(index.row(), value.toInt() == Qt::Checked);
    return true;
}

Qt::ItemFlags CFolderModel::flags(const QModelIndex& index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (index.column() == NameColumn)
        flags |= Qt::ItemIsUserCheckable;
    return flags;
}

QVariant CFolderModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return QVariant();
    static const char* const labels[] = {"File Name", " Size", "Type", "Time"};
    return section >= 0 && section < ColumnCount ? QString::fromLatin1(labels[section])
                                                 : QVariant();
}
