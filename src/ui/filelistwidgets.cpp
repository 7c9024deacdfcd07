#include "ui/filelistwidgets.h"

#include <QMouseEvent>
#include <QPainter>

SCheckBoxHeaderView::SCheckBoxHeaderView(Qt::Orientation orientation, QWidget* parent)
    : QHeaderView(orientation, parent)
{
}

void SCheckBoxHeaderView::paintSection(QPainter* painter, const QRect& rect, int logicalIndex) const
{
    painter->save();
    QHeaderView::paintSection(painter, rect, logicalIndex);
    painter->restore();
    if (logicalIndex != m_checkColumn)
        return;
    QStyleOptionButton option;
    option.state = QStyle::State_Enabled | (m_checked ? QStyle::State_On : QStyle::State_Off);
    const int t = (rect.height() - 21) / 2;
    option.rect = QRect(5, rect.top() + t - 1, 2 * t + 21, 2 * t + 21);
    style()->drawControl(QStyle::CE_CheckBox, &option, painter);
}

void SCheckBoxHeaderView::mousePressEvent(QMouseEvent* event)
{
    const int x = event->position().toPoint().x();
    const int section = visualIndexAt(x);
    if (section == m_checkColumn && x >= 0) {
        m_checked = !m_checked;
        updateSection(m_checkColumn);
        Q_EMIT checkStausChange(m_checked);
        return;
    }
    QHeaderView::mousePressEvent(event);
}

void NoFocusDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                            const QModelIndex& index) const
{
    QStyleOptionViewItem copy(option);
    copy.state &= ~QStyle::State_HasFocus;
    QStyledItemDelegate::paint(painter, copy, index);
}

void CMyTreeWidget::mousePressEvent(QMouseEvent* event)
{
    QTreeWidget::mousePressEvent(event);
    if (!indexAt(event->position().toPoint()).isValid())
        clearSelection();
}

namespace FileListStyle {

QString FolderTree()
{
    return QStringLiteral("background:#E2F8FE;\nborder:1px solid #C2EFFD;\noutline:none;\n"
                          "QTreeView::focus{border: 1px solid #C2EFFD;}");
}

QString Table()
{
    return QStringLiteral("background:#ffffff;\nborder:1px solid #C2EFFD;;\ngridline-color:#C2EFFD;;\n"
                          "selection-background-color:#C2EFFD;;\nselection-color:#000000;\n"
                          "QHeaderView::section{font:13pt;color: black;};\n"
                          "QHeaderView::section:focus{font:13pt;color: black;};");
}

} // namespace FileListStyle
