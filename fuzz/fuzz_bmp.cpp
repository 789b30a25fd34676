// SPDX-License-Identifier: GPL-3.0-or-later
// Bitmaps and cursors of skins come from anywhere: the readers must refuse broken files
// without crashing, keep what they held, and give images of the size the file declares.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "CursorFile.h"
#include "DynBitmap.h"

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> bytes(data, size);
    larimo::CDynBitmap bitmap;
    if (bitmap.LoadFromData(bytes)) {
        Check(!bitmap.IsNull() && bitmap.Width() > 0 && bitmap.Height() > 0);
        Check(bitmap.LastError().empty());
    } else {
        Check(bitmap.IsNull() && !bitmap.LastError().empty());
    }

    larimo::CursorImage cursor;
    std::string why;
    if (larimo::DecodeCursor(bytes, cursor, why))
        Check(!cursor.image.isNull() && cursor.image.rect().contains(cursor.hotSpot));
    else
        Check(!why.empty());
    return 0;
}
