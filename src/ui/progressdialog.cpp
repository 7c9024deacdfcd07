#include "ui/progressdialog.h"

#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QProgressBar>

#include "ui/baseimagectrl.h"

namespace {

// The bar in Brenta's colours: a light track, a green fill and the percent
// text inset from the left edge (a style sheet cannot move the text).
class CSkinnedProgressBar final : public QProgressBar
{
public:
    explicit CSkinnedProgressBar(QWidget* parent) : QProgressBar(parent) {}

protected:
    void paintEvent(QPaintEvent* /*event*/) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF track = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
        QPainterPath outline;
        outline.addRoundedRect(track, 4, 4);
        painter.fillPath(outline, QColor(0xFF, 0xFF, 0xFF));

        const qint64 span = qint64(maximum()) - minimum();
        const double share = span <= 0 ? 0.0 : double(value() - minimum()) / double(span);
        if (share > 0) {
            QPainterPath fill;
            fill.addRoundedRect(
                QRectF(track.left(), track.top(), track.width() * share, track.height()), 4, 4);
            painter.fillPath(fill.intersected(outline), QColor(0x67, 0xd9, 0x95));
        }
        painter.setPen(QPen(QColor(0xC2, 0xEF, 0xFD), 1));
        painter.drawPath(outline);

        QFont font = painter.font();
        font.setPixelSize(12);
        font.setBold(true);
        painter.setFont(font);
        painter.setPen(QColor(0x40, 0x40, 0x40));
        painter.drawText(rect().adjusted(8, 0, -8, 0), int(alignment()), text());
    }
};

} // namespace

CProgressDialog::CProgressDialog(QWidget* parent) : CommDialog(parent)
{
    setModal(false);
    setWindowModality(Qt::ApplicationModal);
    m_btnclose->hide();
    m_btnok->hide();

    m_bar = new CSkinnedProgressBar(this);
    m_bar->setGeometry(40, 100, 360, 20);
    m_bar->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_label->move(40, 60);
    m_label->resize(340, 25);
    m_detail = new QLabel(this);
    m_detail->setObjectName(QStringLiteral("detail"));
    m_detail->setStyleSheet(QStringLiteral("font:12px;\ncolor:#606060;"));
    m_detail->hide();

    m_btncancel->SetImages(QStringLiteral(":/nwu/Stop1"), QStringLiteral(":/nwu/Stop2"),
                           QStringLiteral(":/nwu/Stop3"), QStringLiteral(":/nwu/Stop4"));
    m_btncancel->move(325, 140);
    SetRange(0, 100);
    SetValue(0);
}

void CProgressDialog::SetRange(int minimum, int maximum)
{
    // An empty range would turn the bar into a busy indicator without text;
    // the dialog shows 0% instead, so the bar keeps a range of one step.
    m_minimum = minimum;
    m_maximum = maximum;
    m_bar->setRange(minimum, maximum > minimum ? maximum : minimum + 1);
}

QString CProgressDialog::FormatPercent(double percent)
{
    QString text = QString::number(percent, 'f', 2) + QLatin1Char('%');
    if (text.endsWith(QLatin1String(".00%"))) {
        text.chop(4);
        text += QLatin1Char('%');
    }
    return text;
}

void CProgressDialog::SetValue(int value)
{
    m_bar->setValue(value);
    const double range = static_cast<double>(m_maximum) - m_minimum;
    const double percent =
        range <= 0 ? 0.0 : (static_cast<double>(m_bar->value()) - m_minimum) * 100.0 / range;
    m_bar->setFormat(FormatPercent(percent));
}

QString CProgressDialog::PercentText() const
{
    return m_bar->format();
}

void CProgressDialog::DisableStop()
{
    m_btncancel->setEnabled(false);
}

void CProgressDialog::SetDetail(const QString& text)
{
    constexpr int kWidth = 420;
    constexpr int kHeight = 188;
    constexpr int kStopY = 140;
    constexpr int kLineHeight = 18;
    m_detail->setText(text);
    m_detail->setVisible(!text.isEmpty());
    const int lines = text.isEmpty() ? 0 : int(text.count(QLatin1Char('\n'))) + 1;
    const int grow = lines == 0 ? 0 : lines * kLineHeight + 6;
    m_detail->setGeometry(40, 126, 360, lines * kLineHeight);
    m_btncancel->move(m_btncancel->x(), kStopY + grow);
    setFixedSize(kWidth, kHeight + grow);
}

void CProgressDialog::OnBtnCancel()
{
    hide();
    Q_EMIT SigCancel();
}
