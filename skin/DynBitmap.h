// SPDX-License-Identifier: GPL-3.0-or-later
// Bitmaps of skins: Windows BMP files (a 14-byte file header marked "BM", a 40-byte or longer
// information header, the colour table and the pixel rows), decoded into a QImage.
//
// Loading needs no QGuiApplication; any thread may load into its own object.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include <QImage>

namespace larimo {

/// Decodes a device-independent bitmap that starts with its information header, as BMP files
/// hold it after their file header and icon and cursor files hold it for each image. With
/// `iconMasks` the header's height counts the colour rows and the 1-bit transparency mask
/// after them, and the result carries that transparency as alpha. On failure `why` tells
/// what is wrong with the data.
bool DecodeDib(std::span<const std::uint8_t> dib, bool iconMasks, QImage& image, std::string& why);

class CDynBitmap {
public:
    /// Reads a BMP file; on success the new image replaces the one held, on failure the held
    /// image stays and LastError says why.
    bool LoadFromPath(const std::string& path);
    /// The same over the bytes of a whole BMP file.
    bool LoadFromData(std::span<const std::uint8_t> bytes);

    bool IsNull() const { return m_image.isNull(); }
    const QImage& Image() const { return m_image; }
    int Width() const { return m_image.width(); }
    int Height() const { return m_image.height(); }
    const std::string& LastError() const { return m_lastError; }
    void Reset() { m_image = QImage(); }

private:
    QImage m_image;
    std::string m_lastError;
};

} // namespace larimo
