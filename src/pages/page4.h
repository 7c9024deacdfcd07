#pragma once

#include <QString>

#include "iso/editsession.h"
#include "ui/contentspage.h"

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
class CPage4 final : public CContentsPage
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage4)

public:
    explicit CPage4(QWidget* mainWindow = nullptr);
    ~CPage4() override;

    // What a chosen file in OnLoadISO() leads to.
    void LoadImage(const QString& path);

    CEditSession* Session() { return &m_session; }
    QLineEdit* Search() const { return m_search; }
    QLabel* Status() const { return m_status; }
    CProgressDialog* Progress() const { return m_progress; }

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
    void OnBack();
    void OnSave();
    void StopCreate();
    void OnSearch();
    void OnUnzipFinished(bool succeeded, const QString& message);
    void OnExtractFinished(bool succeeded);

private:
    // Builds the page's controls; the constructor's last step.
    void InitializeUI();
    void SetButtonsEnabled(bool enabled);
    void ResetContents();
    void ShowProgress(int percent);
    void UpdateStatus();
    void OnExported(bool succeeded, const QString& message);
    void OnSaved(bool succeeded, const QString& message);
    // Puts the page back after an export or a save and tells how it ended;
    // false for a stop.
    bool ShowEnd(bool succeeded, const QString& message, const QString& done,
                 const QString& folder);
    // Adds files and folders to the folder shown.
    void AddPaths(const QStringList& paths);
    // Replaces what the page shows with the image being loaded.
    void StartLoad(const QString& path);

    CEditSession m_session;
    QString m_destination;
    CProgressDialog* m_progress = nullptr;
    int m_progressPhase = -1;
    QList<CImageButton*> m_buttons;
    QLineEdit* m_search = nullptr;
    QLabel* m_status = nullptr;
    QTimer* m_statusTimer = nullptr;
};
