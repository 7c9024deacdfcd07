#include "ui/inputdialog.h"

#include <QLabel>
#include <QLineEdit>

CInputDialog::CInputDialog(QWidget* parent) : CommDialog(parent)
{
    m_edit = new QLineEdit(this);
    m_edit->setGeometry(40, 100, 360, 20);
    m_edit->setStyleSheet(
        QStringLiteral("QLineEdit { border: 1px solid #C2EFFD; border-radius: 3px; padding: 0 4px;"
                       " color: #606060; font: 13px; background: #FFFFFF; }"
                       "QLineEdit:focus { border-color: #1E88E5; }"));
    m_label->move(40, 60);
    m_label->resize(340, 25);
    m_label->setText(QStringLiteral("Please input the name:"));
    m_edit->setFocus();
}

void CInputDialog::SetInputText(const QString& text)
{
    m_edit->setText(text.trimmed());
    m_edit->selectAll();
}

QString CInputDialog::GetInputText() const
{
    return m_edit->text().trimmed();
}
