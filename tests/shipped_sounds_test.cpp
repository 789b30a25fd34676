// SPDX-License-Identifier: GPL-3.0-or-later
// The sounds in data/ go into every installation as they are, so they are held to the rules
// of the sound library: the canonical 44-byte header of PCM 44100 Hz mono 16-bit, a peak at
// or below -1 dBFS, no DC offset, loops that wrap without a click, and a size that keeps the
// package small. The file reading here is deliberately independent of the program's own WAV
// code, so a fault there cannot hide a bad file.

#include "config.h"
#include "wintools.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numbers>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

namespace larimo {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kRate = 44100;
constexpr int kPeakLimit = 29203; // 32767 at -1 dBFS, rounded down
constexpr double kMaxDc = 1e-3;   // of full scale
constexpr std::uintmax_t kMaxTotalBytes = 8u << 20;
constexpr std::size_t kHeaderBytes = 44;

fs::path DataDir()
{
    return fs::path(LARIMO_SOURCE_DIR) / "data";
}

std::vector<fs::path> ShippedWavs()
{
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(DataDir(), error), end; !error && it != end; it.increment(error)) {
        std::string ext = it->path().extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
        if (it->is_regular_file() && ext == ".wav")
            files.push_back(fs::relative(it->path(), DataDir()));
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::uint32_t Le32(const unsigned char* p)
{
    return p[0] | (p[1] << 8) | (p[2] << 16) | (std::uint32_t(p[3]) << 24);
}

std::uint16_t Le16(const unsigned char* p)
{
    return std::uint16_t(p[0] | (p[1] << 8));
}

void PutLe32(std::vector<unsigned char>& bytes, std::size_t at, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        bytes[at + i] = std::uint8_t(value >> (8 * i));
}

// Reads a file in the library format into samples; returns what is wrong with it, or "".
std::string ReadLibraryWav(const fs::path& file, std::vector<std::int16_t>& samples)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        return "cannot be opened";
    const std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() < kHeaderBytes)
        return "shorter than a WAV header";
    const unsigned char* h = bytes.data();
    const auto tag = [h](std::size_t at, const char* text) { return std::equal(h + at, h + at + 4, text); };
    if (!tag(0, "RIFF") || !tag(8, "WAVE") || !tag(12, "fmt ") || !tag(36, "data"))
        return "chunks are not exactly RIFF/WAVE, \"fmt \", \"data\"";
    if (Le32(h + 4) != bytes.size() - 8)
        return "RIFF size does not match the file";
    if (Le32(h + 16) != 16)
        return "\"fmt \" chunk is not 16 bytes";
    if (Le16(h + 20) != 1 || Le16(h + 22) != 1 || Le32(h + 24) != kRate || Le32(h + 28) != kRate * 2
        || Le16(h + 32) != 2 || Le16(h + 34) != 16)
        return "format is not PCM 44100 Hz, 1 channel, 16 bits";
    const std::uint32_t size = Le32(h + 40);
    if (size != bytes.size() - kHeaderBytes)
        return "\"data\" size does not match the file";
    if (size == 0 || size % 2 != 0)
        return "no whole samples";
    samples.resize(size / 2);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = std::int16_t(Le16(h + kHeaderBytes + 2 * i));
    return {};
}

struct Seam {
    int jump = 0;    // from the last sample to the first
    int typical = 0; // 99.9th percentile of the sound's own sample-to-sample steps
};

Seam MeasureSeam(const std::vector<std::int16_t>& s)
{
    std::vector<int> steps;
    steps.reserve(s.size());
    for (std::size_t i = 1; i < s.size(); ++i)
        steps.push_back(std::abs(s[i] - s[i - 1]));
    const auto nth = steps.begin() + std::ptrdiff_t(steps.size() * 999 / 1000);
    std::nth_element(steps.begin(), nth, steps.end());
    return { std::abs(s.front() - s.back()), *nth };
}

bool IsLoop(const fs::path& rel)
{
    return *rel.begin() == "backsounds" || rel == "test.wav";
}

std::vector<std::int16_t> Sine(double hz, double seconds, double amplitude)
{
    std::vector<std::int16_t> s(std::size_t(seconds * kRate));
    for (std::size_t i = 0; i < s.size(); ++i)
        s[i] = std::int16_t(std::lround(amplitude * std::sin(2 * std::numbers::pi * hz * double(i) / kRate)));
    return s;
}

// ------------------------------------------------------------------ every file on its own

class ShippedWav : public testing::TestWithParam<fs::path> {
protected:
    void SetUp() override
    {
        const std::string problem = ReadLibraryWav(DataDir() / GetParam(), m_samples);
        ASSERT_EQ(problem, "") << GetParam();
    }

    std::vector<std::int16_t> m_samples;
};

TEST_P(ShippedWav, PeakAtMostMinusOneDbfs)
{
    const auto [lo, hi] = std::minmax_element(m_samples.begin(), m_samples.end());
    EXPECT_LE(std::max(-int(*lo), int(*hi)), kPeakLimit);
}

TEST_P(ShippedWav, NoDcOffset)
{
    double sum = 0;
    for (std::int16_t v : m_samples)
        sum += v;
    EXPECT_LT(std::abs(sum / double(m_samples.size()) / 32768.0), kMaxDc);
}

// Background sounds and the wizard's test sound play in a loop.
class ShippedLoop : public ShippedWav { };

TEST_P(ShippedLoop, WrapsWithoutAClick)
{
    const Seam seam = MeasureSeam(m_samples);
    EXPECT_LE(seam.jump, seam.typical);
}

std::string TestNameOf(const testing::TestParamInfo<fs::path>& file)
{
    std::string name = file.param.string();
    for (char& c : name)
        c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return name;
}

std::vector<fs::path> ShippedLoops()
{
    std::vector<fs::path> loops = ShippedWavs();
    std::erase_if(loops, [](const fs::path& rel) { return !IsLoop(rel); });
    return loops;
}

INSTANTIATE_TEST_SUITE_P(Data, ShippedWav, testing::ValuesIn(ShippedWavs()), TestNameOf);
INSTANTIATE_TEST_SUITE_P(Data, ShippedLoop, testing::ValuesIn(ShippedLoops()), TestNameOf);

// ------------------------------------------------------------------ the set as a whole

TEST(ShippedSounds, FitInEightMebibytes)
{
    std::uintmax_t total = 0;
    for (const fs::path& rel : ShippedWavs())
        total += fs::file_size(DataDir() / rel);
    EXPECT_LE(total, kMaxTotalBytes);
}

TEST(ShippedSounds, AtLeastFourFlatBackgroundLoopsOfTwentyToSixtySeconds)
{
    int loops = 0;
    for (const fs::path& rel : ShippedWavs()) {
        if (*rel.begin() != "backsounds")
            continue;
        ++loops;
        EXPECT_EQ(std::distance(rel.begin(), rel.end()), 2) << rel << " lies in a sub-folder";
        const double seconds = double(fs::file_size(DataDir() / rel) - kHeaderBytes) / (2.0 * kRate);
        EXPECT_GE(seconds, 20.0) << rel;
        EXPECT_LE(seconds, 60.0) << rel;
    }
    EXPECT_GE(loops, 4);
}

TEST(ShippedSounds, AtLeastTwelveFunSoundsInAtLeastThreeGroups)
{
    int sounds = 0;
    std::set<fs::path> groups;
    for (const fs::path& rel : ShippedWavs()) {
        if (*rel.begin() != "emoticsounds")
            continue;
        ++sounds;
        ASSERT_EQ(std::distance(rel.begin(), rel.end()), 3) << rel << " is not in a group folder";
        groups.insert(*std::next(rel.begin()));
        const char first = rel.filename().string().front();
        EXPECT_TRUE(std::isupper(static_cast<unsigned char>(first))) << rel;
    }
    EXPECT_GE(sounds, 12);
    EXPECT_GE(groups.size(), 3u);
}

// A first start finds the background slots and the fun sound list filled with what is shipped.
TEST(ShippedSounds, TheShippedSettingsUseThemOutOfTheBox)
{
    // Read from a copy: reading takes a lock file beside the settings.
    const fs::path copy = fs::temp_directory_path() / ("larimo-shipped-" + std::to_string(::getpid()));
    fs::create_directories(copy);
    fs::copy_file(DataDir() / "config.ini", copy / "config.ini", fs::copy_options::overwrite_existing);
    Config settings(copy.string());
    settings.LoadAll();
    fs::remove_all(copy);
    for (const BackSound& slot : settings.m_backSounds) {
        ASSERT_FALSE(slot.m_file.empty()) << "every background slot holds a shipped loop";
        EXPECT_TRUE(fs::is_regular_file(SettingsPathToFs(slot.m_file, (DataDir() / "backsounds/").string())))
            << slot.m_file;
        EXPECT_FALSE(slot.m_descr.empty());
        EXPECT_GE(slot.m_volume, 30);
        EXPECT_LE(slot.m_volume, 80) << "a background stays below the voice";
    }
    EXPECT_GE(settings.m_emotics.size(), 12U);
    std::set<std::string> files;
    for (const Emotic& sound : settings.m_emotics) {
        EXPECT_FALSE(sound.m_name.empty());
        EXPECT_TRUE(fs::is_regular_file(SettingsPathToFs(sound.m_file, (DataDir() / "emoticsounds/").string())))
            << sound.m_file;
        files.insert(sound.m_file);
    }
    EXPECT_EQ(files.size(), settings.m_emotics.size()) << "each shipped fun sound is offered once";
    EXPECT_FALSE(settings.m_wizard) << "the wizard still runs on a first start";
}

TEST(ShippedSounds, WizardTestSoundIsAShortLoop)
{
    const fs::path file = DataDir() / "test.wav";
    ASSERT_TRUE(fs::is_regular_file(file));
    const double seconds = double(fs::file_size(file) - kHeaderBytes) / (2.0 * kRate);
    EXPECT_GE(seconds, 1.0);
    EXPECT_LE(seconds, 5.0);
}

// ------------------------------------------------------------------ the checks themselves

TEST(SeamCheck, PassesAWholeCycleLoopAndFlagsACutOne)
{
    const Seam whole = MeasureSeam(Sine(441.0, 1.0, 20000));
    EXPECT_LE(whole.jump, whole.typical);

    // Stopping a quarter cycle early leaves the wrap jumping from the crest to zero.
    const Seam cut = MeasureSeam(Sine(441.0, 1.0 - 0.25 / 441.0, 20000));
    EXPECT_GT(cut.jump, 10 * cut.typical);
}

class HeaderCheck : public testing::Test {
protected:
    void TearDown() override { fs::remove(m_file); }

    // A valid one-second file, for a test to spoil one field of.
    std::vector<unsigned char> ValidFile() const
    {
        std::vector<unsigned char> b(kHeaderBytes + 2 * kRate, 0);
        const auto text = [&b](std::size_t at, const char* t) { std::copy(t, t + 4, b.begin() + std::ptrdiff_t(at)); };
        text(0, "RIFF");
        PutLe32(b, 4, std::uint32_t(b.size() - 8));
        text(8, "WAVE");
        text(12, "fmt ");
        PutLe32(b, 16, 16);
        PutLe32(b, 20, 1 | (1 << 16)); // PCM, one channel
        PutLe32(b, 24, kRate);
        PutLe32(b, 28, kRate * 2);
        PutLe32(b, 32, 2 | (16 << 16)); // block align, bits
        text(36, "data");
        PutLe32(b, 40, 2 * kRate);
        return b;
    }

    std::string Check(const std::vector<unsigned char>& bytes)
    {
        std::ofstream(m_file, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
            std::streamsize(bytes.size()));
        std::vector<std::int16_t> samples;
        return ReadLibraryWav(m_file, samples);
    }

    fs::path m_file = fs::temp_directory_path() / ("larimo_header_check_" + std::to_string(::getpid()) + ".wav");
};

TEST_F(HeaderCheck, AcceptsTheCanonicalLayoutAndRejectsEachDeviation)
{
    EXPECT_EQ(Check(ValidFile()), "");

    std::vector<unsigned char> stereo = ValidFile();
    stereo[22] = 2;
    EXPECT_NE(Check(stereo), "");

    std::vector<unsigned char> slow = ValidFile();
    PutLe32(slow, 24, 22050);
    PutLe32(slow, 28, 44100);
    EXPECT_NE(Check(slow), "");

    // A LIST chunk between "fmt " and "data", as many editors write.
    std::vector<unsigned char> listed = ValidFile();
    const unsigned char list[] = { 'L', 'I', 'S', 'T', 4, 0, 0, 0, 'I', 'N', 'F', 'O' };
    listed.insert(listed.begin() + 36, std::begin(list), std::end(list));
    PutLe32(listed, 4, std::uint32_t(listed.size() - 8));
    EXPECT_NE(Check(listed), "");

    std::vector<unsigned char> truncated = ValidFile();
    truncated.resize(truncated.size() - 2);
    EXPECT_NE(Check(truncated), "");
}

} // namespace
} // namespace larimo
