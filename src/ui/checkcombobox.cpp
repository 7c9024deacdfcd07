#include "ui/checkcombobox.h"

#include <QAbstractItemView>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QScopedValueRollback>
#include <QStandardItemModel>
#include <QStyledItemDelegate>
#include <QStylePainter>

CCheckComboBox::CCheckComboBox(QWidget* parent) : QComboBox(parent)
{
    // The plain list delegate draws each item's box; the menu-like one a
    // style may pick shows only the current item as checked.
    setItemDelegate(new QStyledItemDelegate(this));
    // The list's own filters close it on any click; this one, installed
    // after them, sees the clicks on the boxes first.
    view()->viewport()->installEventFilter(this);
    view()->installEventFilter(this);
    connect(model(), &QAbstractItemModel::rowsInserted, this, &CCheckComboBox::OnRowsInserted);
    connect(model(), &QAbstractItemModel::dataChanged, this, &CCheckComboBox::OnDataChanged);
    connect(this, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &CCheckComboBox::OnCurrentChanged);
}

bool CCheckComboBox::IsChecked(int index) const
{
    return itemData(index, Qt::CheckStateRole).toInt() == Qt::Checked;
}

void CCheckComboBox::SetChecked(int index, bool checked)
{
    if (index >= 0 && index < count() && IsChecked(index) != checked)
        setItemData(index, checked ? Qt::Checked : Qt::Unchecked, Qt::CheckStateRole);
}

QList<int> CCheckComboBox::CheckedIndexes() const
{
    QList<int> checked;
    for (int i = 0; i < count(); ++i) {
        if (IsChecked(i))
            checked << i;
    }
    return checked;
}

QStringList CCheckComboBox::CheckedData() const
{
    QStringList data;
    for (int index : CheckedIndexes())
        data << itemData(index).toString();
    return data;
}

void CCheckComboBox::SetCheckedData(const QStringList& data)
{
    {
        const QScopedValueRollback<bool> settling(m_settling, true);
        bool any = false;
        for (int i = 0; i < count(); ++i)
            any = any || data.contains(itemData(i).toString());
        for (int i = 0; i < count(); ++i)
            SetChecked(i, any ? data.contains(itemData(i).toString()) : i == currentIndex());
    }
    Settle();
}

QString CCheckComboBox::DisplayText() const
{
    const QStringList checked = CheckedData();
    return checked.size() > 1
               ? m_summary.arg(checked.size()).arg(checked.join(QStringLiteral(", ")))
               : currentText();
}

void CCheckComboBox::paintEvent(QPaintEvent* /*event*/)
{
    QStylePainter painter(this);
    QStyleOptionComboBox option;
    initStyleOption(&option);
    if (CheckedIndexes().size() > 1) {
        option.currentText = DisplayText();
        option.currentIcon = QIcon();
    } else if (currentIndex() < 0 && !placeholderText().isEmpty()) {
        // An empty list says so, as a plain combo box would.
        option.currentText = placeholderText();
        option.palette.setBrush(QPalette::ButtonText, option.palette.placeholderText());
    }
    painter.drawComplexControl(QStyle::CC_ComboBox, option);
    painter.drawControl(QStyle::CE_ComboBoxLabel, option);
}

bool CCheckComboBox::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == view()->viewport()) {
        const QEvent::Type type = event->type();
        if (type == QEvent::MouseButtonPress || type == QEvent::MouseButtonRelease ||
            type == QEvent::MouseButtonDblClick) {
            const QPoint position = static_cast<QMouseEvent*>(event)->position().toPoint();
            const QModelIndex index = view()->indexAt(position);
            if (index.isValid() && OnCheckBox(index, position)) {
                if (type == QEvent::MouseButtonRelease)
                    SetChecked(index.row(), !IsChecked(index.row()));
                return true;
            }
        }
    } else if (watched == view() && event->type() == QEvent::KeyPress &&
               static_cast<QKeyEvent*>(event)->key() == Qt::Key_Space) {
        const QModelIndex index = view()->currentIndex();
        if (index.isValid())
            SetChecked(index.row(), !IsChecked(index.row()));
        return true;
    }
    return QComboBox::eventFilter(watched, event);
}

// The box and the margin up to the text: a click a little off the box
// still ticks rather than choosing the item alone.
bool CCheckComboBox::OnCheckBox(const QModelIndex& index, const QPoint& position) const
{
    QStyleOptionViewItem option;
    option.initFrom(view());
    option.rect = view()->visualRect(index);
    option.features = QStyleOptionViewItem::HasCheckIndicator | QStyleOptionViewItem::HasDisplay;
    const QRect box =
        view()->style()->subElementRect(QStyle::SE_ItemViewItemCheckIndicator, &option, view());
    return position.x() <= box.right() + 4;
}

void CCheckComboBox::OnRowsInserted(const QModelIndex& /*parent*/, int first, int last)
{
    auto* items = qobject_cast<QStandardItemModel*>(model());
    {
        const QScopedValueRollback<bool> settling(m_settling, true);
        for (int i = first; i <= last; ++i) {
            if (items != nullptr)
                items->item(i)->setFlags(items->item(i)->flags() | Qt::ItemIsUserCheckable);
            if (!itemData(i, Qt::CheckStateRole).isValid())
                setItemData(i, Qt::Unchecked, Qt::CheckStateRole);
        }
    }
    Settle();
}

void CCheckComboBox::OnDataChanged(const QModelIndex& /*topLeft*/,
                                   const QModelIndex& /*bottomRight*/, const QList<int>& roles)
{
    if (roles.isEmpty() || roles.contains(Qt::CheckStateRole))
        Settle();
}

// Choosing an unticked item, by name or with the keys of the closed box,
// chooses it alone.
void CCheckComboBox::OnCurrentChanged(int index)
{
    if (index < 0 || IsChecked(index) || m_settling)
        return;
    {
        const QScopedValueRollback<bool> settling(m_settling, true);
        for (int i = 0; i < count(); ++i)
            SetChecked(i, i == index);
    }
    Settle();
}

void CCheckComboBox::Settle()
{
    if (m_settling)
        return;
    {
        const QScopedValueRollback<bool> settling(m_settling, true);
        const QList<int> checked = CheckedIndexes();
        if (checked.isEmpty())
            SetChecked(currentIndex() >= 0 ? currentIndex() : 0, true);
        else if (!checked.contains(currentIndex()))
            setCurrentIndex(checked.first());
    }
    update();
    Q_EMIT checkedChanged();
}
