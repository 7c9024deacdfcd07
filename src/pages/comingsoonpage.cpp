#include "pages/comingsoonpage.h"

#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>

#include "ui/baseimagectrl.h"

namespace {

constexpr int kWidth = 664;
constexpr int kHeight = 472;
constexpr int kCornerRadius = 8;

} // namespace

CComingSoonPage::CComingSoonPage(Feature feature) : ImageDialog(false), m_feature(feature)
{
    setObjectName(QStringLiteral("CComingSoonPage"));
    setFixedSize(kWidth, kHeight);
    m_back = MakePictureButton(this, "back", QStringLiteral(":/nwu/Back"), 20, 0);
    m_back->move(20, kHeight - m_back->height() - 15);
    connect(m_back, qOverload<>(&CImageButton::clicked), this, &CComingSoonPage::OnBack);
}

namespace {

struct FeatureTexts
{
    CComingSoonPage::Feature feature;
    const char* title;
    const char* description;
    const char* tile; // the home page's button picture
};

const FeatureTexts kFeatures[] = {
    {CComingSoonPage::Feature::Burn, "Burn an image",
     "Write an ISO image to a USB drive, bootable if you like, or to a CD or DVD.", ":/nwu/mburn1"},
    {CComingSoonPage::Feature::Extract, "Extract files from an image",
     "Open an ISO image, browse its folders and extract the files you tick.", ":/nwu/Extract1"},
    {CComingSoonPage::Feature::Create, "Create an image",
     "Collect files and folders and build an ISO9660, Joliet or UDF image from them.", ":/nwu/Create1"},
    {CComingSoonPage::Feature::Edit, "Edit an image",
     "Add, rename and delete entries of an image and save it as a new one, boot setup included.",
     ":/nwu/Edit1"},
    {CComingSoonPage::Feature::Copy, "Copy a disc", "Read a CD or DVD into an ISO image file.",
     ":/nwu/Copy-Disc1"},
};

const FeatureTexts& textsOf(CComingSoonPage::Feature feature)
{
    for (const FeatureTexts& texts : kFeatures) {
        if (texts.feature == feature)
            return texts;
    }
    return kFeatures[0];
}

} // namespace

QString CComingSoonPage::Title() const
{
    return QLatin1String(textsOf(m_feature).title);
}

QString CComingSoonPage::Description() const
{
    return QLatin1String(textsOf(m_feature).description);
}

QString CComingSoonPage::TilePicture() const
{
    return QLatin1String(textsOf(m_feature).tile);
}

void CComingSoonPage::OnBack()
{
    hide();
    deleteLater();
}

void CComingSoonPage::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        OnBack();
        return;
    }
    ImageDialog::keyPressEvent(event);
}

void CComingSoonPage::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    // The page's bottom-right corner is the window's, which is rounded.
    QPainterPath page;
    page.moveTo(0, 0);
    page.lineTo(kWidth, 0);
    page.lineTo(kWidth, kHeight - kCornerRadius);
    page.quadTo(kWidth, kHeight, kWidth - kCornerRadius, kHeight);
    page.lineTo(0, kHeight);
    page.closeSubpath();
    painter.fillPath(page, QColor(0xF4, 0xFC, 0xFF));

    // The feature's own tile, so the page is recognisably the button's.
    const QPixmap tile(TilePicture());
    const QRect tileRect(QPoint((kWidth - tile.width()) / 2, 24), tile.size());
    painter.drawPixmap(tileRect.topLeft(), tile);

    const int textTop = tileRect.bottom() + 22;
    QFont title = font();
    title.setPixelSize(22);
    title.setBold(true);
    painter.setFont(title);
    painter.setPen(QColor(0x1E, 0x88, 0xE5));
    painter.drawText(QRect(40, textTop, kWidth - 80, 32), Qt::AlignHCenter | Qt::AlignVCenter, Title());

    QFont body = font();
    body.setPixelSize(14);
    painter.setFont(body);
    painter.setPen(QColor(0x60, 0x60, 0x60));
    painter.drawText(QRect(60, textTop + 38, kWidth - 120, 44),
                     Qt::AlignHCenter | Qt::AlignTop | Qt::TextWordWrap, Description());

    // The notice itself: a soft badge that says plainly the feature is coming.
    const QString notice = QStringLiteral("Coming soon: this feature arrives in a later version of Brenta.");
    QFont badgeFont = font();
    badgeFont.setPixelSize(13);
    badgeFont.setBold(true);
    painter.setFont(badgeFont);
    const int badgeWidth = QFontMetrics(badgeFont).horizontalAdvance(notice) + 36;
    const QRectF badge((kWidth - badgeWidth) / 2.0, textTop + 92, badgeWidth, 30);
    QPainterPath path;
    path.addRoundedRect(badge, 15, 15);
    painter.fillPath(path, QColor(0xE2, 0xF8, 0xFE));
    painter.setPen(QPen(QColor(0xC2, 0xEF, 0xFD), 1));
    painter.drawPath(path);
    painter.setPen(QColor(0x1E, 0x88, 0xE5));
    painter.drawText(badge, Qt::AlignCenter, notice);
}
