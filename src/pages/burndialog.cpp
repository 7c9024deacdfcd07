#include "pages/burndialog.h"

#include <QFile>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QStandardItemModel>

#include "core/util.h"
#include "iso/isojobs.h"
#include "media/disctools.h"
#include "media/drives.h"
#include "pages/opticallist.h"
#include "ui/baseimagectrl.h"
#include "ui/checkcombobox.h"
#include "ui/drops.h"
#include "ui/gerneraldialog.h"
#include "ui/messagedialogs.h"
#include "ui/mycombobox.h"
#include "ui/progressdialog.h"

namespace {

enum ListType
{
    kBothLists = 0,
    kOpticalList = 1,
    kRemovableList = 2
};

constexpr int kNoticeButtonY = 123;
const QString kGpt = QStringLiteral("GPT(required for UEFI boot)");

void showNotice(const QString& picture)
{
    MessageDialogs::Notice(picture, kNoticeButtonY)->exec();
}

QString currentNode(const QComboBox* list)
{
    return list->currentIndex() < 0 ? QString() : list->currentData().toString();
}

} // namespace

CBurnDialog::CBurnDialog(QWidget* /*mainWindow*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("CBurnDialog"));
    setWindowTitle(QStringLiteral("Dialog"));
    SetBackgroundImage(QStringLiteral(":/nwu/page1"));

    m_isofile = new QLineEdit(this);
    m_isofile->setObjectName(QStringLiteral("isofile"));
    m_isofile->setGeometry(135, 90, 306, 23);
    m_isofile->setReadOnly(true);
    m_browser = MakePictureButton(this, "browser", QStringLiteral(":/nwu/Broswe"), 462, 90);

    const QString radioStyle =
        QStringLiteral("QRadioButton::indicator:checked {\n    image: url(:/nwu/rchecked);\n}\n\n"
                       "QRadioButton::indicator:unchecked {\n    image: url(:/nwu/runchecked);\n}");
    const auto radio = [&](const char* name, int x, int y) {
        auto* button = new QRadioButton(this);
        button->setObjectName(QLatin1String(name));
        button->move(x, y);
        button->setStyleSheet(radioStyle);
        button->adjustSize();
        return button;
    };
    const auto list = [&](auto* box, const char* name, const QRect& geometry) {
        box->setObjectName(QLatin1String(name));
        box->setGeometry(geometry);
        return box;
    };
    m_rdvd = radio("rdvd", 113, 130);
    m_rdvd->setChecked(true);
    m_dvdlist = list(new CMyComboBox(this), "dvdlist", QRect(135, 167, 371, 23));
    m_rusb = radio("rusb", 113, 207);
    m_usblist = list(new CCheckComboBox(this), "usblist", QRect(135, 244, 371, 23));
    m_usblist->SetSummaryFormat(QStringLiteral("%1 USB sticks: %2"));
    m_usblist->setToolTip(
        QStringLiteral("Tick several sticks in the list to write the image to each of them"));
    // Drawn like the Browse button, and as wide as the rest of the row up to
    // the volume label's right edge.
    m_restore = new QPushButton(QStringLiteral("Restore stick"), this);
    m_restore->setObjectName(QStringLiteral("restore"));
    m_restore->setGeometry(516, 244, 104, 23);
    m_restore->setCursor(Qt::PointingHandCursor);
    m_restore->setToolTip(
        QStringLiteral("Erase the stick and give it one empty partition, as it came"));
    m_restore->setStyleSheet(QStringLiteral(
        "QPushButton { color: #1565C0; background: #EEF6FF; border: 1px solid #1E88E5;"
        " border-radius: 4px; font-family: \"Noto Sans\"; font-size: 12px; font-weight: bold; }"
        "QPushButton:hover { background: #DCEEFF; }"
        "QPushButton:pressed { background: #C8E2FF; }"
        "QPushButton:disabled { color: #A0A0A0; background: #F4F4F4; border-color: #C8C8C8; }"));
    // The USB options' labels are widgets, unlike the picture's, so that they
    // go with the options disk image mode does not use; each is as high as
    // its control and ends 10 pixels before it, as "Drive" does.
    const auto label = [&](const QString& text, const QRect& geometry) {
        auto* caption = new QLabel(text, this);
        caption->setGeometry(geometry);
        caption->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        caption->setStyleSheet(
            QStringLiteral("color: #606060; font-family: \"Noto Sans\"; font-size: 13px;"));
        return caption;
    };
    label(QStringLiteral("Write mode"), QRect(15, 274, 110, 23));
    m_modelist = list(new QComboBox(this), "modelist", QRect(135, 274, 180, 23));
    m_modelist->addItem(QStringLiteral("Disk image"), int(UsbPlan::WriteMode::Image));
    m_modelist->addItem(QStringLiteral("Files"), int(UsbPlan::WriteMode::Files));
    m_modelist->setCurrentIndex(1);
    m_modereason = new QLabel(this);
    m_modereason->setObjectName(QStringLiteral("modereason"));
    m_modereason->setGeometry(137, 298, 500, 33);
    m_modereason->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    m_modereason->setWordWrap(true);
    m_modereason->setStyleSheet(
        QStringLiteral("color: #90A4AE; font-family: \"Noto Sans\"; font-size: 12px;"));
    m_ptlist = list(new QComboBox(this), "ptlist", QRect(135, 334, 246, 23));
    m_ptlist->addItems({QStringLiteral("MBR(for legacy BIOS/CSM boot)"), kGpt});
    m_sysfilelist = list(new QComboBox(this), "sysfilelist", QRect(135, 365, 180, 23));
    m_sysfilelist->addItems({QStringLiteral("FAT32"), QStringLiteral("NTFS"),
                             QStringLiteral("exFAT"), QStringLiteral("FAT")});
    m_volumelab = new QLineEdit(this);
    m_volumelab->setObjectName(QStringLiteral("volumelab"));
    m_volumelab->setGeometry(430, 365, 190, 23);
    m_volumelab->setMaxLength(11);
    m_filesOptions = {
        label(QStringLiteral("Partition scheme"), QRect(15, 334, 110, 23)), m_ptlist,
        label(QStringLiteral("File system"), QRect(15, 365, 110, 23)),      m_sysfilelist,
        label(QStringLiteral("Volume label"), QRect(325, 365, 95, 23)),     m_volumelab};
    // Disk image mode has the files options' rows for the image's SHA-256,
    // once a burn has read the image, and the checksum file it is compared
    // with; both can be selected and copied.
    const auto value = [&](const char* name, const QRect& geometry) {
        auto* text = new QLabel(this);
        text->setObjectName(QLatin1String(name));
        text->setGeometry(geometry);
        text->setTextInteractionFlags(Qt::TextSelectableByMouse);
        return text;
    };
    m_imageHash = value("imagehash", QRect(137, 334, 483, 23));
    m_checksumFile = value("checksumfile", QRect(137, 365, 483, 23));
    m_imageOptions = {label(QStringLiteral("SHA-256"), QRect(15, 334, 110, 23)), m_imageHash};
    m_checksumRow = {label(QStringLiteral("Checksum file"), QRect(15, 365, 110, 23)),
                     m_checksumFile};

    m_back = MakePictureButton(this, "back", QStringLiteral(":/nwu/backwhite"), 10, 417);
    m_burn = MakePictureButton(this, "burn", QStringLiteral(":/nwu/burn"), 546, 417);
    SetTabChain({m_isofile, m_browser, m_rdvd, m_dvdlist, m_rusb, m_usblist, m_restore, m_modelist,
                 m_ptlist, m_sysfilelist, m_volumelab, m_back, m_burn});

    m_progress = new CProgressDialog;
    // Room for a second line under the phase: the bytes, speed and time left
    // of writing or reading back a disk image.
    m_progress->Label()->setGeometry(40, 56, 340, 40);
    m_drives = new COpticalList(m_dvdlist);
    m_burnJob = new CDiscBurnJob(this);
    m_usbJob = new CUsbBurnJob(this);
    m_modeLister = new CListJob(m_modeTree, this);
    connect(m_modeLister, &CListJob::finished, this, &CBurnDialog::OnModeListed);
    connect(m_drives, &COpticalList::filled, this, &CBurnDialog::opticalListFilled);
    connect(m_burnJob, &CDiscBurnJob::progressed, this, &CBurnDialog::onDVDBurnOutput);
    connect(m_burnJob, &CDiscBurnJob::finished, this, &CBurnDialog::onDVDBurnFinished);
    connect(m_usbJob, &CUsbBurnJob::planned, this, &CBurnDialog::onUSBPlanned);
    connect(m_usbJob, &CUsbBurnJob::progressed, this, &CBurnDialog::onUSBBurnProgress);
    connect(m_usbJob, &CUsbBurnJob::finished, this, &CBurnDialog::onUSBBurnFinished);
    connect(m_usbJob, &CUsbBurnJob::transfer, this, &CBurnDialog::onUSBBurnTransfer);
    m_sticksJob = new CUsbMultiBurnJob(this);
    connect(m_sticksJob, &CUsbMultiBurnJob::planned, this, &CBurnDialog::onSticksPlanned);
    connect(m_sticksJob, &CUsbMultiBurnJob::progressed, this, &CBurnDialog::onUSBBurnProgress);
    connect(m_sticksJob, &CUsbMultiBurnJob::transfer, this, &CBurnDialog::onUSBBurnTransfer);
    connect(m_sticksJob, &CUsbMultiBurnJob::finished, this, &CBurnDialog::onUSBBurnFinished);
    connect(m_sticksJob, &CUsbMultiBurnJob::stickProgress, this, &CBurnDialog::onStickProgress);
    connect(m_sticksJob, &CUsbMultiBurnJob::stickFinished, this, &CBurnDialog::onStickFinished);
    connect(m_usbJob, &CUsbBurnJob::imageHashed, this, &CBurnDialog::onImageHashed);
    connect(m_sticksJob, &CUsbMultiBurnJob::imageHashed, this, &CBurnDialog::onImageHashed);
    connect(m_usblist, &CCheckComboBox::checkedChanged, this, &CBurnDialog::OnSticksTicked);

    connect(m_browser, qOverload<>(&CImageButton::clicked), this, &CBurnDialog::onBrowser);
    connect(m_back, qOverload<>(&CImageButton::clicked), this, &CBurnDialog::onBack);
    connect(m_burn, qOverload<>(&CImageButton::clicked), this, &CBurnDialog::onBurn);
    connect(m_restore, &QPushButton::clicked, this, &CBurnDialog::onRestore);
    connect(m_volumelab, &QLineEdit::textChanged, this, &CBurnDialog::OnVolumeLabTextChange);
    connect(m_ptlist, qOverload<int>(&QComboBox::currentIndexChanged), this,
            &CBurnDialog::OnMBRSelect);
    connect(m_rdvd, &QRadioButton::toggled, this, &CBurnDialog::OnRadioSelected);
    connect(m_isofile, &QLineEdit::textChanged, this, &CBurnDialog::ShowMode);
    // Once the user has picked the mode, the burn keeps it. Several sticks
    // leave only disk image mode to pick.
    connect(m_modelist, qOverload<int>(&QComboBox::activated), this, [this] {
        if (m_usblist->CheckedIndexes().size() > 1)
            return;
        m_modeChosen = true;
        m_oneStickMode = ChosenMode();
        ShowModeOptions();
    });
    OnRadioSelected();
    // An image file dropped on the page is the image to burn.
    Drops::Enable(
        this, [](const QStringList& paths) { return !Drops::ImageOf(paths).isEmpty(); },
        [this](const QStringList& paths) { m_isofile->setText(Drops::ImageOf(paths)); });
}

CBurnDialog::~CBurnDialog()
{
    delete m_progress;
}

bool CBurnDialog::IsScanning() const
{
    return m_drives->IsScanning();
}

void CBurnDialog::onBrowser()
{
    const QString path = Util::OpenFileDialog(this, QStringLiteral("ISO Files(*.ISO)"));
    if (!path.isEmpty() && QFileInfo(path).isFile())
        m_isofile->setText(path);
}

void CBurnDialog::onBurn()
{
    const QString image = m_isofile->text().trimmed();
    if (!QFileInfo(image).isFile() || !image.toLower().endsWith(QLatin1String(".iso"))) {
        showNotice(QStringLiteral(":/nwu/burn-fails"));
        return;
    }
    if (m_rusb->isChecked())
        BurnToUsb(image);
    else
        BurnToDisc(image);
}

void CBurnDialog::BurnToUsb(const QString& image)
{
    if (m_usblist->currentIndex() < 0 || m_usblist->currentText().isEmpty()) {
        showNotice(QStringLiteral(":/nwu/insert_usb"));
        return;
    }
    ShowMode();
    if (const QStringList sticks = m_usblist->CheckedData(); sticks.size() > 1) {
        BurnToSticks(image, sticks);
        return;
    }
    CUsbBurnJob::Options options;
    options.image = image;
    options.device = currentNode(m_usblist);
    options.mode = ChosenMode();
    options.autoMode = !m_modeChosen;
    const bool files = options.mode == UsbPlan::WriteMode::Files;
    if (files) {
        options.scheme =
            m_ptlist->currentIndex() == 1 ? UsbPlan::Scheme::Gpt : UsbPlan::Scheme::Mbr;
        options.fileSystem = UsbPlan::FileSystemFromName(m_sysfilelist->currentText())
                                 .value_or(UsbPlan::FileSystem::Fat32);
        options.label = m_volumelab->text();
        // A label the file system cannot hold is said before the stick is
        // offered for erasing; the plan would refuse it too.
        const UsbPlan::FileSystem used = UsbPlan::UsedFileSystem(
            options.scheme, options.fileSystem, Util::DiskTotalSize(options.device));
        if (const QString problem = UsbPlan::CheckLabel(used, options.label).problem;
            !problem.isEmpty()) {
            Util::ShowMessage(problem);
            return;
        }
    }
    if (Util::ConfirmPicture(QStringLiteral(":/nwu/format_usb")) != QDialog::Accepted)
        return;
    // Copied files need room beside them; a disk image only has to fit.
    if (Util::DiskTotalSize(options.device) <
        QFileInfo(image).size() + (files ? UsbPlan::kSpareBytes : 0)) {
        showNotice(QStringLiteral(":/nwu/insufficient_space"));
        return;
    }
    // Formatting half done leaves the stick unusable, so a USB burn cannot be
    // stopped either.
    StartShowingBurn(CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Checking), 0);
    m_usbJob->Plan(options);
}

// Each stick is planned on its own: the plan names every stick too small
// for the image.
void CBurnDialog::BurnToSticks(const QString& image, const QStringList& devices)
{
    QStringList sticks;
    for (int index : m_usblist->CheckedIndexes())
        sticks << m_usblist->itemText(index);
    if (!Util::Confirm(QStringLiteral("Everything on these %1 USB sticks will be erased:\n\n%2\n\n"
                                      "Erase them and write the image to each?")
                           .arg(devices.size())
                           .arg(sticks.join(QLatin1Char('\n')))))
        return;
    CUsbBurnJob::Options options;
    options.image = image;
    options.mode = UsbPlan::WriteMode::Image;
    options.autoMode = false;
    m_burnSticks = devices;
    m_stickStates.clear();
    m_stickFailures.clear();
    m_sticksDone.clear();
    StartShowingBurn(CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Checking), 0);
    m_sticksJob->Plan(options, devices);
}

void CBurnDialog::onRestore()
{
    if (m_usblist->currentIndex() < 0 || m_usblist->currentText().isEmpty()) {
        showNotice(QStringLiteral(":/nwu/insert_usb"));
        return;
    }
    const bool files = ChosenMode() == UsbPlan::WriteMode::Files;
    const UsbPlan::FileSystem fs = files ? UsbPlan::FileSystemFromName(m_sysfilelist->currentText())
                                               .value_or(UsbPlan::FileSystem::Fat32)
                                         : UsbPlan::FileSystem::Fat32;
    const QString label = files ? m_volumelab->text() : QString();
    // As for a burn, a label the file system cannot hold is said before the
    // stick is offered for erasing.
    if (const QString problem = UsbPlan::CheckLabel(fs, label).problem; !problem.isEmpty()) {
        Util::ShowMessage(problem);
        return;
    }
    if (Util::ConfirmPicture(QStringLiteral(":/nwu/format_usb")) != QDialog::Accepted)
        return;
    StartShowingBurn(CUsbBurnJob::PhaseTitle(CUsbBurnJob::Phase::Formatting), 0);
    m_usbJob->Restore(currentNode(m_usblist), fs, label);
}

bool CBurnDialog::GoOn(bool ok, const QString& message, const UsbPlan::Decision& decision,
                       bool several)
{
    if (ok && (decision.warnings.isEmpty() ||
               Util::Confirm(decision.modeReason + QStringLiteral("\n\n") +
                             decision.warnings.join(QStringLiteral("\n\n")) +
                             (several ? QStringLiteral("\n\nErase the sticks and burn anyway?")
                                      : QStringLiteral("\n\nErase the stick and burn anyway?")))))
        return true;
    EndShowingBurn(ok ? QString() : message);
    Q_EMIT usbBurnFinished(false);
    return false;
}

void CBurnDialog::onUSBPlanned(bool ok, const QString& message)
{
    if (GoOn(ok, message, m_usbJob->Decision(), false))
        m_usbJob->Burn();
}

void CBurnDialog::onSticksPlanned(bool ok, const QString& message)
{
    if (GoOn(ok, message, m_sticksJob->Decision(), true))
        m_sticksJob->Burn();
}

void CBurnDialog::onUSBBurnTransfer(const QString& text)
{
    m_progress->SetText(m_phaseText + QLatin1Char('\n') + text);
}

void CBurnDialog::onUSBBurnProgress(int percent, const QString& phase)
{
    // A new phase's title replaces the line under it too.
    if (phase != m_phaseText) {
        m_phaseText = phase;
        m_progress->SetText(m_phaseText);
    }
    m_progress->SetRange(0, percent < 0 ? 0 : 100);
    m_progress->SetValue(qMax(percent, 0));
}

void CBurnDialog::onStickProgress(const QString& device, int percent)
{
    if (!m_burnSticks.contains(device))
        m_burnSticks << device;
    m_stickStates[device] =
        percent >= 0 ? QStringLiteral("%1%").arg(percent) : QStringLiteral("working");
    ShowStickLines();
}

void CBurnDialog::onStickFinished(const QString& device, bool succeeded, const QString& message)
{
    m_sticksDone << device;
    if (!succeeded)
        m_stickFailures[device] = message;
    // Why a stick failed is in the end message.
    m_stickStates[device] =
        succeeded ? QStringLiteral("burned and verified") : QStringLiteral("failed");
    ShowStickLines();
}

void CBurnDialog::ShowStickLines()
{
    QStringList lines;
    for (const QString& device : m_burnSticks)
        lines << device + QStringLiteral(": ") +
                     m_stickStates.value(device, QStringLiteral("waiting"));
    m_progress->SetDetail(lines.join(QLatin1Char('\n')));
}

void CBurnDialog::onImageHashed(const QString& sha256)
{
    m_sha256 = sha256;
    ShowModeOptions();
}

QString CBurnDialog::SticksResultText(const QStringList& devices,
                                      const QHash<QString, QString>& failures,
                                      const QString& publishedFile)
{
    QStringList lines;
    for (const QString& device : devices)
        lines << device + QStringLiteral(": ") +
                     failures.value(device, QStringLiteral("burned and verified"));
    const qsizetype burned = devices.size() - failures.size();
    QString text =
        burned == devices.size()
            ? QStringLiteral("All %1 USB sticks were burned: each was read back and holds the "
                             "image byte for byte.")
                  .arg(devices.size())
            : QStringLiteral("%1 of %2 USB sticks were burned and verified.")
                  .arg(burned)
                  .arg(devices.size());
    text += QStringLiteral("\n\n") + lines.join(QLatin1Char('\n'));
    if (burned > 0) {
        text += QStringLiteral("\n\n");
        // A stick whose image differs from the published checksum is not burned.
        if (!publishedFile.isEmpty())
            text += QStringLiteral("The image matches the published checksum in %1. ")
                        .arg(publishedFile);
        text += burned == 1 ? QStringLiteral("The stick can be removed.")
                            : QStringLiteral("The sticks can be removed.");
    }
    return text;
}

void CBurnDialog::onUSBBurnFinished(bool succeeded, const QString& message)
{
    // The several sticks' job says each stick's result in full; the page
    // says it a line each, where every stick got as far as its end.
    const bool eachStick = !m_burnSticks.isEmpty() && m_sticksDone.size() == m_burnSticks.size();
    EndShowingBurn(eachStick ? SticksResultText(m_burnSticks, m_stickFailures, m_published.file)
                             : message);
    Q_EMIT usbBurnFinished(succeeded);
}

void CBurnDialog::BurnToDisc(const QString& image)
{
    const int index = m_dvdlist->currentIndex();
    if (index < 0 || index >= m_dvdlist->count()) {
        Util::ShowMessage(
            QStringLiteral("No CD/DVD drive found. Connect a drive and insert a blank disc."));
        return;
    }
    // A burn that is cut short leaves an unusable disc, so it cannot be stopped.
    StartShowingBurn(QStringLiteral("Burning the disc..."), 100);
    m_burnJob->Start(image, m_dvdlist->itemData(index).toString());
}

void CBurnDialog::onDVDBurnOutput(int percent)
{
    m_progress->SetValue(percent);
    // Under the bar: how much is written, at what speed, and the time left.
    m_progress->SetDetail(m_burnJob->PhaseText());
}

void CBurnDialog::onDVDBurnFinished(bool succeeded, const QString& message)
{
    EndShowingBurn(message);
    Q_EMIT burnFinished(succeeded);
}

// The progress without Stop, and the page's buttons off until the burn ends;
// maximum 0 shows a busy bar.
void CBurnDialog::StartShowingBurn(const QString& text, int maximum)
{
    m_progress->show();
    m_progress->DisableStop();
    m_progress->SetRange(0, maximum);
    m_progress->SetValue(0);
    m_progress->SetText(text);
    m_progress->SetDetail(QString());
    m_phaseText.clear();
    SetButtonsEnabled(false);
}

// An empty message: the burn was given up and there is nothing to say.
void CBurnDialog::EndShowingBurn(const QString& message)
{
    m_progress->hide();
    m_progress->SetDetail(QString());
    m_burnSticks.clear();
    SetButtonsEnabled(true);
    if (!message.isEmpty())
        Util::ShowMessage(message);
}

void CBurnDialog::SetButtonsEnabled(bool enabled)
{
    for (CImageButton* button : {m_browser, m_back, m_burn})
        button->setEnabled(enabled);
    UpdateRestore();
}

// Restore gives back one stick at a time, and not while a burn runs.
void CBurnDialog::UpdateRestore()
{
    const bool several = m_usblist->CheckedIndexes().size() > 1;
    m_restore->setEnabled(m_rusb->isChecked() && m_burn->isEnabled() && !several);
    m_restore->setToolTip(
        several ? QStringLiteral("Restore gives back one stick at a time: tick only one")
                : QStringLiteral("Erase the stick and give it one empty partition, as it came"));
}

void CBurnDialog::onBack()
{
    hide();
    deleteLater();
}

void CBurnDialog::InitializeUSBAndDVDComboBox(int type)
{
    if (type == kBothLists || type == kRemovableList)
        RefillRemovable();
    if (type == kBothLists || type == kOpticalList)
        m_drives->Refill();
}

void CBurnDialog::InitializeUSBAndDVDComboBox()
{
    InitializeUSBAndDVDComboBox(kBothLists);
}

void CBurnDialog::RefillRemovable()
{
    const QStringList remembered = m_usblist->CheckedData();
    m_usblist->clear();
    for (const RemovableDrive& drive : Drives::Removable())
        m_usblist->addItem(drive.text, drive.node);
    m_usblist->SetCheckedData(remembered);
    m_usblist->setPlaceholderText(m_usblist->count() == 0 ? QStringLiteral("No USB drive found")
                                                          : QString());
}

void CBurnDialog::ShowMode()
{
    const QString image = m_isofile->text().trimmed();
    if (!m_rusb->isChecked() || image == m_modeImage)
        return;
    m_modeImage = image;
    m_modeChosen = false;
    m_modeLister->Stop();
    m_reason.clear();
    m_sha256.clear();
    m_published = UsbBurn::FindPublishedChecksum(image);
    m_head.clear();
    QFile file(image);
    if (QFileInfo(image).isFile() && file.open(QIODevice::ReadOnly))
        m_head = file.read(UsbPlan::kHeadBytes);
    // The first sectors alone decide the mode; the files' reason waits for
    // the listing.
    const UsbPlan::ModeChoice choice = UsbPlan::ChooseMode(m_head, ItemTree());
    m_autoMode = m_oneStickMode = choice.mode;
    if (choice.mode == UsbPlan::WriteMode::Image)
        m_reason = choice.reason;
    OnSticksTicked();
    if (choice.mode == UsbPlan::WriteMode::Image) {
        Q_EMIT modeShown();
    } else if (!m_head.isEmpty()) {
        m_modeLister->Start(image);
    }
}

// A listing that fails leaves the reason out: the burn's own check says why.
void CBurnDialog::OnModeListed()
{
    if (m_modeLister->Succeeded())
        m_reason = UsbPlan::ChooseMode(m_head, m_modeTree).reason;
    ShowReason();
    Q_EMIT modeShown();
}

void CBurnDialog::OnSticksTicked()
{
    const bool several = m_usblist->CheckedIndexes().size() > 1;
    auto* modes = qobject_cast<QStandardItemModel*>(m_modelist->model());
    QStandardItem* files = modes->item(m_modelist->findData(int(UsbPlan::WriteMode::Files)));
    files->setEnabled(!several);
    files->setText(several ? QStringLiteral("Files (one stick at a time)")
                           : QStringLiteral("Files"));
    m_modelist->setCurrentIndex(
        m_modelist->findData(int(several ? UsbPlan::WriteMode::Image : m_oneStickMode)));
    ShowModeOptions();
    ShowReason();
    UpdateRestore();
}

void CBurnDialog::ShowReason()
{
    const bool several = m_usblist->CheckedIndexes().size() > 1;
    m_modereason->setText(
        several && m_autoMode == UsbPlan::WriteMode::Files
            ? QStringLiteral("Several sticks are written as disk images; files mode takes one "
                             "stick at a time.")
            : m_reason);
}

void CBurnDialog::ShowModeOptions()
{
    const bool files = ChosenMode() == UsbPlan::WriteMode::Files;
    for (QWidget* option : m_filesOptions)
        option->setVisible(files);
    for (QWidget* option : m_imageOptions)
        option->setVisible(!files);
    for (QWidget* option : m_checksumRow)
        option->setVisible(!files && !m_published.file.isEmpty());
    ShowChecksums();
}

void CBurnDialog::ShowChecksums()
{
    const QString grey =
        QStringLiteral("color: #90A4AE; font-family: \"Noto Sans\"; font-size: 12px;");
    if (m_sha256.isEmpty()) {
        m_imageHash->setStyleSheet(grey);
        m_imageHash->setText(QStringLiteral("Taken as the image is written"));
    } else {
        m_imageHash->setStyleSheet(QStringLiteral(
            "color: #37474F; font-family: \"DejaVu Sans Mono\", monospace; font-size: 12px;"));
        m_imageHash->setText(m_sha256);
    }
    m_checksumFile->setStyleSheet(grey);
    const QString sha256 = QString::fromLatin1(m_published.sha256);
    m_checksumFile->setText(
        m_sha256.isEmpty()
            ? QStringLiteral("%1, beside the image: compared with the image as it is written")
                  .arg(m_published.file)
        : m_sha256 == sha256
            ? QStringLiteral("%1, beside the image: the image matches it").arg(m_published.file)
            : QStringLiteral("%1, beside the image: the image does not match it")
                  .arg(m_published.file));
}

UsbPlan::WriteMode CBurnDialog::ChosenMode() const
{
    return UsbPlan::WriteMode(m_modelist->currentData().toInt());
}

void CBurnDialog::OnRadioSelected()
{
    const bool disc = m_rdvd->isChecked();
    for (QWidget* usbControl :
         {static_cast<QWidget*>(m_usblist), static_cast<QWidget*>(m_modelist),
          static_cast<QWidget*>(m_ptlist), static_cast<QWidget*>(m_sysfilelist),
          static_cast<QWidget*>(m_volumelab)})
        usbControl->setEnabled(!disc);
    m_dvdlist->setEnabled(disc);
    UpdateRestore();
    // Both refills keep their list's selection themselves.
    InitializeUSBAndDVDComboBox(kBothLists);
    // A GPT choice keeps the file system fixed while the USB controls return.
    if (!disc) {
        OnMBRSelect();
        ShowMode();
    }
}

void CBurnDialog::OnVolumeLabTextChange(const QString& text)
{
    const QString upper = text.toUpper();
    if (upper == text)
        return;
    // Typing in the middle of the label keeps the cursor where it was.
    const int cursor = m_volumelab->cursorPosition();
    m_volumelab->setText(upper);
    m_volumelab->setCursorPosition(cursor);
}

void CBurnDialog::OnMBRSelect()
{
    if (m_ptlist->currentIndex() == 1) {
        m_sysfilelist->setEnabled(false);
        m_sysfilelist->setCurrentIndex(0);
    } else {
        m_sysfilelist->setEnabled(m_rusb->isChecked());
    }
}

void CBurnDialog::keyPressEvent(QKeyEvent* event)
{
    // Escape would reject the dialog the page is built on and leave it hidden.
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    ImageDialog::keyPressEvent(event);
}
