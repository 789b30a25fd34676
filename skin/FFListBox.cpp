// SPDX-License-Identifier: GPL-3.0-or-later
#include "FFListBox.h"

#include <algorithm>

#include <QFontMetrics>
#include <QMouseEvent>
#include <QPainter>
#include <QWheelEvent>

#include "SkinPaint.h"

namespace larimo {

CFFListBox::CFFListBox(QWidget* parent, int ctrlId) : QWidget(parent), m_ctrlId(ctrlId), m_font(font())
{
    setProperty("ctrlId", ctrlId);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

bool CFFListBox::parseSkin(CSkinParser& parser, const std::string& section, int /*id*/)
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
        if (parser.GetPosition("position", first, second))
            m_position = first;
        else if (parser.GetSize("size", a, b))
            m_size = QSize(a, b);
        else if (parser.GetColor("color_foreground", color))
            m_text = ToQColor(color);
        else if (parser.GetColor("color_background", color))
            m_background = ToQColor(color);
        else if (parser.GetColor("color_sel", color))
            m_selText = ToQColor(color);
        else if (parser.GetColor("color_selbg", color))
            m_selBackground = ToQColor(color);
        else if (parser.GetColor("color_curr", color))
            m_currText = ToQColor(color);
        else if (parser.GetColor("color_currbg", color))
            m_currBackground = ToQColor(color);
        else if (parser.GetFont("font", skinFont))
            m_font = ToQFont(skinFont, font());
    }
    return ApplySkin();
}

bool CFFListBox::ApplySkin()
{
    setFont(m_font);
    setGeometry(QRect(m_position, m_size));
    update();
    return true;
}

int CFFListBox::InsertItem(int row, const QString& text)
{
    if (row < 0 || row > Count())
        row = Count();
    m_items.insert(m_items.begin() + row, Item{text, false});
    update();
    return row;
}

void CFFListBox::DeleteItem(int row)
{
    if (row < 0 || row >= Count())
        return;
    m_items.erase(m_items.begin() + row);
    if (m_current >= Count())
        m_current = -1;
    update();
}

void CFFListBox::ResetContent()
{
    m_items.clear();
    m_current = -1;
    m_topRow = 0;
    update();
}

QString CFFListBox::ItemText(int row) const
{
    return row >= 0 && row < Count() ? m_items[static_cast<std::size_t>(row)].text : QString();
}

void CFFListBox::SetCurrent(int row)
{
    if (row < -1 || row >= Count())
        row = -1;
    if (row == m_current)
        return;
    update(RowRect(m_current));
    m_current = row;
    update(RowRect(m_current));
}

void CFFListBox::SetSel(int row, bool marked)
{
    if (row < 0 || row >= Count())
        return;
    m_items[static_cast<std::size_t>(row)].marked = marked;
    update(RowRect(row));
}

bool CFFListBox::GetSel(int row) const
{
    return row >= 0 && row < Count() && m_items[static_cast<std::size_t>(row)].marked;
}

int CFFListBox::RowHeight() const
{
    return QFontMetrics(m_font).height() + 2 * kRowPaddingY;
}

QRect CFFListBox::RowRect(int row) const
{
    if (row < 0 || row >= Count())
        return {};
    return QRect(0, (row - m_topRow) * RowHeight(), width(), RowHeight());
}

int CFFListBox::RowAt(const QPoint& point) const
{
    if (!rect().contains(point))
        return -1;
    const int row = m_topRow + point.y() / RowHeight();
    return row < Count() ? row : -1;
}

CFFListBox::RowColors CFFListBox::ColorsOf(int row) const
{
    if (row == m_current && row >= 0)
        return {m_currText, m_currBackground};
    if (GetSel(row))
        return {m_selText, m_selBackground};
    return {m_text, m_background};
}

void CFFListBox::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    painter.fillRect(rect(), m_background);
    painter.setFont(m_font);
    for (int row = m_topRow; row < Count(); ++row) {
        const QRect box = RowRect(row);
        if (box.top() >= height())
            break;
        const RowColors colors = ColorsOf(row);
        painter.fillRect(box, colors.background);
        painter.setPen(colors.text);
        DrawSkinText(painter, box.adjusted(kRowPaddingX, kRowPaddingY, -kRowPaddingX, 0),
                     m_items[static_cast<std::size_t>(row)].text, kTextWordBreak);
    }
}

void CFFListBox::mousePressEvent(QMouseEvent* event)
{
    const int row = RowAt(event->position().toPoint());
    if (event->button() != Qt::LeftButton || row < 0)
        return;
    SetSel(row, !GetSel(row));
    emit SelChange(m_ctrlId);
}

void CFFListBox::wheelEvent(QWheelEvent* event)
{
    const int visible = std::max(1, height() / RowHeight());
    const int steps = event->angleDelta().y() / 120;
    const int top = std::clamp(m_topRow - steps, 0, std::max(0, Count() - visible));
    if (top != m_topRow) {
        m_topRow = top;
        update();
    }
    event->accept();
}

} // namespace larimo
