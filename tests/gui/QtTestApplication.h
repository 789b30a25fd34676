// SPDX-License-Identifier: GPL-3.0-or-later
// The one QApplication of a widget test program: it lives from the first test to the end of
// the run and goes before exit handlers run, while the platform plug-in can still clean up.
#pragma once

#include <QApplication>

#include <gtest/gtest.h>

#include <memory>

namespace larimo::test {

class QtApplicationEnvironment final : public ::testing::Environment {
public:
    /// Runs on the offscreen platform unless the environment names another one.
    void SetUp() override
    {
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        m_application = std::make_unique<QApplication>(m_argc, m_argv);
    }
    void TearDown() override { m_application.reset(); }

private:
    int m_argc = 1;
    char m_name[16] = "larimo_test";
    char* m_argv[2] = {m_name, nullptr};
    std::unique_ptr<QApplication> m_application;
};

/// Registers the application with GoogleTest; a test program includes this header once.
[[maybe_unused]] inline ::testing::Environment* const kQtApplication =
    ::testing::AddGlobalTestEnvironment(new QtApplicationEnvironment);

} // namespace larimo::test
