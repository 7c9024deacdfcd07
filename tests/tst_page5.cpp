#include <QtTest>

#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>

#include "common/modal.h"
#include "common/standins.h"
#include "common/urlrecorder.h"
#include "media/disctools.h"
#include "media/drives.h"
#include "pages/page5.h"
#include "ui/baseimagectrl.h"
#include "ui/commdialog.h"
#include "ui/pickers.h"
#include "ui/progressdialog.h"

namespace {

using Standins::Logged;

void click(QWidget* widget)
{
    QTest::mouseClick(widget, Qt::LeftButton, {}, widget->rect().center());
}

// The text of the next message, which is then closed.
void answer(QString* said, bool openFolder = false)
{
    whenModal<CommDialog>([said, openFolder](CommDialog* dialog) {
        *said = dialog->Label()->text();
        if (openFolder)
            click(dialog->CancelButton());
        click(dialog->OkButton());
    });
}

} // namespace

class TestPage5 final : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void startSaysWhatIsMissing();
    void copiesTheDisc();
    void stopConfirmsItself();
    void ejectFailureIsShown();

private:
    void Open()
    {
        m_page = std::make_unique<CPage5>();
        QSignalSpy filled(m_page.get(), &CPage5::opticalListFilled);
        m_page->show();
        QVERIFY(filled.count() == 1 || filled.wait(20000));
    }
    template <typename T = QWidget> T* Child(const char* name) const
    {
        return m_page->findChild<T*>(name);
    }

    QTemporaryDir m_dir;
    QString m_log;
    QList<OpticalDrive> m_optical;
    std::unique_ptr<CPage5> m_page;
    UrlRecorder m_urls{{"file"}};
};

void TestPage5::initTestCase()
{
    qputenv("BRENTA_TOOLS_DIR", BRENTA_SOURCE_DIR "/tests/standins");
}

void TestPage5::init()
{
    // A page that goes away must take its tools with it.
    QTest::failOnWarning(QRegularExpression("QProcess: Destroyed while process"));
    m_log = m_dir.filePath(
        QString("%1-%2.log").arg(QTest::currentTestFunction(), QTest::currentDataTag()));
    qputenv("BRENTA_STANDIN_LOG", m_log.toUtf8());
    m_optical = {OpticalDrive{"/dev/sr0", "ACMECORP", "DVDRW UNIT-100", "R001", 1, 0, 0, 0}};
    DriveSeam::SetOptical([this] { return m_optical; });
}

void TestPage5::cleanup()
{
    m_page.reset();
    DriveSeam::Reset();
    PickerSeam::Reset();
    qunsetenv("BRENTA_STANDIN_MODE");
}

// Without a drive, or without an output file, Start says so and reads
// nothing; an empty drive list says so itself, and the missing drive is what
// is asked for even when the output file is filled.
void TestPage5::startSaysWhatIsMissing()
{
    const QList<OpticalDrive> drives = m_optical;
    for (bool drive : {false, true}) {
        m_optical = drive ? drives : QList<OpticalDrive>();
        Open();
        QCOMPARE(Child<QComboBox>("dvdlist")->placeholderText().isEmpty(), drive);
        Child<QLineEdit>("lineEdit")->setText(drive ? QString() : m_dir.filePath("out.iso"));
        QString message;
        answer(&message);
        click(Child("start"));
        QVERIFY2(message.contains(drive ? "iso file" : "drive"), qPrintable(message));
    }
    QCOMPARE(Logged(m_log), QStringList());
}

void TestPage5::copiesTheDisc()
{
    Open();
    // A name typed without a suffix gets ".iso".
    const QString output = m_dir.filePath("copies/disc copy.iso");
    QVERIFY(QDir(m_dir.path()).mkpath("copies"));
    PickerSeam::Set([&](PickerSeam::Kind kind, const QString& filter) {
        return kind == PickerSeam::Kind::SaveFile && filter == "ISO Files(*.ISO)"
                   ? QStringList{m_dir.filePath("copies/disc copy")}
                   : QStringList();
    });
    click(Child("browser"));
    QSignalSpy finished(m_page.get(), &CPage5::copyFinished);
    QString message;
    answer(&message, true);
    click(Child("start"));
    // A reading can be stopped, unlike a burn.
    QVERIFY(m_page->Progress()->isVisible() && m_page->Progress()->CancelButton()->isEnabled());
    QVERIFY(finished.count() == 1 || finished.wait(20000));
    QVERIFY(finished.first().first().toBool());
    QCOMPARE(m_urls.opened, QList<QUrl>{QUrl::fromLocalFile(m_dir.filePath("copies"))});
    // The reader's part file and the copy it becomes are the copy job's own test.
    QVERIFY(QFileInfo::exists(output));
}

// Stop ends the reading at once and, once the reader has ended and no half
// image (nor its part file) is left, says so.
void TestPage5::stopConfirmsItself()
{
    qputenv("BRENTA_STANDIN_MODE", "hang");
    Open();
    const QString output = m_dir.filePath("stopped.iso");
    Child<QLineEdit>("lineEdit")->setText(output);
    QSignalSpy finished(m_page.get(), &CPage5::copyFinished);
    click(Child("start"));
    CProgressDialog* progress = m_page->Progress();
    // The stand-in reports sector 32 of 300, then sleeps.
    QTRY_VERIFY_WITH_TIMEOUT(progress->Bar()->value() == 10, 10000);
    QSignalSpy ended(m_page->findChild<CDiscCopyJob*>(), &CJob::finished);
    QString message;
    answer(&message);
    click(progress->CancelButton());
    QVERIFY(!progress->isVisible() && !m_page->IsCopying());
    // The part file goes once the reader has ended, without the window waiting for it.
    QVERIFY(ended.count() == 1 || ended.wait(10000));
    QTRY_VERIFY(!message.isEmpty());
    QVERIFY2(CJob::IsStoppedMessage(message) && message.contains("removed"), qPrintable(message));
    QCOMPARE(QDir(m_dir.path()).entryList({"*stopped.iso*"}, QDir::Files | QDir::Hidden),
             QStringList());
    QCOMPARE(finished.count(), 0);
}

void TestPage5::ejectFailureIsShown()
{
    qputenv("BRENTA_STANDIN_MODE", "busy");
    Open();
    QSignalSpy ejected(m_page.get(), &CPage5::ejectFinished);
    QString message;
    answer(&message);
    click(Child("eject"));
    QVERIFY(ejected.count() == 1 || ejected.wait(20000));
    // The tool's reason reaches the user.
    QVERIFY2(message.contains("in use"), qPrintable(message));
    QCOMPARE(Logged(m_log), QStringList{"dev=/dev/sr0 -eject"});
}

QTEST_MAIN(TestPage5)
#include "tst_page5.moc"
