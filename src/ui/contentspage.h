#pragma once

#include <QList>

#include "ui/imagedialog.h"

struct Item;
class CFolderModel;
class QMenu;
class QModelIndex;
class QRect;
class QTableView;
class QTreeWidget;
class SCheckBoxHeaderView;

// What the extract and edit pages share: an image's folders in a tree beside
// the current folder's entries in a table with tick boxes, browsing by click
// and double click, the wait cursor while the page is busy, and Escape kept
// from closing the page.
class CContentsPage : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CContentsPage)

public:
    ~CContentsPage() override;

    QTreeWidget* Tree() const { return m_tree; }
    QTableView* Table() const { return m_table; }
    CFolderModel* Model() const { return m_model; }
    SCheckBoxHeaderView* Header() const { return m_header; }
    QMenu* ContextMenu() const { return m_menu; }
    const Item* CurrentFolder() const { return m_current; }

public Q_SLOTS:
    void OnTreeCurrentChanged();
    // Opens the folder of the row shown, whatever a filter leaves out.
    void OnListViewDoubleClicked(const QModelIndex& index);
    void OnListViewClicked(const QModelIndex& index);
    void RefreshTreeWidget();
    void slotSelectAll(bool bChecked);
    void OnListContextMenuRequest(const QPoint& pos);

protected:
    CContentsPage();

    // The tree and the table at their places, connected to the slots above,
    // and an empty context menu.
    void MakeContentsViews(const QRect& tree, const QString& treeStyle, const QRect& table,
                           const QList<int>& widths);
    void SetWaitCursor(bool on);
    void FillTable();

    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

    Item* m_current = nullptr;
    QTreeWidget* m_tree = nullptr;
    QTableView* m_table = nullptr;
    CFolderModel* m_model = nullptr;
    SCheckBoxHeaderView* m_header = nullptr;
    QMenu* m_menu = nullptr;

private:
    bool m_waitCursor = false;
    int m_lastPressX = -1;
};
