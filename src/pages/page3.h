#pragma once

#include <QString>

#include "iso/isojobs.h"
#include "iso/itemtree.h"
#include "ui/imagedialog.h"

class CImageButton;
class CMyTreeWidget;
class CProgressDialog;
class QLabel;
class QMenu;
class QProgressBar;
class QRadioButton;
class QTreeWidgetItem;

// The create page: collects files and folders in a list, copies each one at
// once into a working copy of the page's own, shows their total against a
// gauge, and builds an image of the chosen type from the working copy. The
// copying and the build are a create session's; the page only shows them.
class CPage3 final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage3)

public:
    explicit CPage3(QWidget* mainWindow = nullptr);
    ~CPage3() override;

    CMyTreeWidget* List() const { return m_list; }
    const ItemTree& Items() const { return m_items; }
    QLabel* TotalSize() const { return m_totalsize; }
    QProgressBar* Gauge() const { return m_gauge; }
    CProgressDialog* Progress() const { return m_progress; }
    QString WorkingCopy() const;
    // The folder path (ending in "\") that new entries go into: the selected
    // folder, or the folder of the selected file; empty at the top level.
    QString SelectedParentPath() const;

Q_SIGNALS:
    void createFinished(bool succeeded);

public Q_SLOTS:
    void OnAddFile();
    void OnAddDir();
    // Files and folders dropped on the page, added as the two buttons add them.
    void AddDropped(const QStringList& paths);
    void OnRemove();
    void OnCreate();
    void StopCreate();
    void OnBack();
    void OnListContextMenuRequest(const QPoint& pos);

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    void AddFiles(const QStringList& files);
    void AddFolders(const QStringList& folders);
    // True (and the user told why) when `item` holds a file of 4 GiB or more
    // and the image type is not UDF.
    bool RefusedForIso9660(const Item& item);
    void UpdateTotalSize();
    QTreeWidgetItem* TargetRow() const;
    // Whether a "\"-ended path (empty for the top) names a folder of the list.
    bool IsFolder(const QString& parentPath) const;
    QTreeWidgetItem* MakeRow(const Item& item, QTreeWidgetItem* parent);
    void AddDirContents(Item* folder, const QString& localDir, QTreeWidgetItem* row);
    void OnCreateProgress(int percent);
    void OnBuildFinished(bool succeeded, const QString& message);

    ItemTree m_items;
    CCreateJob* m_create = nullptr;
    CProgressDialog* m_progress = nullptr;
    QMenu* m_menu = nullptr;
    CMyTreeWidget* m_list = nullptr;
    QRadioButton* m_jolet = nullptr;
    QRadioButton* m_iso9600 = nullptr;
    QRadioButton* m_udf = nullptr;
    QLabel* m_totalsize = nullptr;
    QProgressBar* m_gauge = nullptr;
    QString m_output;
};
