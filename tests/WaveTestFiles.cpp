// SPDX-License-Identifier: GPL-3.0-or-later
#include "WaveTestFiles.h"

#include "texts.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>

namespace larimo::test {

RiffImage& RiffImage::Raw(const std::vector<std::uint8_t>& bytes)
{
    m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
    return *this;
}

RiffImage& RiffImage::Id(const char (&id)[5])
{
    m_bytes.insert(m_bytes.end(), id, id + 4);
    return *this;
}

RiffImage& RiffImage::U16(std::uint16_t value)
{
    m_bytes.push_back(static_cast<std::uint8_t>(value));
    m_bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    return *this;
}

RiffImage& RiffImage::U32(std::uint32_t value)
{
    U16(static_cast<std::uint16_t>(value));
    return U16(static_cast<std::uint16_t>(value >> 16));
}

RiffImage& RiffImage::Chunk(const char (&id)[5], const std::vector<std::uint8_t>& content, bool pad)
{
    Id(id).U32(static_cast<std::uint32_t>(content.size())).Raw(content);
    if (pad && content.size() % 2 != 0)
        m_bytes.push_back(0);
    return *this;
}

std::vector<std::uint8_t> RiffImage::FinishWave() const
{
    RiffImage whole;
    whole.Id("RIFF").U32(static_cast<std::uint32_t>(m_bytes.size() + 4)).Id("WAVE").Raw(m_bytes);
    return whole.m_bytes;
}

std::vector<std::uint8_t> FormatBytes(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate,
                                      std::uint16_t bits)
{
    const auto blockAlign = static_cast<std::uint16_t>(channels * ((bits + 7) / 8));
    RiffImage image;
    image.U16(tag).U16(channels).U32(rate).U32(rate * blockAlign).U16(blockAlign).U16(bits);
    return image.Bytes();
}

void WriteWav(const std::string& path, int subtype, int rate, int channels, const std::vector<double>& samples)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | subtype;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr) << " for subtype 0x" << std::hex << subtype;
    const auto frames = static_cast<sf_count_t>(samples.size() / static_cast<std::size_t>(channels));
    EXPECT_EQ(sf_writef_double(file, samples.data(), frames), frames);
    EXPECT_EQ(sf_close(file), 0);
}

void WriteSound(const std::string& path, int format, int rate, int channels, const std::vector<std::int16_t>& samples)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = channels;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr) << " for format 0x" << std::hex << format;
    const auto frames = static_cast<sf_count_t>(samples.size() / static_cast<std::size_t>(channels));
    EXPECT_EQ(sf_writef_short(file, samples.data(), frames), frames);
    EXPECT_EQ(sf_close(file), 0);
}

std::vector<double> Sine(double hz, double amplitude, int rate, int channels, std::size_t frames,
                         const std::vector<double>& channelSign)
{
    std::vector<double> samples(frames * static_cast<std::size_t>(channels));
    for (std::size_t n = 0; n < frames; ++n) {
        const double value = amplitude * std::sin(2 * std::numbers::pi * hz * static_cast<double>(n) / rate);
        for (int c = 0; c < channels; ++c) {
            const double sign = static_cast<std::size_t>(c) < channelSign.size() ? channelSign[static_cast<std::size_t>(c)] : 1.0;
            samples[n * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)] = sign * value;
        }
    }
    return samples;
}

std::vector<std::uint8_t> ReadBytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteBytes(const std::string& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    ASSERT_TRUE(out.good()) << path;
}

std::vector<std::uint8_t> Bytes(std::span<const std::uint8_t> view)
{
    return {view.begin(), view.end()};
}

std::vector<double> Pcm16ToDouble(std::span<const std::uint8_t> data)
{
    std::vector<double> samples(data.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const auto value = static_cast<std::int16_t>(static_cast<std::uint16_t>(data[2 * i] | data[2 * i + 1] << 8));
        samples[i] = value / 32768.0;
    }
    return samples;
}

namespace {

// Solves the normal equations of a linear least-squares fit with `N` columns.
template <std::size_t N>
std::array<double, N> LeastSquares(std::size_t begin, std::size_t end,
                                   const std::function<std::array<double, N>(std::size_t)>& columns,
                                   const std::vector<double>& signal)
{
    std::array<std::array<double, N + 1>, N> m{};
    for (std::size_t n = begin; n < end; ++n) {
        const auto row = columns(n);
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = 0; j < N; ++j)
                m[i][j] += row[i] * row[j];
            m[i][N] += row[i] * signal[n];
        }
    }
    for (std::size_t col = 0; col < N; ++col) {
        std::size_t pivot = col;
        for (std::size_t r = col + 1; r < N; ++r)
            if (std::abs(m[r][col]) > std::abs(m[pivot][col]))
                pivot = r;
        std::swap(m[col], m[pivot]);
        for (std::size_t r = 0; r < N; ++r) {
            if (r == col || m[col][col] == 0)
                continue;
            const double f = m[r][col] / m[col][col];
            for (std::size_t k = col; k <= N; ++k)
                m[r][k] -= f * m[col][k];
        }
    }
    std::array<double, N> x{};
    for (std::size_t i = 0; i < N; ++i)
        x[i] = m[i][i] != 0 ? m[i][N] / m[i][i] : 0;
    return x;
}

} // namespace

SineFit FitSine(const std::vector<double>& signal, double rate, double guessHz, std::size_t skip)
{
    SineFit fit;
    if (signal.size() <= 2 * skip + 16)
        return fit;
    const std::size_t begin = skip;
    const std::size_t end = signal.size() - skip;
    const double centre = static_cast<double>(begin + end) / 2;
    double omega = 2 * std::numbers::pi * guessHz / rate;

    // Linearised in the frequency step: a few rounds converge from a guess within a few Hz.
    for (int round = 0; round < 20; ++round) {
        const auto abc = LeastSquares<3>(begin, end, [&](std::size_t n) {
            const double t = static_cast<double>(n) - centre;
            return std::array<double, 3>{std::cos(omega * t), std::sin(omega * t), 1.0};
        }, signal);
        const auto step = LeastSquares<4>(begin, end, [&](std::size_t n) {
            const double t = static_cast<double>(n) - centre;
            const double c = std::cos(omega * t);
            const double s = std::sin(omega * t);
            return std::array<double, 4>{c, s, 1.0, t * (-abc[0] * s + abc[1] * c)};
        }, signal);
        omega += step[3];
        if (std::abs(step[3]) < 1e-13)
            break;
    }
    const auto abc = LeastSquares<3>(begin, end, [&](std::size_t n) {
        const double t = static_cast<double>(n) - centre;
        return std::array<double, 3>{std::cos(omega * t), std::sin(omega * t), 1.0};
    }, signal);
    double signalEnergy = 0;
    double residualEnergy = 0;
    for (std::size_t n = begin; n < end; ++n) {
        const double t = static_cast<double>(n) - centre;
        const double sine = abc[0] * std::cos(omega * t) + abc[1] * std::sin(omega * t);
        const double residual = signal[n] - sine - abc[2];
        signalEnergy += sine * sine;
        residualEnergy += residual * residual;
    }
    fit.frequency = omega * rate / (2 * std::numbers::pi);
    fit.amplitude = std::hypot(abc[0], abc[1]);
    fit.residualDb = signalEnergy > 0 ? 10 * std::log10(std::max(residualEnergy, 1e-300) / signalEnergy) : 0;
    return fit;
}

ScratchFolder::ScratchFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "larimo-wave-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "cannot create a scratch folder";
        return;
    }
    m_path = pattern + "/";
}

ScratchFolder::~ScratchFolder()
{
    if (m_path.empty())
        return;
    std::error_code ec;
    // Read-only folders left by a test must not keep their contents alive.
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_path, ec))
        std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(m_path, ec);
}

void StartEnglishTexts()
{
    static const bool started = StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra");
    ASSERT_TRUE(started);
}

std::map<std::string, std::uintmax_t> FolderSnapshot(const std::string& root)
{
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        files[entry.path().string()] = entry.is_regular_file() ? entry.file_size() : 0;
    return files;
}

} // namespace larimo::test
