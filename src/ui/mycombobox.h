#pragma once

#include <QComboBox>

// A combo box that reports a left-button press on itself before opening its list.
class CMyComboBox final : public QComboBox
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CMyComboBox)

public:
    explicit CMyComboBox(QWidget* parent = nullptr) : QComboBox(parent) {}

Q_SIGNALS:
    void dropdownclicked();

protected:
    void mousePressEvent(QMouseEvent* event) override;
};
