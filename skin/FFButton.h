// SPDX-License-Identifier: GPL-3.0-or-later
// A push button, check box or radio button drawn entirely from skin bitmaps: one bitmap per
// state (off or on; up, down, over or disabled), a caption drawn over it, and an optional
// region that shapes the button and decides where it can be clicked.
//
// All members are for the window thread.
#pragma once

#include <array>
#include <string>

#include <QColor>
#include <QCursor>
#include <QFont>
#include <QWidget>

#include "DynBitmap.h"
#include "DynRgn.h"
#include "SkinParser.h"

namespace larimo {

class CFFButton : public QWidget {
    Q_OBJECT

public:
    enum class Kind { Push = 0, Check = 2, Radio = 4 };
    /// The eight state bitmaps, in the order skins name them.
    enum Slot { kOffUp, kOffDown, kOffOver, kOffDisabled, kOnUp, kOnDown, kOnOver, kOnDisabled, kSlotCount };

    // Button styles of dialog templates; the kind follows from the low 8 bits.
    static constexpr unsigned kBsPushButton = 0x0;
    static constexpr unsigned kBsCheckBox = 0x2;
    static constexpr unsigned kBsAutoCheckBox = 0x3;
    static constexpr unsigned kBsRadioButton = 0x4;
    static constexpr unsigned kBsAutoRadioButton = 0x9;

    static Kind KindFromStyle(unsigned style);

    /// A button of the kind `style` gives, with the control id `ctrlId` (also kept in the
    /// "ctrlId" property) and `text` as its default caption.
    CFFButton(QWidget* parent, unsigned style, int ctrlId, const QString& text = {});

    /// Makes a button in code: placed at `rect` in `parent` and shown at once.
    static CFFButton* Create(unsigned style, const QRect& rect, QWidget* parent, int ctrlId);

    /// Reads the button's object from the skin; false only when the object is missing.
    /// `id` is unused.
    bool parseSkin(CSkinParser& parser, const std::string& section, int id);
    /// Places the button and gives it its region as mask.
    bool ApplySkin();

    void SetText(const QString& text);
    QString Text() const { return m_caption; }
    void Enable(bool enable);
    void SetCheck(int check);
    int GetCheck() const { return m_check; }
    /// Radio buttons with the same non-zero group under the same parent uncheck each other
    /// when one is clicked. 0, the default, is a group of its own.
    void SetRadioGroup(int group) { m_group = group; }
    int RadioGroup() const { return m_group; }

    int CtrlId() const { return m_ctrlId; }
    Kind ButtonKind() const { return m_kind; }

    /// What the button shows in its current state: the bitmap slot and the caption colour.
    struct Look {
        Slot slot = kOffUp;
        QColor caption;
    };
    Look CurrentLook() const;
    /// Whether `point` (client coordinates) lies on the button: inside its region when it has
    /// one, else inside its rectangle.
    bool Hit(const QPoint& point) const;

    const CDynBitmap& Bitmap(Slot slot) const { return m_bitmaps[slot]; }
    const CDynRgn& SkinRegion() const { return m_region; }
    QColor FaceColor() const { return m_faceColor; }
    QPoint SkinPosition() const { return m_position; }
    QSize SkinSize() const { return m_size; }
    /// Where the caption is drawn, in client coordinates (empty without a caption).
    QRect CaptionRect() const;
    bool IsHover() const { return m_hover; }
    bool IsPressed() const { return m_pressed; }

signals:
    /// The button was clicked (released over it while enabled).
    void Clicked(int ctrlId);
    /// The right mouse button went down over the button.
    void RightClicked(int ctrlId);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    void InvalidateParent();

    Kind m_kind;
    int m_ctrlId;
    int m_group = 0;
    int m_check = 0;
    bool m_hover = false;
    bool m_pressed = false;
    bool m_mouseOver = false;
    bool m_multiline = false;
    std::array<CDynBitmap, kSlotCount> m_bitmaps;
    CDynRgn m_region;
    QString m_caption;
    QFont m_font;
    QColor m_colorUp{0, 0, 0};
    QColor m_colorOver{0, 0, 0};
    QColor m_colorDown{0, 0, 0};
    QColor m_colorDownOver{0, 0, 0};
    QColor m_faceColor{100, 200, 200};
    int m_alignX = 0;
    int m_alignY = 0;
    int m_xboundsLeft = -1;
    int m_xboundsRight = -1;
    QPoint m_position;
    QSize m_size{10, 10};
    QCursor m_skinCursor;
};

} // namespace larimo
