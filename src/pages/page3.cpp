#include "pages/page3.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QProgressBar>
#include <QRadioButton>
#include <QTreeWidget>

#include "core/util.h"
#include "iso/isojobs.h"
#include "ui/baseimagectrl.h"
#include "ui/drops.h"
#include "ui/fileicons.h"
#include "ui/filelistwidgets.h"
#include "ui/foldermodel.h"
#include "ui/progressdialog.h"

namespace {

constexpr qint64 kGaugeFullScale = qint64(5) * 1024 * 1024 * 1024;
// ISO 9660 records a file's size in 32 bits: 4 GiB and larger needs UDF.
constexpr qint64 kIso9660FileLimit = qint64(4) * 1024 * 1024 * 1024;

QString gaugeStyle(bool over)
{
    return QStringLiteral("QProgressBar { border: 1px solid #C2EFFD; border-radius: 4px; "
                          "background: #FFFFFF; }"
                          "QProgressBar::chunk { background: %1; border-radius: 3px; }")
        .arg(over ? QStringLiteral("#e8a33d") : QStringLiteral("#67d995"));
}

// The first file of 4 GiB or more at or below `item`, or nothing.
const Item* tooLargeForIso9660(const Item& item)
{
    if (!item.isDir)
        return item.size.toLongLong() >= kIso9660FileLimit ? &item : nullptr;
    for (const auto& child : item.children) {
        if (const Item* found = tooLargeForIso9660(*child))
            return found;
    }
    return nullptr;
}
constexpr QChar kSeparator = QLatin1Char('\\');

QString localPath(QString name)
{
    return name.replace(kSeparator, QLatin1Char('/'));
}

qint64 sizeOnDisk(const Item& folder)
{
    qint64 total = 0;
    for (const auto& child : folder.children) {
        if (child->isDir)
            total += sizeOnDisk(*child);
        else if (!child->source.isEmpty())
            total += QFileInfo(child->source).size();
    }
    return total;
}

} // namespace

CPage3::CPage3(QWidget* /*mainWindow*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("CPage3"));
    SetBackgroundImage(QStringLiteral(":/nwu/page3"));

    m_list = new CMyTreeWidget(this);
    m_list->setObjectName(QStringLiteral("list"));
    m_list->move(10, 156);
    m_list->setFixedSize(644, 184);
    m_list->setColumnCount(5);
    m_list->setHeaderLabels({QStringLiteral("File Name"), QStringLiteral("File Path"),
                             QStringLiteral(" Size"), QStringLiteral("Type"),
                             QStringLiteral("Time")});
    const int widths[] = {170, 130, 80, 110, 151};
    for (int column = 0; column < 5; ++column)
        m_list->setColumnWidth(column, widths[column]);
    QFont headerFont = m_list->header()->font();
    headerFont.setWeight(QFont::Normal);
    m_list->header()->setFont(headerFont);
    m_list->header()->setHighlightSections(false);
    // Headers and rows as in the extract and edit pages' tables.
    m_list->header()->setDefaultAlignment(Qt::AlignCenter);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_list->setItemDelegate(new NoFocusDelegate(m_list));
    m_list->setContextMenuPolicy(Qt::CustomContextMenu);
    m_list->setStyleSheet(FileListStyle::Table());
    // The list's own style sheet has no room for a rule of its own; the page's
    // gives its rows the tables' height.
    setStyleSheet(QStringLiteral("QTreeView#list::item { height: 30px; }"));
    connect(m_list, &QTreeWidget::customContextMenuRequested, this,
            &CPage3::OnListContextMenuRequest);

    const QString radioStyle =
        QStringLiteral("QRadioButton::indicator:checked {\n    image: url(:/nwu/rchecked);\n}\n\n"
                       "QRadioButton::indicator:unchecked {\n    image: url(:/nwu/runchecked);\n}");
    const auto radio = [&](const char* name, const QString& text, int x) {
        auto* button = new QRadioButton(text, this);
        button->setObjectName(QLatin1String(name));
        button->move(x, 363);
        button->setStyleSheet(radioStyle);
        button->adjustSize();
        return button;
    };
    m_jolet = radio("jolet", QStringLiteral("ISO9660 Jolet"), 80);
    m_iso9600 = radio("iso9600", QStringLiteral("ISO9660"), 190);
    m_udf = radio("udf", QStringLiteral("UDF ISO"), 272);
    m_jolet->setChecked(true);

    auto* gaugeFrame = new QWidget(this);
    gaugeFrame->setObjectName(QStringLiteral("widget"));
    gaugeFrame->move(360, 348);
    gaugeFrame->setFixedSize(294, 46);
    gaugeFrame->setStyleSheet(QStringLiteral("#widget{border:1px solid #C2EFFD;;}"));
    m_totalsize = new QLabel(QStringLiteral("Total Size: 0KB"), gaugeFrame);
    m_totalsize->setGeometry(10, 5, 150, 16);
    auto* maxSize = new QLabel(QStringLiteral("Max Size: 5.00 GB"), gaugeFrame);
    maxSize->setGeometry(294 - 10 - 121, 5, 121, 16);
    maxSize->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    for (QLabel* label : {m_totalsize, maxSize})
        label->setStyleSheet(QStringLiteral("color:#606060; font-size:12px;"));
    m_gauge = new QProgressBar(gaugeFrame);
    m_gauge->setGeometry(10, 24, 294 - 20, 16);
    m_gauge->setRange(0, 100);
    m_gauge->setValue(0);
    m_gauge->setTextVisible(false);
    m_gauge->setStyleSheet(gaugeStyle(false));

    auto* addfile = MakePictureButton(this, "addfile", QStringLiteral(":/nwu/addfile"), 10, 112);
    auto* adddir = MakePictureButton(this, "adddir", QStringLiteral(":/nwu/adddir"), 114, 112);
    auto* remove = MakePictureButton(this, "remove", QStringLiteral(":/nwu/Remove"), 218, 112);
    auto* back = MakePictureButton(this, "back", QStringLiteral(":/nwu/backwhite"), 10, 417);
    auto* create = MakePictureButton(this, "create", QStringLiteral(":/nwu/Create-IOS"), 546, 417);
    SetTabChain({addfile, adddir, remove, m_list, m_jolet, m_iso9600, m_udf, back, create});
    connect(addfile, qOverload<>(&CImageButton::clicked), this, &CPage3::OnAddFile);
    connect(adddir, qOverload<>(&CImageButton::clicked), this, &CPage3::OnAddDir);
    connect(remove, qOverload<>(&CImageButton::clicked), this, &CPage3::OnRemove);
    connect(back, qOverload<>(&CImageButton::clicked), this, &CPage3::OnBack);
    connect(create, qOverload<>(&CImageButton::clicked), this, &CPage3::OnCreate);

    m_menu = new QMenu(this);
    connect(m_menu->addAction(QStringLiteral("Add Files(&F)")), &QAction::triggered, this,
            &CPage3::OnAddFile);
    connect(m_menu->addAction(QStringLiteral("Add Dirs(&D)")), &QAction::triggered, this,
            &CPage3::OnAddDir);
    m_menu->addSeparator();
    connect(m_menu->addAction(QStringLiteral("Remove(&R)")), &QAction::triggered, this,
            &CPage3::OnRemove);

    m_progress = new CProgressDialog;
    connect(m_progress, &CProgressDialog::SigCancel, this, &CPage3::StopCreate);
    // A working copy of this page's own inside the scratch folder: a page
    // opened later never shares it with a worker that may still be writing.
    // The session removes it once its worker has ended, without waiting here.
    m_create = new CCreateJob(this);
    connect(m_create, &CJob::progressed, this, &CPage3::OnCreateProgress);
    connect(m_create, &CCreateJob::finished, this, &CPage3::OnBuildFinished);
    m_create->Prepare();
    // Files and folders dropped on the page are added where Add would add them.
    Drops::Enable(
        this, [](const QStringList&) { return true; },
        [this](const QStringList& paths) { AddDropped(paths); });
}

CPage3::~CPage3()
{
    delete m_create;
    delete m_progress;
}

QString CPage3::WorkingCopy() const
{
    return m_create->StagingPath();
}

QTreeWidgetItem* CPage3::TargetRow() const
{
    const QList<QTreeWidgetItem*> selected = m_list->selectedItems();
    if (selected.isEmpty())
        return nullptr;
    QTreeWidgetItem* row = selected.first();
    // New entries go into the selected folder, or beside the selected file.
    return row->data(0, Qt::UserRole).toInt() == CFolderModel::FolderMark ? row : row->parent();
}

QString CPage3::SelectedParentPath() const
{
    QString path;
    for (QTreeWidgetItem* row = TargetRow(); row != nullptr; row = row->parent())
        path.prepend(row->text(0).trimmed() + kSeparator);
    return path;
}

bool CPage3::IsFolder(const QString& parentPath) const
{
    const Item* folder =
        parentPath.isEmpty() ? &m_items.Root() : m_items.Find(parentPath.chopped(1));
    return folder != nullptr && folder->isDir;
}

QTreeWidgetItem* CPage3::MakeRow(const Item& item, QTreeWidgetItem* parent)
{
    auto* row = new QTreeWidgetItem;
    const QString name = ItemTree::LastComponent(item.name);
    row->setText(0, name);
    row->setText(1, ItemTree::ParentPath(item.name));
    row->setText(4, item.time);
    if (item.isDir) {
        row->setIcon(0, FileIcons::Folder());
        row->setText(3, QStringLiteral("Folder"));
        row->setData(0, Qt::UserRole, CFolderModel::FolderMark);
    } else {
        row->setIcon(0, FileIcons::Icon(name));
        row->setText(2, Util::FormatSize(item.size.toLongLong()));
        row->setText(3, FileIcons::Type(name));
    }
    if (parent)
        parent->addChild(row);
    else
        m_list->addTopLevelItem(row);
    return row;
}

void CPage3::OnAddFile()
{
    AddFiles(Util::OpenFilesDialog(this));
}

void CPage3::OnAddDir()
{
    AddFolders(Util::SelectDirsDialog(this));
}

void CPage3::AddDropped(const QStringList& paths)
{
    QStringList files;
    QStringList folders;
    for (const QString& path : paths)
        (QFileInfo(path).isDir() ? folders : files) << path;
    AddFiles(files);
    AddFolders(folders);
}

void CPage3::AddFiles(const QStringList& files)
{
    QTreeWidgetItem* target = TargetRow();
    const QString parent = SelectedParentPath();
    if (files.isEmpty() || !IsFolder(parent))
        return;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    for (const QString& file : files) {
        const QFileInfo info(file);
        const QString name = parent + info.fileName();
        auto item = ItemTree::FromLocal(info, name);
        if (RefusedForIso9660(*item))
            continue;
        Item* raw = item.get();
        if (!m_items.Insert(item))
            continue;
        MakeRow(*raw, target);
        m_create->Add(info.absoluteFilePath(), localPath(name));
    }
    UpdateTotalSize();
    QApplication::restoreOverrideCursor();
}

void CPage3::AddFolders(const QStringList& folders)
{
    QTreeWidgetItem* target = TargetRow();
    const QString parent = SelectedParentPath();
    if (folders.isEmpty() || !IsFolder(parent))
        return;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    for (const QString& path : folders) {
        const QFileInfo info(path);
        const QString name = parent + info.fileName();
        auto item = ItemTree::FromLocal(info, name);
        Item* added = item.get();
        if (!m_items.Insert(item))
            continue;
        QTreeWidgetItem* row = MakeRow(*added, target);
        AddDirContents(added, info.absoluteFilePath(), row);
        if (RefusedForIso9660(*added)) {
            delete row;
            m_items.Remove(name);
            continue;
        }
        m_create->Add(info.absoluteFilePath(), localPath(name));
    }
    UpdateTotalSize();
    QApplication::restoreOverrideCursor();
}

void CPage3::AddDirContents(Item* folder, const QString& localDir, QTreeWidgetItem* row)
{
    const QFileInfoList entries = QDir(localDir).entryInfoList(QDir::Dirs | QDir::Files |
                                                               QDir::Drives | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        // Straight into the folder: these paths are new by construction.
        Item* raw = m_items.Append(
            *folder, ItemTree::FromLocal(entry, folder->name + kSeparator + entry.fileName()));
        QTreeWidgetItem* childRow = MakeRow(*raw, row);
        if (raw->isDir && !entry.isSymLink())
            AddDirContents(raw, entry.absoluteFilePath(), childRow);
    }
}

void CPage3::OnRemove()
{
    const QList<QTreeWidgetItem*> selected = m_list->selectedItems();
    if (selected.isEmpty())
        return;
    QTreeWidgetItem* row = selected.first();
    QString full = row->text(0).trimmed();
    for (QTreeWidgetItem* up = row->parent(); up != nullptr; up = up->parent())
        full.prepend(up->text(0).trimmed() + kSeparator);
    Item* item = m_items.Find(full);
    if (item == nullptr)
        return;
    m_create->Remove(item->source, localPath(full));
    delete row;
    m_items.Remove(full);
    UpdateTotalSize();
}

bool CPage3::RefusedForIso9660(const Item& item)
{
    if (m_udf->isChecked())
        return false;
    const Item* large = tooLargeForIso9660(item);
    if (large == nullptr)
        return false;
    QApplication::restoreOverrideCursor();
    Util::ShowMessage(
        QStringLiteral("%1 is 4 GB or larger, which an ISO9660 image cannot hold. Choose UDF ISO "
                       "to add it.")
            .arg(ItemTree::LastComponent(large->name)));
    QApplication::setOverrideCursor(Qt::WaitCursor);
    return true;
}

void CPage3::UpdateTotalSize()
{
    const qint64 sum = sizeOnDisk(m_items.Root());
    m_totalsize->setText(QStringLiteral("Total Size: ") + Util::FormatSize(sum));
    m_gauge->setValue(static_cast<int>(qMin<qint64>(sum * 100 / kGaugeFullScale, 100)));
    // Above its maximum the gauge warns before anything is copied.
    const bool over = sum > kGaugeFullScale;
    if (m_gauge->property("over").toBool() != over) {
        m_gauge->setProperty("over", over);
        m_gauge->setStyleSheet(gaugeStyle(over));
    }
}

void CPage3::OnCreate()
{
    if (m_items.Root().children.empty()) {
        Util::ShowMessage(QStringLiteral("Please add files or directorys first!"));
        return;
    }
    const QString output = Util::SaveFileDialog(this, QStringLiteral("ISO Files(*.ISO)"));
    if (output.isEmpty())
        return;
    m_output = output;
    m_progress->SetDetail(QString());
    m_progress->show();
    const ImageBuild::Type type = m_udf->isChecked()       ? ImageBuild::Type::Udf
                                  : m_iso9600->isChecked() ? ImageBuild::Type::Iso9660
                                                           : ImageBuild::Type::Joliet;
    // The session waits for the working copy, then builds; the window stays
    // live meanwhile on its own event loop.
    m_create->Build(type, m_output);
}

void CPage3::OnCreateProgress(int percent)
{
    const bool copying = m_create->CurrentPhase() == CCreateJob::Phase::Copying;
    m_progress->SetText(copying ? QStringLiteral("Copy files and directories...")
                                : QStringLiteral("Creating ISO file..."));
    // Under the bar: which of the steps this is ("Copying files (1 of 2)").
    m_progress->SetDetail(m_create->PhaseText());
    m_progress->SetRange(0, 100);
    m_progress->SetValue(percent);
}

void CPage3::OnBuildFinished(bool succeeded, const QString& message)
{
    m_progress->hide();
    // A stop confirms itself once the builder has ended and its half-built
    // image is gone.
    if (!succeeded && CJob::IsStoppedMessage(message)) {
        Util::ShowMessage(message);
        return;
    }
    if (succeeded)
        Util::ShowFinished(QStringLiteral("Create ISO successfully!"),
                           QFileInfo(m_output).absolutePath());
    else
        Util::ShowMessage(message);
    Q_EMIT createFinished(succeeded);
}

void CPage3::StopCreate()
{
    m_create->Stop();
}

void CPage3::OnListContextMenuRequest(const QPoint& /*pos*/)
{
    m_menu->exec(QCursor::pos());
}

void CPage3::OnBack()
{
    StopCreate();
    hide();
    deleteLater();
}

void CPage3::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    ImageDialog::keyPressEvent(event);
}
