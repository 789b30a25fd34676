// SPDX-License-Identifier: GPL-3.0-or-later
#include "DynBitmap.h"

#include <array>
#include <bit>
#include <filesystem>
#include <fstream>
#include <vector>

namespace larimo {

namespace {

constexpr std::size_t kFileHeaderBytes = 14;
constexpr std::size_t kInfoHeaderBytes = 40;
constexpr std::uint32_t kBiRgb = 0;
constexpr std::uint32_t kBiBitfields = 3;
// Larger than any skin or cursor image; bounds what a lying header can make us allocate.
constexpr std::int64_t kMaxSide = 16384;
constexpr std::int64_t kMaxPixels = 32LL * 1024 * 1024;
constexpr std::uintmax_t kMaxFileBytes = 256U * 1024U * 1024U;

std::uint32_t U32(std::span<const std::uint8_t> b, std::size_t at)
{
    return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
           static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

std::uint16_t U16(std::span<const std::uint8_t> b, std::size_t at)
{
    return static_cast<std::uint16_t>(b[at] | b[at + 1] << 8);
}

// One colour channel of a packed pixel, widened to 8 bits.
struct Channel {
    std::uint32_t mask = 0;
    int shift = 0;
    std::uint32_t max = 0;

    explicit Channel(std::uint32_t m) : mask(m)
    {
        if (mask != 0) {
            shift = std::countr_zero(mask);
            max = mask >> shift;
        }
    }
    int Of(std::uint32_t pixel) const
    {
        if (max == 0)
            return 0;
        return static_cast<int>(((pixel & mask) >> shift) * 255U / max);
    }
};

} // namespace

bool DecodeDib(std::span<const std::uint8_t> dib, bool iconMasks, QImage& image, std::string& why)
{
    if (dib.size() < kInfoHeaderBytes) {
        why = "the bitmap header is incomplete";
        return false;
    }
    const std::uint32_t headerSize = U32(dib, 0);
    if (headerSize < kInfoHeaderBytes) {
        why = "the bitmap header is of an unsupported kind";
        return false;
    }
    const auto width = static_cast<std::int32_t>(U32(dib, 4));
    auto height = static_cast<std::int32_t>(U32(dib, 8));
    const unsigned bitCount = U16(dib, 14);
    const std::uint32_t compression = U32(dib, 16);
    const std::uint32_t usedColors = U32(dib, 32);

    if (iconMasks)
        height /= 2;
    const bool topDown = height < 0;
    const std::int64_t rows = topDown ? -static_cast<std::int64_t>(height) : height;
    if (width <= 0 || rows == 0 || width > kMaxSide || rows > kMaxSide ||
        static_cast<std::int64_t>(width) * rows > kMaxPixels) {
        why = "the bitmap has an impossible size";
        return false;
    }
    if (bitCount != 1 && bitCount != 4 && bitCount != 8 && bitCount != 16 && bitCount != 24 &&
        bitCount != 32) {
        why = "the bitmap has an unsupported bit count";
        return false;
    }
    const bool bitfields = compression == kBiBitfields;
    if (compression != kBiRgb && !(bitfields && (bitCount == 16 || bitCount == 32))) {
        why = "the bitmap is compressed in a way that is not supported";
        return false;
    }

    // The colour table follows the header; for deep bitmaps it is only the optional list of
    // used colours, with the three channel masks before it.
    const std::uint64_t colorCount = usedColors != 0 ? usedColors : (bitCount <= 8 ? 1ULL << bitCount : 0);
    std::uint64_t tableOffset = headerSize;
    std::uint64_t bitsOffset = 0;
    std::uint32_t masks[3] = {0, 0, 0};
    if (bitCount <= 8) {
        bitsOffset = tableOffset + colorCount * 4;
    } else {
        if (bitfields) {
            // A plain 40-byte header is followed by the masks; longer headers hold them at
            // the same place.
            if (dib.size() < kInfoHeaderBytes + 12) {
                why = "the bitmap's channel masks are missing";
                return false;
            }
            for (int i = 0; i < 3; ++i)
                masks[i] = U32(dib, kInfoHeaderBytes + 4 * static_cast<std::size_t>(i));
            if (headerSize == kInfoHeaderBytes)
                tableOffset += 12;
        } else if (bitCount == 16) {
            masks[0] = 0x7C00U;
            masks[1] = 0x03E0U;
            masks[2] = 0x001FU;
        } else {
            masks[0] = 0xFF0000U;
            masks[1] = 0x00FF00U;
            masks[2] = 0x0000FFU;
        }
        bitsOffset = tableOffset + colorCount * 4;
    }
    if (bitsOffset > dib.size()) {
        why = "the bitmap's colour table is cut short";
        return false;
    }

    const std::uint64_t stride = (static_cast<std::uint64_t>(width) * bitCount + 31) / 32 * 4;
    const std::uint64_t maskStride = (static_cast<std::uint64_t>(width) + 31) / 32 * 4;
    const std::uint64_t needed = stride * static_cast<std::uint64_t>(rows) +
                                 (iconMasks ? maskStride * static_cast<std::uint64_t>(rows) : 0);
    if (dib.size() - bitsOffset < needed) {
        why = "the bitmap's pixel data is cut short";
        return false;
    }

    std::vector<QRgb> palette;
    if (bitCount <= 8) {
        palette.resize(static_cast<std::size_t>(std::min<std::uint64_t>(colorCount, 256)));
        for (std::size_t i = 0; i < palette.size(); ++i) {
            const std::size_t at = static_cast<std::size_t>(tableOffset) + i * 4;
            palette[i] = qRgb(dib[at + 2], dib[at + 1], dib[at]);
        }
    }
    const Channel red(masks[0]);
    const Channel green(masks[1]);
    const Channel blue(masks[2]);

    QImage made(width, static_cast<int>(rows), iconMasks ? QImage::Format_ARGB32 : QImage::Format_RGB32);
    if (made.isNull()) {
        why = "there is not enough memory for the bitmap";
        return false;
    }
    const std::uint8_t* bits = dib.data() + bitsOffset;
    bool anyAlpha = false;
    for (std::int64_t row = 0; row < rows; ++row) {
        const std::uint8_t* src = bits + static_cast<std::size_t>(row) * stride;
        const int y = static_cast<int>(topDown ? row : rows - 1 - row);
        auto* dst = reinterpret_cast<QRgb*>(made.scanLine(y));
        for (int x = 0; x < width; ++x) {
            QRgb pixel = 0;
            if (bitCount <= 8) {
                const auto bitPos = static_cast<std::size_t>(x) * bitCount;
                const unsigned byte = src[bitPos / 8];
                const unsigned index = (byte >> (8 - bitCount - bitPos % 8)) & ((1U << bitCount) - 1);
                pixel = index < palette.size() ? palette[index] : qRgb(0, 0, 0);
            } else if (bitCount == 24) {
                const std::uint8_t* p = src + static_cast<std::size_t>(x) * 3;
                pixel = qRgb(p[2], p[1], p[0]);
            } else {
                const std::uint8_t* p = src + static_cast<std::size_t>(x) * (bitCount / 8);
                std::uint32_t packed = p[0] | static_cast<std::uint32_t>(p[1]) << 8;
                if (bitCount == 32) {
                    packed |= static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
                    if (iconMasks && p[3] != 0)
                        anyAlpha = true;
                }
                pixel = qRgb(red.Of(packed), green.Of(packed), blue.Of(packed));
                if (iconMasks && bitCount == 32)
                    pixel = qRgba(qRed(pixel), qGreen(pixel), qBlue(pixel), p[3]);
            }
            dst[x] = pixel;
        }
    }

    if (iconMasks && !anyAlpha) {
        // Cursors without an alpha channel say through the 1-bit mask which pixels show.
        const std::uint8_t* mask = bits + stride * static_cast<std::uint64_t>(rows);
        for (std::int64_t row = 0; row < rows; ++row) {
            const std::uint8_t* src = mask + static_cast<std::size_t>(row) * maskStride;
            const int y = static_cast<int>(topDown ? row : rows - 1 - row);
            auto* dst = reinterpret_cast<QRgb*>(made.scanLine(y));
            for (int x = 0; x < width; ++x) {
                const bool transparent = (src[x / 8] >> (7 - x % 8)) & 1U;
                dst[x] = transparent ? qRgba(0, 0, 0, 0) : (dst[x] | 0xFF000000U);
            }
        }
    }
    image = std::move(made);
    return true;
}

bool CDynBitmap::LoadFromPath(const std::string& path)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) {
        m_lastError = "cannot open " + path;
        return false;
    }
    if (size > kMaxFileBytes) {
        m_lastError = "the file is too large for a bitmap";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in) {
        m_lastError = "cannot read " + path;
        return false;
    }
    return LoadFromData(bytes);
}

bool CDynBitmap::LoadFromData(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() < kFileHeaderBytes || bytes[0] != 'B' || bytes[1] != 'M') {
        m_lastError = "not a BMP file (no \"BM\" mark)";
        return false;
    }
    QImage image;
    std::string why;
    if (!DecodeDib(bytes.subspan(kFileHeaderBytes), false, image, why)) {
        m_lastError = why;
        return false;
    }
    m_image = std::move(image);
    m_lastError.clear();
    return true;
}

} // namespace larimo
