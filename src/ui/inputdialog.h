#pragma once

#include "ui/commdialog.h"

class QLineEdit;

// Asks for one line of text (a new name), given and returned trimmed.
class CInputDialog final : public CommDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CInputDialog)

public:
    explicit CInputDialog(QWidget* parent = nullptr);

    void SetInputText(const QString& text);
    QString GetInputText() const;
    QLineEdit* Edit() const { return m_edit; }

private:
    QLineEdit* m_edit = nullptr;
};
