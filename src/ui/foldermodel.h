#pragma once

#include <QAbstractTableModel>
#include <QList>
#include <QStringList>

#include <vector>

struct Item;

// The file table's rows: the children of one folder of an item tree, with a
// tick box on each name. Cells are worked out when the view asks for them, so
// showing a folder of a hundred thousand files costs no more than a small one.
class CFolderModel final : public QAbstractTableModel
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CFolderModel)

public:
    enum Column
    {
        NameColumn,
        SizeColumn,
        TypeColumn,
        TimeColumn,
        ColumnCount
    };
    // Folder rows carry this in Qt::UserRole of the name column.
    static constexpr int FolderMark = 1;

    explicit CFolderModel(QObject* parent = nullptr) : QAbstractTableModel(parent) {}

    // Shows the folder's children, all unticked; null shows nothing. With a
    // filter set, only children whose name contains it (ignoring case) show.
    void SetFolder(const Item* folder);
    void SetFilter(const QString& filter);
    QString Filter() const { return m_filter; }
    const Item* Folder() const { return m_folder; }
    const Item* ItemAt(int row) const;
    // The items of the ticked rows, in row order.
    QList<const Item*> CheckedItems() const;

    bool IsChecked(int row) const;
    void SetChecked(int row, bool checked);
    void SetAllChecked(bool checked);
    // The names of the ticked rows, in row order.
    QStringList CheckedNames() const;

    int rowCount(const QModelIndex& parent = QModelIndex()) const override;
    int columnCount(const QModelIndex& parent = QModelIndex()) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role = Qt::EditRole) override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

private:
    const Item* m_folder = nullptr;
    QString m_filter;
    std::vector<int> m_rows; // the children shown, when filtered
    std::vector<char> m_checked;
};
