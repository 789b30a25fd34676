// SPDX-License-Identifier: GPL-3.0-or-later
// Sample-rate conversion of a mono float stream at high quality (20-bit precision, linear
// phase, about 95 % of the pass band kept).
//
// Any thread except the real-time audio thread (it allocates); one object is used by one
// thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace larimo {

class Resampler {
public:
    Resampler();
    ~Resampler();
    Resampler(const Resampler&) = delete;
    Resampler& operator=(const Resampler&) = delete;

    /// Prepares a conversion from `inputRate` to `outputRate` (both above 0). False on failure;
    /// ErrorText() says why.
    bool Open(double inputRate, double outputRate);

    /// Feeds all of `input` and returns the output that is ready; the view is valid until the
    /// next call. False on failure.
    bool Process(std::span<const float> input, std::span<const float>& output);
    /// Ends the input and returns the rest of the output. False on failure.
    bool Drain(std::span<const float>& output);

    std::string ErrorText() const { return m_error; }

private:
    bool Run(const float* input, std::size_t count, std::span<const float>& output);

    struct Handle;
    std::unique_ptr<Handle> m_handle;
    std::vector<float> m_output;
    double m_ratio = 1.0;
    std::string m_error;
};

} // namespace larimo
