#include "ui/contentspage.h"

#include <QApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QTableView>
#include <QTreeWidget>

#include "iso/itemtree.h"
#include "ui/contentsview.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"

namespace {

// A click this close to a row's left edge lands on its check box, which
// toggles by itself.
constexpr int kCheckBoxEdge = 16;

} // namespace

CContentsPage::CContentsPage() : ImageDialog(false) {}

CContentsPage::~CContentsPage()
{
    SetWaitCursor(false);
}

void CContentsPage::MakeContentsViews(const QRect& tree, const QString& treeStyle,
                                      const QRect& table, const QList<int>& widths)
{
    m_tree = ContentsView::MakeTree(this, tree, treeStyle);
    connect(m_tree, &QTreeWidget::itemClicked, this, &CContentsPage::OnTreeCurrentChanged);
    m_table = ContentsView::MakeTable(this, table, widths, &m_model, &m_header);
    m_table->viewport()->installEventFilter(this);
    m_table->installEventFilter(this);
    connect(m_table, &QTableView::doubleClicked, this, &CContentsPage::OnListViewDoubleClicked);
    connect(m_table, &QTableView::clicked, this, &CContentsPage::OnListViewClicked);
    connect(m_table, &QTableView::customContextMenuRequested, this,
            &CContentsPage::OnListContextMenuRequest);
    connect(m_header, &SCheckBoxHeaderView::checkStausChange, this, &CContentsPage::slotSelectAll);
    m_menu = new QMenu(this);
}

void CContentsPage::SetWaitCursor(bool on)
{
    if (on == m_waitCursor)
        return;
    if (on)
        QApplication::setOverrideCursor(Qt::WaitCursor);
    else
        QApplication::restoreOverrideCursor();
    m_waitCursor = on;
}

void CContentsPage::FillTable()
{
    m_model->SetFolder(m_current);
}

void CContentsPage::OnTreeCurrentChanged()
{
    QTreeWidgetItem* item = m_tree->currentItem();
    if (item == nullptr)
        return;
    item->setSelected(true);
    m_current = ContentsView::ItemOf(item);
    FillTable();
}

void CContentsPage::OnListViewDoubleClicked(const QModelIndex& index)
{
    const Item* child = m_model->ItemAt(index.row());
    if (child == nullptr || !child->isDir)
        return;
    m_current = const_cast<Item*>(child);
    FillTable();
    RefreshTreeWidget();
}

void CContentsPage::RefreshTreeWidget()
{
    ContentsView::ShowInTree(m_tree, m_current);
}

bool CContentsPage::eventFilter(QObject* watched, QEvent* event)
{
    if (m_table != nullptr && watched == m_table->viewport() &&
        event->type() == QEvent::MouseButtonPress)
        m_lastPressX = static_cast<QMouseEvent*>(event)->position().toPoint().x();
    // In the table Space ticks the current row and Enter opens a folder row,
    // as a double click does; the arrow keys stay the table's.
    if (m_table != nullptr && watched == m_table && event->type() == QEvent::KeyPress) {
        const int key = static_cast<QKeyEvent*>(event)->key();
        const QModelIndex current = m_table->currentIndex();
        if (current.isValid() && key == Qt::Key_Space) {
            m_model->SetChecked(current.row(), !m_model->IsChecked(current.row()));
            return true;
        }
        if (current.isValid() && (key == Qt::Key_Return || key == Qt::Key_Enter)) {
            OnListViewDoubleClicked(current);
            return true;
        }
    }
    return ImageDialog::eventFilter(watched, event);
}

void CContentsPage::OnListViewClicked(const QModelIndex& index)
{
    if (!index.isValid() || index.row() >= m_model->rowCount() || m_lastPressX <= kCheckBoxEdge)
        return;
    m_model->SetChecked(index.row(), !m_model->IsChecked(index.row()));
}

void CContentsPage::slotSelectAll(bool bChecked)
{
    m_model->SetAllChecked(bChecked);
}

void CContentsPage::OnListContextMenuRequest(const QPoint& /*pos*/)
{
    m_menu->exec(QCursor::pos());
}

void CContentsPage::keyPressEvent(QKeyEvent* event)
{
    // Escape would reject the dialog the page is built on and leave it half alive.
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    ImageDialog::keyPressEvent(event);
}
