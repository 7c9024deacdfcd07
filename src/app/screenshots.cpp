#include "app/screenshots.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QComboBox>
#include <QCryptographicHash>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QTableView>
#include <QMenu>
#include <QEventLoop>
#include <QPainter>
#include <QPixmap>
#include <QRadioButton>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <tuple>

#include "app/aboutusdialog.h"
#include "app/mainwindow.h"
#include "media/drives.h"
#include "media/usbburn.h"
#include "pages/burndialog.h"
#include "pages/page2.h"
#include "pages/page3.h"
#include "pages/page4.h"
#include "pages/page5.h"
#include "ui/baseimagectrl.h"
#include "ui/checkcombobox.h"
#include "ui/pickers.h"
#include "ui/commdialog.h"
#include "ui/gerneraldialog.h"
#include "ui/inputdialog.h"
#include "ui/messagedialogs.h"
#include "ui/progressdialog.h"

namespace Screenshots {
namespace {

class Writer
{
public:
    explicit Writer(const QDir& directory) : m_directory(directory) {}

    void Save(const QString& name, QWidget& widget) { Write(name, Grab(widget)); }

    // A dialog over the middle of a window, as it comes up over the page.
    void SaveOver(const QString& name, QWidget& window, QWidget& dialog)
    {
        QPixmap picture = Grab(window);
        const QPixmap top = Grab(dialog);
        QPainter painter(&picture);
        painter.drawPixmap((picture.width() - top.width()) / 2,
                           (picture.height() - top.height()) / 2, top);
        painter.end();
        Write(name, picture);
    }

    // A popup where it opens over the window.
    void SaveWithPopup(const QString& name, QWidget& window, QWidget& popup)
    {
        QPixmap picture = Grab(window);
        const QPixmap top = Grab(popup);
        QPainter painter(&picture);
        painter.drawPixmap(window.mapFromGlobal(popup.mapToGlobal(QPoint(0, 0))), top);
        painter.end();
        Write(name, picture);
    }

    QStringList Written() const { return m_written; }
    QStringList Failed() const { return m_failed; }

private:
    static QPixmap Grab(QWidget& widget)
    {
        widget.ensurePolished();
        QApplication::processEvents();
        return widget.grab();
    }

    void Write(const QString& name, const QPixmap& picture)
    {
        const QString path = m_directory.filePath(name + QStringLiteral(".png"));
        if (picture.save(path))
            m_written << path;
        else
            m_failed << path;
    }

    QDir m_directory;
    QStringList m_written;
    QStringList m_failed;
};

// Drive lists as a person with three USB sticks and one DVD writer sees
// them. The optical drive has an address no bus scan on this machine can
// name, so it is listed as the system knows it, whatever the scan finds.
void SetSampleDrives()
{
    DriveSeam::SetRemovable([] {
        QList<RemovableDrive> sticks;
        for (const auto& [node, model, size] :
             {std::tuple{"/dev/sdb", "ACME Stick Blade", qint64(15'600'000'000)},
              std::tuple{"/dev/sdc", "ACME Stick Blade", qint64(15'600'000'000)},
              std::tuple{"/dev/sdd", "ACME Flash Drive", qint64(31'000'000'000)}}) {
            RemovableDrive stick;
            stick.node = QLatin1String(node);
            stick.size = size;
            stick.text = stick.node + QStringLiteral("  ") + QLatin1String(model) +
                         QStringLiteral("  ") + Drives::SizeText(size);
            sticks << stick;
        }
        return sticks;
    });
    DriveSeam::SetOptical([] {
        OpticalDrive writer;
        writer.node = QStringLiteral("/dev/sr0");
        writer.vendor = QStringLiteral("ACMECORP");
        writer.model = QStringLiteral("DVDRW UNIT-100");
        writer.revision = QStringLiteral("R001");
        writer.host = 99;
        writer.channel = 0;
        writer.target = 0;
        writer.lun = 0;
        return QList<OpticalDrive>{writer};
    });
}

// No drives at all, so that the plain page pictures do not depend on the machine.
void SetNoDrives()
{
    DriveSeam::SetRemovable([] { return QList<RemovableDrive>{}; });
    DriveSeam::SetOptical([] { return QList<OpticalDrive>{}; });
}

// Waits until the page's optical list holds every drive its scan found.
template <typename Page> void waitForOpticalList(Page* page)
{
    if (!page->IsScanning())
        return;
    QEventLoop loop;
    QObject::connect(page, &Page::opticalListFilled, &loop, &QEventLoop::quit);
    QTimer::singleShot(30000, &loop, &QEventLoop::quit);
    loop.exec();
}

void RenderMainWindow(Writer& writer)
{
    MainWindow window;
    window.show();
    writer.Save(QStringLiteral("main"), window);

    QMenu* menu = window.CreateMenu();
    menu->adjustSize();
    writer.Save(QStringLiteral("main-menu"), *menu);

    const struct
    {
        const char* name;
        void (MainWindow::*open)();
    } pages[] = {
        {"page-burn", &MainWindow::onBurn},     {"page-extract", &MainWindow::onExtract},
        {"page-create", &MainWindow::onCreate}, {"page-edit", &MainWindow::onEdit},
        {"page-copy", &MainWindow::onCopy},
    };
    SetNoDrives();
    for (const auto& page : pages) {
        MainWindow host;
        host.show();
        (host.*page.open)();
        // The drive lists say that no drive was found once their scans end.
        if (auto* burn = host.findChild<CBurnDialog*>())
            waitForOpticalList(burn);
        if (auto* copy = host.findChild<CPage5*>())
            waitForOpticalList(copy);
        writer.Save(QLatin1String(page.name), host);
    }
    DriveSeam::Reset();

    // Where the keyboard is: Tab from the window's start to the Burn tile.
    MainWindow focused;
    focused.show();
    focused.activateWindow();
    QApplication::setActiveWindow(&focused);
    if (CImageButton* burn = focused.Button(QStringLiteral("burn"))) {
        burn->setFocus(Qt::TabFocusReason);
        writer.Save(QStringLiteral("main-focus"), focused);
    }
}

QString makeSampleImage(const QTemporaryDir& scratch);

// A copy of `image` with an MBR entry over the whole image, as images made to
// be written to a stick as they are carry one.
QString makeHybridImage(const QString& image)
{
    const QString hybrid = QFileInfo(image).path() + QStringLiteral("/Live Disc.iso");
    QFile::remove(hybrid);
    if (image.isEmpty() || !QFile::copy(image, hybrid))
        return QString();
    QFile file(hybrid);
    if (!file.open(QIODevice::ReadWrite))
        return QString();
    QByteArray mbr = file.read(512);
    const quint32 sectors = quint32(file.size() / 512);
    mbr[446] = char(0x80);
    mbr[450] = char(0x17);
    for (int i = 0; i < 4; ++i)
        mbr[446 + 12 + i] = char(sectors >> (8 * i));
    mbr[510] = char(0x55);
    mbr[511] = char(0xAA);
    file.seek(0);
    return file.write(mbr) == 512 ? hybrid : QString();
}

// The burn page on the sample stick with `image`, once it shows the mode.
void showUsbImage(CBurnDialog* page, const QString& image)
{
    QEventLoop loop;
    QObject::connect(page, &CBurnDialog::modeShown, &loop, &QEventLoop::quit);
    QTimer::singleShot(30000, &loop, &QEventLoop::quit);
    page->findChild<QLineEdit*>(QStringLiteral("isofile"))->setText(image);
    loop.exec();
}

// The burn page writing the sample stick in both modes, and what it says at
// the end of a burn and of a restore. The page is put in the state a burn
// leaves it in; nothing is written.
void RenderUsbBurn(Writer& writer, QWidget& host, CBurnDialog* page)
{
    const char* const kBurnButtons[] = {"browser", "back", "burn", "restore"};
    QTemporaryDir scratch;
    const QString sample = makeSampleImage(scratch);
    page->findChild<QRadioButton*>(QStringLiteral("rusb"))->setChecked(true);
    waitForOpticalList(page); // choosing refills both lists
    showUsbImage(page, sample);
    writer.Save(QStringLiteral("page-burn-usb"), host);

    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(false);
    CProgressDialog* progress = page->Progress();
    progress->DisableStop();
    page->onUSBBurnProgress(45, CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Copying));
    writer.SaveOver(QStringLiteral("page-burn-usb-progress"), host, *progress);

    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(true);
    auto burned = MessageDialogs::Message(CUsbBurnJob::SuccessText(1187, qint64(5'312'000'000)));
    writer.SaveOver(QStringLiteral("page-burn-usb-burned"), host, *burned);

    // The hybrid image with a published checksum beside it, as distributions
    // publish theirs.
    const QString hybrid = makeHybridImage(sample);
    QString sha256;
    if (QFile file(hybrid); file.open(QIODevice::ReadOnly)) {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        hash.addData(&file);
        sha256 = QString::fromLatin1(hash.result().toHex());
    }
    if (QFile sums(QFileInfo(hybrid).path() + QStringLiteral("/SHA256SUMS"));
        sums.open(QIODevice::WriteOnly))
        sums.write(sha256.toLatin1() + "  " + QFileInfo(hybrid).fileName().toUtf8() + "\n");
    showUsbImage(page, hybrid);
    writer.Save(QStringLiteral("page-burn-usb-image"), host);
    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(false);
    page->onUSBBurnProgress(62, CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Writing));
    page->onUSBBurnTransfer(
        UsbBurn::TransferText(qint64(1'890'000'000), qint64(3'050'000'000), 22'000));
    writer.SaveOver(QStringLiteral("page-burn-usb-image-progress"), host, *progress);
    page->onImageHashed(sha256);
    page->onUSBBurnProgress(30, CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Verifying));
    page->onUSBBurnTransfer(
        UsbBurn::TransferText(qint64(915'000'000), qint64(3'050'000'000), 5'000));
    writer.SaveOver(QStringLiteral("page-burn-usb-image-verifying"), host, *progress);
    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(true);
    auto restored =
        MessageDialogs::Message(CUsbBurnJob::RestoredText(UsbPlan::FileSystem::Fat32, QString()));
    writer.SaveOver(QStringLiteral("page-burn-usb-restored"), host, *restored);

    // Two of the three sticks ticked, the list open, their write and its end.
    auto* sticks = page->findChild<CCheckComboBox*>(QStringLiteral("usblist"));
    sticks->SetChecked(1, true);
    writer.Save(QStringLiteral("page-burn-usb-several"), host);
    sticks->showPopup();
    writer.SaveWithPopup(QStringLiteral("page-burn-usb-several-list"), host,
                         *sticks->view()->window());
    sticks->hidePopup();
    // An image that would go the files way onto one stick: the mode list
    // says why files mode is not there for several.
    showUsbImage(page, sample);
    auto* modes = page->findChild<QComboBox*>(QStringLiteral("modelist"));
    modes->showPopup();
    writer.SaveWithPopup(QStringLiteral("page-burn-usb-several-modes"), host,
                         *modes->view()->window());
    modes->hidePopup();
    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(false);
    page->onUSBBurnProgress(48, CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Writing));
    page->onUSBBurnTransfer(
        UsbBurn::TransferText(qint64(1'460'000'000), qint64(3'050'000'000), 19'000));
    const QStringList nodes = sticks->CheckedData();
    page->onStickProgress(nodes.value(0), 71);
    page->onStickProgress(nodes.value(1), 48);
    writer.SaveOver(QStringLiteral("page-burn-usb-several-progress"), host, *progress);
    progress->SetDetail(QString());
    for (const char* button : kBurnButtons)
        page->findChild<QWidget*>(QLatin1String(button))->setEnabled(true);
    const QHash<QString, QString> failures = {
        {nodes.value(1), QStringLiteral("The USB stick was not burned. The step that failed: "
                                        "writing: %1 was removed (Input/output error) after "
                                        "1460000000 bytes.")
                             .arg(nodes.value(1))}};
    auto allBurned = MessageDialogs::Message(
        CBurnDialog::SticksResultText(nodes, failures, QStringLiteral("SHA256SUMS")));
    writer.SaveOver(QStringLiteral("page-burn-usb-several-burned"), host, *allBurned);
}

void RenderDrivePages(Writer& writer, const QString& folder)
{
    SetSampleDrives();
    {
        MainWindow host;
        host.show();
        host.onBurn();
        if (auto* page = host.findChild<CBurnDialog*>()) {
            waitForOpticalList(page);
            page->findChild<QLineEdit*>(QStringLiteral("isofile"))
                ->setText(folder + QStringLiteral("/Sample Disc.iso"));
            page->findChild<QLineEdit*>(QStringLiteral("volumelab"))
                ->setText(QStringLiteral("SAMPLE"));
            writer.Save(QStringLiteral("page-burn-drives"), host);
            RenderUsbBurn(writer, host, page);
        }
    }
    {
        MainWindow host;
        host.show();
        host.onCopy();
        if (auto* page = host.findChild<CPage5*>()) {
            waitForOpticalList(page);
            page->findChild<QLineEdit*>(QStringLiteral("lineEdit"))
                ->setText(folder + QStringLiteral("/Disc Copy.iso"));
            writer.Save(QStringLiteral("page-copy-drives"), host);
        }
    }
    DriveSeam::Reset();
}

// A small image with a few folders and files, built with the image builder,
// so that the extract page can be shown as a person would see it.
QString makeSampleImage(const QTemporaryDir& scratch)
{
    const QDir root(scratch.filePath(QStringLiteral("sample")));
    const QStringList files = {
        QStringLiteral("boot/grub/grub.cfg"), QStringLiteral("boot/grub/fonts/unicode.pf2"),
        QStringLiteral("docs/Read Me.txt"),   QStringLiteral("docs/manual.pdf"),
        QStringLiteral("setup.exe"),          QStringLiteral("autorun.inf"),
        QStringLiteral("photos/holiday.jpg"), QStringLiteral("install/packages.tar.gz"),
    };
    for (const QString& file : files) {
        root.mkpath(QFileInfo(root.filePath(file)).path());
        QFile out(root.filePath(file));
        if (out.open(QIODevice::WriteOnly))
            out.write(QByteArray(int(qHash(file) % 40000) + 100, 'x'));
    }
    const QString builder = QStandardPaths::findExecutable(QStringLiteral("genisoimage"));
    const QString image = scratch.filePath(QStringLiteral("Sample Disc.iso"));
    if (builder.isEmpty())
        return QString();
    QProcess process;
    process.start(builder, {QStringLiteral("-quiet"), QStringLiteral("-J"), QStringLiteral("-R"),
                            QStringLiteral("-V"), QStringLiteral("SAMPLE"), QStringLiteral("-o"),
                            image, root.path()});
    process.waitForFinished(60000);
    return process.exitCode() == 0 ? image : QString();
}

void RenderExtractPage(Writer& writer)
{
    QTemporaryDir scratch;
    const QString image = makeSampleImage(scratch);
    MainWindow host;
    host.show();
    host.onExtract();
    auto* page = host.findChild<CPage2*>();
    if (page == nullptr || image.isEmpty())
        return;
    QEventLoop loop;
    QObject::connect(page, &CPage2::listingFinished, &loop, &QEventLoop::quit);
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    page->LoadImage(image);
    loop.exec();
    writer.Save(QStringLiteral("page-extract-image"), host);
}

void RenderCreatePage(Writer& writer)
{
    QTemporaryDir scratch;
    const QString sample = QFileInfo(makeSampleImage(scratch)).path() + QStringLiteral("/sample");
    MainWindow host;
    host.show();
    host.onCreate();
    auto* page = host.findChild<CPage3*>();
    if (page == nullptr)
        return;
    // The pickers are answered as a person would answer them.
    QList<QStringList> answers = {
        {sample + QStringLiteral("/docs"), sample + QStringLiteral("/boot")},
        {sample + QStringLiteral("/setup.exe"), sample + QStringLiteral("/autorun.inf")}};
    PickerSeam::Set([&answers](PickerSeam::Kind, const QString&) {
        return answers.isEmpty() ? QStringList() : answers.takeFirst();
    });
    page->OnAddDir();
    page->OnAddFile();
    PickerSeam::Reset();
    writer.Save(QStringLiteral("page-create-files"), host);
}

void RenderEditPage(Writer& writer)
{
    QTemporaryDir scratch;
    const QString image = makeSampleImage(scratch);
    MainWindow host;
    host.show();
    host.onEdit();
    auto* page = host.findChild<CPage4*>();
    if (page == nullptr || image.isEmpty())
        return;
    QEventLoop loop;
    QObject::connect(page, &CPage4::loaded, &loop, &QEventLoop::quit);
    QTimer::singleShot(60000, &loop, &QEventLoop::quit);
    page->LoadImage(image);
    loop.exec();
    page->Table()->setFocus();
    writer.Save(QStringLiteral("page-edit-image"), host);
    page->Search()->setText(QStringLiteral("IN"));
    writer.Save(QStringLiteral("page-edit-search"), host);
    page->Search()->clear();

    CProgressDialog* progress = page->Progress();
    progress->SetText(QStringLiteral("Saving ISO file..."));
    progress->SetRange(0, 10000);
    progress->SetValue(3120);
    writer.SaveOver(QStringLiteral("page-edit-saving"), host, *progress);

    auto refused =
        MessageDialogs::Message(QStringLiteral("eltorito.img cannot be deleted: the image starts "
                                               "from it,\n/boot/grub/i386-pc/eltorito.img"));
    writer.SaveOver(QStringLiteral("page-edit-boot-file-refused"), host, *refused);
}

void RenderDialogs(Writer& writer)
{
    CAboutusDialog about;
    writer.Save(QStringLiteral("about"), about);

    auto message = MessageDialogs::Message(QStringLiteral(
        "The image could not be opened: 7-Zip says \"Cannot open the file as archive\". "
        "Please choose another image."));
    writer.Save(QStringLiteral("dialog-message"), *message);

    auto finished =
        MessageDialogs::Finished(QStringLiteral("Extract files successfully."), QDir::homePath());
    writer.Save(QStringLiteral("dialog-finished"), *finished);

    auto confirm = MessageDialogs::Confirm(QStringLiteral(":/nwu/format_usb"));
    writer.Save(QStringLiteral("dialog-confirm-format-usb"), *confirm);

    CProgressDialog progress;
    progress.SetText(QStringLiteral("Extracting files: boot/grub/grub.cfg"));
    progress.SetRange(0, 10000);
    progress.SetValue(4567);
    writer.Save(QStringLiteral("dialog-progress"), progress);

    CProgressDialog burning;
    burning.SetText(QStringLiteral("Burning disc..."));
    burning.SetRange(0, 100);
    burning.SetValue(45);
    burning.DisableStop();
    writer.Save(QStringLiteral("dialog-progress-no-stop"), burning);

    auto question = MessageDialogs::Question(
        QStringLiteral("The boot setup of this image cannot be carried over (BIOS boot image: its "
                       "catalogue entry does not "
                       "say how long it is). The saved image will hold the files but will not "
                       "boot. Save it anyway?"));
    writer.Save(QStringLiteral("dialog-question"), *question);

    auto usbWarning = MessageDialogs::Question(QStringLiteral(
        "This image has no /bootmgr, so the stick cannot start through the legacy "
        "BIOS; it will start through UEFI only.\n\nErase the stick and burn anyway?"));
    writer.Save(QStringLiteral("dialog-usb-warning"), *usbWarning);

    auto usbFailed = MessageDialogs::Message(QStringLiteral(
        "The USB stick was not burned. The step that failed: formatting: mkfs.fat failed (exit "
        "status 1). mkfs.fat 4.2 (2021-01-31) mkfs.fat: unable to open /dev/sdb1: No such device"));
    writer.Save(QStringLiteral("dialog-usb-failed"), *usbFailed);

    CInputDialog input;
    input.SetInputText(QStringLiteral("  new name.txt  "));
    writer.Save(QStringLiteral("dialog-input"), input);

    const struct
    {
        const char* picture;
        int y;
    } notices[] = {
        {"insert_usb", 123},
        {"burn-fails", 123},
        {"insufficient_space", 123},
        {"select_files_extract", 120},
    };
    for (const auto& notice : notices) {
        auto dialog = MessageDialogs::Notice(
            QStringLiteral(":/nwu/") + QLatin1String(notice.picture), notice.y);
        writer.Save(QStringLiteral("notice-") + QLatin1String(notice.picture), *dialog);
    }
}

} // namespace

QStringList RenderAll(const QString& directory, QString* error)
{
    QDir dir(directory);
    if (!dir.mkpath(QStringLiteral("."))) {
        if (error)
            *error = QStringLiteral("Cannot create the folder %1.").arg(directory);
        return {};
    }
    Writer writer(dir);
    RenderMainWindow(writer);
    RenderExtractPage(writer);
    RenderCreatePage(writer);
    RenderEditPage(writer);
    RenderDrivePages(writer, QDir::homePath());
    RenderDialogs(writer);
    if (!writer.Failed().isEmpty()) {
        if (error)
            *error =
                QStringLiteral("Cannot write %1.").arg(writer.Failed().join(QStringLiteral(", ")));
        return {};
    }
    return writer.Written();
}

} // namespace Screenshots
