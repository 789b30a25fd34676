// SPDX-License-Identifier: GPL-3.0-or-later
// Named objects of a test program's own: a namespace apart from a real Larimo the user may
// run, whose files (of every user the program becomes) are removed when the program ends, so
// no test leaves anything in /dev/shm.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace larimo::test {

class PrivateObjectsEnvironment final : public ::testing::Environment {
public:
    void SetUp() override
    {
        m_name = "t" + std::to_string(getpid());
        setenv("LARIMO_OBJECT_NAMESPACE", m_name.c_str(), 1);
    }
    void TearDown() override
    {
        const std::string marker = "-" + m_name + "-";
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
            const std::string file = entry.path().filename().string();
            if (file.rfind("larimo-", 0) == 0 && file.find(marker) != std::string::npos)
                std::filesystem::remove(entry.path(), ignored);
        }
    }

private:
    std::string m_name;
};

/// Registered once by including this header in a test program.
[[maybe_unused]] inline ::testing::Environment* const kPrivateObjects =
    ::testing::AddGlobalTestEnvironment(new PrivateObjectsEnvironment);

} // namespace larimo::test
