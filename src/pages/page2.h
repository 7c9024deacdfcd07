#pragma once

#include <QString>

#include "iso/itemtree.h"
#include "ui/imagedialog.h"

struct Item;
class CExtractJob;
class CImageButton;
class CListJob;
class CProgressDialog;
class QMenu;
class CFolderModel;
class QModelIndex;
class QTableView;
class QTreeWidget;
class SCheckBoxHeaderView;

// The extract page: opens an image, shows its folders and files, and extracts
// the ticked entries into a folder the user picks, so that the folder receives
// the entries themselves.
class CPage2 final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage2)

public:
    explicit CPage2(QWidget* mainWindow = nullptr);
    ~CPage2() override;

    void InitializeUI();
    // Lists the image; what a chosen file in OnLoadISO() leads to.
    void LoadImage(const QString& path);

    QTreeWidget* Tree() const { return m_tree; }
    QTableView* Table() const { return m_table; }
    CFolderModel* Model() const { return m_model; }
    SCheckBoxHeaderView* Header() const { return m_header; }
    CProgressDialog* Progress() const { return m_progress; }
    const Item* CurrentFolder() const { return m_current; }
    const ItemTree& Contents() const { return m_contents; }
    QMenu* ContextMenu() const { return m_menu; }

Q_SIGNALS:
    // For whoever waits on the page: the listing or the extraction has ended
    // and the page has said what it had to say.
    void listingFinished(bool succeeded);
    void extractionFinished(bool succeeded);

public Q_SLOTS:
    void OnLoadISO();
    void OnBack();
    void OnExtract();
    void OnStopExtract();
    void OnUnzipFinished();
    void OnTreeCurrentChanged();
    void OnListViewDoubleClicked(const QModelIndex& index);
    void OnListContextMenuRequest(const QPoint& pos);
    void OnExtractOutput(int percent, const QString& entry);
    void OnExtractFinished();
    void RefreshTreeWidget();
    void OnListViewClicked(const QModelIndex& index);
    void slotSelectAll(bool bChecked);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void SetButtonsEnabled(bool enabled);
    void FillTable();

    QString m_image;
    QString m_destination;
    Item* m_current = nullptr;
    ItemTree m_contents;
    CListJob* m_list = nullptr;
    CExtractJob* m_extract = nullptr;
    CProgressDialog* m_progress = nullptr;
    QMenu* m_menu = nullptr;
    SCheckBoxHeaderView* m_header = nullptr;
    CImageButton* m_loadiso = nullptr;
    CImageButton* m_back = nullptr;
    CImageButton* m_extractButton = nullptr;
    QTreeWidget* m_tree = nullptr;
    QTableView* m_table = nullptr;
    CFolderModel* m_model = nullptr;
    bool m_waitCursor = false;
    int m_lastPressX = -1;
};
