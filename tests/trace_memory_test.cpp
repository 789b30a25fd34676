// SPDX-License-Identifier: GPL-3.0-or-later
// The trace memory's size word is checked against the mapping before it sizes anything.
#include "TraceMemory.h"

#include <gtest/gtest.h>

#include <cstring>

namespace larimo {
namespace {

TEST(TraceMemory, ASizeWordMustFitTheMapping)
{
    constexpr size_t kMapping = 4 + 2 * 8192;
    EXPECT_EQ(TraceSampleCount(0, kMapping), 0U);
    EXPECT_EQ(TraceSampleCount(2 * 1102, kMapping), 1102U);
    EXPECT_EQ(TraceSampleCount(2 * 8192, kMapping), 8192U) << "the whole data area";
    EXPECT_EQ(TraceSampleCount(2 * 8192 + 1, kMapping), std::nullopt);
    EXPECT_EQ(TraceSampleCount(0xFFFFFFFFu, kMapping), std::nullopt) << "a damaged word must not ask for 4 GiB";
    EXPECT_EQ(TraceSampleCount(7, kMapping), 3U) << "an odd byte is no sample";
    EXPECT_EQ(TraceSampleCount(0, 3), std::nullopt) << "no room for the word itself";
}

TEST(TraceMemory, AnImageGivesItsSamplesOrNothing)
{
    std::vector<uint8_t> image(4 + 2 * 4, 0);
    const uint32_t word = 6;
    std::memcpy(image.data(), &word, 4);
    const int16_t values[4] = {100, -200, 300, 9};
    std::memcpy(image.data() + 4, values, sizeof values);
    EXPECT_EQ(ReadTraceImage(image.data(), image.size()), (std::vector<int16_t>{100, -200, 300}));

    const uint32_t lying = 1000;
    std::memcpy(image.data(), &lying, 4);
    EXPECT_TRUE(ReadTraceImage(image.data(), image.size()).empty());
    EXPECT_TRUE(ReadTraceImage(image.data(), 2).empty());
    EXPECT_TRUE(ReadTraceImage(nullptr, 0).empty());
}

} // namespace
} // namespace larimo
