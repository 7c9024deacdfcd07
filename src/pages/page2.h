#pragma once

#include <QString>

#include "iso/itemtree.h"
#include "ui/contentspage.h"

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
class CPage2 final : public CContentsPage
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage2)

public:
    explicit CPage2(QWidget* mainWindow = nullptr);
    ~CPage2() override;

    // Lists the image; what a chosen file in OnLoadISO() leads to.
    void LoadImage(const QString& path);

    CProgressDialog* Progress() const { return m_progress; }
    const ItemTree& Contents() const { return m_contents; }

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
    void OnExtractProgress(int percent);
    void OnExtractFinished(bool succeeded, const QString& message);

private:
    // Builds the page's controls; the constructor's last step.
    void InitializeUI();
    void SetButtonsEnabled(bool enabled);

    QString m_image;
    QString m_destination;
    ItemTree m_contents;
    ItemTree m_loading; // the image being listed, shown once it was read
    QString m_loadingImage;
    CListJob* m_list = nullptr;
    CExtractJob* m_extract = nullptr;
    CProgressDialog* m_progress = nullptr;
    CImageButton* m_loadiso = nullptr;
    CImageButton* m_back = nullptr;
    CImageButton* m_extractButton = nullptr;
};
