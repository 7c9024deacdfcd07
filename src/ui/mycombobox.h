#pragma once

#include <QComboBox>

// The combo box of the burn dialog's drive list.
class CMyComboBox final : public QComboBox
{
    Q_DISABLE_COPY_MOVE(CMyComboBox)

public:
    explicit CMyComboBox(QWidget* parent = nullptr) : QComboBox(parent) {}
};
