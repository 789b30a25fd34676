// SPDX-License-Identifier: GPL-3.0-or-later
// Skin files are shared between users: the parser must read any text without crashing, and
// every getter must leave its target alone when it refuses a value.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "DynBitmap.h"
#include "DynRgn.h"
#include "SkinParser.h"

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

const std::string& ScratchFile()
{
    static const std::string path = "/tmp/larimo-fuzz-skin-" + std::to_string(::getpid()) + ".sdf";
    return path;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    {
        std::ofstream out(ScratchFile(), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    larimo::CSkinParser parser;
    if (!parser.Init(ScratchFile(), size % 2 == 0 ? std::string() : std::string("SkinId")))
        return 0;
    for (const char* object : {"[Larimo]", "[ERadio1]", "[EmList]", "[", "[Osci]"}) {
        if (!parser.FindObject(object))
            continue;
        int keys = 0;
        while (parser.NextKey() && keys++ < 1000) {
            const std::string key = parser.CurrentKey();
            int a = 7;
            int b = 7;
            bool flag = false;
            larimo::ColorRef color = 0;
            QPoint p1;
            QPoint p2;
            std::string text = "unchanged";
            larimo::SkinFont font;
            font.face = "unchanged";
            const bool nonEmpty = !key.empty() && !parser.CurrentValue().empty();
            Check(parser.GetInt(key, a) == nonEmpty);
            Check(parser.GetBool(key, flag) == nonEmpty);
            Check(parser.GetColor(key, color) == nonEmpty);
            Check(color <= 0xFFFFFFU);
            Check(parser.GetSize(key, a, b) == nonEmpty);
            Check(parser.GetPosition(key, p1, p2) == nonEmpty);
            Check(parser.GetString(key, text) == nonEmpty);
            Check(!nonEmpty ? text == "unchanged" : text == parser.CurrentValue());
            if (!parser.GetFont(key, font))
                Check(font.face == "unchanged");
            else
                Check(!font.face.empty() && font.face.size() <= 31);
            Check(!parser.GetInt(key + "x", a));
        }
    }
    return 0;
}
