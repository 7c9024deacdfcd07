#pragma once

#include "ui/imagedialog.h"

class CImageButton;

// A notice whose message is drawn in its picture, with a close button in the
// top-right corner and an OK button.
class GerneralDialog final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(GerneralDialog)

public:
    explicit GerneralDialog(QWidget* parent = nullptr);

    void SetPicture(const QString& picture);
    // x = 0 centres the button horizontally.
    void AddOKButton(int y, int x = 0);

    CImageButton* CloseButton() const { return m_close; }
    CImageButton* OkButton() const { return m_ok; }

protected:
    // Enter presses OK, or closes a notice that has only its close button.
    void keyPressEvent(QKeyEvent* event) override;

private:
    CImageButton* m_close = nullptr;
    CImageButton* m_ok = nullptr;
};
