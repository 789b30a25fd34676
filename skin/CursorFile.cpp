// SPDX-License-Identifier: GPL-3.0-or-later
#include "CursorFile.h"

#include <filesystem>
#include <fstream>
#include <vector>

#include <QPixmap>

#include "DynBitmap.h"
#include "riff.h"

namespace larimo {

namespace {

constexpr std::size_t kDirectoryBytes = 6;
constexpr std::size_t kEntryBytes = 16;
constexpr std::uint16_t kCursorType = 2;
constexpr std::uint16_t kIconType = 1;
constexpr std::uintmax_t kMaxFileBytes = 16U * 1024U * 1024U;

std::uint32_t U32(std::span<const std::uint8_t> b, std::size_t at)
{
    return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
           static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

std::uint16_t U16(std::span<const std::uint8_t> b, std::size_t at)
{
    return static_cast<std::uint16_t>(b[at] | b[at + 1] << 8);
}

bool DecodeStatic(std::span<const std::uint8_t> bytes, CursorImage& cursor, std::string& why)
{
    if (bytes.size() < kDirectoryBytes + kEntryBytes || U16(bytes, 0) != 0 ||
        (U16(bytes, 2) != kCursorType && U16(bytes, 2) != kIconType) || U16(bytes, 4) == 0) {
        why = "not a cursor file";
        return false;
    }
    const bool isCursor = U16(bytes, 2) == kCursorType;
    const std::size_t entry = kDirectoryBytes;
    const std::uint32_t imageBytes = U32(bytes, entry + 8);
    const std::uint32_t imageOffset = U32(bytes, entry + 12);
    if (imageOffset > bytes.size() || imageBytes > bytes.size() - imageOffset) {
        why = "the cursor image lies outside the file";
        return false;
    }
    const std::span<const std::uint8_t> data = bytes.subspan(imageOffset, imageBytes);
    static constexpr std::uint8_t kPngMark[] = {0x89, 'P', 'N', 'G'};
    QImage image;
    if (data.size() >= 4 && std::equal(std::begin(kPngMark), std::end(kPngMark), data.begin())) {
        if (!image.loadFromData(data.data(), static_cast<int>(data.size()), "PNG")) {
            why = "the cursor's PNG image cannot be read";
            return false;
        }
    } else if (!DecodeDib(data, true, image, why)) {
        return false;
    }
    cursor.image = image.convertToFormat(QImage::Format_ARGB32);
    cursor.hotSpot = isCursor ? QPoint(U16(bytes, entry + 4), U16(bytes, entry + 6))
                              : QPoint(image.width() / 2, image.height() / 2);
    if (!cursor.image.rect().contains(cursor.hotSpot))
        cursor.hotSpot = QPoint(0, 0);
    return true;
}

bool DecodeAnimated(std::span<const std::uint8_t> bytes, CursorImage& cursor, std::string& why)
{
    MemorySource source(bytes);
    RiffReader reader(source);
    const auto form = reader.FindForm(FourCc("ACON"));
    if (!form) {
        why = "not an animated cursor file";
        return false;
    }
    for (const RiffChunk& chunk : reader.ListChunks(*form)) {
        if (chunk.id != FourCc("LIST") || reader.ListType(chunk) != FourCc("fram"))
            continue;
        const auto frame = reader.FindChunk(chunk, FourCc("icon"));
        if (!frame)
            break;
        std::vector<std::uint8_t> frameBytes(std::min<std::uint64_t>(frame->size, bytes.size()));
        frameBytes.resize(reader.Read(*frame, 0, frameBytes.data(), frameBytes.size()));
        // Each frame is a whole static cursor file; frames never nest further.
        return DecodeStatic(frameBytes, cursor, why);
    }
    why = "the animated cursor has no frames";
    return false;
}

} // namespace

QCursor CursorImage::ToCursor() const
{
    return QCursor(QPixmap::fromImage(image), hotSpot.x(), hotSpot.y());
}

bool DecodeCursor(std::span<const std::uint8_t> bytes, CursorImage& cursor, std::string& why)
{
    if (bytes.size() >= 4 && bytes[0] == 'R' && bytes[1] == 'I' && bytes[2] == 'F' && bytes[3] == 'F')
        return DecodeAnimated(bytes, cursor, why);
    return DecodeStatic(bytes, cursor, why);
}

bool LoadCursorFile(const std::string& path, CursorImage& cursor, std::string& why)
{
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) {
        why = "cannot open " + path;
        return false;
    }
    if (size > kMaxFileBytes) {
        why = "the file is too large for a cursor";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(size));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!in) {
        why = "cannot read " + path;
        return false;
    }
    return DecodeCursor(bytes, cursor, why);
}

} // namespace larimo
