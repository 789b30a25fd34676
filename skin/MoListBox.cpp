// SPDX-License-Identifier: GPL-3.0-or-later
#include "MoListBox.h"

#include <QMouseEvent>

namespace larimo {

CMoListBox::CMoListBox(QWidget* parent, int ctrlId)
    : CFFListBox(parent, ctrlId), m_configure(new CFFButton(this, CFFButton::kBsPushButton, kConfigureButtonId))
{
    m_configure->hide();
    setMouseTracking(true);
    connect(m_configure, &CFFButton::Clicked, this, [this](int) { OnConfigure(); });
}

bool CMoListBox::parseSkin(CSkinParser& parser, const std::string& section, int id)
{
    m_maxItems = -1;
    if (!parser.FindObject(section))
        return false;
    while (parser.NextKey())
        parser.GetInt("max_items", m_maxItems);
    // A skin without a configure button still loads; the button then keeps its plain look.
    m_configure->parseSkin(parser, "[EmoticConfig]", id);
    m_configure->hide();
    return CFFListBox::parseSkin(parser, section, id);
}

void CMoListBox::ShowConfigureButton()
{
    const QRect row = RowRect(m_current);
    if (row.isEmpty()) {
        HideConfigureButton();
        return;
    }
    const QSize size = m_configure->SkinSize();
    m_configure->setGeometry(row.right() + 1 - size.width(), row.top(), size.width(), size.height());
    m_configure->show();
    m_configure->raise();
}

void CMoListBox::HideConfigureButton()
{
    m_configure->hide();
}

void CMoListBox::mouseMoveEvent(QMouseEvent* event)
{
    const QPoint point = event->position().toPoint();
    if (!rect().contains(point)) {
        SetCurrent(-1);
        HideConfigureButton();
        return;
    }
    const int row = RowAt(point);
    SetCurrent(row);
    if (row < 0)
        HideConfigureButton();
    else
        ShowConfigureButton();
}

void CMoListBox::leaveEvent(QEvent* /*event*/)
{
    // Moving onto the configure button keeps the row: the button is a child of the list.
    if (m_configure->isVisible() && m_configure->underMouse())
        return;
    SetCurrent(-1);
    HideConfigureButton();
}

void CMoListBox::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton)
        return;
    const QPoint point = event->position().toPoint();
    if (m_configure->isVisible() && m_configure->geometry().contains(point)) {
        OnConfigure();
        return;
    }
    if (m_current >= 0 && RowRect(m_current).contains(point))
        emit RowClicked(m_current);
}

void CMoListBox::wheelEvent(QWheelEvent* event)
{
    CFFListBox::wheelEvent(event);
    const int row = RowAt(event->position().toPoint());
    SetCurrent(row);
    if (row < 0)
        HideConfigureButton();
    else
        ShowConfigureButton();
}

void CMoListBox::OnConfigure()
{
    if (m_current == -1)
        return;
    const QPoint corner = m_configure->mapToGlobal(QPoint(0, 0));
    emit ConfigureClicked(m_current, corner.x(), corner.y());
}

} // namespace larimo
