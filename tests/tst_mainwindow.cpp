#include <QtTest>

#include <QLabel>
#include <QMenu>

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

    void featureButtonOpensFreshPage_data();
    void featureButtonOpensFreshPage();
    void menuIsReplacedAndExitCloses();
    void homeAndHelpOpenTheirPages();

private:
    UrlRecorder m_urls{{"https", "file"}};
};

void TestMainWindow::initTestCase()
{
    Application::SetUp(*qApp);
    // The burn and copy pages list drives: none here, whatever the machine has.
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
    qputenv("BRENTA_STANDIN_SCAN", "none");
    DriveSeam::SetOptical([] { return QList<OpticalDrive>{}; });
    DriveSeam::SetRemovable([] { return QList<RemovableDrive>{}; });
}

void TestMainWindow::featureButtonOpensFreshPage_data()
{
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("pageClass");
    QTest::addColumn<QString>("action");
    QTest::newRow("burn") << "burn"
                          << "CBurnDialog"
                          << "burn";
    QTest::newRow("extract") << "extract"
                             << "CPage2"
                             << "extract";
    QTest::newRow("create") << "create"
                            << "CPage3"
                            << "create";
    QTest::newRow("edit") << "edit"
                          << "CPage4"
                          << "save";
    QTest::newRow("copy") << "copy"
                          << "CPage5"
                          << "start";
}

// The controls Tab visits on `page`, in the order it visits them.
static QList<QWidget*> tabStops(QWidget* page)
{
    QList<QWidget*> stops;
    for (QWidget* widget = page->nextInFocusChain(); widget != page;
         widget = widget->nextInFocusChain()) {
        if (page->isAncestorOf(widget) && widget->isVisibleTo(page) &&
            (widget->focusPolicy() & Qt::TabFocus))
            stops << widget;
    }
    return stops;
}

void TestMainWindow::featureButtonOpensFreshPage()
{
    QFETCH(QString, button);
    QFETCH(QString, pageClass);
    QFETCH(QString, action);
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    const auto pages = [&] {
        return window.findChildren<ImageDialog*>(Qt::FindDirectChildrenOnly);
    };
    const QString homeHint = window.Hint();
    // Escape would reject the underlying dialog and end Brenta by accident.
    QTest::keyClick(&window, Qt::Key_Escape);
    QVERIFY(window.isVisible());

    QTest::mouseClick(window.Button(button), Qt::LeftButton);
    // The side panel speaks of the page shown, and of home again once it goes.
    QVERIFY(window.Hint() != homeHint);
    QCOMPARE(pages().size(), 1);
    QPointer<ImageDialog> first = pages().first();
    QCOMPARE(QString(first->metaObject()->className()), pageClass);
    QVERIFY(first->isVisible());
    // The page lives inside the window; dragging it must not tear it out.
    QVERIFY(!first->isWindow());
    QVERIFY(!first->IsMovable());
    // The side panel beside the page stays in view.
    QVERIFY(!first->geometry().intersects(window.findChild<QLabel*>("hint")->geometry()));

    // Tab reads the page as a person does, row by row and left to right
    // within a row, and ends on Back and then the page's action.
    const QList<QWidget*> stops = tabStops(first);
    QVERIFY(stops.size() >= 3);
    QCOMPARE(stops.at(stops.size() - 2)->objectName(), QStringLiteral("back"));
    QCOMPARE(stops.constLast()->objectName(), action);
    for (int i = 1; i < stops.size(); ++i) {
        const QRect before = stops.at(i - 1)->geometry();
        const QRect after = stops.at(i)->geometry();
        const bool sameRow = before.top() <= after.bottom() && after.top() <= before.bottom();
        QVERIFY2(
            sameRow ? before.left() < after.left() : before.top() < after.top(),
            qPrintable(stops.at(i - 1)->objectName() + " before " + stops.at(i)->objectName()));
    }

    // Back takes the page away for good; a second click gives a fresh page.
    auto* back = first->findChild<CImageButton*>("back");
    QVERIFY(back);
    QTest::mouseClick(back, Qt::LeftButton);
    QVERIFY(!first->isVisible());
    QTRY_VERIFY(first.isNull());
    QCOMPARE(window.Hint(), homeHint);
    QTest::mouseClick(window.Button(button), Qt::LeftButton);
    QCOMPARE(pages().size(), 1);
    QVERIFY(pages().first()->isVisible());
}

// Each click on the menu button makes a new menu; the old one must go rather
// than pile up. Exit, its last entry, closes the window.
void TestMainWindow::menuIsReplacedAndExitCloses()
{
    MainWindow window;
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QPointer<QMenu> first = window.CreateMenu();
    QTimer::singleShot(50, this, [&] {
        QMenu* shown = window.Menu();
        QVERIFY(shown && shown->isVisible());
        shown->close();
    });
    QTest::mouseClick(window.Button("menu"), Qt::LeftButton);
    QVERIFY(first.isNull());
    window.Menu()->actions().constLast()->trigger();
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

QTEST_MAIN(TestMainWindow)
#include "tst_mainwindow.moc"
