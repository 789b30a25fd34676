// SPDX-License-Identifier: GPL-3.0-or-later
// Playing loaded sounds into 16-bit mono buffers: a sound with a play position, loop flag and
// volume, the volume scaling of a whole buffer, and the stretching of a buffer by a few samples.
#pragma once

#include "wave.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace larimo {

/// A WAV file loaded for playing, its data taken as signed 16-bit mono samples whatever the
/// file's format. Load and Clear allocate and read files: not on the audio thread. MixInto
/// is the part for the audio thread. One thread at a time.
class MixSound {
public:
    MixSound() = default;
    MixSound(const MixSound&) = delete;
    MixSound& operator=(const MixSound&) = delete;
    MixSound(MixSound&&) noexcept = default;
    MixSound& operator=(MixSound&&) noexcept = default;

    /// Loads `path` and puts the play position at its start; returns a WaveErrorNum.
    unsigned Load(const std::string& path);
    void SetLoop(bool loop) { m_loop = loop; }
    /// Forgets the sound; the object is then as new except for loop, volume and active flags.
    void Clear();

    /// Adds the next `count` samples of the sound, scaled by the volume, to `samples`,
    /// saturating at the 16-bit range. A sound that has ended (and does not loop) leaves the
    /// rest of the buffer as it is and becomes inactive. RT call: no allocation, no locks.
    void MixInto(std::int16_t* samples, std::size_t count);

    bool Loop() const { return m_loop; }
    float Volume() const { return m_volume; }
    void SetVolume(float volume) { m_volume = volume; }
    bool Active() const { return m_active; }
    void SetActive(bool active) { m_active = active; }
    bool Loaded() const { return m_loaded; }
    /// False once the last sample has been played (without loop).
    bool Playing() const { return m_cursor != nullptr; }
    std::size_t SampleCount() const { return m_sampleCount; }
    std::size_t BytesPerSample() const { return m_bytesPerSample; }
    const std::string& DisplayName() const { return m_displayName; }
    const std::string& Path() const { return m_path; }

private:
    const std::uint8_t* m_cursor = nullptr;
    const std::uint8_t* m_start = nullptr;
    const std::uint8_t* m_end = nullptr;
    std::size_t m_sampleCount = 0;
    std::size_t m_bytesPerSample = 0;
    bool m_loop = false;
    float m_volume = 1.0f;
    bool m_active = true;
    std::unique_ptr<Wave> m_wave;
    std::string m_displayName;
    std::string m_path;
    bool m_loaded = false;
};

/// Multiplies `count` samples in place by percent / 100, truncating toward zero and without
/// clipping (above 100 % loud samples wrap). 100 % leaves the buffer untouched.
/// RT call: no allocation, no locks.
void ScaleVolume(std::int16_t* samples, std::size_t count, std::uint8_t percent);

/// Writes the `count` samples of `in` to `out` as `outCount` samples by linear interpolation:
/// the first and the last sample stay, so consecutive buffers still join smoothly. A sample
/// more or less in a few hundred changes the pitch by a fraction of a percent for that buffer
/// alone, where a sample repeated or dropped would click. Either count may be 1.
/// RT call: no allocation, no locks.
void StretchSamples(const std::int16_t* in, std::size_t count, std::int16_t* out, std::size_t outCount);

} // namespace larimo
