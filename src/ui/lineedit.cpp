#include "ui/lineedit.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>

#include <cstdlib>

void CLineEdit::SetImages(const QString& normal, const QString& hover, const QString& pressed,
                          int x, int y)
{
    m_normal = normal;
    m_hover = hover;
    m_pressed = pressed;
    m_x = x;
    m_y = y;
    update();
}

QRect CLineEdit::PictureArea() const
{
    const int left = m_x < 0 ? width() + m_x : m_x;
    const int top = m_y < 0 ? height() + m_y : m_y;
    const int side = height() - 2 * std::abs(m_y);
    return QRect(left, top, side, side);
}

QString CLineEdit::CurrentPicture() const
{
    if (m_pressed.isEmpty())
        return hasFocus() ? m_hover : m_normal;
    if (!PictureArea().contains(m_cursor))
        return m_normal;
    return m_leftDown ? m_pressed : m_hover;
}

void CLineEdit::paintEvent(QPaintEvent* event)
{
    QLineEdit::paintEvent(event);
    const QString picture = CurrentPicture();
    if (picture.isEmpty())
        return;
    QPainter painter(this);
    painter.drawPixmap(PictureArea().topLeft(), QPixmap(picture));
}

void CLineEdit::mousePressEvent(QMouseEvent* event)
{
    m_cursor = event->position().toPoint();
    m_leftDown = event->button() == Qt::LeftButton;
    update();
}

void CLineEdit::mouseReleaseEvent(QMouseEvent* event)
{
    m_cursor = event->position().toPoint();
    m_leftDown = false;
    update();
    if (PictureArea().contains(m_cursor))
        Q_EMIT OnClicked();
}

void CLineEdit::mouseMoveEvent(QMouseEvent* event)
{
    m_cursor = event->position().toPoint();
    update();
}

void CLineEdit::enterEvent(QEnterEvent* event)
{
    m_cursor = event->position().toPoint();
    update();
}

void CLineEdit::leaveEvent(QEvent* /*event*/)
{
    m_cursor = QPoint(-1, -1);
    update();
}

void CLineEdit::keyPressEvent(QKeyEvent* event)
{
    QLineEdit::keyPressEvent(event);
    if (event->key() == Qt::Key_Return)
        Q_EMIT OnClicked();
}
