// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceTexts.h"

#include "StringTable.h"
#include "texts.h"

namespace larimo {

namespace {
constexpr unsigned kUndefinedError = 141;
}

std::string ServiceText(unsigned id)
{
    const std::string& text = GetText(id);
    if (text != kTextNotFound)
        return text;
    const char* english = StringTableText(id);
    return english != nullptr ? english : text;
}

std::string ServiceTextWith(unsigned id, const std::string& argument)
{
    std::string text = ServiceText(id);
    if (const size_t at = text.find("%s"); at != std::string::npos)
        text.replace(at, 2, argument);
    return text;
}

std::string ServiceWaveErrorText(unsigned error)
{
    switch (error) {
    case 0:
        return ServiceText(120);
    case 1:
        return ServiceText(131);
    case 2:
        return ServiceText(132);
    case 3:
        return ServiceText(142);
    case 4:
        return ServiceText(143);
    default:
        return ServiceText(kUndefinedError);
    }
}

std::string ServiceVstErrorText(unsigned error)
{
    if (error <= 4)
        return ServiceText(error == 0 ? 120 : 152 + error);
    return ServiceText(kUndefinedError);
}

} // namespace larimo
