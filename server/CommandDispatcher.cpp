// SPDX-License-Identifier: GPL-3.0-or-later
#include "CommandDispatcher.h"

#include "mlog.h"
#include "wintools.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace larimo {

namespace {

constexpr size_t kMaxFunSoundSlots = 1000;

// Reads the fields of one payload in order; any field that does not fit makes it fail.
class PayloadReader {
public:
    explicit PayloadReader(std::span<const uint8_t> payload)
        : m_payload(payload)
    {
    }

    std::optional<uint32_t> U32()
    {
        if (m_payload.size() - m_pos < 4)
            return std::nullopt;
        uint32_t value = 0;
        std::memcpy(&value, m_payload.data() + m_pos, 4);
        m_pos += 4;
        return value;
    }

    std::optional<uint8_t> U8()
    {
        if (m_pos >= m_payload.size())
            return std::nullopt;
        return m_payload[m_pos++];
    }

    // A UTF-16LE text whose terminating zero lies inside the payload.
    std::optional<std::string> Text()
    {
        std::u16string text;
        while (m_payload.size() - m_pos >= 2) {
            char16_t unit = 0;
            std::memcpy(&unit, m_payload.data() + m_pos, 2);
            m_pos += 2;
            if (unit == 0)
                return Utf16ToUtf8(text);
            text.push_back(unit);
        }
        return std::nullopt;
    }

    bool AtEnd() const { return m_pos == m_payload.size(); }

private:
    std::span<const uint8_t> m_payload;
    size_t m_pos = 0;
};

void AppendU32(std::vector<uint8_t>& out, uint32_t value)
{
    const size_t at = out.size();
    out.resize(at + 4);
    std::memcpy(out.data() + at, &value, 4);
}

bool IsSlotOrNone(uint32_t slot, int slots)
{
    return slot == kNoSlot || slot < static_cast<uint32_t>(slots);
}

int ClampVolume(int volume)
{
    return std::clamp(volume, 0, 100);
}

} // namespace

CommandDispatcher::CommandDispatcher(Loader loader, size_t answerCapacity)
    : m_loader(std::move(loader))
    , m_answerCapacity(answerCapacity)
    , m_state(m_loader())
{
}

CommandDispatcher::Result CommandDispatcher::Reject(uint32_t code, const char* why)
{
    LogError("Rejected command %u: %s", code, why);
    AddError("The voice service rejected a malformed command (" + std::to_string(code) + "): " + why);
    Result result;
    result.valid = false;
    return result;
}

void CommandDispatcher::AddError(std::string text)
{
    if (m_errors.size() >= kMaxServiceErrors)
        m_errors.erase(m_errors.begin());
    m_errors.push_back(std::move(text));
}

std::vector<uint8_t> CommandDispatcher::TakeErrors()
{
    // Hand over what fits; the rest waits for the next request.
    std::vector<uint8_t> texts;
    size_t taken = 0;
    for (const std::string& error : m_errors) {
        std::u16string wide = Utf8ToUtf16(error);
        wide.push_back(u'\0');
        const size_t bytes = wide.size() * 2;
        if (4 + texts.size() + bytes > m_answerCapacity)
            break;
        const auto* raw = reinterpret_cast<const uint8_t*>(wide.data());
        texts.insert(texts.end(), raw, raw + bytes);
        ++taken;
    }
    m_errors.erase(m_errors.begin(), m_errors.begin() + static_cast<std::ptrdiff_t>(taken));
    std::vector<uint8_t> answer;
    AppendU32(answer, static_cast<uint32_t>(taken));
    answer.insert(answer.end(), texts.begin(), texts.end());
    return answer;
}

bool CommandDispatcher::FunSoundEnded(size_t slot, uint32_t starts)
{
    // A sound played again since it ended is still playing.
    if (slot >= m_state.funSounds.size() || !m_state.funSounds[slot].playing ||
        m_state.funSounds[slot].starts != starts)
        return false;
    m_state.funSounds[slot].playing = false;
    return true;
}

CommandDispatcher::Result CommandDispatcher::Handle(uint32_t code, std::span<const uint8_t> payload)
{
    PayloadReader reader(payload);
    Result result;
    ServiceState next = m_state;

    switch (code) {
    case kCmdSrvUpdate: {
        if (!reader.AtEnd())
            return Reject(code, "a reload carries no data");
        ServiceState loaded = m_loader();
        // Sounds that stay in their slot keep playing.
        for (size_t i = 0; i < loaded.funSounds.size() && i < next.funSounds.size(); ++i) {
            if (loaded.funSounds[i].file == next.funSounds[i].file)
                loaded.funSounds[i] = next.funSounds[i];
        }
        for (size_t i = loaded.funSounds.size(); i < next.funSounds.size(); ++i)
            result.funSoundsChanged |= next.funSounds[i].playing;
        for (size_t i = 0; i < std::min(loaded.funSounds.size(), next.funSounds.size()); ++i)
            result.funSoundsChanged |= loaded.funSounds[i].playing != next.funSounds[i].playing;
        next = std::move(loaded);
        break;
    }
    case kCmdSrvGetErrors:
        if (!reader.AtEnd())
            return Reject(code, "the request for errors carries no data");
        result.answer = TakeErrors();
        return result;
    case kCmdCliOnStarted:
    case kCmdCliOnClose:
        if (!reader.AtEnd())
            return Reject(code, "a client notice carries no data");
        return result;
    case kCmdMonitorSet: {
        const auto on = reader.U8();
        if (!on || !reader.AtEnd())
            return Reject(code, "listen on/off takes one byte");
        next.monitorOn = *on != 0;
        break;
    }
    case kCmdMonitorSetVol: {
        const auto volume = reader.U8();
        if (!volume || !reader.AtEnd())
            return Reject(code, "the listen volume takes one byte");
        next.monitorVol = ClampVolume(*volume);
        break;
    }
    case kCmdEffectSetActive:
    case kCmdBackSoundSetActive: {
        const auto slot = reader.U32();
        const int slots = code == kCmdEffectSetActive ? kEffectSlots : kBackSoundSlots;
        if (!slot || !reader.AtEnd())
            return Reject(code, "the slot takes four bytes");
        if (!IsSlotOrNone(*slot, slots))
            return Reject(code, "no such slot");
        const int active = *slot == kNoSlot ? -1 : static_cast<int>(*slot);
        (code == kCmdEffectSetActive ? next.activeEffect : next.activeBackSound) = active;
        break;
    }
    case kCmdEffectSelect:
    case kCmdBackSoundSelect: {
        const auto slot = reader.U32();
        const auto text = reader.Text();
        if (!slot || !text || !reader.AtEnd())
            return Reject(code, "expected a slot and a text that ends inside the message");
        const int slots = code == kCmdEffectSelect ? kEffectSlots : kBackSoundSlots;
        if (*slot >= static_cast<uint32_t>(slots))
            return Reject(code, "no such slot");
        if (code == kCmdEffectSelect)
            next.effectSlots[*slot] = *text;
        else
            next.backSounds[*slot].file = *text;
        break;
    }
    case kCmdBackSoundSetVol: {
        const auto slot = reader.U32();
        const auto volume = reader.U8();
        if (!slot || !volume || !reader.AtEnd())
            return Reject(code, "expected a slot and one volume byte");
        if (*slot >= static_cast<uint32_t>(kBackSoundSlots))
            return Reject(code, "no such slot");
        next.backSounds[*slot].volume = ClampVolume(static_cast<int8_t>(*volume));
        break;
    }
    case kCmdEmoticPlay:
    case kCmdEmoticStop: {
        const auto slot = reader.U32();
        if (!slot || !reader.AtEnd())
            return Reject(code, "the slot takes four bytes");
        if (*slot >= next.funSounds.size())
            return Reject(code, "no such fun sound");
        FunSoundSlot& sound = next.funSounds[*slot];
        const bool play = code == kCmdEmoticPlay;
        result.funSoundsChanged = sound.playing != play;
        sound.playing = play;
        if (play)
            ++sound.starts;
        break;
    }
    case kCmdEmoticSelect: {
        const auto slot = reader.U32();
        const auto text = reader.Text();
        if (!slot || !text || !reader.AtEnd())
            return Reject(code, "expected a slot and a text that ends inside the message");
        if (*slot > next.funSounds.size() || *slot >= kMaxFunSoundSlots)
            return Reject(code, "no such fun sound");
        if (*slot == next.funSounds.size())
            next.funSounds.emplace_back();
        FunSoundSlot& sound = next.funSounds[*slot];
        result.funSoundsChanged = sound.playing;
        sound.file = *text;
        sound.playing = false;
        break;
    }
    case kCmdEmoticStopAll:
        if (!reader.AtEnd())
            return Reject(code, "stop all carries no data");
        for (FunSoundSlot& sound : next.funSounds) {
            result.funSoundsChanged |= sound.playing;
            sound.playing = false;
        }
        break;
    case kCmdEmoticsStatus: {
        if (!reader.AtEnd())
            return Reject(code, "the status request carries no data");
        const size_t count = std::min(m_state.funSounds.size(), m_answerCapacity - 4);
        AppendU32(result.answer, static_cast<uint32_t>(count));
        for (size_t i = 0; i < count; ++i)
            result.answer.push_back(m_state.funSounds[i].playing ? 1 : 0);
        return result;
    }
    default:
        return Reject(code, "unknown command");
    }

    result.stateChanged = !(next == m_state);
    m_state = std::move(next);
    return result;
}

} // namespace larimo
