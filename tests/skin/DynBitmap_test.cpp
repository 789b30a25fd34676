// SPDX-License-Identifier: GPL-3.0-or-later
#include "DynBitmap.h"

#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "CursorFile.h"
#include "DynRgn.h"

namespace larimo {
namespace {

using Bytes = std::vector<std::uint8_t>;

void Put16(Bytes& b, unsigned v)
{
    b.push_back(static_cast<std::uint8_t>(v));
    b.push_back(static_cast<std::uint8_t>(v >> 8));
}

void Put32(Bytes& b, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// The information header, colour table (or masks) and rows of a bitmap, without file header.
Bytes Dib(std::int32_t width, std::int32_t height, unsigned bits, std::uint32_t compression, std::uint32_t used,
          const Bytes& table, const Bytes& rows)
{
    Bytes b;
    Put32(b, 40);
    Put32(b, static_cast<std::uint32_t>(width));
    Put32(b, static_cast<std::uint32_t>(height));
    Put16(b, 1);
    Put16(b, bits);
    Put32(b, compression);
    Put32(b, static_cast<std::uint32_t>(rows.size()));
    Put32(b, 2835);
    Put32(b, 2835);
    Put32(b, used);
    Put32(b, 0);
    b.insert(b.end(), table.begin(), table.end());
    b.insert(b.end(), rows.begin(), rows.end());
    return b;
}

Bytes Bmp(const Bytes& dib)
{
    Bytes b{'B', 'M'};
    Put32(b, static_cast<std::uint32_t>(14 + dib.size()));
    Put32(b, 0);
    Put32(b, 54);
    b.insert(b.end(), dib.begin(), dib.end());
    return b;
}

TEST(DynBitmap, TwentyFourBitRowsArePaddedAndStoredBottomUp)
{
    // 3 x 2: bottom row blue, green, red; top row white, black, grey; rows padded to 12 bytes.
    const Bytes rows = {255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0,
                        255, 255, 255, 0, 0, 0, 128, 128, 128, 0, 0, 0};
    CDynBitmap bitmap;
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(3, 2, 24, 0, 0, {}, rows)))) << bitmap.LastError();
    EXPECT_EQ(bitmap.Image().size(), QSize(3, 2));
    EXPECT_EQ(bitmap.Image().pixel(0, 1), qRgb(0, 0, 255));
    EXPECT_EQ(bitmap.Image().pixel(2, 1), qRgb(255, 0, 0));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(255, 255, 255));
    EXPECT_EQ(bitmap.Image().pixel(2, 0), qRgb(128, 128, 128));
}

TEST(DynBitmap, PalettedBitmapsUseTheUsedColoursCount)
{
    // Two table entries only: the pixel rows start right after them.
    const Bytes table = {0, 0, 255, 0, 255, 0, 0, 0};
    const Bytes rows = {1, 0, 0, 0, 0, 1, 0, 0};
    CDynBitmap bitmap;
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(2, -2, 8, 0, 2, table, rows)))) << bitmap.LastError();
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(0, 0, 255)) << "negative height: top row first";
    EXPECT_EQ(bitmap.Image().pixel(1, 0), qRgb(255, 0, 0));
    EXPECT_EQ(bitmap.Image().pixel(1, 1), qRgb(0, 0, 255));

    // 4 bits: two pixels per byte, high nibble first; index past the table is black.
    const Bytes table4 = {10, 20, 30, 0, 40, 50, 60, 0};
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(3, 1, 4, 0, 2, table4, {0x10, 0xF0, 0, 0}))));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(60, 50, 40));
    EXPECT_EQ(bitmap.Image().pixel(1, 0), qRgb(30, 20, 10));
    EXPECT_EQ(bitmap.Image().pixel(2, 0), qRgb(0, 0, 0));

    // 1 bit with the full two-entry table implied by a used count of 0.
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(9, 1, 1, 0, 0, {0, 0, 0, 0, 255, 255, 255, 0}, {0xA0, 0x80, 0, 0}))));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(255, 255, 255));
    EXPECT_EQ(bitmap.Image().pixel(1, 0), qRgb(0, 0, 0));
    EXPECT_EQ(bitmap.Image().pixel(2, 0), qRgb(255, 255, 255));
    EXPECT_EQ(bitmap.Image().pixel(8, 0), qRgb(255, 255, 255));
}

TEST(DynBitmap, DeepBitmapsWithAndWithoutChannelMasks)
{
    CDynBitmap bitmap;
    // 16 bits, 5-5-5 by default: pure red is 0x7C00.
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(1, 1, 16, 0, 0, {}, {0x00, 0x7C, 0, 0}))));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(255, 0, 0));
    // 16 bits with 5-6-5 masks after the header: pure green is 0x07E0.
    Bytes masks;
    Put32(masks, 0xF800);
    Put32(masks, 0x07E0);
    Put32(masks, 0x001F);
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(1, 1, 16, 3, 0, masks, {0xE0, 0x07, 0, 0}))));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(0, 255, 0));
    // 32 bits: the fourth byte is not alpha for a plain bitmap.
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(1, 1, 32, 0, 0, {}, {1, 2, 3, 0}))));
    EXPECT_EQ(bitmap.Image().pixel(0, 0), qRgb(3, 2, 1));
}

TEST(DynBitmap, BrokenFilesAreRefusedAndTheHeldImageStays)
{
    CDynBitmap bitmap;
    ASSERT_TRUE(bitmap.LoadFromData(Bmp(Dib(1, 1, 24, 0, 0, {}, {9, 9, 9, 0}))));
    const Bytes good = Bmp(Dib(2, 2, 24, 0, 0, {}, Bytes(16, 0)));
    std::vector<Bytes> broken;
    Bytes noMark = good;
    noMark[0] = 'X';
    broken.push_back(noMark);
    broken.push_back(Bytes(good.begin(), good.begin() + 13));
    broken.push_back(Bytes(good.begin(), good.begin() + 40));
    broken.push_back(Bytes(good.begin(), good.end() - 1));
    broken.push_back(Bmp(Dib(0, 2, 24, 0, 0, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(2, 0, 24, 0, 0, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(2, 2, 7, 0, 0, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(2, 2, 8, 1, 0, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(2, 2, 8, 0, 1000, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(100000, 100000, 24, 0, 0, {}, Bytes(16, 0))));
    broken.push_back(Bmp(Dib(-2147483647 - 1, -2147483647 - 1, 32, 3, 0, {}, {})));
    Bytes smallHeader = good;
    smallHeader[14] = 12;
    broken.push_back(smallHeader);
    for (std::size_t i = 0; i < broken.size(); ++i) {
        EXPECT_FALSE(bitmap.LoadFromData(broken[i])) << "case " << i;
        EXPECT_FALSE(bitmap.LastError().empty()) << "case " << i;
        EXPECT_EQ(bitmap.Image().size(), QSize(1, 1)) << "case " << i;
    }
    EXPECT_FALSE(bitmap.LoadFromPath("/nonexistent/larimo.bmp"));
}

TEST(DynRgn, RegionDataRoundTripsAndScales)
{
    QRegion shape(QRect(10, 0, 20, 5));
    shape += QRect(0, 5, 40, 10);
    shape += QRect(50, 5, 5, 10);
    const Bytes data = CDynRgn::Serialize(shape);
    ASSERT_EQ(data.size(), 32U + 16U * static_cast<std::size_t>(shape.rectCount()));
    CDynRgn region;
    ASSERT_TRUE(region.LoadFromData(data, 1.0, 1.0)) << region.LastError();
    EXPECT_EQ(region.Region(), shape);
    EXPECT_TRUE(region.Contains(QPoint(0, 5)));
    EXPECT_FALSE(region.Contains(QPoint(0, 4)));
    EXPECT_FALSE(region.Contains(QPoint(45, 6)));

    ASSERT_TRUE(region.LoadFromData(data, 2.0, 0.5));
    EXPECT_EQ(region.Region().boundingRect(), QRect(0, 0, 110, 8));
}

TEST(DynRgn, OverlappingRectanglesAreUnited)
{
    Bytes data;
    Put32(data, 32);
    Put32(data, 1);
    Put32(data, 3);
    Put32(data, 48);
    for (int i = 0; i < 4; ++i)
        Put32(data, 0);
    for (const auto& r : {QRect(0, 0, 10, 10), QRect(5, 5, 10, 10), QRect(30, 30, -5, 4)}) {
        Put32(data, static_cast<std::uint32_t>(r.left()));
        Put32(data, static_cast<std::uint32_t>(r.top()));
        Put32(data, static_cast<std::uint32_t>(r.left() + r.width()));
        Put32(data, static_cast<std::uint32_t>(r.top() + r.height()));
    }
    CDynRgn region;
    ASSERT_TRUE(region.LoadFromData(data, 1.0, 1.0));
    EXPECT_TRUE(region.Contains(QPoint(12, 12)));
    EXPECT_TRUE(region.Contains(QPoint(2, 2)));
    EXPECT_FALSE(region.Contains(QPoint(12, 2)));
    EXPECT_TRUE(region.Contains(QPoint(26, 31))) << "an inverted rectangle counts with its edges swapped";
}

TEST(DynRgn, BrokenDataIsRefusedAndVoidClears)
{
    const Bytes good = CDynRgn::Serialize(QRegion(0, 0, 4, 4));
    CDynRgn region;
    ASSERT_TRUE(region.LoadFromData(good, 1.0, 1.0));
    std::vector<Bytes> broken;
    broken.push_back(Bytes(good.begin(), good.begin() + 31));
    broken.push_back(Bytes(good.begin(), good.end() - 1));
    Bytes wrongSize = good;
    wrongSize[0] = 40;
    broken.push_back(wrongSize);
    Bytes wrongType = good;
    wrongType[4] = 2;
    broken.push_back(wrongType);
    Bytes hugeCount = good;
    hugeCount[11] = 0x7F;
    broken.push_back(hugeCount);
    Bytes farAway = good;
    farAway[32 + 11] = 0x7F;
    broken.push_back(farAway);
    for (std::size_t i = 0; i < broken.size(); ++i) {
        EXPECT_FALSE(region.LoadFromData(broken[i], 1.0, 1.0)) << "case " << i;
        EXPECT_TRUE(region.Contains(QPoint(1, 1))) << "case " << i;
    }
    EXPECT_FALSE(region.LoadFromData(good, std::nan(""), 1.0));
    EXPECT_FALSE(region.LoadFromPath("/nonexistent/larimo.rgn", 1.0, 1.0));
    EXPECT_FALSE(region.IsNull());
    EXPECT_TRUE(region.LoadFromPath("void", 1.0, 1.0));
    EXPECT_TRUE(region.IsNull());
}

// A 2 x 2 cursor: 32-bit colours when `alpha`, else 24-bit with the 1-bit mask.
Bytes Cursor(bool alpha, QPoint hot)
{
    Bytes rows;
    if (alpha) {
        rows = {0, 0, 255, 255, 0, 255, 0, 0, 255, 0, 0, 128, 1, 1, 1, 255};
    } else {
        rows = {0, 0, 255, 0, 255, 0, 0, 0, 255, 0, 0, 1, 1, 1, 0, 0};
    }
    const Bytes mask = {0x40, 0, 0, 0, 0x00, 0, 0, 0};
    Bytes image = Dib(2, 4, alpha ? 32 : 24, 0, 0, {}, rows);
    image.insert(image.end(), mask.begin(), mask.end());
    Bytes file;
    Put16(file, 0);
    Put16(file, 2);
    Put16(file, 1);
    file.insert(file.end(), {2, 2, 0, 0});
    Put16(file, static_cast<unsigned>(hot.x()));
    Put16(file, static_cast<unsigned>(hot.y()));
    Put32(file, static_cast<std::uint32_t>(image.size()));
    Put32(file, 22);
    file.insert(file.end(), image.begin(), image.end());
    return file;
}

TEST(CursorFile, StaticCursorsCarryTheirHotSpotAndTransparency)
{
    CursorImage cursor;
    std::string why;
    ASSERT_TRUE(DecodeCursor(Cursor(true, QPoint(1, 0)), cursor, why)) << why;
    EXPECT_EQ(cursor.hotSpot, QPoint(1, 0));
    EXPECT_EQ(cursor.image.pixel(0, 1), qRgba(255, 0, 0, 255));
    EXPECT_EQ(cursor.image.pixel(1, 1), qRgba(0, 255, 0, 0));
    EXPECT_EQ(qAlpha(cursor.image.pixel(0, 0)), 128);

    ASSERT_TRUE(DecodeCursor(Cursor(false, QPoint(9, 9)), cursor, why)) << why;
    EXPECT_EQ(cursor.hotSpot, QPoint(0, 0)) << "a hot spot outside the image falls back to the corner";
    EXPECT_EQ(qAlpha(cursor.image.pixel(1, 1)), 0) << "mask bit set: transparent";
    EXPECT_EQ(cursor.image.pixel(0, 1), qRgba(255, 0, 0, 255));
}

TEST(CursorFile, AnimatedCursorsUseTheirFirstFrame)
{
    const Bytes frame = Cursor(true, QPoint(1, 1));
    Bytes list{'L', 'I', 'S', 'T'};
    Put32(list, static_cast<std::uint32_t>(4 + 8 + frame.size()));
    list.insert(list.end(), {'f', 'r', 'a', 'm', 'i', 'c', 'o', 'n'});
    Put32(list, static_cast<std::uint32_t>(frame.size()));
    list.insert(list.end(), frame.begin(), frame.end());
    Bytes file{'R', 'I', 'F', 'F'};
    Put32(file, static_cast<std::uint32_t>(4 + 8 + 36 + list.size()));
    file.insert(file.end(), {'A', 'C', 'O', 'N', 'a', 'n', 'i', 'h'});
    Put32(file, 36);
    file.insert(file.end(), 36, 0);
    file.insert(file.end(), list.begin(), list.end());

    CursorImage cursor;
    std::string why;
    ASSERT_TRUE(DecodeCursor(file, cursor, why)) << why;
    EXPECT_EQ(cursor.hotSpot, QPoint(1, 1));
    EXPECT_EQ(cursor.image.size(), QSize(2, 2));

    file.resize(file.size() - frame.size() / 2);
    EXPECT_FALSE(DecodeCursor(file, cursor, why));
    EXPECT_FALSE(DecodeCursor(Bytes{'R', 'I', 'F', 'F', 4, 0, 0, 0, 'A', 'C', 'O', 'N'}, cursor, why));
    EXPECT_FALSE(DecodeCursor(Bytes(30, 0), cursor, why));
    EXPECT_FALSE(why.empty());
}

} // namespace
} // namespace larimo
