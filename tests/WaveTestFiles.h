// SPDX-License-Identifier: GPL-3.0-or-later
// Making and measuring sound files in tests: RIFF images byte by byte, real WAV files of any
// codec through libsndfile, a scratch folder, and a sine fit for frequency and distortion.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace larimo::test {

/// A RIFF image assembled chunk by chunk; sizes are written as given so tests can lie.
class RiffImage {
public:
    RiffImage& Raw(const std::vector<std::uint8_t>& bytes);
    RiffImage& Id(const char (&id)[5]);
    RiffImage& U16(std::uint16_t value);
    RiffImage& U32(std::uint32_t value);
    /// A chunk with its true size, padded to an even length when `pad` is set.
    RiffImage& Chunk(const char (&id)[5], const std::vector<std::uint8_t>& content, bool pad = true);
    /// "RIFF", the size of everything added so far + 4 at Finish(), "WAVE".
    std::vector<std::uint8_t> FinishWave() const;
    const std::vector<std::uint8_t>& Bytes() const { return m_bytes; }

private:
    std::vector<std::uint8_t> m_bytes;
};

/// The 16-byte format fields (no cbSize).
std::vector<std::uint8_t> FormatBytes(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate,
                                      std::uint16_t bits);

/// Writes a WAV file with libsndfile: `subtype` is an SF_FORMAT_ subtype (PCM_16, IMA_ADPCM,
/// ...), `samples` interleaved, full scale +-1.0. Fails the current test when it cannot.
void WriteWav(const std::string& path, int subtype, int rate, int channels,
              const std::vector<double>& samples);

/// Writes a sound file of any kind libsndfile writes (`format`: SF_FORMAT_ major type | subtype)
/// from 16-bit samples, interleaved. Fails the current test when it cannot.
void WriteSound(const std::string& path, int format, int rate, int channels, const std::vector<std::int16_t>& samples);

/// `frames` frames of a sine of `hz` at `amplitude` in every channel; `channelSign[c]`
/// multiplies channel c (default all +1).
std::vector<double> Sine(double hz, double amplitude, int rate, int channels, std::size_t frames,
                         const std::vector<double>& channelSign = {});

std::vector<std::uint8_t> ReadBytes(const std::string& path);
void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes);

/// A copy of a byte view, for comparing.
std::vector<std::uint8_t> Bytes(std::span<const std::uint8_t> view);

/// 16-bit little-endian samples as doubles, full scale +-1.0.
std::vector<double> Pcm16ToDouble(std::span<const std::uint8_t> data);

/// Result of fitting one sine (with offset) to a signal.
struct SineFit {
    double frequency = 0;
    double amplitude = 0;
    /// Everything that is not the fitted sine, relative to it, in dB (THD+N).
    double residualDb = 0;
};

/// Fits a sine near `guessHz` to `signal[skip .. size - skip)` by least squares, refining the
/// frequency too.
SineFit FitSine(const std::vector<double>& signal, double rate, double guessHz, std::size_t skip);

/// A fresh folder below the system's temporary folder, removed with everything in it when the
/// object goes. Its path ends in '/'.
/// Every file and folder below `root` with its size (0 for folders): two snapshots compare
/// equal when nothing was added, removed or resized.
std::map<std::string, std::uintmax_t> FolderSnapshot(const std::string& root);

class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + name; }

private:
    std::string m_path;
};

/// Starts the English texts of the source tree once per process.
void StartEnglishTexts();

} // namespace larimo::test
