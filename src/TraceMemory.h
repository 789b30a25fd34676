// SPDX-License-Identifier: GPL-3.0-or-later
// The voice service's trace of what it sends: a 4-byte byte count, then that many bytes of
// 16-bit mono samples, in a mapping both the service and the panel see.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace larimo {

/// How many samples a trace of `sizeWord` bytes holds in a mapping of `mappingSize` bytes, or
/// nothing when the word claims more than the mapping has room for (another version's
/// layout, or a damaged word). Any thread.
std::optional<size_t> TraceSampleCount(uint32_t sizeWord, size_t mappingSize);

/// The samples of a trace held in `image` (a copy of the whole mapping); empty when its size
/// word does not fit. Any thread.
std::vector<int16_t> ReadTraceImage(const uint8_t* image, size_t size);

} // namespace larimo
