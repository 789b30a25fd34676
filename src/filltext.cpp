// SPDX-License-Identifier: GPL-3.0-or-later
#include "filltext.h"

#include "textformat.h"
#include "texts.h"

#include <cstdarg>

namespace larimo {

namespace {
constexpr std::size_t kMaxFilledText = 3999;
}

std::string FillText(unsigned id, ...)
{
    va_list args;
    va_start(args, id);
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#endif
    std::string text = VFormatCut(kMaxFilledText, GetText(id).c_str(), args);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
    va_end(args);
    return text;
}

} // namespace larimo
