// SPDX-License-Identifier: GPL-3.0-or-later
#include "SoundPage.h"

#include "DialogTools.h"
#include "filltext.h"
#include "mlog.h"
#include "wave.h"

#include <QPushButton>

namespace larimo {

namespace {

constexpr unsigned kTestText = 110;
constexpr unsigned kStopText = 111;
constexpr int kTestId = 1028;

} // namespace

CSoundPage::CSoundPage(COptionsSheet& sheet, int templateId)
    : COptionsPage(sheet, templateId)
{
    m_test = MakeButton(this, kTestText, kTestId);
}

void CSoundPage::ShowPlaying(bool playing)
{
    m_playing = playing;
    m_test->setText(UiText(playing ? kStopText : kTestText));
}

bool CSoundPage::StartPreview(const std::string& path, uint8_t volume, unsigned loadErrorText)
{
    const unsigned loaded = Test().LoadWave(path);
    if (loaded != kWaveSuccess) {
        LogError("%s: %s", path.c_str(), WaveErrorText(loaded).c_str());
        ErrorBox(FillText(loadErrorText, WaveErrorText(loaded).c_str()));
        return false;
    }
    MonitorOff();
    Test().SetTestVolume(volume);
    const unsigned started = Test().TestStart();
    if (started != kMmeSuccess) {
        ErrorBox(FillText(234, MmeErrorText(started).c_str()));
        return false;
    }
    ShowPlaying(true);
    return true;
}

void CSoundPage::StopPreview(const char* scope)
{
    LogInfo("%s::TestStop", scope);
    Test().Stop();
    Test().UnLoad();
    ShowPlaying(false);
}

void CSoundPage::OnTestStop()
{
    MonitorRestore();
    ShowPlaying(false);
}

} // namespace larimo
