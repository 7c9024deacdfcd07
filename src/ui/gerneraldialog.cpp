#include "ui/gerneraldialog.h"

#include <QKeyEvent>

#include "ui/baseimagectrl.h"

GerneralDialog::GerneralDialog(QWidget* /*parent*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("GerneralDialog"));
    resize(400, 300);
    SetMovable(true);
    setWindowTitle(QStringLiteral("Brenta"));
}

void GerneralDialog::SetPicture(const QString& picture)
{
    SetBackgroundImage(picture);
    delete m_close;
    m_close = new CImageButton(this);
    m_close->SetImages(QStringLiteral(":/nwu/close_small_1"), QStringLiteral(":/nwu/close_small_2"),
                       QStringLiteral(":/nwu/close_small_3"), QString());
    m_close->move(width() - m_close->width() - 1, 1);
    connect(m_close, qOverload<>(&CImageButton::clicked), this, &GerneralDialog::close);
}

void GerneralDialog::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        if (m_ok != nullptr)
            accept();
        else
            close();
        return;
    }
    ImageDialog::keyPressEvent(event);
}

void GerneralDialog::AddOKButton(int y, int x)
{
    delete m_ok;
    m_ok = new CImageButton(this);
    m_ok->SetImages(QStringLiteral(":/nwu/OK_1"), QStringLiteral(":/nwu/OK_2"),
                    QStringLiteral(":/nwu/OK_3"), QString());
    if (x == 0)
        x = (width() - m_ok->width()) / 2;
    m_ok->move(x, y);
    connect(m_ok, qOverload<>(&CImageButton::clicked), this, &GerneralDialog::accept);
}
