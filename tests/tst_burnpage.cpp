#include <QtTest>

#include <QAbstractItemView>
#include <QComboBox>
#include <QCryptographicHash>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QRadioButton>

#include <unistd.h>

#include "app/mainwindow.h"
#include "core/util.h"
#include "common/hybridimage.h"
#include "common/isofixture.h"
#include "common/modal.h"
#include "common/standins.h"
#include "media/disctools.h"
#include "media/drives.h"
#include "media/usbburn.h"
#include "pages/burndialog.h"
#include "ui/baseimagectrl.h"
#include "ui/checkcombobox.h"
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

// Notes every dialog that comes up over the page, in order, and answers it:
// OK where `accept` agrees to what it says, Cancel otherwise. A notice or a
// confirmation picture says its picture, a message its text. The progress
// dialog and the page itself are left alone.
class DialogAnswerer
{
public:
    explicit DialogAnswerer(std::function<bool(const QString&)> accept)
        : m_accept(std::move(accept))
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this] { Answer(); });
        m_timer.start(20);
    }

    QStringList seen;

private:
    void Answer()
    {
        auto* modal = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        if (modal == nullptr || qobject_cast<CProgressDialog*>(modal) ||
            qobject_cast<CBurnDialog*>(modal) || !modal->isVisible())
            return;
        QString said;
        if (auto* notice = qobject_cast<GerneralDialog*>(modal))
            said = notice->BackgroundImage();
        else if (auto* message = qobject_cast<CommDialog*>(modal))
            said = message->Label()->text().isEmpty() ? message->BackgroundImage()
                                                      : message->Label()->text();
        seen << said;
        if (m_accept(said))
            modal->accept();
        else
            modal->reject();
    }

    std::function<bool(const QString&)> m_accept;
    QTimer m_timer;
};

const QString kFormatUsb = ":/nwu/format_usb";

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
    void usbChecks_data();
    void usbChecks();
    void usbWarningDeclined();
    void burnsTheStick_data();
    void burnsTheStick();
    void usbMode_data();
    void usbMode();
    void restoresTheStick_data();
    void restoresTheStick();
    void tickingSticks_data();
    void tickingSticks();
    void clickingSticks();
    void burnsSeveralSticks_data();
    void burnsSeveralSticks();
    void planShowsChecksums_data();
    void planShowsChecksums();

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
    // No burn or restore under way.
    bool Idle() const
    {
        return !m_page->findChild<CDiscBurnJob*>()->IsRunning() &&
               !m_page->findChild<CUsbBurnJob*>()->IsRunning() &&
               !m_page->findChild<CUsbMultiBurnJob*>()->IsRunning();
    }
    // The page with the USB stick chosen and `image` to burn. The stick is a
    // folder: the page and the job take its file system's size for the
    // stick's, and the stand-in helper never opens it.
    void OpenOnStick(const QString& image)
    {
        m_removable = {{m_stick, "ACME Stick", qint64(16'000'000'000)}};
        Open();
        click(Child("rusb"));
        Child<QLineEdit>("isofile")->setText(image);
    }
    bool ButtonsEnabled() const { return Child("back")->isEnabled() && Child("burn")->isEnabled(); }

    QTemporaryDir m_dir;
    QString m_image;
    QString m_stick;
    QString m_installer; // /bootmgr and an EFI loader: no warnings, boot code under MBR
    QString m_files;     // files only: a warning under MBR
    QString m_hybrid;    // isolinux's isohybrid image, built on first use
    QString m_log;
    QList<OpticalDrive> m_optical;
    QList<RemovableDrive> m_removable;
    std::unique_ptr<CBurnDialog> m_page;
};

void TestBurnPage::initTestCase()
{
    // The stand-in helper keeps each stick's disk image beside the stick's
    // folder, so that several sticks written at once each have their own; a
    // stick whose name ends in "-gone" goes away before its first byte.
    const QString tools = m_dir.filePath("tools");
    QVERIFY(QDir().mkpath(tools));
    for (const char* folder : {"7z", "cdrtools"})
        QVERIFY(QFile::link(QString(BRENTA_SOURCE_DIR "/tests/standins/") + folder,
                            tools + "/" + folder));
    const QString standIn = BRENTA_SOURCE_DIR "/tests/standins/usbhelper/brenta-usb-helper";
    const QByteArray wrapper =
        "#!/bin/sh\nexport BRENTA_STANDIN_DISK=\"$2.disk\"\n"
        "case \"$2\" in *-gone) export BRENTA_STANDIN_MODE=failwrite ;; esac\n"
        "exec '" +
        standIn.toUtf8() + "' \"$@\"\n";
    QVERIFY(Standins::Write(tools + "/usbhelper/brenta-usb-helper", wrapper));
    qputenv("BRENTA_TOOLS_DIR", tools.toUtf8());
    // Upper case and a blank: the suffix check ignores case, the argument keeps the blank.
    m_image = m_dir.filePath("Disc Image.ISO");
    QFile image(m_image);
    QVERIFY(image.open(QIODevice::WriteOnly) && image.write(QByteArray(4096, 'i')) == 4096);

    m_stick = m_dir.filePath("stick");
    QVERIFY(QDir().mkpath(m_stick));
    QByteArray wim(300 * 1024, Qt::Uninitialized);
    for (int i = 0; i < wim.size(); ++i)
        wim[i] = char(i * 7 % 251);
    QString error;
    QVERIFY(
        IsoFixture::WriteTree(m_dir.filePath("installer"), {{"bootmgr", "BOOTMGR"},
                                                            {"efi/boot/bootx64.efi", "EFI LOADER"},
                                                            {"sources/boot.wim", wim},
                                                            {"Read Me.txt", "read me"}}));
    m_installer = IsoFixture::Build(m_dir.filePath("installer"), m_dir.filePath("Installer.iso"),
                                    "joliet", &error);
    QVERIFY2(!m_installer.isEmpty(), qPrintable(error));
    QVERIFY(IsoFixture::WriteTree(m_dir.filePath("files"), {{"docs/a.txt", "a"}, {"b.txt", "b"}}));
    m_files =
        IsoFixture::Build(m_dir.filePath("files"), m_dir.filePath("Files.iso"), "joliet", &error);
    QVERIFY2(!m_files.isEmpty(), qPrintable(error));
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
    QFile::remove(m_stick + ".disk");
}

void TestBurnPage::cleanup()
{
    m_page.reset();
    DriveSeam::Reset();
    qunsetenv("BRENTA_STANDIN_MODE");
    qunsetenv("BRENTA_STANDIN_MOUNT");
}

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
    QTest::addColumn<QString>("said");
    QTest::newRow("missing image") << "gone.iso" << false << true << ":/nwu/burn-fails";
    QTest::newRow("not an image") << "disc.img" << false << true << ":/nwu/burn-fails";
    QTest::newRow("folder named .iso") << "folder.iso" << true << true << ":/nwu/burn-fails";
    QTest::newRow("no optical drive")
        << "" << false << false
        << "No CD/DVD drive found. Connect a drive and insert a blank disc.";
    QTest::newRow("no USB drive") << "" << true << false << ":/nwu/insert_usb";
}

// Each refusal says its own thing and never starts the writer.
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
    DialogAnswerer answers([](const QString&) { return false; });
    click(Child("burn"));
    QVERIFY(Idle());
    QCOMPARE(answers.seen, said.isEmpty() ? QStringList() : QStringList{said});
    QVERIFY(!m_page->Progress()->isVisible());
    QCOMPARE(Logged(m_log), QStringList());
}

void TestBurnPage::burnsTheDisc_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("lastValue");
    QTest::newRow("success") << "success" << 100;
    QTest::newRow("write error") << "fail" << 33;
}

// The page shows the burn's progress and then its end in the job's words.
void TestBurnPage::burnsTheDisc()
{
    QFETCH(QString, mode);
    QFETCH(int, lastValue);
    qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
    Open();
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
    QCOMPARE(finished.first().first().toBool(), mode == "success");
    QCOMPARE(message, m_page->findChild<CDiscBurnJob*>()->Message());
    QCOMPARE(value, lastValue);
    QVERIFY(Child("back")->isEnabled() && Child("burn")->isEnabled());
    // The chosen drive and image reach the writer.
    QVERIFY(Logged(m_log).value(0).contains("dev=/dev/sr0 "));
}

void TestBurnPage::driveChangeKeepsTheSelection_data()
{
    QTest::addColumn<bool>("stillThere");
    QTest::addColumn<int>("changes"); // each one restarts the running scan
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
    // As the main window connects the page it opens.
    connect(&window, &MainWindow::sigdrivechange, m_page.get(),
            qOverload<>(&CBurnDialog::InitializeUSBAndDVDComboBox));
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

void TestBurnPage::usbChecks_data()
{
    QTest::addColumn<bool>("erase");   // the answer to the format warning
    QTest::addColumn<qint64>("spare"); // the stick's size less the image's; 0: a small image
    QTest::addColumn<QStringList>("said");
    QTest::addColumn<bool>("checking");
    QTest::addColumn<bool>("table"); // a partition table: the image goes as it is
    QTest::newRow("erasing declined")
        << false << qint64(0) << QStringList{kFormatUsb} << false << false;
    QTest::newRow("a byte short of the spare room")
        << true << UsbPlan::kSpareBytes - 1 << QStringList{kFormatUsb, ":/nwu/insufficient_space"}
        << false << false;
    QTest::newRow("just the spare room")
        << true << UsbPlan::kSpareBytes << QStringList{kFormatUsb} << true << false;
    QTest::newRow("disk image, no spare room needed")
        << true << qint64(1) << QStringList{kFormatUsb} << true << true;
    QTest::newRow("disk image a byte larger than the stick")
        << true << qint64(-1) << QStringList{kFormatUsb, ":/nwu/insufficient_space"} << false
        << true;
}

// Before anything runs the user must agree to erasing the stick, and the stick
// must hold the image, with 50 MB to spare for copied files.
void TestBurnPage::usbChecks()
{
    QFETCH(bool, erase);
    QFETCH(qint64, spare);
    QFETCH(QStringList, said);
    QFETCH(bool, checking);
    QFETCH(bool, table);
    QString image = m_image;
    if (spare != 0) {
        // A sparse image as large as the stick allows, give or take a byte.
        image = IsoFixture::SparseFile(m_dir.filePath("large.iso"), 0);
        QVERIFY(QFile::resize(image, Util::DiskTotalSize(m_stick) - spare));
    }
    if (table) {
        // One MBR entry over the image, as isohybrid writes it.
        QFile file(image);
        QByteArray mbr(512, 0);
        mbr[446] = char(0x80);
        mbr[450] = char(0x17);
        qToLittleEndian(quint32(file.size() / 512), mbr.data() + 458);
        mbr[510] = char(0x55);
        mbr[511] = char(0xAA);
        QVERIFY(file.open(QIODevice::ReadWrite) && file.write(mbr) == 512);
    }
    OpenOnStick(image);
    DialogAnswerer answers([erase](const QString& said) { return said == kFormatUsb && erase; });
    click(Child("burn"));
    QCOMPARE(answers.seen, said);
    QCOMPARE(m_page->Progress()->isVisible(), checking);
    QCOMPARE(ButtonsEnabled(), !checking);
    QCOMPARE(Logged(m_log), QStringList());
}

// A warning the user does not accept ends the burn before the helper runs.
void TestBurnPage::usbWarningDeclined()
{
    OpenOnStick(m_files);
    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    DialogAnswerer answers([](const QString& said) { return said == kFormatUsb; });
    click(Child("burn"));
    QVERIFY(finished.wait(20000));
    QCOMPARE(finished.first().first().toBool(), false);
    QCOMPARE(answers.seen.size(), 2);
    QVERIFY2(answers.seen.last().contains("/bootmgr"), qPrintable(answers.seen.last()));
    QVERIFY(!m_page->Progress()->isVisible() && ButtonsEnabled());
    QCOMPARE(Logged(m_log), QStringList());
}

void TestBurnPage::burnsTheStick_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("scheme");         // index in the list
    QTest::addColumn<QString>("fileSystem"); // chosen before the scheme
    QTest::addColumn<QString>("prepare");    // the helper's options
    QTest::newRow("MBR, exFAT") << "success" << 0 << "exFAT"
                                << "--scheme mbr --fs exfat --label ACME STICK";
    QTest::newRow("GPT keeps FAT32, formatting fails")
        << "failformat" << 1 << "NTFS"
        << "--scheme gpt --fs fat32 --label ACME STICK";
}

// Whole burns with the real archive tool and a stand-in helper whose "stick"
// is a folder: what the page shows while it runs, what it asks the helper
// for and what it says at the end. The helper's steps and the files the job
// writes are the job's own test.
void TestBurnPage::burnsTheStick()
{
    QFETCH(QString, mode);
    QFETCH(int, scheme);
    QFETCH(QString, fileSystem);
    QFETCH(QString, prepare);
    const QString mount = m_dir.filePath(QString("mount-%1").arg(QTest::currentDataTag()));
    qputenv("BRENTA_STANDIN_MODE", mode.toUtf8());
    qputenv("BRENTA_STANDIN_MOUNT", mount.toUtf8());
    OpenOnStick(m_installer);
    Child<QComboBox>("sysfilelist")->setCurrentText(fileSystem);
    Child<QComboBox>("ptlist")->setCurrentIndex(scheme);
    QTest::keyClicks(Child("volumelab"), "Acme Stick");

    // Seen right after the page has taken each phase and each step of progress:
    // nothing may stop or leave a burn half done.
    auto* job = m_page->findChild<CUsbBurnJob*>();
    bool lockedThroughout = true;
    connect(job, &CUsbBurnJob::phase, this, [&] {
        lockedThroughout = lockedThroughout && m_page->Progress()->isVisible() &&
                           !m_page->Progress()->CancelButton()->isEnabled() &&
                           !Child("back")->isEnabled() && !Child("burn")->isEnabled() &&
                           !Child("browser")->isEnabled();
    });
    QStringList full;
    connect(job, &CUsbBurnJob::progressed, this, [&](int percent) {
        if (percent == 100)
            full << m_page->Progress()->PercentText();
    });
    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    // Erasing agreed to, and any warning too (exFAT: the stick will not start through UEFI).
    DialogAnswerer answers([](const QString&) { return true; });
    click(Child("burn"));
    QVERIFY(finished.wait(60000));
    QVERIFY2(finished.first().first().toBool() == (mode == "success"),
             qPrintable(answers.seen.join(" | ")));
    QVERIFY(lockedThroughout);
    QCOMPARE(answers.seen.first(), kFormatUsb);
    QCOMPARE(answers.seen.last(), job->Message());
    QVERIFY(!m_page->Progress()->isVisible() && ButtonsEnabled());
    QCOMPARE(Logged(m_log).first(), QString("prepare %1 %2").arg(m_stick, prepare));
    if (mode == "success") {
        QVERIFY2(full.contains("100%"), qPrintable(full.join(", ")));
        QCOMPARE(QFileInfo(mount + "/sources/boot.wim").size(), 300 * 1024);
    }
}

void TestBurnPage::usbMode_data()
{
    QTest::addColumn<bool>("hybrid");
    QTest::addColumn<QString>("shown");  // the mode the page picks
    QTest::addColumn<int>("key");        // pressed on the mode list; 0: none
    QTest::addColumn<QString>("helper"); // the helper's first command
    QTest::newRow("isohybrid image as shown") << true << "Disk image" << 0 << "write";
    QTest::newRow("isohybrid image, files chosen")
        << true << "Disk image" << int(Qt::Key_Down) << "prepare";
    // The burn alone would copy this image's files: the user's choice must reach it.
    QTest::newRow("plain image, disk image chosen")
        << false << "Files" << int(Qt::Key_Up) << "write";
}

// The page shows the mode the image goes in, only the options that mode uses,
// and the burn writes the stick the way the page shows when it starts.
void TestBurnPage::usbMode()
{
    QFETCH(bool, hybrid);
    QFETCH(QString, shown);
    QFETCH(int, key);
    QFETCH(QString, helper);
    if (hybrid && m_hybrid.isEmpty()) {
        QString error;
        m_hybrid = HybridImage::Isolinux(m_dir.filePath("hybrid"), &error);
        QVERIFY2(!m_hybrid.isEmpty(), qPrintable(error));
    }
    const QString image = hybrid ? m_hybrid : m_files;
    const QString mount = m_dir.filePath(QString("mount-%1").arg(QTest::currentDataTag()));
    qputenv("BRENTA_STANDIN_MOUNT", mount.toUtf8());
    m_removable = {{m_stick, "ACME Stick", qint64(16'000'000'000)}};
    Open();
    click(Child("rusb"));
    QSignalSpy shownSpy(m_page.get(), &CBurnDialog::modeShown);
    Child<QLineEdit>("isofile")->setText(image);
    QVERIFY(shownSpy.count() == 1 || shownSpy.wait(20000));
    QVERIFY(!Child<QLabel>("modereason")->text().isEmpty());
    auto* modes = Child<QComboBox>("modelist");
    const auto filesOptionsShown = [this] {
        return Child("ptlist")->isVisible() && Child("sysfilelist")->isVisible() &&
               Child("volumelab")->isVisible();
    };
    QCOMPARE(modes->currentText(), shown);
    QCOMPARE(filesOptionsShown(), shown == "Files");
    if (key != 0) {
        modes->setFocus();
        QTest::keyClick(modes, Qt::Key(key));
        QVERIFY(modes->currentText() != shown);
        QCOMPARE(filesOptionsShown(), shown != "Files");
    }

    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    DialogAnswerer answers([](const QString&) { return true; });
    click(Child("burn"));
    QVERIFY(finished.wait(60000));
    QVERIFY2(finished.first().first().toBool(), qPrintable(answers.seen.join(" | ")));
    QVERIFY2(Logged(m_log).first().startsWith(helper + " " + m_stick),
             qPrintable(Logged(m_log).join(" | ")));
    if (helper == "write")
        QCOMPARE(QFileInfo(m_stick + ".disk").size(), QFileInfo(image).size());
}

void TestBurnPage::restoresTheStick_data()
{
    QTest::addColumn<bool>("erase");      // the answer to the format warning
    QTest::addColumn<bool>("diskImage");  // disk image mode chosen: the files options are hidden
    QTest::addColumn<QString>("prepare"); // the helper's options; empty: nothing runs
    QTest::newRow("erasing declined") << false << false << "";
    QTest::newRow("files mode's file system and label")
        << true << false << "--scheme mbr --fs exfat --label ACME STICK";
    QTest::newRow("disk image mode: FAT32, no label") << true << true << "--scheme mbr --fs fat32";
}

// Restore stick asks before erasing, then has the helper make the chosen
// stick an ordinary one with the options the page shows, and says so.
void TestBurnPage::restoresTheStick()
{
    QFETCH(bool, erase);
    QFETCH(bool, diskImage);
    QFETCH(QString, prepare);
    qputenv("BRENTA_STANDIN_MOUNT",
            m_dir.filePath(QString("mount-%1").arg(QTest::currentDataTag())).toUtf8());
    OpenOnStick(m_files);
    Child<QComboBox>("sysfilelist")->setCurrentText("exFAT");
    QTest::keyClicks(Child("volumelab"), "Acme Stick");
    if (diskImage) {
        auto* modes = Child<QComboBox>("modelist");
        modes->setFocus();
        QTest::keyClick(modes, Qt::Key_Up);
        QVERIFY(!Child("sysfilelist")->isVisible());
    }
    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    DialogAnswerer answers([erase](const QString& said) { return said != kFormatUsb || erase; });
    click(Child("restore"));
    if (erase) {
        QVERIFY(finished.wait(20000));
        QVERIFY2(finished.first().first().toBool(), qPrintable(answers.seen.join(" | ")));
        QVERIFY2(answers.seen.last().startsWith("The stick is an ordinary stick again"),
                 qPrintable(answers.seen.last()));
    } else {
        QVERIFY(Idle());
    }
    QCOMPARE(answers.seen.first(), kFormatUsb);
    QVERIFY(!m_page->Progress()->isVisible() && ButtonsEnabled() && Child("restore")->isEnabled());
    const QStringList helper =
        prepare.isEmpty()
            ? QStringList()
            : QStringList{QString("prepare %1 %2").arg(m_stick, prepare), "unmount " + m_stick};
    QCOMPARE(Logged(m_log), helper);
}

void TestBurnPage::tickingSticks_data()
{
    QTest::addColumn<QList<int>>("keys"); // pressed in the open stick list
    QTest::addColumn<QStringList>("ticked");
    const int down = Qt::Key_Down;
    const int up = Qt::Key_Up;
    const int space = Qt::Key_Space;
    const int enter = Qt::Key_Return;
    QTest::newRow("Space ticks a second stick")
        << QList<int>{down, space} << QStringList{"/dev/sdb", "/dev/sdc"};
    QTest::newRow("and unticks it again")
        << QList<int>{down, space, space} << QStringList{"/dev/sdb"};
    QTest::newRow("the last tick stays") << QList<int>{space} << QStringList{"/dev/sdb"};
    QTest::newRow("unticking the stick shown")
        << QList<int>{down, space, up, space} << QStringList{"/dev/sdc"};
    // Picking a stick by name as in any list chooses it alone, unless it is
    // one of those ticked.
    QTest::newRow("Enter on an unticked stick")
        << QList<int>{down, space, down, enter} << QStringList{"/dev/sdd"};
    QTest::newRow("Enter on a ticked stick")
        << QList<int>{down, space, enter} << QStringList{"/dev/sdb", "/dev/sdc"};
}

// With several sticks ticked only disk image mode can be picked and Restore,
// which gives back one stick, is off; with one ticked again the page is as
// it was, files mode included.
void TestBurnPage::tickingSticks()
{
    QFETCH(QList<int>, keys);
    QFETCH(QStringList, ticked);
    m_removable << stick("/dev/sdd");
    Open();
    click(Child("rusb"));
    QSignalSpy shown(m_page.get(), &CBurnDialog::modeShown);
    Child<QLineEdit>("isofile")->setText(m_files); // goes the files way by itself
    QVERIFY(shown.count() == 1 || shown.wait(20000));
    auto* sticks = Child<CCheckComboBox>("usblist");
    sticks->showPopup();
    for (int key : keys)
        QTest::keyClick(sticks->view(), Qt::Key(key));
    sticks->hidePopup();

    QCOMPARE(sticks->CheckedData(), ticked);
    QVERIFY(ticked.contains(sticks->currentData().toString()));
    const bool several = ticked.size() > 1;
    auto* modes = Child<QComboBox>("modelist");
    const int files = modes->findData(int(UsbPlan::WriteMode::Files));
    QCOMPARE(modes->currentIndex() == files, !several);
    QCOMPARE(bool(modes->model()->flags(modes->model()->index(files, 0)) & Qt::ItemIsEnabled),
             !several);
    QCOMPARE(Child("restore")->isEnabled(), !several);
    QCOMPARE(Child("sysfilelist")->isVisible(), !several);
    for (const QString& node : ticked)
        QVERIFY2(sticks->DisplayText().contains(node), qPrintable(sticks->DisplayText()));
}

// A click at the start of a row, on its box, ticks that stick and leaves the
// list open for more; a click on another's name closes it with that one alone.
void TestBurnPage::clickingSticks()
{
    m_removable << stick("/dev/sdd");
    Open();
    click(Child("rusb"));
    auto* sticks = Child<CCheckComboBox>("usblist");
    sticks->showPopup();
    QAbstractItemView* view = sticks->view();
    const auto row = [view](int index) { return view->visualRect(view->model()->index(index, 0)); };
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, row(1).topLeft() + QPoint(2, 2));
    QCOMPARE(sticks->CheckedData(), QStringList({"/dev/sdb", "/dev/sdc"}));
    QVERIFY(view->isVisible());
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, row(2).center());
    QCOMPARE(sticks->CheckedData(), QStringList{"/dev/sdd"});
    QVERIFY(!view->isVisible());
}

void TestBurnPage::burnsSeveralSticks_data()
{
    QTest::addColumn<bool>("erase"); // the answer to the erase question
    QTest::addColumn<int>("gone");   // the stick that goes away before its first byte; -1: none
    QTest::newRow("erasing declined") << false << -1;
    QTest::newRow("two sticks") << true << -1;
    QTest::newRow("one stick gone, the other written") << true << 0;
}

// Two ticked sticks get an image that would go the files way onto one, as it
// is, each from the same read and each with its own result; the erase
// question and the end name both.
void TestBurnPage::burnsSeveralSticks()
{
    QFETCH(bool, erase);
    QFETCH(int, gone);
    QStringList sticks;
    m_removable.clear();
    for (int i = 0; i < 2; ++i) {
        sticks << m_dir.filePath(QString("stick-%1%2").arg(i).arg(i == gone ? "-gone" : ""));
        QVERIFY(QDir().mkpath(sticks.last()));
        QFile::remove(sticks.last() + ".disk");
        m_removable << RemovableDrive{sticks.last(), sticks.last() + "  ACME Stick",
                                      qint64(16'000'000'000)};
    }
    Open();
    click(Child("rusb"));
    Child<QLineEdit>("isofile")->setText(m_files);
    auto* list = Child<CCheckComboBox>("usblist");
    list->showPopup();
    QTest::keyClick(list->view(), Qt::Key_Down);
    QTest::keyClick(list->view(), Qt::Key_Space);
    list->hidePopup();
    QCOMPARE(list->CheckedData(), sticks);

    // Seen each time a stick's progress has reached the page.
    QStringList lines;
    connect(m_page->findChild<CUsbMultiBurnJob*>(), &CUsbMultiBurnJob::stickProgress, this,
            [&] { lines << m_page->Progress()->Detail()->text(); });
    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    DialogAnswerer answers([erase](const QString&) { return erase; });
    click(Child("burn"));
    if (erase) {
        QVERIFY(finished.wait(60000));
        QCOMPARE(finished.first().first().toBool(), gone < 0);
        // Between them, the warning that such an image will not start.
        QVERIFY2(answers.seen.size() == 3, qPrintable(answers.seen.join(" | ")));
        answers.seen.removeAt(1);
    } else {
        QVERIFY(Idle());
        QCOMPARE(answers.seen.size(), 1);
    }
    QVERIFY(!m_page->Progress()->isVisible() && ButtonsEnabled());
    QFile image(m_files);
    QVERIFY(image.open(QIODevice::ReadOnly));
    const QByteArray expected = image.readAll();
    // The plan shows the image's SHA-256 from the one read that fed both.
    QCOMPARE(Child<QLabel>("imagehash")->text() ==
                 QCryptographicHash::hash(expected, QCryptographicHash::Sha256).toHex(),
             erase);
    for (int i = 0; i < sticks.size(); ++i) {
        for (const QString& said : answers.seen)
            QVERIFY2(said.contains(sticks[i]), qPrintable(said));
        // The end gives each stick one line of its own.
        if (erase)
            QCOMPARE(
                answers.seen.last()
                    .split('\n')
                    .filter(QRegularExpression("^" + QRegularExpression::escape(sticks[i]) + "\\b"))
                    .size(),
                1);
        QFile disk(sticks[i] + ".disk");
        QCOMPARE(disk.open(QIODevice::ReadOnly) && disk.readAll() == expected, erase && i != gone);
    }
    // A line for each stick under the bar while they are written, none after.
    QCOMPARE(lines.isEmpty(), !erase);
    for (const QString& shown : lines)
        QVERIFY2(shown.contains(sticks[0]) && shown.contains(sticks[1]), qPrintable(shown));
    QVERIFY(!m_page->Progress()->Detail()->isVisibleTo(m_page->Progress()));
    // Nothing was formatted: the files way was not taken for either stick.
    QVERIFY(!Logged(m_log).join(' ').contains("prepare"));
    QCOMPARE(Logged(m_log).isEmpty(), !erase);
}

void TestBurnPage::planShowsChecksums_data()
{
    QTest::addColumn<QString>("checksumFile"); // beside the image, naming it; empty: none
    QTest::newRow("no checksum file") << "";
    QTest::newRow("SHA256SUMS") << "SHA256SUMS";
}

// In disk image mode the plan names the published checksum file the image
// is compared with, and shows the image's SHA-256 once the burn has read it.
void TestBurnPage::planShowsChecksums()
{
    QFETCH(QString, checksumFile);
    const QDir folder(m_dir.filePath(QString("checksums-%1").arg(QTest::currentDataTag())));
    QVERIFY(folder.mkpath("."));
    const QString image = folder.filePath("Files.iso");
    QFile::remove(image);
    QVERIFY(QFile::copy(m_files, image));
    QFile file(image);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString sha256 =
        QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex();
    if (!checksumFile.isEmpty()) {
        QFile sums(folder.filePath(checksumFile));
        QVERIFY(sums.open(QIODevice::WriteOnly));
        sums.write(sha256.toLatin1() + "  Files.iso\n");
    }
    OpenOnStick(image);
    auto* modes = Child<QComboBox>("modelist");
    modes->setFocus();
    QTest::keyClick(modes, Qt::Key_Up); // disk image mode
    auto* hash = Child<QLabel>("imagehash");
    auto* published = Child<QLabel>("checksumfile");
    QVERIFY(hash->isVisible() && !hash->text().contains(sha256));
    QCOMPARE(published->isVisible(), !checksumFile.isEmpty());
    if (!checksumFile.isEmpty())
        QVERIFY2(published->text().contains(checksumFile), qPrintable(published->text()));

    const QString before = published->text();
    QSignalSpy finished(m_page.get(), &CBurnDialog::usbBurnFinished);
    DialogAnswerer answers([](const QString&) { return true; });
    click(Child("burn"));
    QVERIFY(finished.wait(60000));
    QVERIFY2(finished.first().first().toBool(), qPrintable(answers.seen.join(" | ")));
    QCOMPARE(hash->text(), sha256);
    // Once compared, the checksum file's line says how it went.
    QCOMPARE(published->isVisible() && published->text() != before, !checksumFile.isEmpty());
    // Another image: its SHA-256 is not known yet.
    Child<QLineEdit>("isofile")->setText(m_files);
    QVERIFY(!hash->text().contains(sha256));
}

QTEST_MAIN(TestBurnPage)
#include "tst_burnpage.moc"
