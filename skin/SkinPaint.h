// SPDX-License-Identifier: GPL-3.0-or-later
// Drawing helpers shared by the skinned controls. Window thread.
#pragma once

#include <QColor>
#include <QFont>
#include <QRect>
#include <QString>

#include "SkinParser.h"

class QPainter;

namespace larimo {

inline QColor ToQColor(ColorRef color)
{
    return QColor(static_cast<int>(color & 0xFFU), static_cast<int>(color >> 8 & 0xFFU),
                  static_cast<int>(color >> 16 & 0xFFU));
}

/// The Qt font for a skin font, starting from `base` for whatever the skin leaves open.
QFont ToQFont(const SkinFont& font, const QFont& base);

/// How DrawSkinText lays out a text; the flags combine.
enum SkinTextFlag : unsigned {
    kTextWordBreak = 0x1,
    kTextSingleLine = 0x2,
    kTextRight = 0x4,
    kTextEndEllipsis = 0x8,
    kTextPathEllipsis = 0x10,
    kTextWordEllipsis = 0x20,
};

/// Draws `text` with the painter's font and pen into `rect`, from its top-left corner (top
/// right with kTextRight), clipped to it. Word-broken text that does not fit ends with an
/// ellipsis on its last visible line when an ellipsis flag is given.
void DrawSkinText(QPainter& painter, const QRect& rect, const QString& text, unsigned flags);

} // namespace larimo
