#include "ui/baseimagectrl.h"

#include <QCursor>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPen>
#include <QPixmap>
#include <QPointer>

#include <utility>

CBaseImageCtrl::CBaseImageCtrl(QWidget* parent) : QWidget(parent)
{
    setEnabled(true);
    setWindowFlags(Qt::FramelessWindowHint);
    setMouseTracking(true);
    setCursor(Qt::PointingHandCursor);
    // Reached by Tab; a click does not take the focus from a text field.
    setFocusPolicy(Qt::TabFocus);
}

void CBaseImageCtrl::SetImages(const QString& normal, const QString& hover, const QString& pressed,
                               const QString& disabled)
{
    const QPixmap base(normal);
    if (base.isNull())
        return;
    for (const QString& path : {hover, pressed, disabled}) {
        if (path.isEmpty())
            continue;
        const QPixmap other(path);
        if (!other.isNull() && other.size() != base.size())
            return;
    }
    m_frames = 0;
    m_normal = normal;
    m_hover = hover;
    m_pressed = pressed;
    m_disabled = disabled;
    ApplySize();
    update();
}

void CBaseImageCtrl::SetSprite(const QString& path, int frames)
{
    m_normal = path;
    m_frames = frames;
    ApplySize();
    update();
}

void CBaseImageCtrl::ApplySize()
{
    if (m_normal.isEmpty())
        return;
    const QPixmap picture(m_normal);
    if (picture.isNull()) {
        setFixedSize(0, 0);
        return;
    }
    if (m_frames > 1)
        setFixedSize(picture.width() / m_frames, picture.height());
    else
        setFixedSize(picture.size());
}

CBaseImageCtrl::State CBaseImageCtrl::CurrentState() const
{
    if (!isEnabled())
        return State::Disabled;
    if (m_hovered && m_inside)
        return m_armed ? State::Pressed : State::Hover;
    return State::Normal;
}

void CBaseImageCtrl::mousePressEvent(QMouseEvent* event)
{
    m_hovered = true;
    m_inside = true;
    m_armed = event->button() != Qt::NoButton;
    update();
}

void CBaseImageCtrl::mouseMoveEvent(QMouseEvent* event)
{
    const bool inside = rect().contains(event->position().toPoint());
    if (inside != m_inside) {
        m_inside = inside;
        update();
    }
}

void CBaseImageCtrl::mouseReleaseEvent(QMouseEvent* event)
{
    const bool wasArmed = std::exchange(m_armed, false);
    m_inside = rect().contains(event->position().toPoint());
    update();
    if (wasArmed && m_inside)
        Click();
}

void CBaseImageCtrl::Click()
{
    const QPointer<CBaseImageCtrl> self(this);
    Q_EMIT clicked(true);
    if (self)
        Q_EMIT clicked();
    // What the click opened (a dialog run to its end, say) may have taken the
    // pointer away without a leave reaching this button: the hover look goes
    // unless the pointer is still over it.
    if (self) {
        m_inside = isVisible() && rect().contains(mapFromGlobal(QCursor::pos()));
        m_hovered = m_inside;
        update();
    }
}

void CBaseImageCtrl::enterEvent(QEnterEvent* event)
{
    m_hovered = true;
    m_inside = true;
    update();
    QWidget::enterEvent(event);
}

void CBaseImageCtrl::leaveEvent(QEvent* event)
{
    m_hovered = false;
    m_inside = false;
    update();
    QWidget::leaveEvent(event);
}

void CBaseImageCtrl::keyPressEvent(QKeyEvent* event)
{
    const int key = event->key();
    if ((key == Qt::Key_Space || key == Qt::Key_Return || key == Qt::Key_Enter) &&
        !event->isAutoRepeat() && event->modifiers() == Qt::NoModifier) {
        Click();
        return;
    }
    QWidget::keyPressEvent(event);
}

void CBaseImageCtrl::focusInEvent(QFocusEvent* event)
{
    // The mark shows where the keyboard is: after Tab, and again when the
    // window comes back with the focus the keyboard had put here; not on a
    // window's first focus, which nobody chose.
    const Qt::FocusReason reason = event->reason();
    m_focusMark = reason == Qt::TabFocusReason || reason == Qt::BacktabFocusReason ||
                  (reason == Qt::ActiveWindowFocusReason && m_focusMark);
    update();
    QWidget::focusInEvent(event);
}

void CBaseImageCtrl::focusOutEvent(QFocusEvent* event)
{
    if (event->reason() != Qt::ActiveWindowFocusReason && event->reason() != Qt::PopupFocusReason)
        m_focusMark = false;
    update();
    QWidget::focusOutEvent(event);
}

void CBaseImageCtrl::paintEvent(QPaintEvent* /*event*/)
{
    const State state = CurrentState();
    QPixmap picture;
    QRect source;
    if (m_frames > 1) {
        picture = QPixmap(m_normal);
        if (picture.isNull())
            return;
        int frame = 0;
        if (state == State::Disabled)
            frame = m_frames >= 4 ? 3 : 0;
        else if (state == State::Pressed)
            frame = 2;
        else if (state == State::Hover)
            frame = 1;
        const int frameWidth = picture.width() / m_frames;
        source = QRect(frame * frameWidth, 0, frameWidth, picture.height());
    } else {
        QString path = m_normal;
        if (state == State::Disabled)
            path = m_disabled.isEmpty() ? m_normal : m_disabled;
        else if (state == State::Pressed)
            path = m_pressed;
        else if (state == State::Hover)
            path = m_hover;
        if (path.isEmpty())
            return;
        picture = QPixmap(path);
        if (picture.isNull())
            return;
        source = picture.rect();
    }

    const QPoint at((width() - source.width()) / 2, (height() - source.height()) / 2);
    QPainter painter(this);
    painter.drawPixmap(at, picture, source);
    if (hasFocus() && m_focusMark) {
        // The skin's accent blue, as around a focused text field.
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(QColor(0x1E, 0x88, 0xE5), 2));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(rect()).adjusted(1, 1, -1, -1), 4, 4);
    }
}

CImageButton* MakePictureButton(QWidget* parent, const char* name, const QString& stem, int x,
                                int y)
{
    auto* button = new CImageButton(parent);
    button->setObjectName(QLatin1String(name));
    button->SetImages(stem + QLatin1Char('1'), stem + QLatin1Char('2'), stem + QLatin1Char('3'),
                      QString());
    button->move(x, y);
    return button;
}
