#pragma once

#include <QDialog>
#include <QPoint>
#include <QString>

class QColor;

// The base of every Brenta window and page: a frameless, translucent dialog
// that paints a background picture, takes the picture's size, and can be
// dragged by any point of its background.
class ImageDialog : public QDialog
{
    Q_OBJECT

public:
    // The argument is ignored: every ImageDialog starts as a top-level window;
    // whoever wants it embedded calls setParent() afterwards.
    explicit ImageDialog(bool hasParent = false);
    ~ImageDialog() override;

    void SetBackgroundImage(const QString& path);
    void SetBackgroundColor(const QColor& color);
    void SetMovable(bool movable);
    // When the window is taller than its picture, only the picture's rows
    // from `top` to `bottom` are stretched; above and below are drawn as they
    // are. Without a band the whole picture is scaled to the window.
    void SetStretchBand(int top, int bottom);

    QString BackgroundImage() const { return m_background; }
    bool IsMovable() const { return m_movable; }
    bool IsDragging() const { return m_dragging; }

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    QString m_background;
    int m_bandTop = -1;
    int m_bandBottom = -1;
    bool m_movable = false;
    bool m_dragging = false;
    bool m_dragStarted = false;
    QPoint m_pressGlobal;
    QPoint m_dragOffset;
};
