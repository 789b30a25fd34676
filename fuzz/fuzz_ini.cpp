// SPDX-License-Identifier: GPL-3.0-or-later
// The INI reader and editor on arbitrary bytes: nothing may crash, parsing must give back the
// very bytes it was given, and a value written must read back.
#include "platform/Profile.h"
#include "voiceconfig.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string contents(reinterpret_cast<const char*>(data), size);
    larimo::IniDocument document = larimo::IniDocument::Parse(contents);
    if (document.Serialize() != contents)
        __builtin_trap();

    for (const char* section : { "sys", "emotics", "Shortcuts", "eff_0" }) {
        for (const std::string& key : document.Keys(section))
            (void)document.Get(section, key, "default", 126);
    }
    (void)larimo::ReadVoiceEffects(document);

    // A short value taken from the input itself, line breaks included.
    const std::string value = contents.substr(0, 40);
    std::string expected = value;
    for (char& c : expected) {
        if (c == '\r' || c == '\n')
            c = ' ';
    }
    document.Set("fuzz", "key", value);
    document.DeleteKey("sys", "activeEffect");
    document.ReplaceSection("emotics", { { "num", "1" }, { "file_0", value } });
    const larimo::IniDocument reread = larimo::IniDocument::Parse(document.Serialize());
    if (reread.Get("fuzz", "key", "<missing>") != expected
        || reread.Get("emotics", "file_0", "<missing>") != expected
        || reread.Find("sys", "activeEffect").has_value())
        __builtin_trap();
    return 0;
}
