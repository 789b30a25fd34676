// SPDX-License-Identifier: GPL-3.0-or-later
// Cursors of skins: static cursor files (".cur", an icon directory whose images are bitmaps
// with a transparency mask, or PNG) and animated ones (".ani", a RIFF "ACON" file whose frames
// are cursor files; the first frame is used).
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <QCursor>
#include <QImage>
#include <QPoint>

namespace larimo {

struct CursorImage {
    QImage image;
    QPoint hotSpot;

    /// The cursor for widgets. Needs a QGuiApplication; window thread.
    QCursor ToCursor() const;
};

/// Decodes the bytes of a ".cur" or ".ani" file; false with the reason in `why`. Any thread.
bool DecodeCursor(std::span<const std::uint8_t> bytes, CursorImage& cursor, std::string& why);
/// Reads and decodes a cursor file. Any thread.
bool LoadCursorFile(const std::string& path, CursorImage& cursor, std::string& why);

} // namespace larimo
