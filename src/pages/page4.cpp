#include "pages/page4.h"

#include <QAction>
#include <QApplication>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QTableView>
#include <QTimer>
#include <QTreeWidget>

#include <memory>

#include "core/util.h"
#include "iso/isojobs.h"
#include "iso/itemtree.h"
#include "ui/baseimagectrl.h"
#include "ui/contentsview.h"
#include "ui/drops.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"
#include "ui/inputdialog.h"
#include "ui/progressdialog.h"

CPage4::CPage4(QWidget* /*mainWindow*/)
{
    setObjectName(QStringLiteral("CPage4"));
    setWindowTitle(QStringLiteral("Dialog"));
    m_progress = new CProgressDialog;
    connect(m_progress, &CProgressDialog::SigCancel, this, &CPage4::StopCreate);
    connect(&m_session.Loading(), &CJob::finished, this, &CPage4::OnUnzipFinished);
    connect(&m_session, &CEditSession::extracted, this, &CPage4::OnExtractFinished);
    connect(&m_session.Exporting(), &CJob::progressed, this, &CPage4::ShowProgress);
    connect(&m_session.Saving(), &CJob::progressed, this, &CPage4::ShowProgress);
    connect(&m_session, &CEditSession::exporting, this, [this](const QString& entry) {
        m_progress->SetText(QStringLiteral("Extracting files: ") + entry);
    });
    connect(&m_session.Exporting(), &CJob::finished, this, &CPage4::OnExported);
    connect(&m_session.Saving(), &CJob::finished, this, &CPage4::OnSaved);
    InitializeUI();
    // Dropped on the page: an image opens while none is open; files and
    // folders are added to the folder shown once one is.
    Drops::Enable(
        this,
        [this](const QStringList& paths) {
            return m_current != nullptr || !Drops::ImageOf(paths).isEmpty();
        },
        [this](const QStringList& paths) {
            if (m_current == nullptr)
                LoadImage(Drops::ImageOf(paths));
            else
                AddPaths(paths);
        });
}

CPage4::~CPage4()
{
    delete m_progress;
}

void CPage4::InitializeUI()
{
    SetBackgroundImage(QStringLiteral(":/nwu/page4"));

    const auto button = [this](const char* name, const char* stem, int x, int y,
                               void (CPage4::*slot)()) {
        CImageButton* made = MakePictureButton(this, name, QLatin1String(stem), x, y);
        connect(made, qOverload<>(&CImageButton::clicked), this, slot);
        m_buttons << made;
        return made;
    };
    button("loadiso", ":/nwu/loadiso", 564, 37, &CPage4::OnLoadISO);
    button("add", ":/nwu/Add", 10, 112, &CPage4::OnAdd);
    button("export_2", ":/nwu/Export", 88, 112, &CPage4::OnExport);
    button("rename", ":/nwu/Rename", 182, 112, &CPage4::OnRename);
    button("delete_2", ":/nwu/Delete", 284, 112, &CPage4::OnDelete);
    QList<QWidget*> tabChain(m_buttons.cbegin(), m_buttons.cend());
    CImageButton* back = button("back", ":/nwu/backwhite", 10, 417, &CPage4::OnBack);
    CImageButton* save = button("save", ":/nwu/save", 546, 417, &CPage4::OnSave);

    m_search = new QLineEdit(this);
    m_search->setObjectName(QStringLiteral("search"));
    m_search->move(518, 112);
    m_search->setFixedSize(136, 28);
    m_search->setStyleSheet(QStringLiteral("padding-left:28px;"));
    m_search->setPlaceholderText(QStringLiteral("Search"));
    auto* zoom = new QLabel(m_search);
    zoom->setObjectName(QStringLiteral("zoom"));
    const QPixmap magnifier(QStringLiteral(":/nwu/zoom"));
    zoom->setPixmap(magnifier);
    zoom->setFixedSize(magnifier.size());
    zoom->move(6, (m_search->height() - magnifier.height()) / 2);
    zoom->setAttribute(Qt::WA_TransparentForMouseEvents);
    // The box's padding would otherwise reach the label and push the picture out.
    zoom->setStyleSheet(QStringLiteral("padding:0px;"));
    connect(m_search, &QLineEdit::textChanged, this, &CPage4::OnSearch);

    MakeContentsViews(QRect(10, 148, 213, 246), FileListStyle::FolderTree(),
                      QRect(223, 148, 431, 246), {140, 72, 88, 129});
    tabChain << m_search << m_tree << m_table << back << save;
    SetTabChain(tabChain);

    // A line between Back and Save says how the image will be saved, and
    // while a working copy is being filled, how far it is.
    m_status = new QLabel(this);
    m_status->setObjectName(QStringLiteral("status"));
    m_status->setGeometry(120, 417, 416, 40);
    m_status->setAlignment(Qt::AlignCenter);
    m_status->setWordWrap(true);
    m_status->setStyleSheet(QStringLiteral("color:#606060; font-size:12px;"));
    m_status->hide();
    m_statusTimer = new QTimer(this);
    m_statusTimer->setInterval(200);
    connect(m_statusTimer, &QTimer::timeout, this, &CPage4::UpdateStatus);

    const auto action = [this](const QString& text, void (CPage4::*slot)(),
                               const QKeySequence& key) {
        QAction* made = m_menu->addAction(text);
        connect(made, &QAction::triggered, this, slot);
        if (!key.isEmpty()) {
            // The same keys work on the table without opening the menu.
            auto* shortcut = new QAction(m_table);
            shortcut->setShortcut(key);
            shortcut->setShortcutContext(Qt::WidgetShortcut);
            connect(shortcut, &QAction::triggered, this, slot);
            m_table->addAction(shortcut);
        }
        return made;
    };
    action(QStringLiteral("Add(&A)"), &CPage4::OnAdd, QKeySequence(Qt::Key_Insert));
    action(QStringLiteral("Export(&E)"), &CPage4::OnExport, QKeySequence());
    action(QStringLiteral("Rename(&R)"), &CPage4::OnRename, QKeySequence(Qt::Key_F2));
    action(QStringLiteral("Delete(&D)"), &CPage4::OnDelete, QKeySequence(QKeySequence::Delete));
    // New has nothing to make: shown, but not offered.
}

void CPage4::SetButtonsEnabled(bool enabled)
{
    SetWaitCursor(!enabled);
    for (CImageButton* button : std::as_const(m_buttons))
        button->setEnabled(enabled);
    m_table->setEnabled(enabled);
    m_tree->setEnabled(enabled);
}

void CPage4::OnLoadISO()
{
    const QString path = Util::OpenFileDialog(this, QStringLiteral("ISO Files(*.ISO)"));
    if (path.isEmpty() || !QFileInfo::exists(path))
        return;
    LoadImage(path);
}

void CPage4::LoadImage(const QString& path)
{
    if (m_current == nullptr) {
        StartLoad(path);
        return;
    }
    // An image is open: the new one takes its place only once it is known to
    // open, so that one that cannot be opened leaves the page as it was.
    SetButtonsEnabled(false);
    auto probe = std::make_shared<ItemTree>();
    auto* listing = new CListJob(*probe, this);
    connect(listing, &CJob::finished, this,
            [this, listing, probe, path](bool ok, const QString& message) {
                listing->deleteLater();
                if (ok) {
                    StartLoad(path);
                    return;
                }
                SetButtonsEnabled(true);
                if (!CJob::IsStoppedMessage(message))
                    Util::ShowMessage(message);
                Q_EMIT loaded(false);
            });
    listing->Start(path);
}

void CPage4::StartLoad(const QString& path)
{
    SetButtonsEnabled(false);
    ResetContents();
    m_session.Load(path);
    m_statusTimer->start();
    UpdateStatus();
}

void CPage4::ResetContents()
{
    m_current = nullptr;
    m_tree->clear();
    FillTable();
}

void CPage4::OnUnzipFinished(bool succeeded, const QString& message)
{
    if (!succeeded && CJob::IsStoppedMessage(message))
        return;
    SetButtonsEnabled(true);
    if (!succeeded) {
        m_statusTimer->stop();
        m_status->hide();
        ResetContents();
        Util::ShowMessage(m_session.LoadProblem());
        Q_EMIT loaded(false);
        return;
    }
    ContentsView::FillTree(m_tree, m_session.Contents());
    m_current = &m_session.Contents().Root();
    FillTable();
    UpdateStatus();
    if (!m_session.IsExtracting()) {
        m_statusTimer->stop();
        Q_EMIT loaded(true);
    }
}

void CPage4::OnExtractFinished(bool succeeded)
{
    m_statusTimer->stop();
    UpdateStatus();
    if (!succeeded) {
        m_status->hide();
        SetButtonsEnabled(true);
        ResetContents();
        // A save that was waiting ends through the session; only the load's
        // problem is told here.
        if (!m_session.IsBusy())
            Util::ShowMessage(m_session.LoadProblem());
        Q_EMIT loaded(false);
        return;
    }
    Q_EMIT loaded(true);
}

void CPage4::UpdateStatus()
{
    if (!m_session.IsLoaded()) {
        m_status->hide();
        return;
    }
    if (m_session.IsExtracting())
        m_status->setText(QStringLiteral("Copying the image's files for the UDF rebuild: %1%")
                              .arg(m_session.ExtractProgress()));
    else if (m_session.Way() == ImageSave::Way::Xorriso && m_session.Report().bootFiles.isEmpty() &&
             m_session.Report().systemArea.isEmpty())
        m_status->setText(QStringLiteral("Saved by xorriso from the original image."));
    else if (m_session.Way() == ImageSave::Way::Xorriso)
        m_status->setText(
            QStringLiteral("Saved by xorriso from the original image, with its whole boot setup."));
    else
        m_status->setText(
            QStringLiteral("Its files are in a UDF tree: saved by rebuilding it with UDF."));
    m_status->show();
}

void CPage4::OnSearch()
{
    m_model->SetFilter(m_search->text());
}

void CPage4::OnAdd()
{
    if (m_current == nullptr)
        return;
    AddPaths(Util::SelectFilesAndDirsDialog(this));
}

void CPage4::AddPaths(const QStringList& paths)
{
    if (paths.isEmpty() || m_current == nullptr)
        return;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    const QList<Item*> added = m_session.Add(*m_current, paths);
    QTreeWidgetItem* folderItem = ContentsView::FindTreeItem(m_tree->topLevelItem(0), m_current);
    for (Item* item : added) {
        if (item->isDir && folderItem)
            ContentsView::AddFolder(folderItem, item);
    }
    FillTable();
    QApplication::restoreOverrideCursor();
}

void CPage4::OnExport()
{
    const QList<const Item*> items = m_model->CheckedItems();
    if (items.isEmpty()) {
        Util::ShowMessage(QStringLiteral("Please select files or directorys in the list first."));
        return;
    }
    const QString destination = Util::OpenDirectoryDialog(this);
    if (destination.isEmpty())
        return;
    m_destination = destination;
    SetButtonsEnabled(false);
    m_progressPhase = -1;
    m_progress->SetDetail(QString());
    m_progress->show();
    m_session.Export(items, destination);
}

void CPage4::OnRename()
{
    const QList<const Item*> items = m_model->CheckedItems();
    if (items.isEmpty()) {
        Util::ShowMessage(QStringLiteral("Please select one row in the table list first"));
        return;
    }
    Item* item = const_cast<Item*>(items.first());
    const QString old = ItemTree::LastComponent(item->name);
    CInputDialog dialog;
    dialog.SetInputText(old);
    if (dialog.exec() != QDialog::Accepted)
        return;
    QString why;
    if (!m_session.Rename(*item, dialog.GetInputText(), &why)) {
        if (!why.isEmpty())
            Util::ShowMessage(why);
        return;
    }
    if (item->isDir) {
        if (QTreeWidgetItem* treeItem = ContentsView::FindTreeItem(m_tree->topLevelItem(0), item))
            treeItem->setText(0, ItemTree::LastComponent(item->name));
    }
    FillTable();
}

void CPage4::OnDelete()
{
    const QList<const Item*> items = m_model->CheckedItems();
    if (items.isEmpty()) {
        Util::ShowMessage(QStringLiteral("Please select one row in the table list first"));
        return;
    }
    for (const Item* item : items) {
        const QString bootFile = m_session.BootFileIn(*item);
        if (!bootFile.isEmpty()) {
            Util::ShowMessage(
                CEditSession::BootFileText(*item, bootFile, QStringLiteral("deleted")));
            return;
        }
    }
    QList<Item*> doomed;
    for (const Item* item : items) {
        // Tree items hold their folder: they go before the folder does.
        if (item->isDir)
            delete ContentsView::FindTreeItem(m_tree->topLevelItem(0), item);
        doomed << const_cast<Item*>(item);
    }
    m_model->SetFolder(nullptr);
    m_session.Remove(doomed);
    FillTable();
}

void CPage4::OnBack()
{
    // The page goes with its session: tools stopped, worker let go, working
    // copy removed.
    m_session.Stop();
    hide();
    deleteLater();
}

void CPage4::OnSave()
{
    if (m_session.Contents().Root().children.empty()) {
        Util::ShowMessage(QStringLiteral("Please add files or directorys first!"));
        return;
    }
    const BootSetup::Plan& boot = m_session.Boot();
    if (m_session.Way() == ImageSave::Way::UdfRebuild && boot.originalBoots &&
        !boot.Reproducible() && !Util::Confirm(boot.Warning()))
        return;
    const QString output = Util::SaveFileDialog(this, QStringLiteral("ISO Files(*.ISO)"));
    if (output.isEmpty())
        return;
    SetButtonsEnabled(false);
    m_progressPhase = -1;
    m_progress->SetDetail(QString());
    m_progress->show();
    m_session.Save(output);
}

void CPage4::ShowProgress(int percent)
{
    const CEditSession::Phase phase = m_session.CurrentPhase();
    if (int(phase) != m_progressPhase) {
        m_progressPhase = int(phase);
        switch (phase) {
        case CEditSession::Phase::Reading:
            m_progress->SetText(QStringLiteral("Copying the image's files..."));
            break;
        case CEditSession::Phase::Exporting:
            m_progress->SetText(QStringLiteral("Extracting files..."));
            break;
        case CEditSession::Phase::Copying:
            m_progress->SetText(QStringLiteral("Copy files and directories..."));
            break;
        case CEditSession::Phase::Saving:
            m_progress->SetText(QStringLiteral("Saving ISO file..."));
            break;
        }
    }
    // Under the bar: which of the steps this is ("Building the image (3 of 3)").
    const CJob* const job =
        m_session.Saving().IsRunning() ? &m_session.Saving() : &m_session.Exporting();
    m_progress->SetDetail(job->PhaseText());
    m_progress->SetRange(0, 100);
    m_progress->SetValue(percent);
}

void CPage4::OnExported(bool succeeded, const QString& message)
{
    if (ShowEnd(succeeded, message, QStringLiteral("Export Successfully !"), m_destination))
        Q_EMIT exportDone(succeeded);
}

void CPage4::OnSaved(bool succeeded, const QString& message)
{
    if (ShowEnd(succeeded, message, QStringLiteral("Save ISO file successfully!"),
                QFileInfo(m_session.OutputPath()).absolutePath()))
        Q_EMIT saveDone(succeeded);
}

bool CPage4::ShowEnd(bool succeeded, const QString& message, const QString& done,
                     const QString& folder)
{
    m_progress->hide();
    SetButtonsEnabled(true);
    if (succeeded)
        Util::ShowFinished(done, folder);
    else
        Util::ShowMessage(message);
    // A stop confirms itself above, once the tool or the copies have ended,
    // saying what was removed; it is no end of the work to report.
    return succeeded || !CJob::IsStoppedMessage(message);
}

void CPage4::StopCreate()
{
    m_session.Stop();
    m_progress->hide();
    SetButtonsEnabled(true);
}
