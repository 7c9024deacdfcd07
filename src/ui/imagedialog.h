#pragma once

#include <QDialog>
#include <QList>
#include <QPoint>
#include <QRegion>
#include <QString>

class QColor;
class QImage;
class QPainter;

// The base of every Brenta window and page: a frameless, translucent dialog
// that paints a background picture, takes the picture's size, and can be
// dragged by any point of its background.
//
// Every window but the main one is a dialog kept above the main window
// (transient for it), so it has no taskbar entry of its own. Where the window
// system does not composite, a translucent window would show black where its
// picture is transparent (rounded corners, shadows), so it is cut to the
// picture's shape instead.
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

    // The window the others stay above; set once by the main window.
    static void SetMainWindow(ImageDialog* window);
    // Whether windows are cut to their picture's shape: by default when the
    // platform is X11 and no compositing manager runs.
    static bool Shaped();
    static void SetShaped(bool shaped);
    // The part of an image that a window cut to its shape keeps: the pixels
    // at least half opaque.
    static QRegion ShapeOf(const QImage& rendered);

    QString BackgroundImage() const { return m_background; }
    bool IsMovable() const { return m_movable; }
    bool IsDragging() const { return m_dragging; }

protected:
    // Tab goes through `widgets` in the order given.
    static void SetTabChain(const QList<QWidget*>& widgets);

    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    void PaintBackground(QPainter& painter) const;
    void UpdateShape();

    QString m_background;
    int m_bandTop = -1;
    int m_bandBottom = -1;
    bool m_movable = false;
    bool m_dragging = false;
    bool m_dragStarted = false;
    QPoint m_pressGlobal;
    QPoint m_dragOffset;
};
