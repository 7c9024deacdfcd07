#pragma once

#include <QString>

#include "ui/imagedialog.h"

class CImageButton;
class QLabel;

// The message dialog: a text, OK, Cancel and a small close button on the
// "commdialogbg" picture. exec() gives Accepted after OK and Rejected after
// Cancel or close. Cancel can be turned into an Open Folder button.
class CommDialog : public ImageDialog
{
    Q_OBJECT

public:
    explicit CommDialog(QWidget* parent = nullptr);

    void SetText(const QString& text);
    void SetWordWrap();
    void SetSingleButton();
    void SetOpenFolder(const QString& folder);

    QLabel* Label() const { return m_label; }
    CImageButton* OkButton() const { return m_btnok; }
    CImageButton* CancelButton() const { return m_btncancel; }
    CImageButton* CloseButton() const { return m_btnclose; }

public Q_SLOTS:
    virtual void OnBtnCancel();
    virtual void OnBtnOK();
    virtual void OnBtnClose();

protected:
    // Enter presses OK where it is shown (in the name prompt too, after
    // typing); Escape keeps its meaning.
    void keyPressEvent(QKeyEvent* event) override;

    QLabel* m_label = nullptr;
    CImageButton* m_btnclose = nullptr;
    CImageButton* m_btnok = nullptr;
    CImageButton* m_btncancel = nullptr;

private:
    QString m_folder;
};
