// SPDX-License-Identifier: GPL-3.0-or-later
#include "FFSliderCtrl.h"

#include <algorithm>
#include <cmath>

#include <QMouseEvent>
#include <QPainter>

#include "SkinPaint.h"

namespace larimo {

CFFSliderCtrl::CFFSliderCtrl(QWidget* parent, Qt::Orientation orientation, int ctrlId)
    : QAbstractSlider(parent), m_ctrlId(ctrlId)
{
    setProperty("ctrlId", ctrlId);
    setOrientation(orientation);
    setRange(0, 100);
    setPageStep(10);
    setFocusPolicy(Qt::NoFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    connect(this, &QAbstractSlider::actionTriggered, this, [this](int action) {
        if (action != SliderNoAction && action != SliderMove)
            emit Scrolled(m_ctrlId, sliderPosition());
    });
}

bool CFFSliderCtrl::parseSkin(CSkinParser& parser, const std::string& section, int /*id*/)
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
        std::string text;
        if (parser.GetPosition("position", first, second)) {
            m_position = first;
            m_relative = second;
        } else if (parser.GetSize("size", a, b)) {
            m_size = QSize(a, b);
        } else if (parser.GetBitmap("bitmap_background", m_background)) {
        } else if (parser.GetBitmap("bitmap_thumb", m_thumb)) {
        } else if (parser.GetColor("bitmap_thumb_transparent_color", m_transparent)) {
        } else if (parser.GetString("orientation", text)) {
            m_orientation = text == "vertical" ? kVertical : (text == "horizontal" ? kHorizontal : kAsTemplate);
        }
        // The groove is part of the window's background; channel bitmaps are not drawn.
    }
    if (!m_thumb.IsNull()) {
        m_thumbMasked = m_thumb.Image().convertToFormat(QImage::Format_ARGB32);
        const QRgb key = ToQColor(m_transparent).rgb();
        for (int y = 0; y < m_thumbMasked.height(); ++y) {
            auto* line = reinterpret_cast<QRgb*>(m_thumbMasked.scanLine(y));
            for (int x = 0; x < m_thumbMasked.width(); ++x) {
                if ((line[x] | 0xFF000000U) == key)
                    line[x] = 0;
            }
        }
    } else {
        m_thumbMasked = QImage();
    }
    return ApplySkin();
}

bool CFFSliderCtrl::ApplySkin()
{
    if (m_orientation == kVertical)
        setOrientation(Qt::Vertical);
    else if (m_orientation == kHorizontal)
        setOrientation(Qt::Horizontal);
    // Keys move the thumb the way it looks: up is towards the minimum at the top.
    setInvertedControls(orientation() == Qt::Vertical);
    QPoint at = m_position;
    if (parentWidget() != nullptr) {
        const QSize client = parentWidget()->size();
        at += QPoint(client.width() * m_relative.x() / 100, client.height() * m_relative.y() / 100);
    }
    setGeometry(QRect(at, m_size));
    m_snapshot = QPixmap();
    update();
    return true;
}

void CFFSliderCtrl::Enable(bool enable)
{
    setEnabled(enable);
    update();
}

QSize CFFSliderCtrl::ThumbSize() const
{
    if (!m_thumb.IsNull())
        return m_thumb.Image().size();
    return orientation() == Qt::Horizontal ? QSize(kDefaultThumbLength, height())
                                           : QSize(width(), kDefaultThumbLength);
}

std::pair<int, int> CFFSliderCtrl::Channel() const
{
    const bool horizontal = orientation() == Qt::Horizontal;
    const int length = horizontal ? width() : height();
    const int thumb = horizontal ? ThumbSize().width() : ThumbSize().height();
    return {thumb / 2, length - thumb / 2};
}

QRect CFFSliderCtrl::ThumbRect() const
{
    const auto [low, high] = Channel();
    const int span = maximum() - minimum();
    const int travel = high - low;
    const int centre = span > 0 ? low + static_cast<int>(static_cast<long long>(sliderPosition() - minimum()) * travel / span) : low;
    const QSize thumb = ThumbSize();
    if (orientation() == Qt::Horizontal)
        return QRect(centre - thumb.width() / 2, (height() - thumb.height()) / 2, thumb.width(), thumb.height());
    return QRect((width() - thumb.width()) / 2, centre - thumb.height() / 2, thumb.width(), thumb.height());
}

int CFFSliderCtrl::PositionAt(const QPoint& point) const
{
    const auto [low, high] = Channel();
    if (high <= low)
        return minimum();
    const int coordinate = orientation() == Qt::Horizontal ? point.x() : point.y();
    const double position = minimum() + static_cast<double>(maximum() - minimum()) / (high - low) * (coordinate - low);
    const double clamped = std::clamp(std::trunc(position), static_cast<double>(minimum()), static_cast<double>(maximum()));
    return static_cast<int>(clamped);
}

int CFFSliderCtrl::JumpPositionAt(const QPoint& point) const
{
    // A click beside the thumb is placed by its x coordinate in the channel narrowed by half
    // the thumb's width on both sides, whatever the orientation; a vertical slider as narrow
    // as its thumb has no such channel and jumps to its minimum.
    const int half = ThumbSize().width() / 2;
    const int low = half;
    const int high = width() - half;
    if (high <= low)
        return minimum();
    const double position = minimum() + static_cast<double>(maximum() - minimum()) / (high - low) * (point.x() - low);
    return static_cast<int>(std::clamp(std::trunc(position), static_cast<double>(minimum()), static_cast<double>(maximum())));
}

void CFFSliderCtrl::JumpIfBesideThumb(const QPoint& point)
{
    if (!rect().contains(point) || ThumbRect().contains(point))
        return;
    setSliderPosition(JumpPositionAt(point));
    setValue(sliderPosition());
    emit Scrolled(m_ctrlId, value());
}

void CFFSliderCtrl::wheelEvent(QWheelEvent* event)
{
    // The wheel moves the thumb as a drag does, so its steps are reported here: a volume
    // turned with the wheel is sent and saved like one set with the mouse or the keys.
    const int before = value();
    QAbstractSlider::wheelEvent(event);
    if (value() != before)
        emit Scrolled(m_ctrlId, value());
}

void CFFSliderCtrl::mousePressEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton) {
        event->ignore();
        return;
    }
    const QPoint point = event->position().toPoint();
    m_dragging = true;
    JumpIfBesideThumb(point);
    const QPoint centre = ThumbRect().center();
    m_dragOffset = orientation() == Qt::Horizontal ? point.x() - centre.x() : point.y() - centre.y();
    setSliderDown(true);
    update();
}

void CFFSliderCtrl::mouseMoveEvent(QMouseEvent* event)
{
    if (!m_dragging)
        return;
    QPoint point = event->position().toPoint();
    if (orientation() == Qt::Horizontal)
        point.rx() -= m_dragOffset;
    else
        point.ry() -= m_dragOffset;
    const int position = PositionAt(point);
    if (position != sliderPosition()) {
        setSliderPosition(position);
        emit Scrolled(m_ctrlId, position);
    }
    update();
}

void CFFSliderCtrl::mouseReleaseEvent(QMouseEvent* event)
{
    if (event->button() != Qt::LeftButton || !m_dragging)
        return;
    JumpIfBesideThumb(event->position().toPoint());
    m_dragging = false;
    setSliderDown(false);
    update();
}

void CFFSliderCtrl::resizeEvent(QResizeEvent* event)
{
    m_snapshot = QPixmap();
    QAbstractSlider::resizeEvent(event);
}

void CFFSliderCtrl::moveEvent(QMoveEvent* event)
{
    m_snapshot = QPixmap();
    QAbstractSlider::moveEvent(event);
}

void CFFSliderCtrl::TakeSnapshot()
{
    // What the window shows beneath the slider, taken once: dragging the thumb then repaints
    // only the slider, not the window behind it.
    QPixmap snapshot(size());
    snapshot.fill(Qt::black);
    QPainter painter(&snapshot);
    if (!m_background.IsNull())
        painter.drawImage(QPoint(0, 0), m_background.Image());
    painter.end();
    if (parentWidget() != nullptr && !m_snapshotting) {
        m_snapshotting = true;
        parentWidget()->render(&snapshot, QPoint(0, 0), QRegion(geometry()), QWidget::DrawWindowBackground);
        m_snapshotting = false;
    }
    m_snapshot = snapshot;
}

void CFFSliderCtrl::paintEvent(QPaintEvent* /*event*/)
{
    if (m_snapshot.isNull() || m_snapshot.size() != size())
        TakeSnapshot();
    QPainter painter(this);
    painter.drawPixmap(0, 0, m_snapshot);
    if (m_thumbMasked.isNull())
        return;
    const QRect thumb = ThumbRect();
    painter.setClipRect(rect());
    if (thumb.size() == m_thumbMasked.size())
        painter.drawImage(thumb.topLeft(), m_thumbMasked);
    else
        painter.drawImage(thumb, m_thumbMasked);
}

} // namespace larimo
