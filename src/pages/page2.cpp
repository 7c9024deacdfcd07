#include "pages/page2.h"

#include <QApplication>
#include <QFileInfo>
#include <QMenu>
#include <QTableView>
#include <QTreeWidget>

#include "core/util.h"
#include "iso/isojobs.h"
#include "ui/baseimagectrl.h"
#include "ui/contentsview.h"
#include "ui/drops.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"
#include "ui/messagedialogs.h"
#include "ui/gerneraldialog.h"
#include "ui/progressdialog.h"

CPage2::CPage2(QWidget* /*mainWindow*/)
{
    setObjectName(QStringLiteral("CPage2"));
    setWindowTitle(QStringLiteral("Dialog"));
    m_list = new CListJob(m_loading, this);
    m_extract = new CExtractJob(this);
    m_progress = new CProgressDialog;
    connect(m_list, &CListJob::finished, this, &CPage2::OnUnzipFinished);
    connect(m_extract, &CExtractJob::extracting, this, [this](const QString& entry) {
        if (m_extract->Percent() < 100)
            m_progress->SetText(QStringLiteral("Extracting files: ") + entry);
    });
    connect(m_extract, &CJob::progressed, this, &CPage2::OnExtractProgress);
    connect(m_extract, &CExtractJob::finished, this, &CPage2::OnExtractFinished);
    connect(m_progress, &CProgressDialog::SigCancel, this, &CPage2::OnStopExtract);
    InitializeUI();
    // An image file dropped on the page is opened, as Open image would.
    Drops::Enable(
        this, [](const QStringList& paths) { return !Drops::ImageOf(paths).isEmpty(); },
        [this](const QStringList& paths) { LoadImage(Drops::ImageOf(paths)); });
}

CPage2::~CPage2()
{
    // The jobs stop their tools as they go; the progress dialog is a window
    // of its own and goes with the page.
    delete m_progress;
}

void CPage2::InitializeUI()
{
    SetBackgroundImage(QStringLiteral(":/nwu/page2"));

    m_loadiso = MakePictureButton(this, "loadiso", QStringLiteral(":/nwu/loadiso"), 564, 37);
    m_back = MakePictureButton(this, "back", QStringLiteral(":/nwu/backwhite"), 10, 417);
    m_extractButton =
        MakePictureButton(this, "extract", QStringLiteral(":/nwu/btnextract"), 546, 417);
    connect(m_loadiso, qOverload<>(&CImageButton::clicked), this, &CPage2::OnLoadISO);
    connect(m_back, qOverload<>(&CImageButton::clicked), this, &CPage2::OnBack);
    connect(m_extractButton, qOverload<>(&CImageButton::clicked), this, &CPage2::OnExtract);

    // Quarters of the width would cut the 19-character time text short; the
    // columns are sized to what they hold instead, together the same width.
    MakeContentsViews(QRect(10, 112, 213, 282), FileListStyle::FolderTree(),
                      QRect(223, 112, 431, 282), {140, 72, 88, 129});
    SetTabChain({m_loadiso, m_tree, m_table, m_back, m_extractButton});
    QAction* extract = m_menu->addAction(QStringLiteral("Extract(&E)"));
    connect(extract, &QAction::triggered, this, &CPage2::OnExtract);
}

void CPage2::SetButtonsEnabled(bool enabled)
{
    SetWaitCursor(!enabled);
    for (CImageButton* button : {m_back, m_loadiso, m_extractButton})
        button->setEnabled(enabled);
}

void CPage2::OnLoadISO()
{
    const QString path = Util::OpenFileDialog(this, QStringLiteral("ISO Files(*.ISO)"));
    if (path.isEmpty() || !QFileInfo::exists(path))
        return;
    LoadImage(path);
}

void CPage2::LoadImage(const QString& path)
{
    m_loadingImage = path;
    SetButtonsEnabled(false);
    m_list->Start(path);
}

void CPage2::OnUnzipFinished()
{
    SetButtonsEnabled(true);
    const bool succeeded = m_list->Succeeded();
    // An image that cannot be read leaves the page showing what it showed.
    if (succeeded) {
        m_image = m_loadingImage;
        m_contents.Swap(m_loading);
        m_loading.Clear();
        ContentsView::FillTree(m_tree, m_contents);
        m_current = &m_contents.Root();
        FillTable();
    }
    if (!succeeded)
        Util::ShowMessage(m_list->Message());
    else if (const QStringList leftOut = m_list->LeftOut(); !leftOut.isEmpty())
        Util::ShowMessage(
            QStringLiteral("Not shown, because the names lead outside the image's folders: %1")
                .arg(leftOut.join(QStringLiteral(", "))));
    else if (!m_list->Warning().isEmpty())
        Util::ShowMessage(QStringLiteral("The image was read completely, with a warning: %1")
                              .arg(m_list->Warning()));
    Q_EMIT listingFinished(succeeded);
}

void CPage2::OnExtract()
{
    const QStringList names = m_model->CheckedNames();
    if (names.isEmpty()) {
        auto notice = MessageDialogs::Notice(QStringLiteral(":/nwu/select_files_extract"), 120);
        notice->exec();
        return;
    }
    const QString destination = Util::OpenDirectoryDialog(this);
    if (destination.isEmpty())
        return;

    // Paths inside the image as the archive tool names them.
    QString prefix = m_current ? m_current->name : QString();
    prefix.replace(QLatin1Char('\\'), QLatin1Char('/'));
    QStringList entries;
    for (const QString& name : names)
        entries << (prefix.isEmpty() ? name : prefix + QLatin1Char('/') + name);

    m_destination = destination;
    setEnabled(false);
    m_progress->show();
    m_progress->SetText(QStringLiteral("Extracting files..."));
    m_progress->SetRange(0, 100);
    m_progress->SetValue(0);
    m_extract->Start(m_image, destination, entries, &m_contents);
}

void CPage2::OnExtractProgress(int percent)
{
    m_progress->SetValue(percent);
    if (percent >= 100)
        m_progress->SetText(QStringLiteral("Copying files, please wait a few seconds.."));
}

void CPage2::OnExtractFinished(bool succeeded, const QString& message)
{
    setEnabled(true);
    m_progress->hide();
    // A stop confirms itself once the tool has ended: nothing was placed.
    if (!succeeded && CJob::IsStoppedMessage(message)) {
        Util::ShowMessage(message);
        return;
    }
    if (succeeded) {
        Util::WriteLog(QStringLiteral("Extract files successfully :") + m_destination);
        Util::ShowFinished(QStringLiteral("Extract files successfully."), m_destination);
        if (!message.isEmpty())
            Util::ShowMessage(message);
    } else {
        Util::WriteLog(message);
        Util::ShowMessage(message);
    }
    Q_EMIT extractionFinished(succeeded);
}

void CPage2::OnStopExtract()
{
    m_extract->Stop();
    setEnabled(true);
}

void CPage2::OnBack()
{
    m_list->Stop();
    m_extract->Stop();
    hide();
    deleteLater();
}
