#include <QtTest>

#include <QPainter>

#include "ui/baseimagectrl.h"
#include "ui/imagedialog.h"

namespace {

const QColor kNormal(255, 0, 0);
const QColor kHover(0, 255, 0);
const QColor kPressed(0, 0, 255);
const QColor kDisabled(255, 255, 0);

// A strip of solid frames, one colour each.
QString writeStrip(const QDir& dir, const QString& name, const QList<QColor>& colours, QSize frame)
{
    QImage image(frame.width() * colours.size(), frame.height(), QImage::Format_ARGB32);
    QPainter painter(&image);
    for (int i = 0; i < colours.size(); ++i)
        painter.fillRect(QRect(QPoint(i * frame.width(), 0), frame), colours.at(i));
    painter.end();
    const QString path = dir.filePath(name + ".png");
    image.save(path);
    return path;
}

QColor centreColour(QWidget& widget)
{
    const QImage image = widget.grab().toImage();
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

void sendMouse(QWidget* widget, QEvent::Type type, QPoint local, Qt::MouseButtons buttons,
               Qt::MouseButton button = Qt::LeftButton)
{
    const QPointF global = widget->mapToGlobal(QPointF(local));
    QMouseEvent event(type, QPointF(local), global, button, buttons, Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

} // namespace

class TestImageCtrl final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void clickNeedsPressAndReleaseInside_data();
    void clickNeedsPressAndReleaseInside();
    void pictureOfEachState_data();
    void pictureOfEachState();
    void mismatchedPicturesAreRejected_data();
    void mismatchedPicturesAreRejected();
    void dragMovesOnlyMovableWindows_data();
    void dragMovesOnlyMovableWindows();

private:
    QTemporaryDir m_dir;
    QString m_sprite4;
    QString m_sprite3;
};

void TestImageCtrl::initTestCase()
{
    QVERIFY(m_dir.isValid());
    const QDir dir(m_dir.path());
    m_sprite4 = writeStrip(dir, "sprite4", {kNormal, kHover, kPressed, kDisabled}, {10, 8});
    m_sprite3 = writeStrip(dir, "sprite3", {kNormal, kHover, kPressed}, {10, 8});
    writeStrip(dir, "normal", {kNormal}, {20, 10});
    writeStrip(dir, "hover", {kHover}, {20, 10});
    writeStrip(dir, "pressed", {kPressed}, {20, 10});
    writeStrip(dir, "disabled", {kDisabled}, {20, 10});
    writeStrip(dir, "wide", {kHover}, {21, 10});
    writeStrip(dir, "background", {QColor(10, 20, 30)}, {120, 90});
}

void TestImageCtrl::clickNeedsPressAndReleaseInside_data()
{
    QTest::addColumn<QPoint>("release");
    QTest::addColumn<int>("clicks");
    QTest::newRow("on the far edge") << QPoint(9, 7) << 1;
    // Pressing, then changing one's mind and leaving the button, must not click.
    QTest::newRow("released just past the edge") << QPoint(10, 8) << 0;
}

void TestImageCtrl::clickNeedsPressAndReleaseInside()
{
    QFETCH(QPoint, release);
    QFETCH(int, clicks);

    QWidget host;
    host.resize(100, 50);
    CImageButton control(&host);
    control.SetSprite(m_sprite4, 4);
    host.show();
    QVERIFY(QTest::qWaitForWindowExposed(&host));

    QSignalSpy clicked(&control, qOverload<>(&CImageButton::clicked));
    sendMouse(&control, QEvent::MouseButtonPress, {5, 4}, Qt::LeftButton);
    QCOMPARE(control.CurrentState(), CBaseImageCtrl::State::Pressed);
    sendMouse(&control, QEvent::MouseMove, release, Qt::LeftButton, Qt::NoButton);
    sendMouse(&control, QEvent::MouseButtonRelease, release, Qt::NoButton);
    QCOMPARE(clicked.count(), clicks);
    // After the release the pressed picture is gone, wherever it happened.
    QVERIFY(control.CurrentState() != CBaseImageCtrl::State::Pressed);
    if (clicks == 0)
        QCOMPARE(centreColour(control), kNormal);
}

void TestImageCtrl::pictureOfEachState_data()
{
    QTest::addColumn<QString>(
        "pictures"); // "sprite4", "sprite3", or separate files: "files4", "files3"
    QTest::addColumn<QString>("state");
    QTest::addColumn<QColor>("colour");
    QTest::newRow("sprite, hover") << "sprite4"
                                   << "hover" << kHover;
    QTest::newRow("sprite, pressed") << "sprite4"
                                     << "pressed" << kPressed;
    QTest::newRow("sprite, disabled") << "sprite4"
                                      << "disabled" << kDisabled;
    QTest::newRow("files, pressed") << "files4"
                                    << "pressed" << kPressed;
    QTest::newRow("files, disabled") << "files4"
                                     << "disabled" << kDisabled;
    // Without a disabled frame or picture a disabled button shows its normal one.
    QTest::newRow("sprite of 3 frames, disabled") << "sprite3"
                                                  << "disabled" << kNormal;
    QTest::newRow("files without disabled, disabled") << "files3"
                                                      << "disabled" << kNormal;
}

void TestImageCtrl::pictureOfEachState()
{
    QFETCH(QString, pictures);
    QFETCH(QString, state);
    QFETCH(QColor, colour);

    const QDir dir(m_dir.path());
    CImageButton control;
    if (pictures.startsWith("sprite"))
        control.SetSprite(pictures == "sprite4" ? m_sprite4 : m_sprite3,
                          pictures == "sprite4" ? 4 : 3);
    else
        control.SetImages(dir.filePath("normal.png"), dir.filePath("hover.png"),
                          dir.filePath("pressed.png"),
                          pictures == "files4" ? dir.filePath("disabled.png") : QString());
    QCOMPARE(centreColour(control), kNormal);
    if (state == "disabled") {
        control.setEnabled(false);
    } else {
        QEnterEvent enter(QPointF(3, 3), QPointF(3, 3), QPointF(3, 3));
        QApplication::sendEvent(&control, &enter);
        if (state == "pressed")
            sendMouse(&control, QEvent::MouseButtonPress, {3, 3}, Qt::LeftButton);
    }
    QCOMPARE(centreColour(control), colour);
}

void TestImageCtrl::mismatchedPicturesAreRejected_data()
{
    QTest::addColumn<QString>("normal");
    QTest::addColumn<QString>("hover");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("same sizes") << "normal.png"
                                << "hover.png" << true;
    // A set of another size would leave the control with pictures that do not fit it.
    QTest::newRow("hover one pixel wider") << "normal.png"
                                           << "wide.png" << false;
    QTest::newRow("normal does not load") << "missing.png"
                                          << "hover.png" << false;
}

void TestImageCtrl::mismatchedPicturesAreRejected()
{
    QFETCH(QString, normal);
    QFETCH(QString, hover);
    QFETCH(bool, accepted);

    const QDir dir(m_dir.path());
    CImageButton control;
    control.SetSprite(m_sprite4, 4);
    control.SetImages(dir.filePath(normal), dir.filePath(hover), QString(), QString());
    // A refused set leaves the sprite in place.
    QCOMPARE(control.FrameCount(), accepted ? 0 : 4);
}

void TestImageCtrl::dragMovesOnlyMovableWindows_data()
{
    QTest::addColumn<bool>("movable");
    QTest::addColumn<bool>("onButton");
    QTest::addColumn<QPoint>("expectedShift");
    QTest::newRow("movable") << true << false << QPoint(40, 25);
    QTest::newRow("not movable") << false << false << QPoint(0, 0);
    // A press on a picture button belongs to the button, never to a drag.
    QTest::newRow("press on a button") << true << true << QPoint(0, 0);
}

void TestImageCtrl::dragMovesOnlyMovableWindows()
{
    QFETCH(bool, movable);
    QFETCH(bool, onButton);
    QFETCH(QPoint, expectedShift);

    ImageDialog dialog;
    dialog.SetBackgroundImage(QDir(m_dir.path()).filePath("background.png"));
    dialog.SetMovable(movable);
    auto* button = new CImageButton(&dialog);
    button->SetSprite(m_sprite4, 4);
    button->move(100, 80);
    dialog.move(200, 150);
    dialog.show();
    QVERIFY(QTest::qWaitForWindowExposed(&dialog));
    const QPoint start = dialog.pos();

    QWidget* target = onButton ? static_cast<QWidget*>(button) : &dialog;
    const QPoint pressAt = onButton ? QPoint(3, 3) : QPoint(30, 30);
    QPoint global = target->mapToGlobal(pressAt);
    const auto send = [&](QEvent::Type type, Qt::MouseButtons buttons) {
        QWidget* receiver = (onButton || type == QEvent::MouseButtonPress) ? target : &dialog;
        const QPoint local = receiver->mapFromGlobal(global);
        QMouseEvent event(type, QPointF(local), QPointF(global), Qt::LeftButton, buttons,
                          Qt::NoModifier);
        QApplication::sendEvent(receiver, &event);
    };
    send(QEvent::MouseButtonPress, Qt::LeftButton);
    QCOMPARE(dialog.IsDragging(), !onButton);
    for (int step = 0; step < 5; ++step) {
        global += QPoint(8, 5);
        send(QEvent::MouseMove, Qt::LeftButton);
    }
    send(QEvent::MouseButtonRelease, Qt::NoButton);
    QVERIFY(!dialog.IsDragging());
    QCOMPARE(dialog.pos() - start, expectedShift);
}

QTEST_MAIN(TestImageCtrl)
#include "tst_imagectrl.moc"
