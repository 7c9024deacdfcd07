#include "ui/filelistwidgets.h"

#include <QAbstractItemView>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>

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
    option.rect = BoxRect();
    style()->drawControl(QStyle::CE_CheckBox, &option, painter);
}

QRect SCheckBoxHeaderView::BoxRect() const
{
    const int t = (height() - 21) / 2;
    const int left = sectionViewportPosition(m_checkColumn) + 5;
    return QRect(left, t - 1, 2 * t + 21, 2 * t + 21);
}

void SCheckBoxHeaderView::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::LeftButton && BoxRect().contains(event->position().toPoint())) {
        m_checked = !m_checked;
        updateSection(m_checkColumn);
        Q_EMIT checkStausChange(m_checked);
        return;
    }
    QHeaderView::mousePressEvent(event);
}

bool NoFocusDelegate::helpEvent(QHelpEvent* event, QAbstractItemView* view,
                                const QStyleOptionViewItem& option, const QModelIndex& index)
{
    if (event->type() != QEvent::ToolTip || view == nullptr)
        return QStyledItemDelegate::helpEvent(event, view, option, index);
    QStyleOptionViewItem item(option);
    initStyleOption(&item, index);
    const QRect room = view->style()->subElementRect(QStyle::SE_ItemViewItemText, &item, view);
    // The style leaves a margin on each side of the text.
    const int margin = view->style()->pixelMetric(QStyle::PM_FocusFrameHMargin, &item, view) + 1;
    if (item.text.isEmpty() ||
        item.fontMetrics.horizontalAdvance(item.text) <= room.width() - 2 * margin) {
        QToolTip::hideText();
        return true;
    }
    QToolTip::showText(event->globalPos(), item.text, view->viewport(), option.rect);
    return true;
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
    return QStringLiteral(
        "background:#ffffff;\nborder:1px solid #C2EFFD;;\ngridline-color:#C2EFFD;;\n"
        "selection-background-color:#C2EFFD;;\nselection-color:#000000;\n"
        "QHeaderView::section{font:13pt;color: black;};\n"
        "QHeaderView::section:focus{font:13pt;color: black;};");
}

} // namespace FileListStyle
