// SPDX-License-Identifier: GPL-3.0-or-later
// Decoding of a sound file image held in memory to floating-point samples, whatever codec it
// uses (PCM of any width, float, A-law, mu-law, IMA and MS ADPCM, GSM 6.10, ...).
//
// Any thread except the real-time audio thread; one object is used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace larimo {

class SoundDecoder {
public:
    SoundDecoder();
    ~SoundDecoder();
    SoundDecoder(const SoundDecoder&) = delete;
    SoundDecoder& operator=(const SoundDecoder&) = delete;

    /// Opens the file image made of `head` followed by `body`. Neither is copied: both must
    /// stay unchanged until the decoder is closed or destroyed. False when the decoder does not
    /// recognise the image or cannot handle its codec; ErrorText() says why.
    bool Open(std::span<const std::uint8_t> head, std::span<const std::uint8_t> body);
    void Close();

    int Channels() const { return m_channels; }
    int SampleRate() const { return m_sampleRate; }
    /// Frames the image announces; the decoder may deliver fewer.
    std::int64_t Frames() const { return m_frames; }

    /// Decodes up to `frames` interleaved frames into `destination` (room for
    /// frames * Channels() samples), full scale being +-1.0. Returns the frames decoded: 0 at
    /// the end, -1 on a decoding error.
    std::int64_t ReadFloat(float* destination, std::int64_t frames);

    std::string ErrorText() const;

    struct Image;  // opaque: the virtual file the callbacks read
    struct Handle; // opaque: the open SNDFILE

private:
    std::unique_ptr<Image> m_image;
    std::unique_ptr<Handle> m_handle;
    int m_channels = 0;
    int m_sampleRate = 0;
    std::int64_t m_frames = 0;
    std::string m_openError;
};

} // namespace larimo
