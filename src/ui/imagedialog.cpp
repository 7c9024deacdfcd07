#include "ui/imagedialog.h"

#include <QApplication>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>

#include "core/logging.h"

ImageDialog::ImageDialog(bool /*hasParent*/) : QDialog(nullptr)
{
    setWindowTitle(QStringLiteral("Brenta"));
    setModal(true);
    setWindowFlags(Qt::FramelessWindowHint);
    setAutoFillBackground(false);
    setAttribute(Qt::WA_TranslucentBackground, true);
}

ImageDialog::~ImageDialog() = default;

void ImageDialog::SetBackgroundImage(const QString& path)
{
    if (path.isEmpty())
        return;
    const QPixmap picture(path);
    if (picture.isNull()) {
        qCWarning(lcUi) << "cannot load the picture" << path;
        return;
    }
    setFixedSize(picture.size());
    m_background = path;
    update();
}

void ImageDialog::SetBackgroundColor(const QColor& color)
{
    QPalette colours = palette();
    colours.setBrush(QPalette::All, QPalette::Window, QBrush(color));
    setPalette(colours);
    setAutoFillBackground(true);
}

void ImageDialog::SetMovable(bool movable)
{
    m_movable = movable;
}

void ImageDialog::mousePressEvent(QMouseEvent* event)
{
    m_dragging = true;
    m_dragStarted = false;
    m_pressGlobal = event->globalPosition().toPoint();
    m_dragOffset = m_pressGlobal - pos();
    QDialog::mousePressEvent(event);
}

void ImageDialog::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_dragging || event->buttons() == Qt::NoButton || !m_movable)
        return;
    const QPoint global = event->globalPosition().toPoint();
    // The drag starts once the cursor has travelled the platform's drag
    // distance since the press; from then on the window follows every move.
    if (!m_dragStarted) {
        if ((global - m_pressGlobal).manhattanLength() <= QApplication::startDragDistance())
            return;
        m_dragStarted = true;
    }
    move(global - m_dragOffset);
    m_dragOffset = global - pos();
}

void ImageDialog::mouseReleaseEvent(QMouseEvent* event)
{
    m_dragging = false;
    m_dragStarted = false;
    QDialog::mouseReleaseEvent(event);
}

void ImageDialog::paintEvent(QPaintEvent* event)
{
    if (m_background.isEmpty()) {
        QDialog::paintEvent(event);
        return;
    }
    QPainter painter(this);
    const QPixmap picture(m_background);
    const int pictureHeight = picture.height();
    if (m_bandTop < 0 || height() <= pictureHeight || m_bandBottom > pictureHeight) {
        painter.drawPixmap(rect(), picture);
        return;
    }
    const int below = pictureHeight - m_bandBottom;
    painter.drawPixmap(QRect(0, 0, width(), m_bandTop), picture, QRect(0, 0, picture.width(), m_bandTop));
    painter.drawPixmap(QRect(0, m_bandTop, width(), height() - below - m_bandTop), picture,
                       QRect(0, m_bandTop, picture.width(), m_bandBottom - m_bandTop));
    painter.drawPixmap(QRect(0, height() - below, width(), below), picture,
                       QRect(0, m_bandBottom, picture.width(), below));
}

void ImageDialog::SetStretchBand(int top, int bottom)
{
    m_bandTop = top;
    m_bandBottom = bottom;
    update();
}
