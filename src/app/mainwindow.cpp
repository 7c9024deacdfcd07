#include "app/mainwindow.h"

#include <QCursor>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPointer>
#include <QUrl>

#include <cstdio>
#include <unistd.h>

#include "app/aboutusdialog.h"
#include "app/links.h"
#include "media/drives.h"
#include "pages/burndialog.h"
#include "pages/page2.h"
#include "pages/page3.h"
#include "pages/page4.h"
#include "pages/page5.h"
#include "ui/baseimagectrl.h"

namespace {

// One menu for the whole process, replaced at each opening.
QPointer<QMenu>& menuSlot()
{
    static QPointer<QMenu> menu;
    return menu;
}

constexpr int kPageX = 195;
const QString kHomeHint = QStringLiteral("Pick a task on the right to begin.");
constexpr int kPageY = 107;

} // namespace

MainWindow::MainWindow(QWidget* /*parent*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("MainWindow"));
    SetMainWindow(this);
    resize(860, 580);
    CImageButton* menu = AddButton("menu", 775, 1);
    CImageButton* min = AddButton("min", 803, 1);
    CImageButton* close = AddButton("close", 831, 1);
    CImageButton* burn = AddButton("burn", 205, 120);
    CImageButton* extract = AddButton("extract", 644, 120);
    CImageButton* create = AddButton("create", 205, 350);
    CImageButton* edit = AddButton("edit", 424, 350);
    CImageButton* copy = AddButton("copy", 644, 350);
    CImageButton* home = AddButton("home", 627, 38);
    CImageButton* help = AddButton("help", 699, 38);

    setWindowTitle(QStringLiteral("Brenta"));
    SetBackgroundImage(QStringLiteral(":/nwu/main"));
    SetMovable(true);

    // Under the side panel's welcome text, in its font and colour.
    m_hint = new QLabel(kHomeHint, this);
    m_hint->setObjectName(QStringLiteral("hint"));
    m_hint->setGeometry(22, 274, 155, 80);
    m_hint->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_hint->setWordWrap(true);
    QFont hintFont(QStringLiteral("Noto Sans"));
    hintFont.setPixelSize(13);
    m_hint->setFont(hintFont);
    m_hint->setStyleSheet(QStringLiteral("color: #606060; background: transparent;"));

    const auto picture = [](const char* name) {
        return QStringLiteral(":/nwu/") + QLatin1String(name);
    };
    const auto feature = [&](CImageButton* button, const char* stem) {
        const QString base = picture(stem);
        button->SetImages(base + QLatin1Char('1'), base + QLatin1Char('2'), base + QLatin1Char('3'),
                          QString());
    };
    close->SetSprite(picture("close"), 3);
    min->SetSprite(picture("minimize"), 3);
    menu->SetSprite(picture("menu"), 3);
    connect(close, qOverload<>(&CImageButton::clicked), this, &MainWindow::onClose);
    connect(min, qOverload<>(&CImageButton::clicked), this, &MainWindow::onMin);
    connect(menu, qOverload<>(&CImageButton::clicked), this, &MainWindow::onMenu);

    feature(burn, "mburn");
    feature(extract, "Extract");
    feature(create, "Create");
    feature(edit, "Edit");
    feature(copy, "Copy-Disc");
    connect(burn, qOverload<>(&CImageButton::clicked), this, &MainWindow::onBurn);
    connect(extract, qOverload<>(&CImageButton::clicked), this, &MainWindow::onExtract);
    connect(create, qOverload<>(&CImageButton::clicked), this, &MainWindow::onCreate);
    connect(edit, qOverload<>(&CImageButton::clicked), this, &MainWindow::onEdit);
    connect(copy, qOverload<>(&CImageButton::clicked), this, &MainWindow::onCopy);

    home->SetSprite(picture("Home"), 4);
    help->SetSprite(picture("Help"), 4);
    connect(home, qOverload<>(&CImageButton::clicked), this, &MainWindow::onHome);
    connect(help, qOverload<>(&CImageButton::clicked), this, &MainWindow::onHelp);

    menu->setToolTip(QStringLiteral("Menu"));
    min->setToolTip(QStringLiteral("Minimise"));
    close->setToolTip(QStringLiteral("Close"));

    // A stick plugged in or pulled out refreshes the drive lists of the pages.
    m_drives = new CDriveMonitor(this);
    connect(m_drives, &CDriveMonitor::changed, this, &MainWindow::sigdrivechange);
}

MainWindow::~MainWindow()
{
    delete menuSlot().data();
}

CImageButton* MainWindow::AddButton(const char* name, int x, int y)
{
    auto* button = new CImageButton(this);
    button->setObjectName(QLatin1String(name));
    button->move(x, y);
    return button;
}

CImageButton* MainWindow::Button(const QString& name) const
{
    return findChild<CImageButton*>(name, Qt::FindDirectChildrenOnly);
}

QString MainWindow::Hint() const
{
    return m_hint->text();
}

void MainWindow::ShowPage(ImageDialog* page, int x, int y, const QString& hint)
{
    m_hint->setText(hint);
    connect(page, &QObject::destroyed, m_hint, [label = m_hint] { label->setText(kHomeHint); });
    page->setParent(this);
    page->move(x, y);
    page->SetMovable(false);
    page->show();
}

void MainWindow::onClose()
{
    // The close button ends the process at once, as a user expects of a
    // window's close box; log records are already on disk. The pages that
    // write files go first: they stop their tools and remove their working
    // copies and unfinished output.
    const QObjectList pages = children();
    for (QObject* page : pages) {
        if (qobject_cast<CPage2*>(page) || qobject_cast<CPage3*>(page) ||
            qobject_cast<CPage4*>(page) || qobject_cast<CPage5*>(page))
            delete page;
    }
    std::fflush(nullptr);
    ::_exit(0);
}

void MainWindow::onMin()
{
    showMinimized();
}

QMenu* MainWindow::CreateMenu()
{
    QPointer<QMenu>& slot = menuSlot();
    delete slot.data();
    slot = new QMenu(tr("Help"));
    QMenu* menu = slot.data();
    menu->setStyleSheet(QStringLiteral(
        "QMenu { background: #FFFFFF; border: 1px solid #C2EFFD; padding: 4px 0; color: #606060;"
        " font-size: 13px; }"
        "QMenu::item { padding: 6px 28px 6px 16px; }"
        "QMenu::item:selected { background: #E2F8FE; color: #1E88E5; }"
        "QMenu::separator { height: 1px; background: #C2EFFD; margin: 4px 8px; }"));

    QAction* help = menu->addAction(QStringLiteral("Help(&H)"));
    help->setShortcut(QKeySequence(tr("CTRL+H")));
    connect(help, &QAction::triggered, this, &MainWindow::onHelp);
    QAction* about = menu->addAction(QStringLiteral("About US(&U)"));
    about->setShortcut(QKeySequence(tr("CTRL+U")));
    connect(about, &QAction::triggered, this, &MainWindow::aboutus);
    menu->addSeparator();
    QAction* exit = menu->addAction(QStringLiteral("Exit(&E)"));
    exit->setShortcut(QKeySequence(tr("CTRL+E")));
    connect(exit, &QAction::triggered, this, &MainWindow::close);
    return menu;
}

QMenu* MainWindow::Menu() const
{
    return menuSlot().data();
}

void MainWindow::onMenu()
{
    CreateMenu()->exec(QCursor::pos());
}

void MainWindow::onBurn()
{
    auto* page = new CBurnDialog(this);
    // The drive lists follow drives plugged in and out.
    connect(this, &MainWindow::sigdrivechange, page,
            qOverload<>(&CBurnDialog::InitializeUSBAndDVDComboBox));
    ShowPage(page, kPageX, kPageY,
             QStringLiteral("Choose an image and where to burn it, then press Burn."));
}

void MainWindow::onExtract()
{
    ShowPage(new CPage2(this), kPageX, kPageY,
             QStringLiteral("Open an image, tick what you want out of it and press Extract."));
}

void MainWindow::onCreate()
{
    ShowPage(new CPage3(this), kPageX, kPageY,
             QStringLiteral("Add files and folders, choose the file system, then press Create."));
}

void MainWindow::onEdit()
{
    ShowPage(new CPage4(this), kPageX, kPageY,
             QStringLiteral("Open an image, change its files, then press Save."));
}

void MainWindow::onCopy()
{
    auto* page = new CPage5(this);
    connect(this, &MainWindow::sigdrivechange, page, &CPage5::InitializeDVDComboBox);
    ShowPage(page, kPageX, kPageY,
             QStringLiteral(
                 "Put the disc in its drive, choose where the image goes, then press Start."));
}

void MainWindow::onHome()
{
    QDesktopServices::openUrl(QUrl(Links::ProductPage()));
}

void MainWindow::onHelp()
{
    QDesktopServices::openUrl(QUrl(Links::HelpPage()));
}

void MainWindow::aboutus()
{
    CAboutusDialog dialog;
    dialog.show();
    dialog.exec();
}

void MainWindow::keyPressEvent(QKeyEvent* event)
{
    // Escape would reject the dialog this window is built on and close Brenta.
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    ImageDialog::keyPressEvent(event);
}
