// SPDX-License-Identifier: GPL-3.0-or-later
// The command client: one member per command of the voice service's protocol.
#pragma once

#include "ipc.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larimo {

/// Owns its connection: destroying the client closes it. One command at a time per object
/// (the named objects serialise commands of different objects, threads and processes). Each
/// command returns true when the service answered. Commands may throw ShmErrorNum when the
/// frame does not fit the service's memory. Never used on the audio thread.
class MoIpcCli {
public:
    explicit MoIpcCli(std::unique_ptr<IPC> ipc);
    ~MoIpcCli();
    MoIpcCli(const MoIpcCli&) = delete;
    MoIpcCli& operator=(const MoIpcCli&) = delete;

    bool SrvUpdate();
    /// Appends the service's collected error texts to `errors`.
    bool SrvGetErrors(std::vector<std::string>& errors);
    bool MonitorSet(bool on);
    bool MonitorSetVol(uint8_t volume);
    bool CliOnStarted();
    bool CliOnClose();
    bool EffectSetActive(uint32_t slot);
    bool EffectSelect(uint32_t slot, const std::string& name);
    bool BackSoundSetActive(uint32_t slot);
    bool BackSoundSelect(uint32_t slot, const std::string& file);
    bool BackSoundSetVol(uint32_t slot, int8_t volume);
    bool EmoticPlay(uint32_t slot);
    bool EmoticStop(uint32_t slot);
    bool EmoticSelect(uint32_t slot, const std::string& file);
    bool EmoticStopAll();
    /// Appends one flag per fun sound slot, true for a playing one.
    bool EmoticsStatus(std::vector<bool>& playing);

    IPC& Connection() { return *m_ipc; }

private:
    class Exchange;

    std::unique_ptr<IPC> m_ipc;
    // The connection's state (its message handle, its read and write places) is one for the
    // client: a whole exchange holds this lock, so the window thread and the event thread
    // never step on each other's command.
    std::mutex m_exchangeLock;
};

/// The process-wide client of the current service connection, or null while the service is not
/// connected. Senders take a reference and send through it; a client that another thread
/// drops stays alive until its last sender is done. Any thread.
std::shared_ptr<MoIpcCli> CommandClient();
void SetCommandClient(std::shared_ptr<MoIpcCli> client);

/// Opens a connection to the service under `baseName` and makes a client of it; null when
/// the service is not there. Any thread.
std::shared_ptr<MoIpcCli> ConnectToService(const std::string& baseName);

} // namespace larimo
