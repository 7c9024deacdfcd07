#pragma once

#include "ui/commdialog.h"

class QLabel;
class QProgressBar;

// Progress of a long operation: a text, a bar showing its percentage, and
// Stop. Shown without exec() and application-modal, so the page keeps running.
// Stop hides the dialog and then emits SigCancel(); the page stops the work.
class CProgressDialog final : public CommDialog
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CProgressDialog)

public:
    explicit CProgressDialog(QWidget* parent = nullptr);

    void SetRange(int minimum, int maximum);
    void SetValue(int value);
    void DisableStop();
    // Lines under the bar (one for each part of the work, say); the dialog
    // grows to hold them, and an empty text takes them away.
    void SetDetail(const QString& text);
    QLabel* Detail() const { return m_detail; }

    QString PercentText() const;
    QProgressBar* Bar() const { return m_bar; }

    // "45%" for whole percentages, otherwise two decimals ("25.50%").
    static QString FormatPercent(double percent);

Q_SIGNALS:
    void SigCancel();

public Q_SLOTS:
    void OnBtnCancel() override;

private:
    QProgressBar* m_bar = nullptr;
    QLabel* m_detail = nullptr;
    int m_minimum = 0;
    int m_maximum = 100;
};
