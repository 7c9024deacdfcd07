#pragma once

#include <QHeaderView>
#include <QStyledItemDelegate>
#include <QTreeWidget>

// A horizontal table header with a check box in one section; a click on the
// box toggles it and emits checkStausChange(bool). The pages use it to tick or
// untick every row. Anywhere else the header behaves as any other, so that a
// column's edge can be dragged without ticking anything.
class SCheckBoxHeaderView final : public QHeaderView
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(SCheckBoxHeaderView)

public:
    explicit SCheckBoxHeaderView(Qt::Orientation orientation, QWidget* parent = nullptr);

    bool IsChecked() const { return m_checked; }
    // Where the box is drawn, in the header's coordinates.
    QRect BoxRect() const;

Q_SIGNALS:
    void checkStausChange(bool checked);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void paintSection(QPainter* painter, const QRect& rect, int logicalIndex) const override;

private:
    bool m_checked = false;
    int m_checkColumn = 0;
};

// Paints items without the dotted focus frame, and shows a text cut short by
// its column in full as a tooltip.
class NoFocusDelegate final : public QStyledItemDelegate
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(NoFocusDelegate)

public:
    using QStyledItemDelegate::QStyledItemDelegate;

protected:
    bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
};

// A tree that drops its selection when the user clicks beside the items.
class CMyTreeWidget final : public QTreeWidget
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CMyTreeWidget)

public:
    explicit CMyTreeWidget(QWidget* parent = nullptr) : QTreeWidget(parent) {}

protected:
    void mousePressEvent(QMouseEvent* event) override;
};

// The style sheets of the file pages' trees and tables.
namespace FileListStyle {
QString FolderTree();
QString Table();
} // namespace FileListStyle
