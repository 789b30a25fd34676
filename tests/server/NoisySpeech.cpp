// SPDX-License-Identifier: GPL-3.0-or-later
#include "NoisySpeech.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

namespace larimo::test {

namespace {

constexpr double kRate = 44100.0;

std::vector<int16_t> ToPcm(const std::vector<double>& signal)
{
    std::vector<int16_t> samples(signal.size());
    for (size_t i = 0; i < signal.size(); ++i)
        samples[i] = static_cast<int16_t>(std::clamp(std::lrint(signal[i] * 32768.0), -32768L, 32767L));
    return samples;
}

} // namespace

std::vector<int16_t> SpokenSentence(const std::string& text)
{
    char folder[] = "/tmp/larimo-speech-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return {};
    const std::string spoken = std::string(folder) + "/spoken.wav";
    const std::string raw = std::string(folder) + "/spoken.raw";
    const std::string command = "espeak-ng -v en -s 140 -w " + spoken + " \"" + text + "\" >/dev/null 2>&1 && sox " +
                                spoken + " -t raw -r 44100 -e signed -b 16 -c 1 " + raw + " norm -6 >/dev/null 2>&1";
    std::vector<int16_t> samples;
    if (std::system(command.c_str()) == 0) {
        std::ifstream in(raw, std::ios::binary);
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        samples.resize(bytes.size() / 2);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    }
    std::remove(spoken.c_str());
    std::remove(raw.c_str());
    rmdir(folder);
    return samples;
}

std::vector<int16_t> FanNoise(size_t count, double rmsDb, uint32_t seed)
{
    std::mt19937 random(seed);
    std::normal_distribution<double> white(0.0, 1.0);
    std::vector<double> signal(count);
    // Two one-pole low-passes give the dull roar of a fan; the hum is its motor.
    const double a = std::exp(-2.0 * M_PI * 900.0 / kRate);
    double y1 = 0;
    double y2 = 0;
    for (size_t i = 0; i < count; ++i) {
        y1 = a * y1 + (1 - a) * white(random);
        y2 = a * y2 + (1 - a) * y1;
        signal[i] = y2 + 0.02 * std::sin(2 * M_PI * 100.0 * static_cast<double>(i) / kRate);
    }
    double sum = 0;
    for (double s : signal)
        sum += s * s;
    const double gain = std::pow(10.0, rmsDb / 20.0) / std::sqrt(sum / static_cast<double>(count));
    for (double& s : signal)
        s *= gain;
    return ToPcm(signal);
}

std::vector<int16_t> KeyboardNoise(size_t count, double peakDb, uint32_t seed)
{
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> gap(0.06, 0.19);
    std::uniform_real_distribution<double> strength(0.5, 1.0);
    std::normal_distribution<double> white(0.0, 0.35);
    std::vector<double> signal(count, 0.0);
    const double peak = std::pow(10.0, peakDb / 20.0);
    double at = gap(random);
    while (true) {
        const size_t start = static_cast<size_t>(at * kRate);
        if (start >= count)
            break;
        const double level = peak * strength(random);
        // A click: a burst of noise that dies away within about 8 ms.
        for (size_t i = 0; i < 360 && start + i < count; ++i)
            signal[start + i] += std::clamp(white(random), -1.0, 1.0) * level * std::exp(-static_cast<double>(i) / 70.0);
        at += gap(random);
    }
    return ToPcm(signal);
}

NoisyScene MakeNoisyScene(double lead, double pause, int repeats, double fanDb, double keysDb)
{
    NoisyScene scene;
    const std::vector<int16_t> sentence = SpokenSentence("Hello there, can you hear my new voice?");
    if (sentence.empty())
        return scene;
    const size_t leadSamples = static_cast<size_t>(lead * kRate);
    const size_t pauseSamples = static_cast<size_t>(pause * kRate);
    scene.speech.assign(leadSamples, 0);
    for (int r = 0; r < repeats; ++r) {
        // espeak-ng pads its sentence with a little silence; the word starts at the first sound.
        size_t first = 0;
        while (first < sentence.size() && std::abs(sentence[first]) < 300)
            ++first;
        size_t last = sentence.size();
        while (last > first && std::abs(sentence[last - 1]) < 300)
            --last;
        const size_t start = scene.speech.size();
        scene.speech.insert(scene.speech.end(), sentence.begin() + static_cast<std::ptrdiff_t>(first),
                            sentence.begin() + static_cast<std::ptrdiff_t>(last));
        scene.words.emplace_back(start, scene.speech.size());
        scene.speech.insert(scene.speech.end(), pauseSamples, 0);
    }
    const std::vector<int16_t> fan = FanNoise(scene.speech.size(), fanDb, 7);
    const std::vector<int16_t> keys = KeyboardNoise(scene.speech.size(), keysDb, 11);
    scene.noise.resize(scene.speech.size());
    scene.mix.resize(scene.speech.size());
    for (size_t i = 0; i < scene.speech.size(); ++i) {
        scene.noise[i] = static_cast<int16_t>(std::clamp(fan[i] + keys[i], -32768, 32767));
        scene.mix[i] = static_cast<int16_t>(std::clamp(scene.speech[i] + scene.noise[i], -32768, 32767));
    }
    return scene;
}

double RmsDb(const std::vector<int16_t>& samples, size_t begin, size_t end)
{
    end = std::min(end, samples.size());
    if (end <= begin)
        return -150;
    double sum = 0;
    for (size_t i = begin; i < end; ++i)
        sum += static_cast<double>(samples[i]) * samples[i];
    const double rms = std::sqrt(sum / static_cast<double>(end - begin)) / 32768.0;
    return rms > 0 ? 20 * std::log10(rms) : -150;
}

bool WriteWav(const std::string& path, const std::vector<int16_t>& samples)
{
    std::ofstream out(path, std::ios::binary);
    const auto word = [&](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            out.put(static_cast<char>((value >> (8 * i)) & 0xFF));
    };
    const uint32_t dataBytes = static_cast<uint32_t>(samples.size() * 2);
    out.write("RIFF", 4);
    word(36 + dataBytes, 4);
    out.write("WAVEfmt ", 8);
    word(16, 4);
    word(1, 2);
    word(1, 2);
    word(44100, 4);
    word(88200, 4);
    word(2, 2);
    word(16, 2);
    out.write("data", 4);
    word(dataBytes, 4);
    out.write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(dataBytes));
    return static_cast<bool>(out);
}

} // namespace larimo::test
