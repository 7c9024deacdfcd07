#pragma once

#include <QString>
#include <QWidget>

// A control drawn from pictures: normal, hover, pressed and disabled, either as
// separate pictures or as frames of one sprite laid side by side. A click is a
// press inside the control followed by a release inside it, or Space or Enter
// while it has the focus. Tab reaches it, and it then shows a focus mark in
// the skin's accent colour.
class CBaseImageCtrl : public QWidget
{
    Q_OBJECT

public:
    enum class State
    {
        Normal,
        Hover,
        Pressed,
        Disabled
    };

    explicit CBaseImageCtrl(QWidget* parent = nullptr);

    // Separate pictures. The whole call is ignored when the normal picture does
    // not load, or when a given hover, pressed or disabled picture loads with a
    // size other than the normal picture's.
    void SetImages(const QString& normal, const QString& hover, const QString& pressed,
                   const QString& disabled);
    // One picture holding `frames` frames side by side: normal, hover, pressed
    // and, with four frames or more, disabled.
    void SetSprite(const QString& path, int frames);

    State CurrentState() const;
    int FrameCount() const { return m_frames; }

Q_SIGNALS:
    void clicked(bool checked);
    void clicked();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    void ApplySize();
    // Sends clicked(); afterwards the hover look follows the pointer again.
    void Click();

    QString m_normal;
    QString m_hover;
    QString m_pressed;
    QString m_disabled;
    int m_frames = 0;
    bool m_hovered = false;
    bool m_armed = false;     // a press started inside and is not released yet
    bool m_inside = false;    // the cursor is inside the control
    bool m_focusMark = false; // the keyboard brought the focus here
};

// The picture button used by every window and page.
class CImageButton final : public CBaseImageCtrl
{
    Q_OBJECT
    Q_DISABLE_COPY_MOVE(CImageButton)

public:
    explicit CImageButton(QWidget* parent = nullptr) : CBaseImageCtrl(parent) {}
};

// A picture button named `name` at (x, y), with the pictures stem1, stem2 and
// stem3 for normal, hover and pressed, as the pages lay out theirs.
CImageButton* MakePictureButton(QWidget* parent, const char* name, const QString& stem, int x,
                                int y);
