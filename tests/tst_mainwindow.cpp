#include <QtTest>

#include <QDesktopServices>
#include <QLabel>
#include <QMenu>

#include "app/aboutusdialog.h"
#include "app/application.h"
#include "app/links.h"
#include "app/mainwindow.h"
#include "common/urlrecorder.h"
#include "media/drives.h"
#include "ui/baseimagectrl.h"

class TestMainWindow final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init() { m_urls.opened.clear(); }

    void picturesLoadAtTheirSize_data();
    void picturesLoadAtTheirSize();
    void windowIsSkinnedAndStaysOnEscape();
    void featureButtonOpensFreshPage_data();
    void featureButtonOpensFreshPage();
    void driveChangesReachThePages();
    void menuHasItsActionsAndIsReplaced();
    void exitClosesTheWindow();
    void homeAndHelpOpenTheirPages();
    void aboutShowsProductLink();

private:
    UrlRecorder m_urls{{"https", "file"}};
};

void TestMainWindow::initTestCase()
{
    Application::SetUp(*qApp);
    QVERIFY(!QApplication::windowIcon().isNull());
    // The burn and copy pages list drives: none here, whatever the machine has.
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
    qputenv("BRENTA_STANDIN_SCAN", "none");
    DriveSeam::SetOptical([] { return QList<OpticalDrive>{}; });
    DriveSeam::SetRemovable([] { return QList<RemovableDrive>{}; });
}

// Every picture the windows and dialogs name must be compiled in and have the
// size the layout was drawn for: a picture of another size would shift every
// widget placed on it.
void TestMainWindow::picturesLoadAtTheirSize_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QSize>("size");
    const auto add = [](const QString& name, QSize size) {
        QTest::newRow(qPrintable(name)) << name << size;
    };
    add("main", {860, 580});
    for (const char* sprite : {"menu", "minimize", "close"})
        add(sprite, {84, 25});
    add("Home", {300, 68});
    add("Help", {300, 68});
    const struct
    {
        const char* stem;
        QSize size;
        int states;
    } sets[] = {
        {"mburn", {428, 220}, 3},      {"Extract", {206, 220}, 3},   {"Create", {208, 219}, 3},
        {"Edit", {210, 219}, 3},       {"Copy-Disc", {206, 219}, 3}, {"close_small_", {28, 25}, 3},
        {"OK", {90, 21}, 3},           {"NO_", {92, 22}, 3},         {"Open-Folder", {90, 21}, 3},
        {"Stop", {92, 22}, 4},         {"OK_", {92, 22}, 3},         {"Back", {100, 40}, 3},
        {"backwhite", {100, 40}, 3},   {"burn", {108, 40}, 3},       {"start", {108, 40}, 3},
        {"Broswe", {80, 24}, 3},       {"filedialog", {28, 28}, 3},  {"refresh", {28, 26}, 3},
    };
    for (const auto& set : sets) {
        for (int state = 1; state <= set.states; ++state)
            add(QLatin1String(set.stem) + QString::number(state), set.size);
    }
    add("about_us", {420, 188});
    add("commdialogbg", {420, 188});
    add("format_usb", {420, 188});
    for (const char* notice : {"insert_usb", "burn-fails", "insufficient_space", "select_files_extract"})
        add(notice, {420, 160});
    add("logo", {256, 256});
    for (const char* page : {"page1", "page5"})
        add(page, {664, 472});
    add("rchecked", {16, 16});
    add("runchecked", {16, 16});
}

void TestMainWindow::picturesLoadAtTheirSize()
{
    QFETCH(QString, name);
    QFETCH(QSize, size);
    const QPixmap picture(":/nwu/" + name);
    QVERIFY2(!picture.isNull(), qPrintable(name + " does not load"));
    QCOMPARE(picture.size(), size);
}

void TestMainWindow::windowIsSkinnedAndStaysOnEscape()
{
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCOMPARE(window.size(), QSize(860, 580));
    QCOMPARE(window.windowTitle(), QString("Brenta"));
    QVERIFY(window.windowFlags() & Qt::FramelessWindowHint);
    QVERIFY(window.testAttribute(Qt::WA_TranslucentBackground));
    // Escape would reject the underlying dialog and end Brenta by accident.
    QTest::keyClick(&window, Qt::Key_Escape);
    QVERIFY(window.isVisible());
}

void TestMainWindow::featureButtonOpensFreshPage_data()
{
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("pageClass");
    QTest::addColumn<QRect>("geometry");
    const QRect beside(195, 107, 664, 472);
    QTest::newRow("burn") << "burn" << "CBurnDialog" << beside;
    QTest::newRow("extract") << "extract" << "CPage2" << beside;
    QTest::newRow("create") << "create" << "CPage3" << beside;
    // The edit page takes the whole width below the header.
    QTest::newRow("edit") << "edit" << "CPage4" << QRect(3, 107, 854, 470);
    QTest::newRow("copy") << "copy" << "CPage5" << beside;
}

void TestMainWindow::featureButtonOpensFreshPage()
{
    QFETCH(QString, button);
    QFETCH(QString, pageClass);
    QFETCH(QRect, geometry);
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const auto pages = [&] { return window.findChildren<ImageDialog*>(Qt::FindDirectChildrenOnly); };

    QTest::mouseClick(window.Button(button), Qt::LeftButton);
    QCOMPARE(pages().size(), 1);
    QPointer<ImageDialog> first = pages().first();
    QCOMPARE(QString(first->metaObject()->className()), pageClass);
    QVERIFY(first->isVisible());
    QVERIFY(!first->isWindow());
    QCOMPARE(first->geometry(), geometry);
    QVERIFY(!first->IsMovable());
    // The page covers the feature buttons but leaves the header usable.
    QVERIFY(first->isAncestorOf(window.childAt(300, 200)) || window.childAt(300, 200) == first);
    QCOMPARE(window.childAt(790, 10), window.Button("menu"));

    // Back takes the page away for good; a second click gives a fresh page.
    auto* back = first->findChild<CImageButton*>("back");
    QVERIFY(back);
    QTest::mouseClick(back, Qt::LeftButton);
    QVERIFY(!first->isVisible());
    QTRY_VERIFY(first.isNull());
    QTest::mouseClick(window.Button(button), Qt::LeftButton);
    QCOMPARE(pages().size(), 1);
    QVERIFY(pages().first()->isVisible());
}

// A stick plugged in or pulled out must refresh the open page's drive lists.
void TestMainWindow::driveChangesReachThePages()
{
    MainWindow window;
    QVERIFY(window.DriveMonitor());
    QSignalSpy changed(&window, &MainWindow::sigdrivechange);
    Q_EMIT window.DriveMonitor()->changed();
    QCOMPARE(changed.count(), 1);
}

void TestMainWindow::menuHasItsActionsAndIsReplaced()
{
    MainWindow window;
    QPointer<QMenu> first = window.CreateMenu();
    QMenu* menu = window.CreateMenu();
    QVERIFY(first.isNull());
    QCOMPARE(window.Menu(), menu);

    QStringList texts;
    QList<QKeySequence> shortcuts;
    for (QAction* action : menu->actions()) {
        texts << (action->isSeparator() ? "-" : action->text());
        shortcuts << action->shortcut();
    }
    QCOMPARE(texts, (QStringList{"Help(&H)", "About US(&U)", "-", "Exit(&E)"}));
    QCOMPARE(shortcuts, (QList<QKeySequence>{QKeySequence("Ctrl+H"), QKeySequence("Ctrl+U"),
                                             QKeySequence(), QKeySequence("Ctrl+E")}));

    // The menu button opens it at the cursor; Escape dismisses it.
    QTimer::singleShot(50, this, [&] {
        QMenu* shown = window.Menu();
        QVERIFY(shown && shown->isVisible());
        shown->close();
    });
    window.show();
    QTest::mouseClick(window.Button("menu"), Qt::LeftButton);
}

void TestMainWindow::exitClosesTheWindow()
{
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QMenu* menu = window.CreateMenu();
    menu->actions().constLast()->trigger();
    QVERIFY(!window.isVisible());
}

void TestMainWindow::homeAndHelpOpenTheirPages()
{
    MainWindow window;
    window.show();
    QTest::mouseClick(window.Button("home"), Qt::LeftButton);
    QTest::mouseClick(window.Button("help"), Qt::LeftButton);
    QCOMPARE(m_urls.opened.size(), 2);
    QCOMPARE(m_urls.opened.at(0), QUrl(Links::ProductPage()));
    QCOMPARE(m_urls.opened.at(1), QUrl(Links::HelpPage()));
    // The user guide is shipped beside the program, so Help works offline.
    QVERIFY(m_urls.opened.at(1).isLocalFile());
    QVERIFY2(QFileInfo::exists(m_urls.opened.at(1).toLocalFile()) ||
                 QFileInfo::exists(QString(BRENTA_SOURCE_DIR "/resources/help/index.html")),
             qPrintable(m_urls.opened.at(1).toString()));
}

void TestMainWindow::aboutShowsProductLink()
{
    CAboutusDialog dialog;
    QCOMPARE(dialog.size(), QSize(420, 188));
    QCOMPARE(dialog.LinkLabel()->pos(), QPoint(192, 112));
    QVERIFY(dialog.LinkLabel()->text().contains(Links::ProductPage()));
    QCOMPARE(dialog.CloseButton()->geometry(), QRect(420 - 28 - 1, 1, 28, 25));

    dialog.show();
    Q_EMIT dialog.LinkLabel()->linkActivated(Links::ProductPage());
    QCOMPARE(m_urls.opened, QList<QUrl>{QUrl(Links::ProductPage())});
    QVERIFY(dialog.isVisible());
    QTest::mouseClick(dialog.CloseButton(), Qt::LeftButton);
    QVERIFY(!dialog.isVisible());
}

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
