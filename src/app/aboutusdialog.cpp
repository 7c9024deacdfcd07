#include "app/aboutusdialog.h"

#include <QDesktopServices>
#include <QLabel>
#include <QUrl>

#include "app/links.h"
#include "ui/baseimagectrl.h"

CAboutusDialog::CAboutusDialog(QWidget* /*parent*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("CAboutusDialog"));
    m_close = new CImageButton(this);
    m_close->setObjectName(QStringLiteral("close"));
    m_label = new QLabel(this);
    m_label->setObjectName(QStringLiteral("label"));

    SetBackgroundImage(QStringLiteral(":/nwu/about_us"));
    SetMovable(true);
    setWindowTitle(QStringLiteral("Brenta"));

    m_close->SetImages(QStringLiteral(":/nwu/close_small_1"), QStringLiteral(":/nwu/close_small_2"),
                       QStringLiteral(":/nwu/close_small_3"), QString());
    m_close->move(width() - m_close->width() - 1, 1);
    connect(m_close, qOverload<>(&CImageButton::clicked), this, &CAboutusDialog::close);

    const QString page = Links::ProductPage();
    m_label->setStyleSheet(QStringLiteral("font-size:12px;"));
    m_label->setTextFormat(Qt::RichText);
    m_label->setText(QStringLiteral("<a style=\"color:#67d995;\" href=\"%1\">%1</a>").arg(page));
    m_label->move(192, 112);
    m_label->adjustSize();
    connect(m_label, &QLabel::linkActivated, this, &CAboutusDialog::openUrl);
}

void CAboutusDialog::openUrl(const QString& url)
{
    QDesktopServices::openUrl(QUrl(url));
}
