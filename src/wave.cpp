// SPDX-License-Identifier: GPL-3.0-or-later
#include "wave.h"

#include "filltext.h"
#include "mlog.h"
#include "platform/Resampler.h"
#include "platform/SoundDecoder.h"
#include "riff.h"
#include "texts.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>

namespace larimo {

namespace {

constexpr std::size_t kFormatSize = 16;   // wFormatTag .. wBitsPerSample
constexpr std::size_t kFormatExSize = 18; // with cbSize
constexpr std::uint32_t kCanonicalHeaderRest = 36; // header bytes behind the RIFF size field
// Biggest data a WAV file can describe: its RIFF size field must hold data size + 36.
constexpr std::uint64_t kMaxDataSize = std::numeric_limits<std::uint32_t>::max() - kCanonicalHeaderRest;
// Samples decoded per pass; a frame of many channels takes several.
constexpr std::size_t kDecodeBlockSamples = 16384;

std::uint16_t GetLe16(const std::uint8_t* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

std::uint32_t GetLe32(const std::uint8_t* bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

void PutLe16(std::vector<std::uint8_t>& out, std::uint16_t value)
{
    out.push_back(static_cast<std::uint8_t>(value));
    out.push_back(static_cast<std::uint8_t>(value >> 8));
}

void PutLe32(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void PutId(std::vector<std::uint8_t>& out, const char (&id)[5])
{
    out.insert(out.end(), id, id + 4);
}

WaveFormat ParseFormat(const std::uint8_t* bytes, bool withCbSize)
{
    WaveFormat format;
    format.wFormatTag = GetLe16(bytes);
    format.nChannels = GetLe16(bytes + 2);
    format.nSamplesPerSec = GetLe32(bytes + 4);
    format.nAvgBytesPerSec = GetLe32(bytes + 8);
    format.nBlockAlign = GetLe16(bytes + 12);
    format.wBitsPerSample = GetLe16(bytes + 14);
    format.cbSize = withCbSize ? GetLe16(bytes + 16) : 0;
    return format;
}

void PutFormat(std::vector<std::uint8_t>& out, const WaveFormat& format)
{
    PutLe16(out, format.wFormatTag);
    PutLe16(out, format.nChannels);
    PutLe32(out, format.nSamplesPerSec);
    PutLe32(out, format.nAvgBytesPerSec);
    PutLe16(out, format.nBlockAlign);
    PutLe16(out, format.wBitsPerSample);
}

bool IsLibraryFormat(const WaveFormat& format)
{
    return format.wFormatTag == kWaveFormatPcm && format.nChannels == 1 &&
           format.wBitsPerSample == 16 && format.nSamplesPerSec == kLibrarySampleRate;
}

// The file image the decoder reads: everything up to the "data" content, which is then
// taken from the object itself so the samples are never copied.
std::vector<std::uint8_t> DecoderHead(const WaveFormat& format, const std::vector<std::uint8_t>& extra,
                                      std::size_t dataSize)
{
    const auto extraSize = static_cast<std::uint16_t>(std::min<std::size_t>(extra.size(), 0xffff));
    const std::uint32_t fmtSize = static_cast<std::uint32_t>(kFormatExSize) + extraSize;
    const std::uint32_t fmtPadded = fmtSize + (fmtSize & 1u);
    const std::uint64_t riffSize = 4 + 8 + fmtPadded + 8 + static_cast<std::uint64_t>(dataSize);

    std::vector<std::uint8_t> head;
    head.reserve(12 + 8 + fmtPadded + 8);
    PutId(head, "RIFF");
    PutLe32(head, static_cast<std::uint32_t>(std::min<std::uint64_t>(riffSize, 0xffffffffu)));
    PutId(head, "WAVE");
    PutId(head, "fmt ");
    PutLe32(head, fmtSize);
    PutFormat(head, format);
    PutLe16(head, extraSize); // the decoder must not look for more extra bytes than we hold
    head.insert(head.end(), extra.begin(), extra.begin() + extraSize);
    if (fmtSize & 1u)
        head.push_back(0);
    PutId(head, "data");
    PutLe32(head, static_cast<std::uint32_t>(dataSize));
    return head;
}

// Full scale is +-1.0; rounds to the nearest step and clips.
std::int16_t ToPcm16(float value)
{
    float scaled = value * 32768.0f;
    scaled = std::clamp(scaled, -32768.0f, 32767.0f);
    return static_cast<std::int16_t>(std::lrintf(scaled));
}

void AppendPcm16(ByteBuffer& out, std::span<const float> samples)
{
    const std::size_t at = out.Size();
    out.Resize(at + samples.size() * 2);
    std::uint8_t* p = out.Data() + at;
    for (const float sample : samples) {
        const auto value = static_cast<std::uint16_t>(ToPcm16(sample));
        *p++ = static_cast<std::uint8_t>(value);
        *p++ = static_cast<std::uint8_t>(value >> 8);
    }
}

// Averages the channels of each frame; a sample that is not a finite number becomes silence,
// so one bad float cannot smear across the resampler's filter.
void MixDown(const float* frames, std::size_t count, int channels, float* mono)
{
    if (channels == 1) {
        for (std::size_t i = 0; i < count; ++i)
            mono[i] = std::isfinite(frames[i]) ? frames[i] : 0.0f;
        return;
    }
    const float scale = 1.0f / static_cast<float>(channels);
    for (std::size_t i = 0; i < count; ++i) {
        float sum = 0.0f;
        for (int c = 0; c < channels; ++c) {
            const float sample = frames[i * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)];
            sum += std::isfinite(sample) ? sample : 0.0f;
        }
        mono[i] = sum * scale;
    }
}

// A format chunk must hold the 16 bytes every format has, and all 18 once it claims more.
bool FormatChunkSizeUsable(const RiffChunk& fmt)
{
    return fmt.size >= kFormatSize && fmt.size != kFormatSize + 1;
}

unsigned CheckUsable(ByteSource& source)
{
    RiffReader riff(source);
    const auto form = riff.FindForm(FourCc("WAVE"));
    if (!form)
        return kWaveFormatError;
    const auto fmt = riff.FindChunk(*form, FourCc("fmt "));
    if (!fmt || !FormatChunkSizeUsable(*fmt))
        return kWaveFormatError;
    // The full 18-byte header must be readable even when the chunk has only 16 of them.
    std::uint8_t header[kFormatExSize];
    if (riff.Read(*fmt, 0, header, sizeof header) != sizeof header)
        return kWaveFormatError;
    if (!riff.FindChunk(*form, FourCc("data")))
        return kWaveFormatError;
    return kWaveSuccess;
}

} // namespace

const std::string& WaveErrorText(unsigned error)
{
    switch (error) {
    case kWaveSuccess:
        return GetText(120);
    case kWaveOpenError:
        return GetText(131);
    case kWaveFormatError:
        return GetText(132);
    case kWaveReadError:
        return GetText(142);
    case kWaveWriteError:
        return GetText(143);
    default:
        return GetText(141);
    }
}

const std::string& WaveConvertErrorText(unsigned error)
{
    switch (error) {
    case kConvertSuccess:
        return GetText(120);
    case kConvertUnsupported:
        return GetText(132);
    case kConvertDecodeError:
        return GetText(142);
    case kConvertResampleError:
        return GetText(130);
    case kConvertTooLarge:
        return GetText(124);
    default:
        return GetText(141);
    }
}

WaveFormat LibraryWaveFormat()
{
    WaveFormat format;
    format.wFormatTag = kWaveFormatPcm;
    format.nChannels = 1;
    format.nSamplesPerSec = kLibrarySampleRate;
    format.nAvgBytesPerSec = kLibrarySampleRate * 2;
    format.nBlockAlign = 2;
    format.wBitsPerSample = 16;
    format.cbSize = 0;
    return format;
}

std::string WaveConvertFailureText(const WaveFormat& format, unsigned result)
{
    const std::string name =
        format.wFormatTag == kWaveFormatPcm ? GetText(255) : FillText(252, unsigned{format.wFormatTag});
    return FillText(253, name.c_str(), unsigned{format.nSamplesPerSec}, unsigned{format.nChannels},
                    unsigned{format.wBitsPerSample}, result);
}

void Wave::Clear()
{
    m_format = WaveFormat{};
    m_extra.clear();
    m_extra.shrink_to_fit();
    m_data.Clear();
}

void Wave::Assign(const WaveFormat& format, std::vector<std::uint8_t> extraFormatBytes,
                  std::vector<std::uint8_t> data)
{
    m_format = format;
    m_extra = std::move(extraFormatBytes);
    m_data.Clear();
    m_data.Append(data);
}

// Reads the format and the data of the first RIFF/WAVE form; sets errno to what the source
// reported when a read fails.
unsigned Wave::Read(ByteSource& source)
{
    RiffReader riff(source);
    const auto form = riff.FindForm(FourCc("WAVE"));
    if (!form)
        return kWaveFormatError;
    const auto fmt = riff.FindChunk(*form, FourCc("fmt "));
    if (!fmt || !FormatChunkSizeUsable(*fmt))
        return kWaveFormatError;
    const std::size_t headerSize = fmt->size == kFormatSize ? kFormatSize : kFormatExSize;
    std::uint8_t header[kFormatExSize] = {};
    if (riff.Read(*fmt, 0, header, headerSize) != headerSize) {
        errno = source.LastErrno();
        return kWaveFormatError;
    }
    const WaveFormat format = ParseFormat(header, headerSize == kFormatExSize);

    // Codec parameters of compressed formats; never more than the chunk holds behind cbSize.
    std::vector<std::uint8_t> extra;
    if (headerSize == kFormatExSize && format.cbSize > 0) {
        extra.resize(std::min<std::size_t>(format.cbSize, fmt->size - kFormatExSize));
        if (!extra.empty() && riff.Read(*fmt, kFormatExSize, extra.data(), extra.size()) != extra.size()) {
            errno = source.LastErrno();
            return kWaveFormatError;
        }
    }

    const auto data = riff.FindChunk(*form, FourCc("data"));
    if (!data)
        return kWaveFormatError;
    if (data->offset > source.Size()) {
        errno = EIO;
        return kWaveReadError;
    }
    // A recorder that was stopped abruptly leaves a data chunk that declares more than the file
    // holds: what is there is read, in whole sample frames. Checked before allocating, so a
    // lying size never makes us reserve gigabytes.
    std::uint64_t size = data->size;
    const std::uint64_t present = source.Size() - data->offset;
    if (present < size) {
        const std::uint64_t frame = std::max<std::uint64_t>(1, format.nBlockAlign);
        size = present / frame * frame;
        LogWarning("WAV data chunk declares %llu bytes, the file holds %llu; reading %llu",
                   static_cast<unsigned long long>(data->size), static_cast<unsigned long long>(present),
                   static_cast<unsigned long long>(size));
    }
    ByteBuffer samples;
    try {
        samples.Resize(static_cast<std::size_t>(size));
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return kWaveReadError;
    }
    if (!samples.Empty() && riff.Read(*data, 0, samples.Data(), samples.Size()) != samples.Size()) {
        errno = source.LastErrno() != 0 ? source.LastErrno() : EIO;
        return kWaveReadError;
    }
    m_format = format;
    m_extra = std::move(extra);
    m_data = std::move(samples);
    return kWaveSuccess;
}

unsigned Wave::ReadFromFile(const std::string& path)
{
    LogEnter("Wave::ReadFromFile", "\"%s\"", path.c_str());
    Clear();
    errno = 0;
    unsigned result = kWaveSuccess;
    FileSource file;
    if (!file.Open(path)) {
        errno = file.LastErrno();
        result = kWaveOpenError;
    } else {
        result = Read(file);
    }
    if (result != kWaveSuccess) {
        LogError("Error of load wav file: %s. Last error code: %u. File: %s ", WaveErrorText(result).c_str(),
                 static_cast<unsigned>(errno), path.c_str());
        Clear();
    }
    LogLeaveResult("Wave::ReadFromFile", WaveErrorText(result));
    return result;
}

unsigned Wave::ReadFromMemory(std::span<const std::uint8_t> bytes)
{
    LogEnter("Wave::ReadFromMemory", "%zu bytes", bytes.size());
    Clear();
    errno = 0;
    MemorySource memory(bytes);
    const unsigned result = Read(memory);
    if (result != kWaveSuccess) {
        LogError("Error of load wav file: %s. Last error code: %u. File: %s ", WaveErrorText(result).c_str(),
                 static_cast<unsigned>(errno), "(memory)");
        Clear();
    }
    LogLeaveResult("Wave::ReadFromMemory", WaveErrorText(result));
    return result;
}

unsigned Wave::WriteToFile(const std::string& path) const
{
    LogEnter("Wave::WriteToFile", "\"%s\"", path.c_str());
    const auto finish = [&](unsigned result) {
        if (result != kWaveSuccess)
            LogError("Error of write wav file: %s. Last error code: %u. File: %s ", WaveErrorText(result).c_str(),
                     static_cast<unsigned>(errno), path.c_str());
        LogLeaveResult("Wave::WriteToFile", WaveErrorText(result));
        return result;
    };
    if (m_data.Size() > kMaxDataSize) {
        errno = EFBIG;
        return finish(kWaveWriteError);
    }
    const auto dataSize = static_cast<std::uint32_t>(m_data.Size());

    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    errno = 0;
    std::unique_ptr<std::FILE, Closer> file(std::fopen(path.c_str(), "wb"));
    if (!file)
        return finish(kWaveWriteError);

    std::vector<std::uint8_t> riffHeader;
    PutId(riffHeader, "RIFF");
    PutLe32(riffHeader, dataSize + kCanonicalHeaderRest);
    PutId(riffHeader, "WAVE");
    PutId(riffHeader, "fmt ");
    PutLe32(riffHeader, static_cast<std::uint32_t>(kFormatSize));
    std::vector<std::uint8_t> formatBytes;
    PutFormat(formatBytes, m_format);
    std::vector<std::uint8_t> dataHeader;
    PutId(dataHeader, "data");
    PutLe32(dataHeader, dataSize);

    const auto write = [&](std::span<const std::uint8_t> bytes) {
        return bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    };
    if (!write(riffHeader) || !write(formatBytes) || !write(dataHeader) || !write(m_data.View()))
        return finish(kWaveWriteError);
    // Buffered bytes reach the disk only now; a full disk shows up here.
    if (std::fclose(file.release()) != 0)
        return finish(kWaveWriteError);
    return finish(kWaveSuccess);
}

unsigned Wave::ConvertToOneChanel16Bit()
{
    if (IsLibraryFormat(m_format))
        return kConvertSuccess;
    static constexpr const char* kScope = "Wave::ConvertToOneChanel16Bit";
    LogEnter(kScope);

    SoundDecoder decoder;
    const std::vector<std::uint8_t> head = DecoderHead(m_format, m_extra, m_data.Size());
    if (!decoder.Open(head, m_data.View())) {
        LogError("Cannot decode the sound (wFormatTag=%u): %s", unsigned{m_format.wFormatTag},
                 decoder.ErrorText().c_str());
        LogLeaveResult(kScope, kConvertUnsupported);
        return kConvertUnsupported;
    }
    const unsigned result = ConvertFrom(decoder);
    LogLeaveResult(kScope, result);
    return result;
}

unsigned Wave::DecodeFile(const std::string& path)
{
    static constexpr const char* kScope = "Wave::DecodeFile";
    LogEnter(kScope, "\"%s\"", path.c_str());
    std::vector<std::uint8_t> bytes;
    {
        FileSource file;
        if (!file.Open(path)) {
            LogLeaveResult(kScope, kConvertUnsupported);
            return kConvertUnsupported;
        }
        std::ifstream in(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    SoundDecoder decoder;
    if (bytes.empty() || !decoder.Open({}, bytes)) {
        LogError("Cannot decode %s: %s", path.c_str(), decoder.ErrorText().c_str());
        LogLeaveResult(kScope, kConvertUnsupported);
        return kConvertUnsupported;
    }
    const unsigned result = ConvertFrom(decoder);
    LogLeaveResult(kScope, result);
    return result;
}

unsigned Wave::ConvertFrom(SoundDecoder& decoder)
{
    const WaveFormat target = LibraryWaveFormat();
    const auto channels = static_cast<std::size_t>(decoder.Channels());
    const double rate = decoder.SampleRate();
    const double expectedFrames =
        static_cast<double>(std::max<std::int64_t>(decoder.Frames(), 0)) * kLibrarySampleRate / rate;
    if (expectedFrames * 2 > static_cast<double>(kMaxDataSize)) {
        LogError("The converted sound would have %.0f samples, too many for a WAV file", expectedFrames);
        return kConvertTooLarge;
    }
    Resampler resampler;
    const bool resampling = decoder.SampleRate() != static_cast<int>(kLibrarySampleRate);
    if (resampling && !resampler.Open(rate, kLibrarySampleRate)) {
        LogError("Cannot resample from %d Hz: %s", decoder.SampleRate(), resampler.ErrorText().c_str());
        return kConvertResampleError;
    }

    LogInfo("Convert params.From: wFormatTag=%u, nChannels=%u, wBitsPerSample=%u, nSamplesPerSec=%u, "
            "nBlockAlign=%u, nAvgBytesPerSec=%u, cbSize=%u To: wFormatTag=%u, nChannels=%u, "
            "wBitsPerSample=%u, nSamplesPerSec=%u, nBlockAlign=%u, nAvgBytesPerSec=%u, cbSize=%u",
            unsigned{m_format.wFormatTag}, unsigned{m_format.nChannels}, unsigned{m_format.wBitsPerSample},
            unsigned{m_format.nSamplesPerSec}, unsigned{m_format.nBlockAlign},
            unsigned{m_format.nAvgBytesPerSec}, unsigned{m_format.cbSize}, unsigned{target.wFormatTag},
            unsigned{target.nChannels}, unsigned{target.wBitsPerSample}, unsigned{target.nSamplesPerSec},
            unsigned{target.nBlockAlign}, unsigned{target.nAvgBytesPerSec}, unsigned{target.cbSize});
    LogInfo("Begin convert...");

    unsigned result = kConvertSuccess;
    ByteBuffer output;
    try {
        output.Reserve(static_cast<std::size_t>(expectedFrames + 1) * 2);
        const std::size_t blockFrames = std::max<std::size_t>(1, kDecodeBlockSamples / channels);
        std::vector<float> frames(blockFrames * channels);
        std::vector<float> mono(blockFrames);
        const auto emit = [&](std::span<const float> samples) {
            if (output.Size() + samples.size() * 2 > kMaxDataSize) {
                result = kConvertTooLarge;
                return false;
            }
            AppendPcm16(output, samples);
            return true;
        };
        for (;;) {
            const std::int64_t got = decoder.ReadFloat(frames.data(), static_cast<std::int64_t>(blockFrames));
            if (got < 0) {
                LogError("Decoding stopped after %zu output bytes: %s", output.Size(), decoder.ErrorText().c_str());
                result = kConvertDecodeError;
                break;
            }
            if (got == 0)
                break;
            MixDown(frames.data(), static_cast<std::size_t>(got), static_cast<int>(channels), mono.data());
            std::span<const float> ready(mono.data(), static_cast<std::size_t>(got));
            if (resampling && !resampler.Process(ready, ready)) {
                result = kConvertResampleError;
                break;
            }
            if (!emit(ready))
                break;
        }
        if (resampling) {
            // Even after a failure the tail of what was decoded belongs to the result.
            std::span<const float> tail;
            if (!resampler.Drain(tail)) {
                if (result == kConvertSuccess)
                    result = kConvertResampleError;
            } else if (result != kConvertTooLarge) {
                emit(tail);
            }
        }
        if (result == kConvertResampleError)
            LogError("Resampling failed: %s", resampler.ErrorText().c_str());
    } catch (const std::bad_alloc&) {
        LogError("Out of memory after %zu converted bytes", output.Size());
        result = kConvertTooLarge;
    }

    LogInfo("End convert. Copy data...");
    m_data = std::move(output);
    m_format = target;
    m_extra.clear();
    return result;
}

unsigned WaveCanUse(const std::string& path)
{
    LogEnter("WaveCanUse", "\"%s\"", path.c_str());
    FileSource file;
    const unsigned result = file.Open(path) ? CheckUsable(file) : kWaveOpenError;
    LogLeaveResult("WaveCanUse", WaveErrorText(result));
    return result;
}

unsigned WaveCanUseMemory(std::span<const std::uint8_t> bytes)
{
    MemorySource memory(bytes);
    return CheckUsable(memory);
}

} // namespace larimo
