#include <QtTest>

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QRadioButton>

#include "app/mainwindow.h"
#include "common/modal.h"
#include "common/standins.h"
#include "media/drives.h"
#include "pages/burndialog.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/gerneraldialog.h"
#include "ui/progressdialog.h"

namespace {

OpticalDrive optical(const QString& node, int host)
{
    return {node, "ACMECORP", "DVDRW UNIT-100", "R001", host, 0, 0, 0};
}

RemovableDrive stick(const QString& node)
{
    return {node, node + "  ACME Stick  16.0 GB", qint64(16'000'000'000)};
}

using Standins::Logged;

void click(QWidget* widget)
{
    QTest::mouseClick(widget, Qt::LeftButton, {}, QPoint(8, widget->height() / 2));
}

} // namespace

class TestBurnPage final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void volumeLabel();
    void gptKeepsFat32();
    void refusals_data();
    void refusals();
    void burnsTheDisc_data();
    void burnsTheDisc();
    void driveChangeKeepsTheSelection_data();
    void driveChangeKeepsTheSelection();

private:
    void Open(QWidget* mainWindow = nullptr)
    {
        m_page = std::make_unique<CBurnDialog>(mainWindow);
        QSignalSpy filled(m_page.get(), &CBurnDialog::opticalListFilled);
        m_page->show();
        QVERIFY(filled.count() == 1 || filled.wait(20000));
    }
    template <typename T = QWidget> T* Child(const char* name) const
    {
        return m_page->findChild<T*>(name);
    }

    QTemporaryDir m_dir;
    QString m_image;
    QString m_log;
    QList<OpticalDrive> m_optical;
    QList<RemovableDrive> m_removable;
    std::unique_ptr<CBurnDialog> m_page;
};

void TestBurnPage::initTestCase()
{
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
    // Upper case and a blank: the suffix check ignores case, the argument keeps the blank.
    m_image = m_dir.filePath("Disc Image.ISO");
    QFile image(m_image);
    QVERIFY(image.open(QIODevice::WriteOnly) && image.write(QByteArray(4096, 'i')) == 4096);
}

void TestBurnPage::init()
{
    // A page that goes away must take its tools with it.
    QTest::failOnWarning(QRegularExpression("QProcess: Destroyed while process"));
    m_log = m_dir.filePath(
        QString("%1-%2.log").arg(QTest::currentTestFunction(), QTest::currentDataTag()));
    qputenv("BRENTA_STANDIN_LOG", m_log.toUtf8());
    // The stand-in's scan names /dev/sr0; only the system knows /dev/sr1.
    m_optical = {optical("/dev/sr0", 1), optical("/dev/sr1", -1)};
    m_removable = {stick("/dev/sdb"), stick("/dev/sdc")};
    DriveSeam::SetOptical([this] { return m_optical; });
    DriveSeam::SetRemovable([this] { return m_removable; });
}

void TestBurnPage::cleanup()
{
    m_page.reset();
    DriveSeam::Reset();
    qunsetenv("BRENTA_STANDIN_MODE");
}

// The background carries the labels: a widget off its place names nothing.
// Upper case, at most 11 characters, and typing inside the label must not
// throw the cursor to its end.
void TestBurnPage::volumeLabel()
{
    Open();
    click(Child("rusb"));
    auto* box = Child<QLineEdit>("volumelab");
    QTest::keyClicks(box, "ad");
    QTest::keyClick(box, Qt::Key_Left);
    QTest::keyClicks(box, "bc");
    QCOMPARE(box->text(), QString("ABCD"));
    QTest::keyClicks(box, "efghijklm");
    QCOMPARE(box->text(), QString("ABCEFGHIJKD"));
}

void TestBurnPage::gptKeepsFat32()
{
    Open();
    QVERIFY(!Child("sysfilelist")->isEnabled()); // the disc is chosen at first
    click(Child("rusb"));
    auto* fileSystem = Child<QComboBox>("sysfilelist");
    fileSystem->setCurrentText("NTFS");
    Child<QComboBox>("ptlist")->setCurrentText("GPT(required for UEFI boot)");
    QCOMPARE(fileSystem->currentText(), QString("FAT32"));
    QVERIFY(!fileSystem->isEnabled());
    // Going to the disc and back must not free the file system under GPT.
    click(Child("rdvd"));
    click(Child("rusb"));
    QVERIFY(!fileSystem->isEnabled() && Child("volumelab")->isEnabled());
    Child<QComboBox>("ptlist")->setCurrentIndex(0);
    QVERIFY(fileSystem->isEnabled());
}

void TestBurnPage::refusals_data()
{
    QTest::addColumn<QString>("image");
    QTest::addColumn<bool>("usb");
    QTest::addColumn<bool>("drives");
    QTest::addColumn<QString>("said"); // empty: nothing at all
    QTest::newRow("missing image") << "gone.iso" << false << true << ":/nwu/burn-fails";
    QTest::newRow("not an image") << "disc.img" << false << true << ":/nwu/burn-fails";
    QTest::newRow("folder named .iso") << "folder.iso" << true << true << ":/nwu/burn-fails";
    QTest::newRow("no optical drive") << "" << false << false << "";
    QTest::newRow("no USB drive") << "" << true << false << ":/nwu/insert_usb";
    QTest::newRow("USB drive") << "" << true << true << "Burning to a USB drive is not available";
}

// Each refusal says its own thing, or nothing, and never starts the writer.
void TestBurnPage::refusals()
{
    QFETCH(QString, image);
    QFETCH(bool, usb);
    QFETCH(bool, drives);
    QFETCH(QString, said);
    QFile(m_dir.filePath("disc.img")).open(QIODevice::WriteOnly);
    QDir(m_dir.path()).mkpath("folder.iso");
    if (!drives) {
        m_optical.clear();
        m_removable.clear();
    }
    Open();
    if (usb)
        click(Child("rusb"));
    Child<QLineEdit>("isofile")->setText(" " + (image.isEmpty() ? m_image : m_dir.filePath(image)) +
                                         " ");
    // Whatever comes up is noted and closed, so that an unexpected dialog fails
    // the test instead of blocking it.
    QString seen;
    QTimer::singleShot(100, [&seen] {
        QWidget* modal = QApplication::activeModalWidget();
        if (auto* notice = qobject_cast<GerneralDialog*>(modal))
            seen = notice->BackgroundImage();
        else if (auto* message = qobject_cast<CommDialog*>(modal))
            seen = message->Label()->text();
        if (modal)
            static_cast<QDialog*>(modal)->reject();
    });
    click(Child("burn"));
    QTest::qWait(150);
    QVERIFY2(said.isEmpty() ? seen.isEmpty() : seen.startsWith(said), qPrintable(seen));
    QVERIFY(!m_page->Progress()->isVisible());
    QCOMPARE(Logged(m_log), QStringList());
}

void TestBurnPage::burnsTheDisc_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<QString>("said");
    QTest::addColumn<int>("lastValue");
    QTest::newRow("success") << "success"
                             << "Burning disc successfully." << 100;
    QTest::newRow("write error") << "fail"
                                 << "The disc was not burned. Writing failed" << 33;
}

void TestBurnPage::burnsTheDisc()
{
    QFETCH(QString, mode);
    QFETCH(QString, said);
    QFETCH(int, lastValue);
    qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
    Open();
    QCOMPARE(Child<QComboBox>("dvdlist")->currentText(),
             QString("/dev/sr0: ACMECORP DVDRW UNIT-100 R001"));
    Child<QLineEdit>("isofile")->setText(m_image);
    QSignalSpy finished(m_page.get(), &CBurnDialog::burnFinished);
    QString message;
    int value = -1;
    whenModal<CommDialog>([&](CommDialog* dialog) {
        message = dialog->Label()->text();
        value = m_page->Progress()->isVisible() ? -2 : m_page->Progress()->Bar()->value();
        dialog->reject();
    });
    click(Child("burn"));
    // A burn cut short ruins the disc: no Stop, no Back while it runs.
    QVERIFY(m_page->Progress()->isVisible() && !m_page->Progress()->CancelButton()->isEnabled());
    QVERIFY(!Child("back")->isEnabled() && !Child("burn")->isEnabled());
    QVERIFY(finished.count() == 1 || finished.wait(20000));
    QVERIFY2(message.startsWith(said), qPrintable(message));
    QCOMPARE(value, lastValue);
    QVERIFY(Child("back")->isEnabled() && Child("burn")->isEnabled());
    QCOMPARE(Logged(m_log),
             QStringList{"-v -eject dev=/dev/sr0 -sao driveropts=burnfree " + m_image});
}

void TestBurnPage::driveChangeKeepsTheSelection_data()
{
    QTest::addColumn<bool>("stillThere");
    QTest::addColumn<int>("changes"); // each one restarts the running scan
    QTest::newRow("kept") << true << 1;
    QTest::newRow("kept through restarted scans") << true << 3;
    QTest::newRow("gone") << false << 1;
}

// Drives plugged in ahead of the chosen ones must not move the choice.
void TestBurnPage::driveChangeKeepsTheSelection()
{
    QFETCH(bool, stillThere);
    QFETCH(int, changes);
    MainWindow window;
    Open(&window);
    auto* dvdlist = Child<QComboBox>("dvdlist");
    auto* usblist = Child<QComboBox>("usblist");
    dvdlist->setCurrentIndex(1);
    usblist->setCurrentIndex(1);
    m_removable.prepend(stick("/dev/sda"));
    m_optical.prepend(optical("/dev/sr2", -1));
    if (!stillThere) {
        m_removable.removeLast();
        m_optical.removeLast();
    }
    QSignalSpy filled(m_page.get(), &CBurnDialog::opticalListFilled);
    for (int i = 0; i < changes; ++i)
        Q_EMIT window.sigdrivechange();
    QVERIFY(filled.wait(20000));
    QCOMPARE(usblist->count(), stillThere ? 3 : 2);
    QCOMPARE(dvdlist->count(), stillThere ? 3 : 2);
    QCOMPARE(usblist->currentData().toString(), QString(stillThere ? "/dev/sdc" : "/dev/sda"));
    QCOMPARE(dvdlist->currentData().toString(), QString(stillThere ? "/dev/sr1" : "/dev/sr0"));
}

QTEST_MAIN(TestBurnPage)
#include "tst_burnpage.moc"
