#pragma once

#include <QString>

#include "iso/editsession.h"
#include "ui/imagedialog.h"

struct Item;
class CFolderModel;
class CImageButton;
class CProgressDialog;
class QLabel;
class QLineEdit;
class QMenu;
class QModelIndex;
class QTableView;
class QTimer;
class QTreeWidget;
class SCheckBoxHeaderView;

// The edit page: opens an image, lets the user browse and search it, add,
// rename, delete and export entries, and saves a new image with the
// original's boot setup. The work itself is done by a CEditSession; the page
// shows it and asks the questions.
class CPage4 final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage4)

public:
    explicit CPage4(QWidget* mainWindow = nullptr);
    ~CPage4() override;

    void InitializeUI();
    // What a chosen file in OnLoadISO() leads to.
    void LoadImage(const QString& path);

    CEditSession* Session() { return &m_session; }
    QTreeWidget* Tree() const { return m_tree; }
    QTableView* Table() const { return m_table; }
    CFolderModel* Model() const { return m_model; }
    SCheckBoxHeaderView* Header() const { return m_header; }
    QLineEdit* Search() const { return m_search; }
    QLabel* Status() const { return m_status; }
    QMenu* ContextMenu() const { return m_menu; }
    CProgressDialog* Progress() const { return m_progress; }
    const Item* CurrentFolder() const { return m_current; }

Q_SIGNALS:
    // For whoever waits on the page, once it has said what it had to say.
    void loaded(bool succeeded);
    void exportDone(bool succeeded);
    void saveDone(bool succeeded);

public Q_SLOTS:
    void OnLoadISO();
    void OnAdd();
    void OnExport();
    void OnRename();
    void OnDelete();
    void OnNew();
    void OnBack();
    void OnSave();
    void StopCreate();
    void slotSelectAll(bool bChecked);
    void OnSearch();
    void OnUnzipFinished(bool succeeded);
    void OnExtractFinished(bool succeeded);
    void OnTreeCurrentChanged();
    void OnListViewDoubleClicked(const QModelIndex& index);
    void OnListViewClicked(const QModelIndex& index);
    void RefreshTreeWidget();
    void OnListContextMenuRequest(const QPoint& pos);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void SetButtonsEnabled(bool enabled);
    void FillTable();
    void ResetContents();
    void ShowProgress(CEditSession::Phase phase, qint64 value, qint64 maximum);
    void UpdateStatus();
    void OnExported(bool succeeded, const QString& message);
    void OnSaved(bool succeeded, const QString& message);

    CEditSession m_session;
    Item* m_current = nullptr;
    QString m_destination;
    CProgressDialog* m_progress = nullptr;
    int m_progressPhase = -1;
    QMenu* m_menu = nullptr;
    QList<CImageButton*> m_buttons;
    QLineEdit* m_search = nullptr;
    QLabel* m_status = nullptr;
    QTimer* m_statusTimer = nullptr;
    QTreeWidget* m_tree = nullptr;
    QTableView* m_table = nullptr;
    CFolderModel* m_model = nullptr;
    SCheckBoxHeaderView* m_header = nullptr;
    bool m_waitCursor = false;
    int m_lastPressX = -1;
};
