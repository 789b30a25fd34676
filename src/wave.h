// SPDX-License-Identifier: GPL-3.0-or-later
// WAV files in memory: reading any RIFF/WAVE file, writing the canonical 44-byte form, and
// converting whatever codec a file holds to the library format (PCM, 44100 Hz, mono, 16 bit).
//
// Every function here may be called from any thread except the real-time audio thread (they
// read and write files, allocate and log). One Wave object is used by one thread at a time.
#pragma once

#include "platform/ByteBuffer.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace larimo {

class SoundDecoder;

class ByteSource;

/// Results of reading, writing and checking WAV files, returned as plain numbers.
enum WaveErrorNum : unsigned {
    kWaveSuccess = 0,
    kWaveOpenError = 1,   ///< the file cannot be opened
    kWaveFormatError = 2, ///< RIFF/WAVE structure wrong, or a chunk missing or short
    kWaveReadError = 3,   ///< the sample data could not be read in full
    kWaveWriteError = 4,  ///< the file could not be created or written
};

/// The translated text of a WaveErrorNum; unknown numbers give "Undefined error".
const std::string& WaveErrorText(unsigned error);

/// Results of ConvertToOneChanel16Bit besides 0 (success).
enum WaveConvertErrorNum : unsigned {
    kConvertSuccess = 0,
    kConvertUnsupported = 1, ///< the decoder does not know the format or rejects its header
    kConvertDecodeError = 2, ///< decoding failed part way through the data
    kConvertResampleError = 3,
    kConvertTooLarge = 4,    ///< the result would not fit a WAV file
};

/// The translated text of a WaveConvertErrorNum; unknown numbers give "Undefined error".
const std::string& WaveConvertErrorText(unsigned error);

inline constexpr std::uint16_t kWaveFormatPcm = 1;
inline constexpr std::uint32_t kLibrarySampleRate = 44100;

/// The 18-byte format header of a WAV file, field for field.
struct WaveFormat {
    std::uint16_t wFormatTag = 0;
    std::uint16_t nChannels = 0;
    std::uint32_t nSamplesPerSec = 0;
    std::uint32_t nAvgBytesPerSec = 0;
    std::uint16_t nBlockAlign = 0;
    std::uint16_t wBitsPerSample = 0;
    std::uint16_t cbSize = 0;

    bool operator==(const WaveFormat&) const = default;
};

/// The library format: PCM, 44100 Hz, one channel, 16 bits.
WaveFormat LibraryWaveFormat();

/// A WAV sound held in memory: its format header, the format's extra bytes (codec parameters
/// of compressed formats) and its sample data.
class Wave {
public:
    /// Reads a RIFF/WAVE file; returns a WaveErrorNum. On failure the object is left empty.
    unsigned ReadFromFile(const std::string& path);
    /// The same as ReadFromFile for a file image in memory.
    unsigned ReadFromMemory(std::span<const std::uint8_t> bytes);
    /// Writes the canonical 44-byte header and the data (format extra bytes are not written);
    /// returns a WaveErrorNum.
    unsigned WriteToFile(const std::string& path) const;
    /// Converts the data to the library format. Returns 0 at once when it already is in it,
    /// otherwise 0 or a WaveConvertErrorNum. A failure before any sample was decoded leaves
    /// the object untouched; a later one leaves what was converted so far, in the library format.
    unsigned ConvertToOneChanel16Bit();
    /// Decodes a sound file of any kind the decoder knows (WAV, MP3, Ogg Vorbis, Opus, FLAC,
    /// AIFF, ...) into the library format: 0, or a WaveConvertErrorNum (kConvertUnsupported for
    /// a file that is no sound it can read). A failure part way leaves what was decoded.
    unsigned DecodeFile(const std::string& path);

    /// Replaces everything the object holds.
    void Assign(const WaveFormat& format, std::vector<std::uint8_t> extraFormatBytes,
                std::vector<std::uint8_t> data);
    void Clear();

    const WaveFormat& Format() const { return m_format; }
    const std::vector<std::uint8_t>& ExtraFormatBytes() const { return m_extra; }
    std::span<const std::uint8_t> Data() const { return m_data.View(); }
    std::uint32_t DataSize() const { return static_cast<std::uint32_t>(m_data.Size()); }

private:
    unsigned Read(ByteSource& source);
    unsigned ConvertFrom(SoundDecoder& decoder);

    WaveFormat m_format;
    std::vector<std::uint8_t> m_extra;
    ByteBuffer m_data;
};

/// Checks that a file is a structurally usable WAV file (RIFF/WAVE with a readable format
/// header and a "data" chunk); returns a WaveErrorNum. Keeps nothing.
unsigned WaveCanUse(const std::string& path);
/// The same check for a file image in memory.
unsigned WaveCanUseMemory(std::span<const std::uint8_t> bytes);

/// The message for a failed conversion to the library format: the format the object holds
/// (its name, rate, channels and width) and the conversion's result.
std::string WaveConvertFailureText(const WaveFormat& format, unsigned result);

} // namespace larimo
