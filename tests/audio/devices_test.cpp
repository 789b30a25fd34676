// SPDX-License-Identifier: GPL-3.0-or-later
#include "SelectDefSound/SoundDevices.h"
#include "wmme.h"

#include "audio/AudioTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>

namespace larimo {
namespace {

class Devices : public test::VirtualAudioTest {
protected:
    Devices()
        : VirtualAudioTest({"Microphone (USB Audio Device)", "", "Line In (USB Audio)", "Webcam Mic"},
                           {"Speakers (HD Audio)", "USB Audio Headset"})
    {
    }
};

TEST_F(Devices, NamesAreFoundBySubstringFirstMatchWins)
{
    struct Case {
        std::string name;
        int type;
        unsigned result;
        int device;
    };
    const std::vector<Case> cases = {
        {"USB Audio", 1, kMmeSuccess, 0},
        {"Line In", 1, kMmeSuccess, 2},
        {"Mic", 1, kMmeSuccess, 0},
        {"Webcam", 1, kMmeSuccess, 3},
        {"USB Audio", 2, kMmeSuccess, 1},
        {"usb audio", 1, kMmeDeviceNotFound, kNoDevice},
        {"", 1, kMmeDeviceNotFound, kNoDevice},
        {"Nothing like it", 2, kMmeDeviceNotFound, kNoDevice},
        {"USB Audio", 0, kMmeBadParameter, kNoDevice},
        {"USB Audio", 3, kMmeBadParameter, kNoDevice},
    };
    for (const Case& c : cases) {
        int device = 42;
        EXPECT_EQ(PaGetDevNByName(c.name, c.type, device), c.result) << c.name << " " << c.type;
        EXPECT_EQ(device, c.device) << c.name << " " << c.type;
    }
    const std::string log = test::ReadTestLog();
    EXPECT_NE(log.find("Search SoundDev=\"Webcam\" type = in"), std::string::npos);
    EXPECT_NE(log.find("SoundDev=\"Webcam Mic\" id=3"), std::string::npos);
}

TEST_F(Devices, ListsLeaveOutEmptyNamesAndKeepOrder)
{
    std::vector<std::string> names;
    EXPECT_EQ(PaGetSoundDevList(names, 1), kMmeSuccess);
    EXPECT_EQ(names, (std::vector<std::string>{"Microphone (USB Audio Device)", "Line In (USB Audio)", "Webcam Mic"}));
    names.clear();
    EXPECT_EQ(PaGetSoundDevList(names, 2), kMmeSuccess);
    EXPECT_EQ(names.size(), 2U);
    EXPECT_EQ(PaGetSoundDevList(names, 5), kMmeBadParameter);

    const CSoundDevices capture(CSoundDevices::kCapture);
    EXPECT_FALSE(capture.EndpointModel());
    EXPECT_EQ(capture.Count(), 4);
    EXPECT_EQ(capture.DefaultIndex(), 0);
    EXPECT_EQ(capture.Name(99), "");
    EXPECT_EQ(capture.Name(-1), "");
    EXPECT_EQ(capture.WaveDevice(99), -1);
    EXPECT_EQ(capture.FindByWaveDevice(3), 3);
    EXPECT_EQ(capture.FindByWaveDevice(9), -1);
    EXPECT_EQ(capture.Entry(0)->endpointId, "");

    // The wave model's default follows the preferred device.
    CSoundDevices render(CSoundDevices::kRender);
    EXPECT_TRUE(render.SetDefault(1));
    EXPECT_EQ(render.DefaultIndex(), 1);
    EXPECT_EQ(CSoundDevices(CSoundDevices::kRender).DefaultIndex(), 1);
    EXPECT_FALSE(render.SetDefault(2));
    EXPECT_FALSE(render.SetDefault(-1));
}

TEST_F(Devices, MixerIdsAndLogListing)
{
    unsigned id = 0;
    EXPECT_EQ(PaGetMixerId("Webcam", 1, id), kMmeSuccess);
    EXPECT_EQ(id, 3U);
    EXPECT_EQ(PaGetMixerId("Nowhere", 1, id), kMmeDeviceNotFound);
    EXPECT_EQ(PaGetMixerId("Webcam", 4, id), kMmeBadParameter);
    m_audio->SetDeviceGone(WaveDirection::Capture, 3, true);
    EXPECT_EQ(PaGetMixerId("Webcam", 1, id), kMmeMixerNoDriver);

    PaLogSoundDevices();
    const std::string log = test::ReadTestLog();
    EXPECT_NE(log.find("    -= Sound devices =-"), std::string::npos);
    EXPECT_NE(log.find("Enumirate drivers on input (nDevs=4):"), std::string::npos);
    EXPECT_NE(log.find("Device [2] (devId=2) = Line In (USB Audio)"), std::string::npos);
    EXPECT_NE(log.find("Enumirate drivers on output (nDevs=2):"), std::string::npos);
    EXPECT_NE(log.find("Device [1] (devId=1) = USB Audio Headset"), std::string::npos);
}

class CountingNotify : public MixerNotify {
public:
    void OnMixerControlChange(uint32_t controlId) override
    {
        ++m_count;
        m_last = controlId;
    }
    std::atomic<int> m_count{0};
    std::atomic<uint32_t> m_last{0};
};

VirtualMixerTopology MuxTopology(std::vector<std::string> names, int micIndex)
{
    VirtualMixerTopology topology;
    topology.hasMux = true;
    for (std::size_t i = 0; i < names.size(); ++i) {
        topology.sources.push_back(
            {names[i], static_cast<int>(i) == micIndex ? MixerComponent::SrcMicrophone : MixerComponent::SrcLine, true});
    }
    topology.selected = 0;
    return topology;
}

TEST_F(Devices, MultiplexerSelectsByExactNameAndVolumeFollowsTheSelection)
{
    m_audio->SetMixerTopology(0, MuxTopology({"Line In", "Mic", "CD"}, 1));
    CountingNotify notify;
    PortMixer mixer;
    ASSERT_TRUE(mixer.Open(0, 0, &notify));
    EXPECT_TRUE(mixer.HasMux());
    EXPECT_FALSE(mixer.HasNoRecControl());
    std::vector<RecSource> sources;
    mixer.GetRecSources(sources);
    ASSERT_EQ(sources.size(), 3U);
    EXPECT_EQ(sources[1].name, "Mic");
    EXPECT_NE(sources[1].volumeId, -1);

    std::string name;
    EXPECT_TRUE(FindMicLine(mixer, name));
    EXPECT_EQ(name, "Mic");

    EXPECT_EQ(mixer.GetSelectedMuxItem(), 0);
    EXPECT_FALSE(mixer.SelectRecSource("mic"));
    EXPECT_FALSE(mixer.SelectRecSource("Mi"));
    EXPECT_TRUE(mixer.SelectRecSource("CD"));
    EXPECT_EQ(mixer.GetSelectedMuxItem(), 2);
    mixer.GetRecSourceName(name);
    EXPECT_EQ(name, "CD");
    EXPECT_FALSE(mixer.SelectMuxItem(3));
    EXPECT_FALSE(mixer.SelectMuxItem(-1));

    EXPECT_TRUE(mixer.SetRecVolume(1000));
    uint32_t volume = 0;
    EXPECT_TRUE(mixer.GetRecVolume(volume));
    EXPECT_EQ(volume, 1000U);
    EXPECT_EQ(mixer.GetVolume(sources[2].volumeId), 1000);
    EXPECT_EQ(mixer.GetVolume(sources[0].volumeId), 65535);
    EXPECT_EQ(mixer.GetVolume(-1), -1);
    EXPECT_TRUE(mixer.SelectMuxItem(0));
    EXPECT_TRUE(mixer.GetRecVolume(volume));
    EXPECT_EQ(volume, 65535U);
    EXPECT_GE(notify.m_count.load(), 3);

    const int before = notify.m_count.load();
    m_audio->ChangeVolumeExternally(0, static_cast<uint32_t>(sources[1].volumeId), 5);
    EXPECT_EQ(notify.m_count.load(), before + 1);
    EXPECT_EQ(notify.m_last.load(), static_cast<uint32_t>(sources[1].volumeId));

    int64_t master = -1;
    EXPECT_TRUE(mixer.GetVolControl(MixerComponent::DstSpeakers, master));
    EXPECT_TRUE(mixer.SetVolume(master, 300));
    EXPECT_EQ(mixer.GetVolume(master), 300);
    EXPECT_EQ(mixer.Close(), kMmOk);
    EXPECT_FALSE(mixer.HasMux());
    sources.clear();
    mixer.GetRecSources(sources);
    EXPECT_TRUE(sources.empty());
    EXPECT_FALSE(mixer.SetRecVolume(5));
}

class MicNames : public test::VirtualAudioTest,
                 public ::testing::WithParamInterface<std::pair<std::vector<std::string>, std::string>> {};

TEST_P(MicNames, FindMicLineMatchesWholeNamesWithoutCase)
{
    const auto& [names, expected] = GetParam();
    m_audio->SetMixerTopology(0, MuxTopology(names, -1));
    PortMixer mixer;
    ASSERT_TRUE(mixer.Open(0, 0, nullptr));
    std::string found = "unchanged";
    EXPECT_EQ(FindMicLine(mixer, found), !expected.empty());
    EXPECT_EQ(found, expected.empty() ? "unchanged" : expected);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, MicNames,
    ::testing::Values(std::make_pair(std::vector<std::string>{"Line In", "Mic", "CD"}, std::string("Mic")),
                      std::make_pair(std::vector<std::string>{"Microphone Boost", "Line"}, std::string()),
                      std::make_pair(std::vector<std::string>{"CD", "MIKRO", "Microphone"}, std::string("MIKRO")),
                      std::make_pair(std::vector<std::string>{"microfon"}, std::string("microfon")),
                      std::make_pair(std::vector<std::string>{"Stereo Mix", "Micro"}, std::string("Micro")),
                      std::make_pair(std::vector<std::string>{}, std::string())));

TEST_F(Devices, WithoutMultiplexerTheRecordingVolumeIsFoundOrMissing)
{
    // No selector, no destination volume, no microphone: the last source line is used.
    VirtualMixerTopology plain;
    plain.hasMux = false;
    plain.sources = {{"Line", MixerComponent::SrcLine, true}, {"Aux", MixerComponent::SrcLine, true}};
    m_audio->SetMixerTopology(0, plain);
    PortMixer mixer;
    ASSERT_TRUE(mixer.Open(0, 0, nullptr));
    EXPECT_FALSE(mixer.HasMux());
    EXPECT_EQ(mixer.RecordingVolume().name, "Aux Volume");
    std::vector<RecSource> sources;
    mixer.GetRecSources(sources);
    ASSERT_EQ(sources.size(), 1U);
    EXPECT_EQ(sources[0].name, "Aux Volume");
    EXPECT_TRUE(mixer.SetRecVolume(77));
    uint32_t volume = 0;
    EXPECT_TRUE(mixer.GetRecVolume(volume));
    EXPECT_EQ(volume, 77U);

    // A microphone line wins over the last line.
    plain.sources.insert(plain.sources.begin(), {"Mic", MixerComponent::SrcMicrophone, true});
    m_audio->SetMixerTopology(1, plain);
    ASSERT_TRUE(mixer.Open(1, 0, nullptr));
    EXPECT_EQ(mixer.RecordingVolume().name, "Mic Volume");

    // The destination's own volume comes before any source line.
    plain.destinationVolume = true;
    m_audio->SetMixerTopology(2, plain);
    ASSERT_TRUE(mixer.Open(2, 0, nullptr));
    EXPECT_EQ(mixer.RecordingVolume().name, "Recording Volume");
    std::string name;
    mixer.GetRecSourceName(name);
    EXPECT_EQ(name, "Recording Volume");

    // Nothing to control at all.
    VirtualMixerTopology bare;
    bare.hasMux = false;
    bare.sources = {{"Line", MixerComponent::SrcLine, false}};
    m_audio->SetMixerTopology(3, bare);
    ASSERT_TRUE(mixer.Open(3, 0, nullptr));
    EXPECT_TRUE(mixer.HasNoRecControl());
    mixer.GetRecSources(sources);
    ASSERT_EQ(sources.size(), 1U);
    EXPECT_EQ(sources[0].name, "No sources");
    EXPECT_EQ(sources[0].lineId, -1);
    mixer.GetRecSourceName(name);
    EXPECT_EQ(name, "No sources");
    EXPECT_FALSE(mixer.GetRecVolume(volume));
    EXPECT_FALSE(FindMicLine(mixer, name));

    EXPECT_FALSE(mixer.Open(99, 0, nullptr));
    EXPECT_FALSE(mixer.IsOpen());
}

TEST_F(Devices, FindMicLineByDeviceNameOpensTheMixer)
{
    m_audio->SetMixerTopology(3, MuxTopology({"Line In", "Mic", "CD"}, 1));
    std::string name = "stale";
    EXPECT_TRUE(FindMicLine("Webcam", name));
    EXPECT_EQ(name, "Mic");
    EXPECT_FALSE(FindMicLine("No such device", name));
    EXPECT_EQ(name, "");
}

} // namespace
} // namespace larimo
