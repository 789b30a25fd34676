// SPDX-License-Identifier: GPL-3.0-or-later
// Start-up's ways to end early: what the user sees and what is left untouched, each run from
// a temporary app folder over the simulated sound system.
#include "init.h"

#include "LarimoDlg.h"

#include "../server/ServiceProcess.h"
#include "RecordingSink.h"

#include "NTService.h"
#include "config.h"
#include "error.h"
#include "mlog.h"
#include "platform/AudioBackend.h"
#include "platform/NamedObjects.h"
#include "platform/virtual/VirtualAudio.h"

#include <QApplication>

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <chrono>
#include <filesystem>
#include <thread>
#include <fstream>
#include <string>
#include <vector>

extern "C" const char* __asan_default_options()
{
    // Qt's platform plugins keep caches until exit; they are not ours to free.
    return "detect_leaks=0";
}

namespace larimo {
namespace {

namespace fs = std::filesystem;

using test::RecordingSink;

class StartupTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        s_application = new QApplication(s_argc, s_argv);
        test::UsePrivateObjectNamespace();
    }
    static void TearDownTestSuite()
    {
        delete s_application;
        s_application = nullptr;
        test::RemovePrivateObjectNamespace();
    }

    void SetUp() override
    {
        m_folder = fs::temp_directory_path() /
                   ("larimo-startup-" + std::to_string(::getpid()) + "-" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(m_folder);
        fs::create_directories(m_folder / "home");
        // Whatever start-up registers would land here, not in the user's own configuration.
        setenv("HOME", (m_folder / "home").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (m_folder / "home" / ".config").c_str(), 1);
        setenv("LARIMO_SERVICE_BACKEND", "supervisor", 1);
        m_audio = std::make_shared<VirtualAudio>(std::vector<std::string>{"Microphone (Test)"},
                                                 std::vector<std::string>{"Speakers"});
        m_previousAudio = SetAudioBackend(m_audio);
    }

    void TearDown() override
    {
        SetAudioBackend(m_previousAudio);
        // A service asked to stop may still write its last log lines for a moment.
        std::error_code ec;
        for (int attempt = 0; attempt < 40 && (fs::remove_all(m_folder, ec), fs::exists(m_folder)); ++attempt)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(fs::exists(m_folder)) << "the test's folder stayed: " << ec.message();
    }

    void WriteSettings(const std::string& langFile, bool wizardDone)
    {
        const std::string source = LARIMO_SOURCE_DIR;
        std::ofstream(m_folder / "config.ini")
            << "[sys]\nwizard=" << (wizardDone ? 1 : 0) << "\nlangsPath=" << source << "/data/lang/\nlangFile="
            << langFile << "\nskinFile=" << source << "/data/skins/en/Default.sdf\n";
    }
    std::string EnglishTexts() const { return std::string(LARIMO_SOURCE_DIR) + "/data/lang/larimo_en.tra"; }

    CMoApp::Outcome Run(std::function<bool(Config&)> wizard = {})
    {
        CMoApp::Hooks hooks;
        hooks.programFolder = m_folder.string();
        hooks.messageSink = &m_sink;
        hooks.wizard = wizard ? std::move(wizard) : [this](Config&) {
            ++m_wizardRuns;
            return true;
        };
        hooks.mainWindowShown = [this](CLarimoDlg&) { ADD_FAILURE() << "the main window must not open"; };
        return CMoApp(std::move(hooks)).InitInstance();
    }

    bool ServiceRegistered() const
    {
        return fs::exists(m_folder / "home" / ".config" / "larimo" / "services" / "LarimoSrv.service");
    }

    static inline int s_argc = 1;
    static inline char s_name[16] = "startup_test";
    static inline char* s_argv[2] = {s_name, nullptr};
    static inline QApplication* s_application = nullptr;

    fs::path m_folder;
    RecordingSink m_sink;
    int m_wizardRuns = 0;
    std::shared_ptr<VirtualAudio> m_audio;
    std::shared_ptr<AudioBackend> m_previousAudio;
};

TEST_F(StartupTest, TextsThatCannotStartEndBeforeTheLogOpensSayingWhyOnStandardError)
{
    WriteSettings(m_folder.string() + "/lang/missing.tra", true);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(Run(), CMoApp::Outcome::kTextsFailed);
    const std::string said = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("the language file \"" + m_folder.string() + "/lang/missing.tra\""), std::string::npos) << said;
    EXPECT_NE(said.find("it does not exist"), std::string::npos) << said;
    EXPECT_TRUE(m_sink.m_boxes.empty());
    EXPECT_FALSE(fs::exists(m_folder / "larimocl.log"));
    EXPECT_EQ(m_wizardRuns, 0);
    EXPECT_FALSE(ServiceRegistered());
}

TEST_F(StartupTest, AMissingVirtualMicrophoneShowsItsNameAndEndsBeforeTheInstanceCheck)
{
    WriteSettings(EnglishTexts(), true);
    m_audio->SetVirtualMicrophoneRefused(true);
    // Another panel running changes nothing: the driver check comes first, so every start
    // reports the missing microphone.
    const ObjHandle other = CreateNamedMutex("LarimoAppMutex", true);
    ASSERT_NE(other, 0u);
    for (int start = 0; start < 2; ++start)
        EXPECT_EQ(Run(), CMoApp::Outcome::kDriverMissing);
    CloseObject(other);

    ASSERT_EQ(m_sink.m_boxes.size(), 2u);
    for (const RecordingSink::Box& box : m_sink.m_boxes) {
        EXPECT_EQ(box.text, "Virtual sound card driver \"Larimo Microphone\" not found.");
        EXPECT_EQ(box.caption, "Larimo");
        EXPECT_EQ(box.style & MB_ICONMASK, static_cast<unsigned>(MB_ICONERROR));
    }
    EXPECT_TRUE(fs::exists(m_folder / "larimocl.log")) << "the log opens before the driver check";
    EXPECT_FALSE(ServiceRegistered());
}

TEST_F(StartupTest, ASecondStartSaysSoAndLeavesTheServiceAlone)
{
    WriteSettings(EnglishTexts(), false);
    const ObjHandle first = CreateNamedMutex("LarimoAppMutex", true);
    ASSERT_NE(first, 0u);
    EXPECT_EQ(Run(), CMoApp::Outcome::kAlreadyRunning);
    CloseObject(first);

    ASSERT_EQ(m_sink.m_boxes.size(), 1u);
    EXPECT_EQ(m_sink.m_boxes[0].text, "Larimo is already running.");
    EXPECT_EQ(m_sink.m_boxes[0].caption, "Larimo");
    EXPECT_EQ(m_wizardRuns, 0) << "the wizard comes after the instance check";
    EXPECT_FALSE(ServiceRegistered());

    // Once the first panel is gone, the mutex is free again for the next start; the run
    // ends at the wizard here, so nothing else is touched.
    m_sink.m_boxes.clear();
    EXPECT_EQ(Run([](Config&) { return false; }), CMoApp::Outcome::kWizardCancelled);
    EXPECT_TRUE(m_sink.m_boxes.empty());
}

TEST_F(StartupTest, ACancelledWizardEndsWithoutInstallingTheService)
{
    WriteSettings(EnglishTexts(), false);
    int shown = 0;
    EXPECT_EQ(Run([&](Config&) {
                  ++shown;
                  return false;
              }),
              CMoApp::Outcome::kWizardCancelled);
    EXPECT_EQ(shown, 1);
    EXPECT_TRUE(m_sink.m_boxes.empty());
    EXPECT_FALSE(ServiceRegistered());

    std::ifstream settings(m_folder / "config.ini");
    const std::string text((std::istreambuf_iterator<char>(settings)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("wizard=0"), std::string::npos) << "a cancelled wizard leaves the first start pending";

    // The mutex of the cancelled run was released: a new start gets past the instance check.
    EXPECT_EQ(Run([&](Config&) {
                  ++shown;
                  return false;
              }),
              CMoApp::Outcome::kWizardCancelled);
    EXPECT_EQ(shown, 2);
}

TEST_F(StartupTest, ADefaultDeviceThatCannotBeSetIsToldAndStartUpGoesOn)
{
    WriteSettings(EnglishTexts(), false);
    m_audio->SetDefaultDeviceRefused(true);
    EXPECT_EQ(Run([](Config&) { return false; }), CMoApp::Outcome::kWizardCancelled)
        << "start-up must go on to the wizard";
    ASSERT_EQ(m_sink.m_boxes.size(), 1u);
    EXPECT_EQ(m_sink.m_boxes[0].text, "Could not select default sound device.");
    EXPECT_EQ(m_sink.m_boxes[0].caption, "Larimo");
    EXPECT_EQ(m_sink.m_boxes[0].style & MB_ICONMASK, static_cast<unsigned>(MB_ICONINFORMATION));
}

TEST_F(StartupTest, AServiceProgramThatIsMissingEndsStartUpWithItsMessage)
{
    WriteSettings(EnglishTexts(), true);
    EXPECT_EQ(Run(), CMoApp::Outcome::kInstallFailed);
    ASSERT_EQ(m_sink.m_boxes.size(), 1u);
    EXPECT_EQ(m_sink.m_boxes[0].caption, "Larimo");
    EXPECT_EQ(m_sink.m_boxes[0].style & MB_ICONMASK, static_cast<unsigned>(MB_ICONERROR));
    EXPECT_FALSE(ServiceRegistered());
}

// The whole way a new user takes: started from elsewhere, the wizard runs first, then the
// service is registered and started, and the panel opens.
TEST_F(StartupTest, AFirstStartFromAnotherDirectoryRunsTheWizardThenTheServiceThenThePanel)
{
    WriteSettings(EnglishTexts(), false);
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "LarimoServer", m_folder / "LarimoServer");
    const fs::path elsewhere = fs::current_path();
    ASSERT_EQ(chdir("/"), 0);

    // Whatever happens below, no service of this test outlives it.
    struct ServiceCleanup {
        ~ServiceCleanup()
        {
            NtServiceStop(kServiceName);
            NtServiceUninstall(kServiceName);
        }
    } cleanup;

    bool registeredBeforeWizard = true;
    bool shown = false;
    CMoApp::Hooks hooks;
    hooks.programFolder = m_folder.string();
    hooks.messageSink = &m_sink;
    hooks.wizard = [&](Config& settings) {
        registeredBeforeWizard = ServiceRegistered();
        settings.m_input = "Microphone (Test)";
        settings.m_monitor = "Speakers";
        return true;
    };
    hooks.mainWindowShown = [&](CLarimoDlg& dialog) {
        shown = true;
        dialog.OnExit();
    };
    const CMoApp::Outcome outcome = CMoApp(std::move(hooks)).InitInstance();
    fs::current_path(elsewhere);

    EXPECT_EQ(outcome, CMoApp::Outcome::kClosed);
    EXPECT_TRUE(shown);
    EXPECT_TRUE(m_sink.m_boxes.empty()) << m_sink.m_boxes.front().text;
    EXPECT_FALSE(registeredBeforeWizard);
    EXPECT_TRUE(ServiceRegistered());
    uint32_t state = 0;
    EXPECT_EQ(NtServiceStatus(kServiceName, state), 0);
    EXPECT_EQ(state, kServiceRunning);

    Config saved(m_folder.string());
    saved.LoadAll();
    EXPECT_TRUE(saved.m_wizard) << "the next start must not ask again";
    EXPECT_EQ(saved.m_input, "Microphone (Test)");
    EXPECT_EQ(saved.m_monitor, "Speakers");

    std::ifstream log(m_folder / "larimocl.log");
    const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("Show main dialog..."), std::string::npos) << "the log lies beside the program";

    EXPECT_EQ(NtServiceStop(kServiceName), 0);
}

} // namespace
} // namespace larimo
