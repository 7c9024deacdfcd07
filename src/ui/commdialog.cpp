#include "ui/commdialog.h"

#include <QKeyEvent>
#include <QLabel>

#include "core/util.h"
#include "ui/baseimagectrl.h"

namespace {

constexpr int kWidth = 420;
constexpr int kHeight = 188;
constexpr int kLabelWidth = 351;
constexpr int kLabelHeight = 41;
constexpr int kButtonsY = 140;
constexpr int kMaxGrowth = 320;

} // namespace

CommDialog::CommDialog(QWidget* /*parent*/) : ImageDialog(false)
{
    setObjectName(QStringLiteral("CommDialog"));
    resize(420, 188);

    m_btnclose = new CImageButton(this);
    m_btnclose->setObjectName(QStringLiteral("btnclose"));
    m_btnclose->move(382, 10);
    m_btnok = new CImageButton(this);
    m_btnok->setObjectName(QStringLiteral("btnok"));
    m_btnok->move(80, 140);
    m_btncancel = new CImageButton(this);
    m_btncancel->setObjectName(QStringLiteral("btncancel"));
    m_btncancel->move(260, 140);
    m_label = new QLabel(this);
    m_label->setObjectName(QStringLiteral("label"));
    m_label->setGeometry(40, 70, 351, 41);
    m_label->setStyleSheet(QStringLiteral("font:13px;\ncolor:#606060;"));
    m_label->setWordWrap(false);
    m_label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_label->setText(tr("TextLabel"));

    setWindowTitle(QStringLiteral("Brenta"));
    SetMovable(true);
    setModal(true);
    SetBackgroundImage(QStringLiteral(":/nwu/commdialogbg"));
    SetStretchBand(60, 120);

    m_btnclose->SetImages(
        QStringLiteral(":/nwu/close_small_1"), QStringLiteral(":/nwu/close_small_2"),
        QStringLiteral(":/nwu/close_small_3"), QStringLiteral(":/nwu/close_small_3"));
    m_btnok->SetImages(QStringLiteral(":/nwu/OK1"), QStringLiteral(":/nwu/OK2"),
                       QStringLiteral(":/nwu/OK3"), QStringLiteral(":/nwu/OK3"));
    m_btncancel->SetImages(QStringLiteral(":/nwu/NO_1"), QStringLiteral(":/nwu/NO_2"),
                           QStringLiteral(":/nwu/NO_3"), QStringLiteral(":/nwu/NO_3"));

    connect(m_btncancel, qOverload<>(&CImageButton::clicked), this, &CommDialog::OnBtnCancel);
    connect(m_btnclose, qOverload<>(&CImageButton::clicked), this, &CommDialog::OnBtnClose);
    connect(m_btnok, qOverload<>(&CImageButton::clicked), this, &CommDialog::OnBtnOK);
}

void CommDialog::SetText(const QString& text)
{
    m_label->setText(text);
    if (!m_label->wordWrap())
        return;
    // A long message (a tool's own words, say) makes the dialog taller
    // instead of being cut off; the white middle of the picture stretches.
    m_label->ensurePolished();
    const int grow = qBound(0, m_label->heightForWidth(kLabelWidth) - kLabelHeight, kMaxGrowth);
    m_label->setFixedHeight(kLabelHeight + grow);
    m_btnok->move(m_btnok->x(), kButtonsY + grow);
    m_btncancel->move(m_btncancel->x(), kButtonsY + grow);
    setFixedSize(kWidth, kHeight + grow);
}

void CommDialog::SetWordWrap()
{
    m_label->setWordWrap(true);
}

void CommDialog::SetSingleButton()
{
    m_btncancel->hide();
    m_btnok->move((width() - m_btnok->width()) / 2, m_btnok->y());
}

void CommDialog::SetOpenFolder(const QString& folder)
{
    m_folder = folder;
    m_btncancel->SetImages(
        QStringLiteral(":/nwu/Open-Folder1"), QStringLiteral(":/nwu/Open-Folder2"),
        QStringLiteral(":/nwu/Open-Folder2"), QStringLiteral(":/nwu/Open-Folder3"));
}

void CommDialog::OnBtnCancel()
{
    if (!m_folder.isEmpty()) {
        Util::OpenFolder(m_folder);
        return;
    }
    reject();
}

void CommDialog::keyPressEvent(QKeyEvent* event)
{
    const bool enter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (enter && m_btnok->isVisible() && m_btnok->isEnabled()) {
        OnBtnOK();
        return;
    }
    ImageDialog::keyPressEvent(event);
}

void CommDialog::OnBtnOK()
{
    accept();
}

void CommDialog::OnBtnClose()
{
    reject();
}
