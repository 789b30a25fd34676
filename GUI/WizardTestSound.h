// SPDX-License-Identifier: GPL-3.0-or-later
// The playback page's looping test sound, kept apart from the audio engine's headers so the
// pages see only what they play.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace larimo {

class MixSound;

class WizardTestSound {
public:
    WizardTestSound();
    ~WizardTestSound();
    WizardTestSound(const WizardTestSound&) = delete;
    WizardTestSound& operator=(const WizardTestSound&) = delete;

    /// Loads `path` to play in a loop: 0, or the WAV reader's error number. Window thread.
    unsigned Load(const std::string& path);
    /// The text of a Load error number. Any thread.
    static std::string ErrorText(unsigned error);
    /// Forgets the sound. Window thread, while nothing plays it.
    void Clear();
    /// Adds the next `count` samples to `samples`. RT call: no allocation, no locks.
    void MixInto(std::int16_t* samples, std::size_t count);

private:
    std::unique_ptr<MixSound> m_sound;
};

} // namespace larimo
