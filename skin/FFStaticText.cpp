// SPDX-License-Identifier: GPL-3.0-or-later
#include "FFStaticText.h"

#include <QPainter>
#include <QResizeEvent>

#include "SkinPaint.h"

namespace larimo {

CFFStaticText::CFFStaticText(QWidget* parent, unsigned style, int ctrlId, const QString& text)
    : QWidget(parent), m_ctrlId(ctrlId), m_style(style & 0xFFFFU), m_text(text), m_font(font()),
      m_color(palette().color(QPalette::WindowText))
{
    setProperty("ctrlId", ctrlId);
    // Mouse events fall through to the window, so a drag may start on a text.
    setAttribute(Qt::WA_TransparentForMouseEvents);
}

bool CFFStaticText::parseSkin(CSkinParser& parser, const std::string& section, int /*id*/)
{
    if (!parser.FindObject(section))
        return false;
    m_position = pos();
    m_size = size();
    while (parser.NextKey()) {
        int a = 0;
        int b = 0;
        SkinFont skinFont;
        ColorRef color = 0;
        if (parser.GetSize("position", a, b))
            m_position = QPoint(a, b);
        else if (parser.GetSize("size", a, b))
            m_size = QSize(a, b);
        else if (parser.GetFont("font", skinFont))
            m_font = ToQFont(skinFont, font());
        else if (parser.GetColor("font_color", color))
            m_color = ToQColor(color);
        // Skins may limit the text's length; names are cut where they are made, not here.
        else
            parser.GetInt("maximum_length", a);
    }
    return ApplySkin();
}

bool CFFStaticText::ApplySkin()
{
    move(m_position);
    SetText(m_text);
    return true;
}

void CFFStaticText::SetText(const QString& text)
{
    m_text = text;
    if (parentWidget() != nullptr)
        parentWidget()->update(QRect(pos(), m_size));
    update();
}

unsigned CFFStaticText::TextFlags() const
{
    unsigned flags = 0;
    const unsigned layout = m_style;
    if (layout == kSsRight)
        flags = kTextRight | kTextWordBreak;
    else if (layout == kSsSimple || layout == kSsLeftNoWordWrap)
        flags = kTextSingleLine;
    else
        flags = kTextWordBreak;
    const bool end = (m_style & kSsEndEllipsis) != 0;
    const bool path = (m_style & kSsPathEllipsis) != 0;
    if (end)
        flags |= kTextEndEllipsis;
    if (path)
        flags |= kTextPathEllipsis;
    if (end && path)
        flags |= kTextWordEllipsis;
    return flags;
}

void CFFStaticText::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    painter.setFont(m_font);
    painter.setPen(m_color);
    DrawSkinText(painter, QRect(QPoint(0, 0), m_size), m_text, TextFlags());
}

void CFFStaticText::resizeEvent(QResizeEvent* event)
{
    m_size = event->size();
    QWidget::resizeEvent(event);
}

} // namespace larimo
