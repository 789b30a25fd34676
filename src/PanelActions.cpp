// SPDX-License-Identifier: GPL-3.0-or-later
#include "PanelActions.h"

#include "config.h"
#include "mlog.h"
#include "moipc_cli.h"
#include "server/moipc_cmds.h"

#include <algorithm>

namespace larimo {

namespace {

constexpr int kVolumeStep = 10;

// Runs one command on the connected client; a frame error is logged, never thrown to the UI.
template <typename Command>
bool Send(const char* scope, Command command)
{
    const std::shared_ptr<MoIpcCli> client = PanelActions::Client();
    if (!client)
        return false;
    try {
        return command(*client);
    } catch (ShmErrorNum error) {
        LogError("%s: %s", scope, ShmErrorText(error).c_str());
        return false;
    }
}

uint32_t WireSlot(int index)
{
    return index < 0 ? kNoSlot : static_cast<uint32_t>(index);
}

bool ValidSlot(int slot)
{
    return slot >= 0 && slot < Config::kSlotCount;
}

} // namespace

PanelActions::PanelActions(Config& settings)
    : m_settings(settings)
{
}

std::shared_ptr<MoIpcCli> PanelActions::Client()
{
    return CommandClient();
}

void PanelActions::SelectEffect(int index)
{
    LogInfo("%s(%d)", "CLarimoDlg::SelectEffect", index);
    if (!ValidSlot(index))
        index = -1;
    Send("CLarimoDlg::SelectEffect", [&](MoIpcCli& client) { return client.EffectSetActive(WireSlot(index)); });
    m_settings.m_activeEffect = index;
    m_settings.WriteGeneral();
}

void PanelActions::SelectSound(int index)
{
    LogInfo("%s(%d)", "CLarimoDlg::SelectSound", index);
    if (!ValidSlot(index))
        index = -1;
    Send("CLarimoDlg::SelectSound", [&](MoIpcCli& client) { return client.BackSoundSetActive(WireSlot(index)); });
    m_settings.m_activeBackSound = index;
    m_settings.WriteGeneral();
}

int PanelActions::ToggleEffect(int slot)
{
    const int next = slot == m_settings.m_activeEffect ? -1 : slot;
    SelectEffect(next);
    return m_settings.m_activeEffect;
}

int PanelActions::ToggleSound(int slot)
{
    const int next = slot == m_settings.m_activeBackSound ? -1 : slot;
    SelectSound(next);
    return m_settings.m_activeBackSound;
}

void PanelActions::ChangeSound(int slot, int volume)
{
    LogInfo("%s(%d, val=%d)", "CLarimoDlg::ChangeSound", slot, volume);
    if (!ValidSlot(slot))
        return;
    volume = std::clamp(volume, 0, 100);
    Send("CLarimoDlg::ChangeSound", [&](MoIpcCli& client) {
        return client.BackSoundSetVol(static_cast<uint32_t>(slot), static_cast<int8_t>(volume));
    });
    m_settings.m_backSounds[slot].m_volume = static_cast<uint16_t>(volume);
    m_settings.WriteBackSound(slot);
}

int PanelActions::StepBackSoundVolume(int slot, bool up)
{
    if (!ValidSlot(slot))
        return 0;
    const int volume = std::clamp(m_settings.m_backSounds[slot].m_volume + (up ? kVolumeStep : -kVolumeStep), 0, 100);
    ChangeSound(slot, volume);
    return volume;
}

void PanelActions::SetMonitor(bool on)
{
    LogInfo("%s(%d)", "CLarimoDlg::OnBnClickedMonitor", on ? 1 : 0);
    Send("CLarimoDlg::OnBnClickedMonitor", [&](MoIpcCli& client) { return client.MonitorSet(on); });
    m_settings.m_monitorOn = on;
    m_settings.WriteMonitor();
}

void PanelActions::ToggleMonitor()
{
    SetMonitor(!m_settings.m_monitorOn);
}

void PanelActions::ChangeMonitorLvl(int level)
{
    level = std::clamp(level, 0, 100);
    LogInfo("%s(%d)", "CLarimoDlg::ChangeMonitorLvl", level);
    Send("CLarimoDlg::ChangeMonitorLvl",
         [&](MoIpcCli& client) { return client.MonitorSetVol(static_cast<uint8_t>(level)); });
    m_settings.m_monitorVol = static_cast<uint8_t>(level);
    m_settings.WriteMonitor();
}

void PanelActions::SetNoiseSuppression(bool on)
{
    m_settings.m_noiseSuppression = on;
    ApplyVoice("PanelActions::SetNoiseSuppression");
}

void PanelActions::SetGate(bool on)
{
    m_settings.m_gate = on;
    ApplyVoice("PanelActions::SetGate");
}

void PanelActions::SetGateThreshold(int thresholdDb)
{
    m_settings.m_gate = true;
    m_settings.m_gateThreshold = std::clamp(thresholdDb, -80, -10);
    ApplyVoice("PanelActions::SetGateThreshold");
}

void PanelActions::ApplyVoice(const char* scope)
{
    LogInfo("%s: noise suppression %d (%d dB), gate %d (%d dBFS)", scope, m_settings.m_noiseSuppression ? 1 : 0,
            m_settings.m_noiseStrength, m_settings.m_gate ? 1 : 0, m_settings.m_gateThreshold);
    m_settings.WriteVoice();
    Send(scope, [](MoIpcCli& client) { return client.SrvUpdate(); });
}

void PanelActions::StopAll()
{
    SelectSound(-1);
    SelectEffect(-1);
    Send("CLarimoDlg::StopAll", [](MoIpcCli& client) { return client.EmoticStopAll(); });
}

bool PanelActions::PlayFunSound(int row, bool play)
{
    LogInfo("slot=%d", row);
    if (row < 0)
        return false;
    return Send("CLarimoDlg::OnPlayEmotic", [&](MoIpcCli& client) {
        return play ? client.EmoticPlay(static_cast<uint32_t>(row)) : client.EmoticStop(static_cast<uint32_t>(row));
    });
}

} // namespace larimo
