#pragma once

#include <QComboBox>

// The optical drive list of the burn page.
class CMyComboBox final : public QComboBox
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CMyComboBox)

public:
    explicit CMyComboBox(QWidget* parent = nullptr) : QComboBox(parent) {}
};
