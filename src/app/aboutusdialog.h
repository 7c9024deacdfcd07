#pragma once

#include "ui/imagedialog.h"

class CImageButton;
class QLabel;

// The about dialog: logo, name, version and the product page link.
class CAboutusDialog final : public ImageDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CAboutusDialog)

public:
    explicit CAboutusDialog(QWidget* parent = nullptr);

    CImageButton* CloseButton() const { return m_close; }

public Q_SLOTS:
    void openUrl(const QString& url);

private:
    CImageButton* m_close = nullptr;
    QLabel* m_label = nullptr;
};
