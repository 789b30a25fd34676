// SPDX-License-Identifier: GPL-3.0-or-later
// Regions of skins: the shape of a window or control, read from a region data file (a 32-byte
// header with the rectangle count, then that many rectangles of four 32-bit edges, as Windows
// writes region data) into a QRegion.
//
// Loading needs no QGuiApplication; any thread may load into its own object.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <QRect>
#include <QRegion>

namespace larimo {

class CDynRgn {
public:
    static constexpr std::size_t kHeaderBytes = 32;
    static constexpr std::size_t kRectBytes = 16;

    /// Reads a region data file, scaling x and y by the factors. An empty path or "void"
    /// removes the region and succeeds. On failure the held region stays and LastError says
    /// why.
    bool LoadFromPath(const std::string& path, double xScale, double yScale);
    /// The same over the bytes of a whole region data file.
    bool LoadFromData(std::span<const std::uint8_t> bytes, double xScale, double yScale);

    /// The bytes of a region data file describing `region` (its rectangles in bands, top to
    /// bottom, left to right), as LoadFromData reads them.
    static std::vector<std::uint8_t> Serialize(const QRegion& region);

    bool IsNull() const { return !m_loaded; }
    const QRegion& Region() const { return m_region; }
    bool Contains(const QPoint& point) const { return m_region.contains(point); }
    const std::string& LastError() const { return m_lastError; }
    void Reset()
    {
        m_region = QRegion();
        m_loaded = false;
    }

private:
    QRegion m_region;
    bool m_loaded = false;
    std::string m_lastError;
};

} // namespace larimo
