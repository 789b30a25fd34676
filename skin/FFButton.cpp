// SPDX-License-Identifier: GPL-3.0-or-later
#include "FFButton.h"

#include <QFontMetrics>
#include <QMouseEvent>
#include <QPainter>

#include "SkinPaint.h"

namespace larimo {

namespace {

struct BitmapKey {
    const char* name;
    const char* synonym;
    CFFButton::Slot slot;
};

constexpr BitmapKey kBitmapKeys[] = {
    {"bitmap_up", "bitmap_off_up", CFFButton::kOffUp},    {"bitmap_do", "bitmap_off_do", CFFButton::kOffDown},
    {"bitmap_mo", "bitmap_off_mo", CFFButton::kOffOver},  {"bitmap_da", "bitmap_off_da", CFFButton::kOffDisabled},
    {"bitmap_pd", "bitmap_on_up", CFFButton::kOnUp},      {"bitmap_pu", "bitmap_on_do", CFFButton::kOnDown},
    {"bitmap_od", "bitmap_on_mo", CFFButton::kOnOver},    {"bitmap_ad", "bitmap_on_da", CFFButton::kOnDisabled},
};

const QColor kDisabledText(0, 0, 0);

} // namespace

CFFButton::Kind CFFButton::KindFromStyle(unsigned style)
{
    const unsigned s = style & 0xFFU;
    if ((s & 3U) == 3U || (s & 2U) != 0)
        return Kind::Check;
    if ((s & 9U) == 9U || (s & 4U) != 0)
        return Kind::Radio;
    return Kind::Push;
}

CFFButton::CFFButton(QWidget* parent, unsigned style, int ctrlId, const QString& text)
    : QWidget(parent), m_kind(KindFromStyle(style)), m_ctrlId(ctrlId), m_caption(text), m_font(font())
{
    setProperty("ctrlId", ctrlId);
    setMouseTracking(true);
    setCursor(Qt::ArrowCursor);
    setFocusPolicy(Qt::NoFocus);
    resize(m_size);
}

CFFButton* CFFButton::Create(unsigned style, const QRect& rect, QWidget* parent, int ctrlId)
{
    auto* button = new CFFButton(parent, style, ctrlId);
    button->setGeometry(rect);
    button->show();
    return button;
}

bool CFFButton::parseSkin(CSkinParser& parser, const std::string& section, int /*id*/)
{
    if (!parser.FindObject(section))
        return false;
    m_position = pos();
    m_size = size();

    while (parser.NextKey()) {
        QPoint first;
        QPoint second;
        int a = 0;
        int b = 0;
        ColorRef color = 0;
        SkinFont skinFont;
        std::string text;
        bool flag = false;

        if (parser.GetPosition("position", first, second)) {
            m_position = first;
            continue;
        }
        if (parser.GetSize("size", a, b)) {
            m_size = QSize(a, b);
            continue;
        }
        bool bitmapKey = false;
        for (const BitmapKey& key : kBitmapKeys) {
            if (parser.CurrentKey() == key.name || parser.CurrentKey() == key.synonym) {
                parser.GetBitmap(parser.CurrentKey(), m_bitmaps[key.slot]);
                bitmapKey = true;
                break;
            }
        }
        if (bitmapKey)
            continue;
        if (parser.GetColor("font_color_up", color))
            m_colorUp = ToQColor(color);
        else if (parser.GetColor("font_color_mo", color))
            m_colorOver = ToQColor(color);
        else if (parser.GetColor("font_color_do", color))
            m_colorDown = ToQColor(color);
        else if (parser.GetColor("font_color_do_mo", color))
            m_colorDownOver = ToQColor(color);
        else if (parser.GetFont("font", skinFont))
            m_font = ToQFont(skinFont, font());
        else if (parser.GetSize("align", a, b)) {
            m_alignX = a;
            m_alignY = b;
        } else if (parser.GetSize("xbounds", a, b)) {
            m_xboundsLeft = a;
            m_xboundsRight = b;
        } else if (parser.GetString("caption", text))
            m_caption = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
        else if (parser.GetRegion("region", m_region)) {
        } else if (parser.GetBool("multiline", flag))
            m_multiline = flag;
        else if (parser.CurrentKey() == "mouseover")
            m_mouseOver = true;
        else
            // Skins may name a pointer for the button; the arrow stays, as everywhere else.
            parser.GetCursor("cursor", m_skinCursor);
    }
    return ApplySkin();
}

bool CFFButton::ApplySkin()
{
    setGeometry(QRect(m_position, m_size));
    if (!m_region.IsNull())
        setMask(m_region.Region());
    update();
    return true;
}

void CFFButton::InvalidateParent()
{
    if (parentWidget() != nullptr)
        parentWidget()->update(geometry());
    update();
}

void CFFButton::SetText(const QString& text)
{
    m_caption = text;
    InvalidateParent();
}

void CFFButton::Enable(bool enable)
{
    setEnabled(enable);
    if (!enable) {
        m_hover = false;
        m_pressed = false;
    }
    InvalidateParent();
}

void CFFButton::SetCheck(int check)
{
    m_check = check;
    update();
}

CFFButton::Look CFFButton::CurrentLook() const
{
    const bool enabled = isEnabled();
    const bool over = m_hover && m_mouseOver;
    const bool checked = m_check != 0;
    switch (m_kind) {
    case Kind::Push:
        if (!enabled)
            return {kOffDisabled, kDisabledText};
        if (m_pressed && m_hover)
            return {kOffDown, m_colorDown};
        if (over)
            return {kOffOver, m_colorOver};
        return {kOffUp, m_colorUp};
    case Kind::Check:
        if (checked)
            return {kOnUp, m_colorDown};
        return {kOffUp, m_colorUp};
    case Kind::Radio:
        if (!enabled)
            return {checked ? kOnDisabled : kOffDisabled, kDisabledText};
        if (checked && m_pressed && over)
            return {kOnDown, m_colorDown};
        if (checked && over)
            return {kOnOver, m_colorDownOver};
        if (checked)
            return {kOnUp, m_colorDown};
        if (m_pressed && over)
            return {kOffDown, m_colorUp};
        if (over)
            return {kOffOver, m_colorOver};
        return {kOffUp, m_colorUp};
    }
    return {kOffUp, m_colorUp};
}

bool CFFButton::Hit(const QPoint& point) const
{
    if (!m_region.IsNull())
        return m_region.Contains(point);
    return rect().contains(point);
}

QRect CFFButton::CaptionRect() const
{
    if (m_caption.isEmpty())
        return {};
    const QFontMetrics metrics(m_font);
    const QSize extent = metrics.size(Qt::TextSingleLine, m_caption);
    const int cx = extent.width();
    const int cy = extent.height();
    const int l = 0;
    const int t = 0;
    const int r = width();
    const int b = height();

    int left = m_alignX > 0 ? l + m_alignX : (m_alignX < 0 ? r - cx + m_alignX : (l + r) / 2 - cx / 2);
    const int top = m_alignY > 0 ? t + m_alignY : (m_alignY < 0 ? b - cy + m_alignY : (t + b) / 2 - cy / 2);
    if ((m_alignX == 0 || m_alignY == 0) && left < m_xboundsLeft)
        left = m_xboundsLeft;
    const int right = m_xboundsRight > 0 ? r - m_xboundsRight : r;
    return QRect(QPoint(left, top), QPoint(right - 1, b - 1));
}

void CFFButton::paintEvent(QPaintEvent* /*event*/)
{
    // The widget's backing store already double-buffers: the bitmap and the caption reach
    // the screen together.
    QPainter painter(this);
    const Look look = CurrentLook();
    const CDynBitmap& bitmap = m_bitmaps[look.slot];
    if (bitmap.IsNull())
        painter.fillRect(rect(), m_faceColor);
    else
        painter.drawImage(QPoint(0, 0), bitmap.Image(), QRect(QPoint(0, 0), size()));

    const QRect captionRect = CaptionRect();
    if (captionRect.isEmpty())
        return;
    painter.setFont(m_font);
    painter.setPen(look.caption);
    DrawSkinText(painter, captionRect, m_caption,
                 kTextWordEllipsis | (m_multiline ? kTextWordBreak : kTextSingleLine));
}

void CFFButton::mousePressEvent(QMouseEvent* event)
{
    if (event->button() == Qt::RightButton) {
        emit RightClicked(m_ctrlId);
        QWidget::mousePressEvent(event);
        return;
    }
    if (event->button() != Qt::LeftButton)
        return;
    if (isEnabled()) {
        m_pressed = Hit(event->position().toPoint());
        m_hover = m_pressed || m_hover;
    }
    update();
}

void CFFButton::mouseDoubleClickEvent(QMouseEvent* event)
{
    mousePressEvent(event);
}

void CFFButton::mouseMoveEvent(QMouseEvent* event)
{
    m_hover = Hit(event->position().toPoint());
    update();
}

void CFFButton::leaveEvent(QEvent* /*event*/)
{
    if (!m_pressed) {
        m_hover = false;
        update();
    }
}

void CFFButton::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !m_pressed)
        return;
    m_pressed = false;
    if (!Hit(event->position().toPoint())) {
        m_hover = false;
        update();
        return;
    }
    if (!isEnabled())
        return;
    switch (m_kind) {
    case Kind::Push:
        m_hover = false;
        m_check = m_check != 0 ? 0 : 1;
        break;
    case Kind::Check:
        m_check = m_check != 0 ? 0 : 1;
        break;
    case Kind::Radio:
        if (m_group != 0 && parentWidget() != nullptr) {
            for (CFFButton* other : parentWidget()->findChildren<CFFButton*>(Qt::FindDirectChildrenOnly)) {
                if (other != this && other->m_group == m_group)
                    other->SetCheck(0);
            }
        }
        m_check = 1;
        break;
    }
    update();
    emit Clicked(m_ctrlId);
}

} // namespace larimo
