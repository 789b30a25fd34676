// SPDX-License-Identifier: GPL-3.0-or-later
// Wave devices over sound-server streams: a record stream that fills the queued buffers in
// order, a playback stream fed from them. The server's buffering is sized from the stream's
// buffers (fragments of one buffer, a target of all of them), never left at its defaults.
#pragma once

#include "platform/AudioBackend.h"
#include "platform/pulse/PulseContext.h"

#include <memory>
#include <string>

namespace larimo {

/// Opens a record stream on `source` (empty: the server's default). Not on the loop thread.
unsigned OpenPulseWaveIn(const std::shared_ptr<PulseContext>& context, const std::string& source,
                         const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                         std::unique_ptr<WaveInDevice>& opened);
/// Opens a playback stream on `sink` (empty: the server's default). Not on the loop thread.
unsigned OpenPulseWaveOut(const std::shared_ptr<PulseContext>& context, const std::string& sink,
                          const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                          std::unique_ptr<WaveOutDevice>& opened);

} // namespace larimo
