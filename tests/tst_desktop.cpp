#include <QtTest>

#include <QCursor>
#include <QLineEdit>
#include <QMimeData>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QProcess>
#include <QStandardItemModel>
#include <QTableView>
#include <QToolTip>
#include <QWindow>

#include "app/application.h"
#include "app/mainwindow.h"
#include "iso/itemtree.h"
#include "media/drives.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/contentsview.h"
#include "ui/drops.h"
#include "ui/filelistwidgets.h"
#include "ui/notifier.h"

// Stands in for the desktop's notification service on a private session bus.
class FakeNotifications final : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QStringList bodies;

public Q_SLOTS:
    uint Notify(const QString& app, uint replaces, const QString& icon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints,
                int timeout)
    {
        bodies << body;
        return uint(bodies.size());
    }
};

// How Brenta's windows behave on a desktop: notifications when the user is
// away, dialogs kept above the main window, windows cut to their pictures'
// shape where nothing composites, and picture buttons that do not keep a
// hover look the pointer has left.
class TestDesktop final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();

    void notifiesOnlyWhenAway();
    void dialogsStayAboveTheMainWindow();
    void windowsTakeTheirPicturesShape_data();
    void windowsTakeTheirPicturesShape();
    void hoverGoesWhenTheClickTookThePointerAway();
    void keyboardReachesAndPressesPictureButtons();
    void onlyTheHeaderBoxTicksRows();
    void pagesTakeDroppedFiles_data();
    void pagesTakeDroppedFiles();
    void cutNamesShowInFullAsTooltips_data();
    void cutNamesShowInFullAsTooltips();

private:
    QProcess m_bus;
};

void TestDesktop::initTestCase()
{
    Application::SetUp(*qApp);
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
    qputenv("BRENTA_STANDIN_SCAN", "none");
    DriveSeam::SetOptical([] { return QList<OpticalDrive>{}; });
    DriveSeam::SetRemovable([] { return QList<RemovableDrive>{}; });

    // A session bus of the test's own, set before anything asks for one.
    m_bus.start(QStringLiteral("dbus-daemon"),
                {QStringLiteral("--session"), QStringLiteral("--nofork"),
                 QStringLiteral("--print-address=1")});
    if (!m_bus.waitForStarted())
        QSKIP("dbus-daemon is not installed");
    QVERIFY(m_bus.waitForReadyRead(10000));
    const QByteArray address = m_bus.readLine().trimmed();
    QVERIFY(!address.isEmpty());
    qputenv("DBUS_SESSION_BUS_ADDRESS", address);
}

void TestDesktop::cleanupTestCase()
{
    m_bus.kill();
    m_bus.waitForFinished();
}

void TestDesktop::notifiesOnlyWhenAway()
{
    QDBusConnection service = QDBusConnection::connectToBus(
        QString::fromLocal8Bit(qgetenv("DBUS_SESSION_BUS_ADDRESS")), QStringLiteral("service"));
    QVERIFY(service.isConnected());
    FakeNotifications notifications;
    QVERIFY(service.registerService(QLatin1String(Notifier::kService)));
    QVERIFY(service.registerObject(QLatin1String(Notifier::kPath), &notifications,
                                   QDBusConnection::ExportAllSlots));

    QWidget window;
    window.show();
    QApplication::setActiveWindow(&window);
    QVERIFY(QTest::qWaitForWindowActive(&window));
    Notifier::SendIfAway(QStringLiteral("Brenta"), QStringLiteral("seen on screen"));
    window.hide();
    QApplication::setActiveWindow(nullptr);
    QTRY_VERIFY(QApplication::activeWindow() == nullptr);
    Notifier::SendIfAway(QStringLiteral("Brenta"), QStringLiteral("The image was burned."));
    // Calls on one connection arrive in order: had the first been sent, it
    // would be here before the second.
    QTRY_COMPARE(notifications.bodies, QStringList{QStringLiteral("The image was burned.")});

    service.unregisterService(QLatin1String(Notifier::kService));
    QDBusConnection::disconnectFromBus(QStringLiteral("service"));
}

void TestDesktop::dialogsStayAboveTheMainWindow()
{
    MainWindow main;
    main.show();
    QVERIFY(QTest::qWaitForWindowExposed(&main));
    CommDialog dialog;
    dialog.SetText(QStringLiteral("A message"));
    dialog.SetSingleButton();
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    // A dialog of its own type, transient for the main window, has no
    // taskbar entry of its own; the main window keeps its entry and blocks
    // nothing.
    QCOMPARE(dialog.windowType(), Qt::Dialog);
    QVERIFY(dialog.windowHandle() != nullptr);
    QCOMPARE(dialog.windowHandle()->transientParent(), main.windowHandle());
    QCOMPARE(main.windowType(), Qt::Window);
    QVERIFY(!main.isModal());
}

void TestDesktop::windowsTakeTheirPicturesShape_data()
{
    QTest::addColumn<int>("extraHeight");
    QTest::newRow("as the picture") << 0;
    QTest::newRow("grown for more lines") << 120;
}

void TestDesktop::windowsTakeTheirPicturesShape()
{
    QFETCH(int, extraHeight);
    ImageDialog::SetShaped(true);
    CommDialog dialog;
    dialog.SetText(QStringLiteral("A message"));
    dialog.SetSingleButton();
    dialog.setFixedHeight(dialog.height() + extraHeight);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));

    // The rounded corners are transparent in the picture: a window that
    // cannot be translucent leaves them out instead of painting them black.
    const QRegion shape = dialog.mask();
    const QRect inside = dialog.rect();
    QVERIFY(!shape.isEmpty());
    QVERIFY(!shape.contains(QPoint(0, 0)));
    QVERIFY(!shape.contains(QPoint(inside.right(), inside.bottom())));
    QVERIFY(shape.contains(inside.center()));
    QVERIFY(shape.contains(QPoint(inside.center().x(), inside.bottom() - 6)));

    // Where windows can be translucent they are not cut.
    ImageDialog::SetShaped(false);
    dialog.resize(dialog.size());
    dialog.setFixedHeight(dialog.height() - 1);
    QVERIFY(dialog.mask().isEmpty());
}

void TestDesktop::hoverGoesWhenTheClickTookThePointerAway()
{
    QWidget window;
    window.resize(200, 200);
    CImageButton button(&window);
    button.SetImages(QStringLiteral(":/nwu/close_small_1"), QStringLiteral(":/nwu/close_small_2"),
                     QStringLiteral(":/nwu/close_small_3"), QString());
    button.move(10, 10);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QCursor::setPos(button.mapToGlobal(button.rect().center()));
    // What the click opens runs to its end and leaves the pointer elsewhere,
    // as a dialog closed over another part of the window does.
    connect(&button, qOverload<>(&CBaseImageCtrl::clicked), &window,
            [&] { QCursor::setPos(window.mapToGlobal(QPoint(190, 190))); });
    QTest::mouseMove(&button, button.rect().center());
    QTest::mouseClick(&button, Qt::LeftButton, {}, button.rect().center());
    QCOMPARE(button.CurrentState(), CBaseImageCtrl::State::Normal);
}

void TestDesktop::keyboardReachesAndPressesPictureButtons()
{
    QWidget window;
    window.resize(200, 100);
    CImageButton* first =
        MakePictureButton(&window, "first", QStringLiteral(":/nwu/close_small_"), 10, 10);
    CImageButton* second =
        MakePictureButton(&window, "second", QStringLiteral(":/nwu/close_small_"), 60, 10);
    window.show();
    QApplication::setActiveWindow(&window);
    QVERIFY(QTest::qWaitForWindowActive(&window));
    const QImage unfocused = second->grab().toImage();

    QSignalSpy firstClicks(first, qOverload<>(&CBaseImageCtrl::clicked));
    QSignalSpy secondClicks(second, qOverload<>(&CBaseImageCtrl::clicked));
    first->setFocus(Qt::TabFocusReason);
    QTest::keyClick(&window, Qt::Key_Tab);
    QVERIFY(second->hasFocus());
    QTest::keyClick(second, Qt::Key_Space);
    QTest::keyClick(second, Qt::Key_Return);
    QCOMPARE(secondClicks.count(), 2);
    QCOMPARE(firstClicks.count(), 0);
    // The focus is seen, on a text field too, in the skin's blue.
    QVERIFY(second->grab().toImage() != unfocused);
    auto* field = new QLineEdit(&window);
    field->setGeometry(10, 50, 150, 26);
    field->show();
    const auto blueOn = [](const QImage& image) {
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x)
                if (image.pixelColor(x, y).blue() > 200 && image.pixelColor(x, y).red() < 90)
                    return true;
        return false;
    };
    QVERIFY(!blueOn(field->grab().toImage()));
    QTest::keyClick(&window, Qt::Key_Tab);
    QVERIFY(field->hasFocus());
    QVERIFY(blueOn(field->grab().toImage()));
}

void TestDesktop::onlyTheHeaderBoxTicksRows()
{
    QWidget page;
    page.resize(640, 320);
    CFolderModel* model = nullptr;
    SCheckBoxHeaderView* header = nullptr;
    ContentsView::MakeTable(&page, QRect(0, 0, 600, 300), {200, 100, 100, 150}, &model, &header);
    page.show();
    QVERIFY(QTest::qWaitForWindowExposed(&page));
    QSignalSpy ticked(header, &SCheckBoxHeaderView::checkStausChange);

    // Dragging the first column's edge resizes it and ticks nothing.
    const int middle = header->height() / 2;
    const QPoint edge(header->sectionSize(0) - 1, middle);
    QTest::mousePress(header->viewport(), Qt::LeftButton, {}, edge);
    QTest::mouseMove(header->viewport(), edge + QPoint(60, 0));
    QTest::mouseRelease(header->viewport(), Qt::LeftButton, {}, edge + QPoint(60, 0));
    QCOMPARE(ticked.count(), 0);
    QVERIFY(header->sectionSize(0) > 200);
    // Nor does a click elsewhere in the section.
    QTest::mouseClick(header->viewport(), Qt::LeftButton, {},
                      QPoint(header->sectionSize(0) / 2, middle));
    QCOMPARE(ticked.count(), 0);

    QTest::mouseClick(header->viewport(), Qt::LeftButton, {}, header->BoxRect().center());
    QCOMPARE(ticked.count(), 1);
    QVERIFY(header->IsChecked());
}

void TestDesktop::cutNamesShowInFullAsTooltips_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("shown");
    QTest::newRow("cut short") << QString(60, QLatin1Char('n')) + QStringLiteral(".iso") << true;
    QTest::newRow("fits") << QStringLiteral("a.iso") << false;
}

void TestDesktop::cutNamesShowInFullAsTooltips()
{
    QFETCH(QString, name);
    QFETCH(bool, shown);
    QStandardItemModel model(1, 1);
    model.setItem(0, 0, new QStandardItem(name));
    QTableView table;
    table.setModel(&model);
    table.setItemDelegate(new NoFocusDelegate(&table));
    table.setColumnWidth(0, 120);
    table.resize(300, 200);
    table.show();
    QVERIFY(QTest::qWaitForWindowExposed(&table));
    QToolTip::hideText();

    const QPoint cell = table.visualRect(model.index(0, 0)).center();
    QHelpEvent help(QEvent::ToolTip, cell, table.viewport()->mapToGlobal(cell));
    QApplication::sendEvent(table.viewport(), &help);
    if (shown)
        QTRY_COMPARE(QToolTip::text(), name);
    else
        QVERIFY(!QToolTip::isVisible());
}

void TestDesktop::pagesTakeDroppedFiles_data()
{
    QTest::addColumn<QList<QUrl>>("urls");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("taken");
    const QString here =
        QFileInfo(QStringLiteral(BRENTA_SOURCE_DIR "/README.md")).absoluteFilePath();
    const QString folder = QFileInfo(QStringLiteral(BRENTA_SOURCE_DIR "/tests")).absoluteFilePath();
    QTest::newRow("a file and a folder")
        << QList<QUrl>{QUrl::fromLocalFile(here), QUrl::fromLocalFile(folder)} << QString()
        << QStringList{here, folder};
    QTest::newRow("a web address among them")
        << QList<QUrl>{QUrl::fromLocalFile(here), QUrl(QStringLiteral("https://example.org/a.iso"))}
        << QString() << QStringList();
    QTest::newRow("text") << QList<QUrl>() << QStringLiteral("/etc/passwd") << QStringList();
}

void TestDesktop::pagesTakeDroppedFiles()
{
    QFETCH(QList<QUrl>, urls);
    QFETCH(QString, text);
    QFETCH(QStringList, taken);
    QWidget page;
    auto* field = new QLineEdit(&page);
    QStringList dropped;
    Drops::Enable(
        &page, [](const QStringList&) { return true; },
        [&](const QStringList& paths) { dropped = paths; });
    // A drop on the image field reaches the page instead of pasting an address.
    QVERIFY(!field->acceptDrops());
    QVERIFY(page.acceptDrops());

    QMimeData data;
    if (!urls.isEmpty())
        data.setUrls(urls);
    if (!text.isEmpty())
        data.setText(text);
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&page, &enter);
    QCOMPARE(enter.isAccepted(), !taken.isEmpty());
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&page, &drop);
    QCOMPARE(dropped, taken);
    // One file opens as an image; a folder or several paths do not.
    QCOMPARE(Drops::ImageOf(taken), QString());
    if (!taken.isEmpty()) {
        QCOMPARE(Drops::ImageOf({taken[0]}), taken[0]);
        QCOMPARE(Drops::ImageOf({taken[1]}), QString());
    }
}

QTEST_MAIN(TestDesktop)
#include "tst_desktop.moc"
