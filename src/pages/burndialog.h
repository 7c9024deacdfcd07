#pragma once

#include <QHash>
#include <QList>
#include <QString>

#include "iso/itemtree.h"
#include "media/usbburn.h"
#include "ui/imagedialog.h"

class CDiscBurnJob;
class CImageButton;
class CListJob;
class CCheckComboBox;
class CMyComboBox;
class COpticalList;
class CProgressDialog;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QRadioButton;

// The burn page: writes an image to a CD/DVD or to one or several USB
// sticks. The optical list is filled by a bus scan that runs beside the
// window, the removable list from the system's USB disks; both keep their
// selection, by device node, across refills. For a USB burn the page shows
// the way the image will go onto the stick (UsbPlan::ChooseMode) with its
// reason, lets the user pick the other way, and shows only the options that
// way uses. Several ticked sticks take the image as it is, all from one read
// of it (CUsbMultiBurnJob).
class CBurnDialog final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CBurnDialog)

public:
    // The main window that opens the page connects its sigdrivechange() to
    // InitializeUSBAndDVDComboBox(), so the lists follow drives plugged in and out.
    explicit CBurnDialog(QWidget* mainWindow = nullptr);
    ~CBurnDialog() override;

    CProgressDialog* Progress() const { return m_progress; }
    // The end of a burn to several sticks, a line for each: "burned and
    // verified", or its failure (`failures`: device → the job's message).
    // `publishedFile`: the checksum file the image was compared with.
    static QString SticksResultText(const QStringList& devices,
                                    const QHash<QString, QString>& failures,
                                    const QString& publishedFile);
    bool IsScanning() const;

Q_SIGNALS:
    // An optical refill has ended: every drive it found is in the list.
    void opticalListFilled();
    // A disc burn has ended and the page has said how it went.
    void burnFinished(bool succeeded);
    // A USB burn or restore has ended: written (and checked), failed (the
    // page has said why), or given up before anything was written.
    void usbBurnFinished(bool succeeded);
    // The USB mode and its reason are on the page for the chosen image.
    void modeShown();

public Q_SLOTS:
    void onBrowser();
    void onBurn();
    // Gives the chosen stick back as an ordinary one, with the file system
    // and label of files mode (FAT32 and no label when they are hidden).
    void onRestore();
    void onBack();
    // 0 both lists, 1 the optical list, 2 the removable list; else nothing.
    void InitializeUSBAndDVDComboBox(int type);
    void InitializeUSBAndDVDComboBox();
    void OnRadioSelected();
    void OnVolumeLabTextChange(const QString& text);
    void OnMBRSelect();
    void onDVDBurnFinished(bool succeeded, const QString& message);
    void onDVDBurnOutput(int percent);
    void onUSBPlanned(bool ok, const QString& message);
    // `percent` -1: a busy bar.
    void onUSBBurnProgress(int percent, const QString& phase);
    void onUSBBurnFinished(bool succeeded, const QString& message);
    void onUSBBurnTransfer(const QString& text);
    void onSticksPlanned(bool ok, const QString& message);
    // Several sticks: a line for each under the progress bar.
    void onStickProgress(const QString& device, int percent);
    void onStickFinished(const QString& device, bool succeeded, const QString& message);
    // The image's SHA-256 in the plan, once the burn has read all of it.
    void onImageHashed(const QString& sha256);

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    // Reads the chosen image's first sectors and shows the mode it goes in;
    // nothing when the image has not changed since.
    void ShowMode();
    void OnModeListed();
    void ShowModeOptions();
    // The mode list and Restore for one ticked stick or several.
    void OnSticksTicked();
    void ShowReason();
    void ShowChecksums();
    void ShowStickLines();
    void UpdateRestore();
    // Whether a planned burn goes on: it can, and the user accepts its
    // warnings. Otherwise the page has ended showing it.
    bool GoOn(bool ok, const QString& message, const UsbPlan::Decision& decision, bool several);
    UsbPlan::WriteMode ChosenMode() const;
    void RefillRemovable();
    void BurnToUsb(const QString& image);
    void BurnToSticks(const QString& image, const QStringList& devices);
    void BurnToDisc(const QString& image);
    void SetButtonsEnabled(bool enabled);
    void StartShowingBurn(const QString& text, int maximum);
    void EndShowingBurn(const QString& message);

    QLineEdit* m_isofile = nullptr;
    CImageButton* m_browser = nullptr;
    QRadioButton* m_rdvd = nullptr;
    CMyComboBox* m_dvdlist = nullptr;
    QRadioButton* m_rusb = nullptr;
    CCheckComboBox* m_usblist = nullptr;
    QComboBox* m_modelist = nullptr;
    QLabel* m_modereason = nullptr;
    QComboBox* m_ptlist = nullptr;
    QComboBox* m_sysfilelist = nullptr;
    QLineEdit* m_volumelab = nullptr;
    QPushButton* m_restore = nullptr;
    QList<QWidget*> m_filesOptions; // with their labels; hidden in disk image mode
    QLabel* m_imageHash = nullptr;
    QLabel* m_checksumFile = nullptr;
    QList<QWidget*> m_imageOptions; // shown in disk image mode only
    QList<QWidget*> m_checksumRow;  // and where the image has a published checksum
    CImageButton* m_back = nullptr;
    CImageButton* m_burn = nullptr;
    CProgressDialog* m_progress = nullptr;
    COpticalList* m_drives = nullptr;
    CDiscBurnJob* m_burnJob = nullptr;
    CUsbBurnJob* m_usbJob = nullptr;
    CUsbMultiBurnJob* m_sticksJob = nullptr;
    // The mode shown is for m_modeImage, whose first sectors are m_head; the
    // listing gives the reason for files mode. m_modeChosen: the user picked
    // the mode, so the burn does not choose again. m_oneStickMode: the mode
    // for one stick, shown again when several are no longer ticked.
    CListJob* m_modeLister = nullptr;
    ItemTree m_modeTree;
    QString m_modeImage;
    QByteArray m_head;
    bool m_modeChosen = false;
    UsbPlan::WriteMode m_autoMode = UsbPlan::WriteMode::Files;
    UsbPlan::WriteMode m_oneStickMode = UsbPlan::WriteMode::Files;
    QString m_reason;
    // The image's SHA-256 once a burn has read it, and the published checksum
    // file beside it, for m_modeImage.
    QString m_sha256;
    UsbBurn::PublishedChecksum m_published;
    // The sticks being burned at once, and what each line under the bar says.
    QStringList m_burnSticks;
    QHash<QString, QString> m_stickStates;
    QHash<QString, QString> m_stickFailures;
    QStringList m_sticksDone;
    QString m_phaseText;
};
