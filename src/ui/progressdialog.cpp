#include "ui/progressdialog.h"

#include <QLabel>
#include <QProgressBar>

#include "ui/baseimagectrl.h"

CProgressDialog::CProgressDialog(QWidget* parent) : CommDialog(parent)
{
    setModal(false);
    setWindowModality(Qt::ApplicationModal);
    m_btnclose->hide();
    m_btnok->hide();

    m_bar = new QProgressBar(this);
    m_bar->setGeometry(40, 100, 360, 20);
    m_bar->setAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    m_bar->setStyleSheet(QStringLiteral(
        "QProgressBar { border: 1px solid #C2EFFD; border-radius: 4px; background: #FFFFFF;"
        " color: #606060; font: 12px; padding-left: 6px; }"
        "QProgressBar::chunk { background: #67d995; border-radius: 3px; }"));
    m_label->move(40, 60);
    m_label->resize(340, 25);

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

bool CProgressDialog::IsComplete() const
{
    return m_bar->value() == m_maximum;
}

void CProgressDialog::OnBtnCancel()
{
    hide();
    Q_EMIT SigCancel();
}
