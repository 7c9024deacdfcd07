#pragma once

#include <QString>

#include "ui/imagedialog.h"

class CDiscCopyJob;
class CEjectJob;
class CImageButton;
class COpticalList;
class CProgressDialog;
class QComboBox;
class QLineEdit;

// The copy page: reads the disc in an optical drive into an image file, with
// progress and Stop, and opens the drive's tray.
class CPage5 final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CPage5)

public:
    // The main window that opens the page connects its sigdrivechange() to
    // InitializeDVDComboBox().
    explicit CPage5(QWidget* mainWindow = nullptr);
    ~CPage5() override;

    CProgressDialog* Progress() const { return m_progress; }
    bool IsScanning() const;
    bool IsCopying() const;

Q_SIGNALS:
    // An optical refill has ended: every drive it found is in the list.
    void opticalListFilled();
    // A copy has ended on its own and the page has said how it went.
    void copyFinished(bool succeeded);
    // An eject has ended and a failure has been shown.
    void ejectFinished(bool succeeded);

public Q_SLOTS:
    void OnBrowser();
    void OnStart();
    void OnEject();
    void InitializeDVDComboBox();
    void OnReadProgress(int percent);
    void OnReadFinished(bool succeeded, const QString& message);
    void StopCreate();
    void OnBack();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    QComboBox* m_dvdlist = nullptr;
    QComboBox* m_formatlist = nullptr;
    QLineEdit* m_lineEdit = nullptr;
    CProgressDialog* m_progress = nullptr;
    COpticalList* m_drives = nullptr;
    CDiscCopyJob* m_copy = nullptr;
    CEjectJob* m_eject = nullptr;
    // A copy runs that the user has not stopped.
    bool m_copying = false;
    QString m_output;
    // The reader has begun reading the disc.
    bool m_reading = false;
};
