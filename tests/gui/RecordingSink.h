// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps every message box a test run would show, and answers each with OK.
#pragma once

#include "error.h"

#include <string>
#include <vector>

namespace larimo::test {

class RecordingSink final : public MessageBoxSink {
public:
    struct Box {
        std::string text;
        std::string caption;
        unsigned style;
    };

    int ShowMessageBox(void* /*owner*/, const std::string& text, const std::string& caption, unsigned style) override
    {
        m_boxes.push_back({text, caption, style});
        return IDOK;
    }

    std::vector<Box> m_boxes;
};

} // namespace larimo::test
