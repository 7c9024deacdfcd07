#include "ui/imagedialog.h"

#include <QApplication>
#include <QBitmap>
#include <QImage>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>
#include <QPointer>
#include <QWindow>

#include <cstdlib>
#include <optional>

#include <xcb/xcb.h>

#include "core/logging.h"

namespace {

QPointer<ImageDialog> g_mainWindow;
std::optional<bool> g_shaped;

// A compositing manager owns the selection "_NET_WM_CM_S<screen>" while it runs.
bool x11Composites()
{
    const auto* x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    xcb_connection_t* connection = x11 ? x11->connection() : nullptr;
    if (connection == nullptr)
        return true;
    char* host = nullptr;
    int display = 0;
    int screen = 0;
    if (!xcb_parse_display(nullptr, &host, &display, &screen))
        screen = 0;
    free(host);
    const QByteArray name = "_NET_WM_CM_S" + QByteArray::number(screen);
    const xcb_intern_atom_cookie_t atomCookie =
        xcb_intern_atom(connection, 0, static_cast<uint16_t>(name.size()), name.constData());
    xcb_intern_atom_reply_t* atom = xcb_intern_atom_reply(connection, atomCookie, nullptr);
    if (atom == nullptr)
        return true;
    xcb_get_selection_owner_reply_t* owner = xcb_get_selection_owner_reply(
        connection, xcb_get_selection_owner(connection, atom->atom), nullptr);
    const bool composites = owner != nullptr && owner->owner != XCB_NONE;
    free(owner);
    free(atom);
    return composites;
}

} // namespace

ImageDialog::ImageDialog(bool /*hasParent*/) : QDialog(nullptr)
{
    setWindowTitle(QStringLiteral("Brenta"));
    setModal(true);
    // A page embedded in the main window drops these flags when it is given
    // its parent.
    setWindowFlags(Qt::Dialog | Qt::FramelessWindowHint);
    setAutoFillBackground(false);
    setAttribute(Qt::WA_TranslucentBackground, true);
}

ImageDialog::~ImageDialog() = default;

void ImageDialog::SetMainWindow(ImageDialog* window)
{
    g_mainWindow = window;
    if (window) {
        // The main window has its taskbar entry and blocks nothing.
        window->setWindowFlags(Qt::Window | Qt::FramelessWindowHint);
        window->setModal(false);
    }
}

bool ImageDialog::Shaped()
{
    if (!g_shaped)
        g_shaped = QGuiApplication::platformName() == QLatin1String("xcb") && !x11Composites();
    return *g_shaped;
}

void ImageDialog::SetShaped(bool shaped)
{
    g_shaped = shaped;
}

QRegion ImageDialog::ShapeOf(const QImage& rendered)
{
    const QImage alpha = rendered.convertToFormat(QImage::Format_ARGB32);
    return QRegion(QBitmap::fromImage(alpha.createAlphaMask(Qt::ThresholdAlphaDither)));
}

void ImageDialog::SetBackgroundImage(const QString& path)
{
    if (path.isEmpty())
        return;
    const QPixmap picture(path);
    if (picture.isNull()) {
        qCWarning(lcUi) << "cannot load the picture" << path;
        return;
    }
    m_background = path;
    setFixedSize(picture.size());
    UpdateShape();
    update();
}

void ImageDialog::SetBackgroundColor(const QColor& color)
{
    QPalette colours = palette();
    colours.setBrush(QPalette::All, QPalette::Window, QBrush(color));
    setPalette(colours);
    setAutoFillBackground(true);
}

void ImageDialog::SetTabChain(const QList<QWidget*>& widgets)
{
    for (qsizetype i = 1; i < widgets.size(); ++i)
        setTabOrder(widgets[i - 1], widgets[i]);
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
    PaintBackground(painter);
}

void ImageDialog::PaintBackground(QPainter& painter) const
{
    const QPixmap picture(m_background);
    const int pictureHeight = picture.height();
    if (m_bandTop < 0 || height() <= pictureHeight || m_bandBottom > pictureHeight) {
        painter.drawPixmap(rect(), picture);
        return;
    }
    const int below = pictureHeight - m_bandBottom;
    painter.drawPixmap(QRect(0, 0, width(), m_bandTop), picture,
                       QRect(0, 0, picture.width(), m_bandTop));
    painter.drawPixmap(QRect(0, m_bandTop, width(), height() - below - m_bandTop), picture,
                       QRect(0, m_bandTop, picture.width(), m_bandBottom - m_bandTop));
    painter.drawPixmap(QRect(0, height() - below, width(), below), picture,
                       QRect(0, m_bandBottom, picture.width(), below));
}

void ImageDialog::resizeEvent(QResizeEvent* event)
{
    QDialog::resizeEvent(event);
    UpdateShape();
}

void ImageDialog::showEvent(QShowEvent* event)
{
    if (isWindow() && g_mainWindow && g_mainWindow != this && windowHandle() == nullptr)
        create();
    if (isWindow() && g_mainWindow && g_mainWindow != this && windowHandle())
        windowHandle()->setTransientParent(g_mainWindow->windowHandle());
    UpdateShape();
    QDialog::showEvent(event);
}

void ImageDialog::UpdateShape()
{
    if (!isWindow() || m_background.isEmpty() || !Shaped()) {
        if (!mask().isEmpty())
            clearMask();
        return;
    }
    QImage rendered(size(), QImage::Format_ARGB32_Premultiplied);
    rendered.fill(Qt::transparent);
    QPainter painter(&rendered);
    PaintBackground(painter);
    painter.end();
    setMask(ShapeOf(rendered));
}

void ImageDialog::SetStretchBand(int top, int bottom)
{
    m_bandTop = top;
    m_bandBottom = bottom;
    UpdateShape();
    update();
}
