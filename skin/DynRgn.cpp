// SPDX-License-Identifier: GPL-3.0-or-later
#include "DynRgn.h"

#include <cmath>
#include <filesystem>
#include <fstream>

namespace larimo {

namespace {

constexpr std::uint32_t kRectanglesType = 1;
// Region coordinates of the window system are limited to 27 bits.
constexpr double kMaxCoordinate = 134217727.0;
constexpr std::uintmax_t kMaxFileBytes = 64U * 1024U * 1024U;

std::int32_t I32(std::span<const std::uint8_t> b, std::size_t at)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(b[at]) |
                                     static_cast<std::uint32_t>(b[at + 1]) << 8 |
                                     static_cast<std::uint32_t>(b[at + 2]) << 16 |
                                     static_cast<std::uint32_t>(b[at + 3]) << 24);
}

void PutI32(std::vector<std::uint8_t>& out, std::int64_t value)
{
    const auto v = static_cast<std::uint32_t>(static_cast<std::int32_t>(value));
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// Banded rectangle lists, as region data files hold them, can be handed to QRegion whole;
// anything else is merged pairwise so that large lists stay fast.
bool IsBanded(const std::vector<QRect>& rects)
{
    for (std::size_t i = 1; i < rects.size(); ++i) {
        const QRect& a = rects[i - 1];
        const QRect& b = rects[i];
        if (a.top() == b.top()) {
            if (a.bottom() != b.bottom() || b.left() <= a.right() + 1)
                return false;
        } else if (b.top() <= a.bottom()) {
            return false;
        }
    }
    return true;
}

QRegion MergeAll(std::vector<QRegion> parts)
{
    if (parts.empty())
        return {};
    while (parts.size() > 1) {
        std::vector<QRegion> next;
        next.reserve((parts.size() + 1) / 2);
        for (std::size_t i = 0; i + 1 < parts.size(); i += 2)
            next.push_back(parts[i].united(parts[i + 1]));
        if (parts.size() % 2 != 0)
            next.push_back(parts.back());
        parts = std::move(next);
    }
    return parts.front();
}

} // namespace

bool CDynRgn::LoadFromPath(const std::string& path, double xScale, double yScale)
{
    if (path.empty() || path == "void") {
        Reset();
        m_lastError.clear();
        return true;
    }
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) {
        m_lastError = "cannot open " + path;
        return false;
    }
    if (size > kMaxFileBytes) {
        m_lastError = "the file is too large for region data";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in) {
        m_lastError = "cannot read " + path;
        return false;
    }
    return LoadFromData(bytes, xScale, yScale);
}

bool CDynRgn::LoadFromData(std::span<const std::uint8_t> bytes, double xScale, double yScale)
{
    if (bytes.size() < kHeaderBytes) {
        m_lastError = "the region header is incomplete";
        return false;
    }
    const std::int32_t headerSize = I32(bytes, 0);
    const std::int32_t type = I32(bytes, 4);
    const auto count = static_cast<std::uint32_t>(I32(bytes, 8));
    if (headerSize != static_cast<std::int32_t>(kHeaderBytes) || static_cast<std::uint32_t>(type) != kRectanglesType) {
        m_lastError = "not region data (wrong header size or type)";
        return false;
    }
    if (count > (bytes.size() - kHeaderBytes) / kRectBytes) {
        m_lastError = "the region's rectangle list is cut short";
        return false;
    }
    if (!std::isfinite(xScale) || !std::isfinite(yScale)) {
        m_lastError = "the region scale is not a number";
        return false;
    }

    std::vector<QRect> rects;
    rects.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t at = kHeaderBytes + static_cast<std::size_t>(i) * kRectBytes;
        const double edges[4] = {std::round(I32(bytes, at) * xScale), std::round(I32(bytes, at + 4) * yScale),
                                 std::round(I32(bytes, at + 8) * xScale), std::round(I32(bytes, at + 12) * yScale)};
        for (const double edge : edges) {
            if (std::fabs(edge) > kMaxCoordinate) {
                m_lastError = "a region rectangle lies outside the coordinate range";
                return false;
            }
        }
        // Edges are exclusive on the right and bottom; empty or inverted rectangles add nothing.
        const auto left = static_cast<int>(std::min(edges[0], edges[2]));
        const auto right = static_cast<int>(std::max(edges[0], edges[2]));
        const auto top = static_cast<int>(std::min(edges[1], edges[3]));
        const auto bottom = static_cast<int>(std::max(edges[1], edges[3]));
        if (right > left && bottom > top)
            rects.emplace_back(left, top, right - left, bottom - top);
    }

    QRegion region;
    if (IsBanded(rects)) {
        region.setRects(rects.data(), static_cast<int>(rects.size()));
    } else {
        std::vector<QRegion> parts(rects.begin(), rects.end());
        region = MergeAll(std::move(parts));
    }
    m_region = std::move(region);
    m_loaded = true;
    m_lastError.clear();
    return true;
}

std::vector<std::uint8_t> CDynRgn::Serialize(const QRegion& region)
{
    std::vector<std::uint8_t> out;
    const int count = region.rectCount();
    out.reserve(kHeaderBytes + static_cast<std::size_t>(count) * kRectBytes);
    const QRect bounds = region.boundingRect();
    PutI32(out, static_cast<std::int64_t>(kHeaderBytes));
    PutI32(out, kRectanglesType);
    PutI32(out, count);
    PutI32(out, static_cast<std::int64_t>(count) * static_cast<std::int64_t>(kRectBytes));
    PutI32(out, bounds.left());
    PutI32(out, bounds.top());
    PutI32(out, static_cast<std::int64_t>(bounds.left()) + bounds.width());
    PutI32(out, static_cast<std::int64_t>(bounds.top()) + bounds.height());
    for (const QRect& r : region) {
        PutI32(out, r.left());
        PutI32(out, r.top());
        PutI32(out, static_cast<std::int64_t>(r.left()) + r.width());
        PutI32(out, static_cast<std::int64_t>(r.top()) + r.height());
    }
    return out;
}

} // namespace larimo
