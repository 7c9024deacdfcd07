#include "pages/page5.h"

#include <QComboBox>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLineEdit>

#include "core/util.h"
#include "media/disctools.h"
#include "pages/opticallist.h"
#include "ui/baseimagectrl.h"
#include "ui/progressdialog.h"

CPage5::CPage5(QWidget* /*mainWindow*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("CPage5"));
    setWindowTitle(QStringLiteral("Dialog"));
    SetBackgroundImage(QStringLiteral(":/nwu/page5"));

    m_dvdlist = new QComboBox(this);
    m_dvdlist->setObjectName(QStringLiteral("dvdlist"));
    m_dvdlist->setGeometry(20, 147, 476, 26);
    auto* eject = MakePictureButton(this, "eject", QStringLiteral(":/nwu/refresh"), 508, 147);
    eject->setToolTip(QStringLiteral("Eject the disc"));
    m_formatlist = new QComboBox(this);
    m_formatlist->setObjectName(QStringLiteral("formatlist"));
    m_formatlist->setGeometry(159, 270, 191, 27);
    m_formatlist->addItem(QStringLiteral("ISO Format"));
    m_lineEdit = new QLineEdit(this);
    m_lineEdit->setObjectName(QStringLiteral("lineEdit"));
    m_lineEdit->setGeometry(20, 334, 476, 28);
    m_lineEdit->setReadOnly(true);
    auto* browser =
        MakePictureButton(this, "browser", QStringLiteral(":/nwu/filedialog"), 508, 334);
    auto* back = MakePictureButton(this, "back", QStringLiteral(":/nwu/backwhite"), 10, 417);
    auto* start = MakePictureButton(this, "start", QStringLiteral(":/nwu/start"), 546, 417);
    SetTabChain({m_dvdlist, eject, m_formatlist, m_lineEdit, browser, back, start});

    m_progress = new CProgressDialog;
    m_drives = new COpticalList(m_dvdlist);
    m_copy = new CDiscCopyJob(this);
    m_eject = new CEjectJob(this);
    connect(m_drives, &COpticalList::filled, this, &CPage5::opticalListFilled);
    connect(m_copy, &CJob::progressed, this, &CPage5::OnReadProgress);
    connect(m_copy, &CDiscCopyJob::finished, this, &CPage5::OnReadFinished);
    connect(m_eject, &CEjectJob::finished, this, [this](bool succeeded, const QString& message) {
        if (!succeeded)
            Util::ShowMessage(message);
        Q_EMIT ejectFinished(succeeded);
    });

    connect(browser, qOverload<>(&CImageButton::clicked), this, &CPage5::OnBrowser);
    connect(back, qOverload<>(&CImageButton::clicked), this, &CPage5::OnBack);
    connect(start, qOverload<>(&CImageButton::clicked), this, &CPage5::OnStart);
    connect(eject, qOverload<>(&CImageButton::clicked), this, &CPage5::OnEject);
    connect(m_progress, &CProgressDialog::SigCancel, this, &CPage5::StopCreate);

    InitializeDVDComboBox();
}

CPage5::~CPage5()
{
    delete m_progress;
}

bool CPage5::IsScanning() const
{
    return m_drives->IsScanning();
}

bool CPage5::IsCopying() const
{
    return m_copying;
}

void CPage5::OnBrowser()
{
    m_lineEdit->setText(Util::SaveFileDialog(this, QStringLiteral("ISO Files(*.ISO)")));
}

void CPage5::OnStart()
{
    if (m_dvdlist->currentIndex() < 0) {
        Util::ShowMessage(
            QStringLiteral("No CD/DVD drive found. Connect a drive and insert the disc to copy."));
        return;
    }
    if (m_lineEdit->text().isEmpty()) {
        Util::ShowMessage(QStringLiteral("Please select the iso file to save."));
        return;
    }
    m_output = m_lineEdit->text();
    m_reading = false;
    m_progress->SetText(QStringLiteral("Start reading..."));
    m_progress->SetRange(0, 100);
    m_progress->SetValue(0);
    m_progress->show();
    m_copying = true;
    // Start() ends a reading still under way first.
    m_copy->Start(m_dvdlist->currentData().toString(), m_output);
}

void CPage5::OnReadProgress(int percent)
{
    if (percent >= 100) {
        m_progress->SetText(QStringLiteral("Reading is completed,please wait a few seconds..."));
    } else if (!m_reading) {
        // The reader has told the disc's size and begun.
        m_reading = true;
        m_progress->SetText(QStringLiteral("Reading Disc..."));
    }
    m_progress->SetValue(percent);
}

void CPage5::OnReadFinished(bool succeeded, const QString& message)
{
    m_copying = false;
    m_progress->hide();
    // A copy the user stopped confirms it, once the reader has ended and its
    // file is gone, saying what was removed.
    if (!succeeded && CJob::IsStoppedMessage(message)) {
        Util::ShowMessage(message);
        return;
    }
    if (succeeded)
        Util::ShowFinished(message, QFileInfo(m_output).absolutePath());
    else
        Util::ShowMessage(message);
    Q_EMIT copyFinished(succeeded);
}

void CPage5::StopCreate()
{
    // The job ends the reader and removes the incomplete image; its end
    // then says so.
    m_copying = false;
    m_copy->Stop();
    m_progress->hide();
}

void CPage5::OnEject()
{
    if (m_dvdlist->currentIndex() < 0)
        return;
    m_eject->Start(m_dvdlist->currentData().toString());
}

void CPage5::InitializeDVDComboBox()
{
    m_drives->Refill();
}

void CPage5::OnBack()
{
    StopCreate();
    hide();
    deleteLater();
}

void CPage5::keyPressEvent(QKeyEvent* event)
{
    // Escape would reject the dialog the page is built on and leave it hidden.
    if (event->key() == Qt::Key_Escape) {
        event->accept();
        return;
    }
    ImageDialog::keyPressEvent(event);
}
