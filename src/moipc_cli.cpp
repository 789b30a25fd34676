// SPDX-License-Identifier: GPL-3.0-or-later
#include "moipc_cli.h"

#include "mlog.h"
#include "server/moipc_cmds.h"

#include <atomic>

namespace larimo {

namespace {

std::atomic<std::shared_ptr<MoIpcCli>>& ClientSlot()
{
    static std::atomic<std::shared_ptr<MoIpcCli>> client;
    return client;
}

} // namespace

// Holds the frame's lock for one command and empties the payload; unlocks on every exit,
// also when a write throws.
class MoIpcCli::Exchange {
public:
    explicit Exchange(MoIpcCli& client)
        : m_inProcess(client.m_exchangeLock)
        , m_ipc(*client.m_ipc)
    {
        m_ipc.Lock();
        m_ipc.ResetData();
    }
    ~Exchange() { m_ipc.Unlock(); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

private:
    std::lock_guard<std::mutex> m_inProcess;
    IPC& m_ipc;
};

MoIpcCli::MoIpcCli(std::unique_ptr<IPC> ipc)
    : m_ipc(std::move(ipc))
{
}

MoIpcCli::~MoIpcCli()
{
    if (m_ipc)
        m_ipc->Close();
}

bool MoIpcCli::SrvUpdate()
{
    LogInfo("MoIpcCli::SrvUpdate");
    Exchange exchange(*this);
    return m_ipc->SendMessageW(kCmdSrvUpdate);
}

bool MoIpcCli::SrvGetErrors(std::vector<std::string>& errors)
{
    LogInfo("MoIpcCli::SrvGetErrors");
    Exchange exchange(*this);
    if (!m_ipc->SendMessageW(kCmdSrvGetErrors))
        return false;
    uint32_t count = 0;
    m_ipc->Read(&count, sizeof count);
    // The count is the service's word; the texts themselves end where its answer ends.
    for (uint32_t i = 0; i < count && m_ipc->Remaining() > 0; ++i) {
        std::string text;
        m_ipc->ReadString(text);
        errors.push_back(std::move(text));
    }
    return true;
}

bool MoIpcCli::MonitorSet(bool on)
{
    LogInfo("MoIpcCli::MonitorSet");
    Exchange exchange(*this);
    const uint8_t value = on ? 1 : 0;
    m_ipc->Write(&value, 1);
    return m_ipc->SendMessageW(kCmdMonitorSet);
}

bool MoIpcCli::MonitorSetVol(uint8_t volume)
{
    LogInfo("MoIpcCli::MonitorSetVol");
    Exchange exchange(*this);
    m_ipc->Write(&volume, 1);
    return m_ipc->SendMessageW(kCmdMonitorSetVol);
}

bool MoIpcCli::CliOnStarted()
{
    LogInfo("MoIpcCli::CliOnStarted");
    Exchange exchange(*this);
    return m_ipc->SendMessageW(kCmdCliOnStarted);
}

bool MoIpcCli::CliOnClose()
{
    LogInfo("MoIpcCli::CliOnClose");
    Exchange exchange(*this);
    return m_ipc->SendMessageW(kCmdCliOnClose);
}

bool MoIpcCli::EffectSetActive(uint32_t slot)
{
    LogInfo("%s(slot=%d)", "MoIpcCli::EffectSetActive", static_cast<int>(slot));
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    return m_ipc->SendMessageW(kCmdEffectSetActive);
}

bool MoIpcCli::EffectSelect(uint32_t slot, const std::string& name)
{
    LogInfo("%s(slot=%d, name=%s)", "MoIpcCli::EffectSelect", static_cast<int>(slot), name.c_str());
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    m_ipc->WriteString(name);
    return m_ipc->SendMessageW(kCmdEffectSelect);
}

bool MoIpcCli::BackSoundSetActive(uint32_t slot)
{
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    return m_ipc->SendMessageW(kCmdBackSoundSetActive);
}

bool MoIpcCli::BackSoundSelect(uint32_t slot, const std::string& file)
{
    LogInfo("%s(slot=%d, file=%s)", "MoIpcCli::BackSoundSelect", static_cast<int>(slot), file.c_str());
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    m_ipc->WriteString(file);
    return m_ipc->SendMessageW(kCmdBackSoundSelect);
}

bool MoIpcCli::BackSoundSetVol(uint32_t slot, int8_t volume)
{
    LogInfo("%s(slot=%d, volume=%d)", "MoIpcCli::BackSoundSetVol", static_cast<int>(slot), volume);
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    m_ipc->Write(&volume, 1);
    return m_ipc->SendMessageW(kCmdBackSoundSetVol);
}

bool MoIpcCli::EmoticPlay(uint32_t slot)
{
    LogInfo("%s(slot=%d)", "MoIpcCli::EmoticPlay", static_cast<int>(slot));
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    return m_ipc->SendMessageW(kCmdEmoticPlay);
}

bool MoIpcCli::EmoticStop(uint32_t slot)
{
    LogInfo("%s(slot=%d)", "MoIpcCli::EmoticStop", static_cast<int>(slot));
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    return m_ipc->SendMessageW(kCmdEmoticStop);
}

bool MoIpcCli::EmoticSelect(uint32_t slot, const std::string& file)
{
    LogInfo("%s(slot=%d, file=%s)", "MoIpcCli::EmoticSelect", static_cast<int>(slot), file.c_str());
    Exchange exchange(*this);
    m_ipc->Write(&slot, sizeof slot);
    m_ipc->WriteString(file);
    return m_ipc->SendMessageW(kCmdEmoticSelect);
}

bool MoIpcCli::EmoticStopAll()
{
    LogInfo("%s()", "MoIpcCli::EmoticStopAll");
    Exchange exchange(*this);
    return m_ipc->SendMessageW(kCmdEmoticStopAll);
}

bool MoIpcCli::EmoticsStatus(std::vector<bool>& playing)
{
    LogInfo("MoIpcCli::EmoticsStatus");
    Exchange exchange(*this);
    if (!m_ipc->SendMessageW(kCmdEmoticsStatus))
        return false;
    uint32_t count = 0;
    m_ipc->Read(&count, sizeof count);
    for (uint32_t i = 0; i < count; ++i) {
        uint8_t flag = 0;
        size_t got = 0;
        m_ipc->Read(&flag, 1, &got);
        if (got == 0)
            break;
        playing.push_back(flag != 0);
    }
    return true;
}

std::shared_ptr<MoIpcCli> CommandClient()
{
    return ClientSlot().load();
}

void SetCommandClient(std::shared_ptr<MoIpcCli> client)
{
    ClientSlot().store(std::move(client));
}

std::shared_ptr<MoIpcCli> ConnectToService(const std::string& baseName)
{
    auto ipc = std::make_unique<IPC>(baseName);
    if (!ipc->Open())
        return nullptr;
    return std::make_shared<MoIpcCli>(std::move(ipc));
}

} // namespace larimo
