// SPDX-License-Identifier: GPL-3.0-or-later
#include "mix.h"

#include <algorithm>
#include <cmath>

namespace larimo {

namespace {

constexpr std::size_t kBytesPerSample = 2;

std::int16_t SampleAt(const std::uint8_t* bytes)
{
    return static_cast<std::int16_t>(static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8));
}

// The product truncated toward zero. A volume far above 1 (or not a number) must not turn
// the conversion to int undefined; anything beyond twice full scale saturates the sum anyway.
int ScaledSample(std::int16_t sample, float volume)
{
    const float product = static_cast<float>(sample) * volume;
    if (!(product > -65536.0f))
        return product != product ? 0 : -65536;
    if (!(product < 65536.0f))
        return 65536;
    return static_cast<int>(product);
}

std::string FileNamePart(const std::string& path)
{
    const auto slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

void MixSound::Clear()
{
    m_cursor = nullptr;
    m_start = nullptr;
    m_end = nullptr;
    m_sampleCount = 0;
    m_bytesPerSample = 0;
    m_wave.reset();
    m_displayName.clear();
    m_path.clear();
    m_loaded = false;
}

unsigned MixSound::Load(const std::string& path)
{
    Clear();
    m_displayName = FileNamePart(path);
    m_path = path;
    auto wave = std::make_unique<Wave>();
    const unsigned result = wave->ReadFromFile(path);
    if (result != kWaveSuccess)
        return result;
    m_wave = std::move(wave);
    m_start = m_wave->Data().data();
    m_cursor = m_start;
    m_sampleCount = m_wave->Data().size() / kBytesPerSample;
    m_end = m_start + m_sampleCount * kBytesPerSample;
    m_bytesPerSample = kBytesPerSample;
    m_loaded = true;
    return kWaveSuccess;
}

void MixSound::MixInto(std::int16_t* samples, std::size_t count)
{
    if (!m_active)
        return;
    if (!m_loaded || m_sampleCount == 0) {
        m_active = false;
        return;
    }
    for (std::size_t i = 0; i < count && m_cursor != nullptr; ++i) {
        const int sum = samples[i] + ScaledSample(SampleAt(m_cursor), m_volume);
        samples[i] = static_cast<std::int16_t>(std::clamp(sum, -32768, 32767));
        m_cursor += kBytesPerSample;
        if (m_cursor >= m_end)
            m_cursor = m_loop ? m_start : nullptr;
    }
    if (m_cursor == nullptr && !m_loop)
        m_active = false;
}

void ScaleVolume(std::int16_t* samples, std::size_t count, std::uint8_t percent)
{
    if (percent == 100)
        return;
    const float factor = static_cast<float>(percent) * 0.01f;
    for (std::size_t i = 0; i < count; ++i) {
        // The product stays within +-83559, so the int conversion is exact; the narrowing to
        // 16 bits wraps on purpose.
        const int product = static_cast<int>(static_cast<float>(samples[i]) * factor);
        samples[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(product));
    }
}

void StretchSamples(const std::int16_t* in, std::size_t count, std::int16_t* out, std::size_t outCount)
{
    if (count == 0 || outCount == 0)
        return;
    if (count == 1 || outCount == 1) {
        for (std::size_t i = 0; i < outCount; ++i)
            out[i] = in[i * (count - 1) / std::max<std::size_t>(outCount - 1, 1)];
        return;
    }
    // Output sample i sits at i * (count - 1) / (outCount - 1) in the input, kept as a whole
    // part and a remainder so that no rounding builds up along a long buffer.
    const std::size_t span = outCount - 1;
    std::size_t whole = 0;
    std::size_t remainder = 0;
    for (std::size_t i = 0; i < outCount; ++i) {
        if (remainder == 0) {
            out[i] = in[whole];
        } else {
            const double part = static_cast<double>(remainder) / static_cast<double>(span);
            const double value = in[whole] + (in[whole + 1] - in[whole]) * part;
            out[i] = static_cast<std::int16_t>(std::lround(value));
        }
        remainder += count - 1;
        whole += remainder / span;
        remainder %= span;
    }
}

} // namespace larimo
