// SPDX-License-Identifier: GPL-3.0-or-later
// A slider drawn over the skin: the groove belongs to the window's background image, of which
// the slider keeps a snapshot, and the thumb is a bitmap with one transparent colour. A click
// beside the thumb makes it jump to the pointer; then it can be dragged.
//
// The range defaults to 0..100. A vertical slider has its minimum at the top. Window thread.
#pragma once

#include <string>

#include <QAbstractSlider>
#include <QImage>
#include <QPixmap>

#include "DynBitmap.h"
#include "SkinParser.h"

namespace larimo {

class CFFSliderCtrl : public QAbstractSlider {
    Q_OBJECT

public:
    enum SkinOrientation { kAsTemplate = 0, kVertical = 1, kHorizontal = 2 };
    /// Thumb length along the groove when the skin gives no thumb bitmap.
    static constexpr int kDefaultThumbLength = 11;

    CFFSliderCtrl(QWidget* parent, Qt::Orientation orientation, int ctrlId);

    bool parseSkin(CSkinParser& parser, const std::string& section, int id);
    /// Applies the skin's orientation and moves the slider to its skin place.
    bool ApplySkin();
    void Enable(bool enable);

    int CtrlId() const { return m_ctrlId; }
    int SkinOrientationValue() const { return m_orientation; }
    QRect ThumbRect() const;
    /// The pointer range along the groove: the client length less half a thumb at each end.
    std::pair<int, int> Channel() const;
    /// The position the pointer at `point` stands for while the thumb is dragged.
    int PositionAt(const QPoint& point) const;
    /// The position a click beside the thumb jumps to (by x alone, in either orientation).
    int JumpPositionAt(const QPoint& point) const;
    bool IsDragging() const { return m_dragging; }
    const QPixmap& Snapshot() const { return m_snapshot; }
    ColorRef ThumbTransparentColor() const { return m_transparent; }

signals:
    /// The user moved the slider (mouse, keyboard or wheel); `position` is the new position.
    void Scrolled(int ctrlId, int position);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void moveEvent(QMoveEvent* event) override;

private:
    void TakeSnapshot();
    void JumpIfBesideThumb(const QPoint& point);
    QSize ThumbSize() const;

    int m_ctrlId;
    CDynBitmap m_background;
    CDynBitmap m_thumb;
    QImage m_thumbMasked;
    ColorRef m_transparent = 0;
    QPoint m_position;
    QPoint m_relative;
    QSize m_size;
    int m_orientation = kAsTemplate;
    bool m_dragging = false;
    int m_dragOffset = 0;
    bool m_snapshotting = false;
    QPixmap m_snapshot;
};

} // namespace larimo
