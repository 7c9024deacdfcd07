#pragma once

#include <QLineEdit>
#include <QString>

// A line edit with a clickable picture inside it (the search box's
// magnifier). A release over the picture, or Return, emits OnClicked().
class CLineEdit final : public QLineEdit
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CLineEdit)

public:
    explicit CLineEdit(QWidget* parent = nullptr) : QLineEdit(parent) {}

    // x or y below zero count from the right or bottom edge.
    void SetImages(const QString& normal, const QString& hover, const QString& pressed, int x,
                   int y);
    QRect PictureArea() const;

Q_SIGNALS:
    void OnClicked();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    QString CurrentPicture() const;

    QString m_normal;
    QString m_hover;
    QString m_pressed;
    int m_x = 0;
    int m_y = 0;
    QPoint m_cursor{-1, -1};
    bool m_leftDown = false;
};
