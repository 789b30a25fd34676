// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/Resampler.h"

#include <soxr.h>

#include <type_traits>

namespace larimo {

struct Resampler::Handle {
    struct Deleter {
        void operator()(soxr_t resampler) const { soxr_delete(resampler); }
    };
    std::unique_ptr<std::remove_pointer_t<soxr_t>, Deleter> soxr;
};

Resampler::Resampler() = default;

Resampler::~Resampler() = default;

bool Resampler::Open(double inputRate, double outputRate)
{
    m_handle.reset();
    m_error.clear();
    if (!(inputRate > 0) || !(outputRate > 0)) {
        m_error = "sample rates must be above 0";
        return false;
    }
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, SOXR_LINEAR_PHASE);
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_error_t error = nullptr;
    soxr_t resampler = soxr_create(inputRate, outputRate, 1, &error, &io, &quality, &runtime);
    if (!resampler || error) {
        m_error = error ? error : "cannot create the resampler";
        if (resampler)
            soxr_delete(resampler);
        return false;
    }
    m_handle = std::make_unique<Handle>();
    m_handle->soxr.reset(resampler);
    m_ratio = outputRate / inputRate;
    return true;
}

bool Resampler::Run(const float* input, std::size_t count, std::span<const float>& output)
{
    output = {};
    if (!m_handle) {
        m_error = "the resampler is not open";
        return false;
    }
    const auto expected = static_cast<std::size_t>(static_cast<double>(count) * m_ratio) + 256;
    if (m_output.size() < expected)
        m_output.resize(expected);

    const bool draining = input == nullptr;
    std::size_t produced = 0;
    for (;;) {
        if (m_output.size() - produced < 64)
            m_output.resize(m_output.size() * 2);
        const std::size_t space = m_output.size() - produced;
        std::size_t consumed = 0;
        std::size_t made = 0;
        const soxr_error_t error = soxr_process(m_handle->soxr.get(), input, draining ? 0 : count,
                                                &consumed, m_output.data() + produced, space, &made);
        if (error) {
            m_error = error;
            return false;
        }
        produced += made;
        if (!draining) {
            input += consumed;
            count -= consumed;
        }
        const bool outputWasFull = made == space;
        if (draining ? made == 0 : (count == 0 && !outputWasFull))
            break;
        if (!draining && consumed == 0 && made == 0) {
            m_error = "the resampler takes no more input";
            return false;
        }
    }
    output = std::span<const float>(m_output.data(), produced);
    return true;
}

bool Resampler::Process(std::span<const float> input, std::span<const float>& output)
{
    // An empty view may carry a null pointer, which would end the stream.
    static const float kNothing = 0.0f;
    return Run(input.empty() ? &kNothing : input.data(), input.size(), output);
}

bool Resampler::Drain(std::span<const float>& output)
{
    return Run(nullptr, 0, output);
}

} // namespace larimo
