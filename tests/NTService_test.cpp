// SPDX-License-Identifier: GPL-3.0-or-later
// The start-up operations that install, upgrade and start the voice service, run against the real
// LarimoServer under the built-in supervisor.
#include "NTService.h"
#include "platform/ServiceManager.h"

#include "config.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "platform/SystemdServiceManager.h"
#include "texts.h"
#include "wintools.h"

#include "server/ServiceProcess.h"
#include "server/ServiceSandbox.h"
#include "server/ServiceSandbox.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;
using test::ProcessAlive;
using test::ServiceAnswers;
using test::WaitFor;

struct ShownBox {
    std::string text;
    unsigned style;
};

class RecordingSink : public MessageBoxSink {
public:
    int ShowMessageBox(void*, const std::string& text, const std::string&, unsigned style) override
    {
        boxes.push_back({text, style});
        return IDOK;
    }
    std::vector<ShownBox> boxes;
};

std::string ReadText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// What `larimoctl status` of that app folder prints, with its exit status.
std::string LarimoctlStatus(const fs::path& app, int& status)
{
    const std::string command = (app / "larimoctl").string() + " status 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return {};
    std::string output;
    std::array<char, 256> buffer{};
    while (fgets(buffer.data(), buffer.size(), pipe) != nullptr)
        output += buffer.data();
    const int result = pclose(pipe);
    status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
    return output;
}

class ServiceInstallTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        static const bool texts = StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra");
        ASSERT_TRUE(texts);
        SetDataRoot(m_sandbox.App().string());
        LogOpen(Log().string(), false, false, false, false, false);
        SetMessageBoxSink(&m_sink);
    }
    void TearDown() override
    {
        SetMessageBoxSink(nullptr);
        SetDataRoot(ProgramFolder());
    }

    fs::path Log() const { return m_sandbox.App() / "larimocl.log"; }
    fs::path ConfigIni() const { return m_sandbox.App() / "config.ini"; }
    std::string StoredVersion() const
    {
        Config settings(m_sandbox.App().string());
        settings.ReadGeneral();
        return settings.m_version;
    }
    pid_t ServicePid() const { return m_sandbox.RecordedPid(kServiceName); }
    std::string AppFolder() const { return m_sandbox.App().string() + "/"; }

    void InstallAndRun()
    {
        ASSERT_TRUE(InstallServer());
        ASSERT_TRUE(RunServer());
        ASSERT_TRUE(WaitFor(10000, ServiceAnswers));
        ASSERT_TRUE(m_sink.boxes.empty()) << m_sink.boxes.front().text;
    }

    test::ServiceSandbox m_sandbox;
    RecordingSink m_sink;
};

TEST_F(ServiceInstallTest, FirstStartRegistersStartsAndStoresTheVersion)
{
    ASSERT_TRUE(InstallServer());
    EXPECT_TRUE(fs::exists(m_sandbox.Registration(kServiceName)));
    EXPECT_EQ(StoredVersion(), LARIMO_EXPECTED_VERSION);
    std::string path;
    EXPECT_EQ(NtServiceGetPath(kServiceName, path, kServicePathCapacity), kNtsSuccess);
    EXPECT_EQ(path, m_sandbox.Program().string());
    uint32_t state = 0;
    EXPECT_EQ(NtServiceStatus(kServiceName, state), kNtsSuccess);
    EXPECT_EQ(state, kServiceStopped);

    ASSERT_TRUE(RunServer());
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    EXPECT_TRUE(m_sink.boxes.empty());

    // What a user would ask from a shell.
    int status = -1;
    const std::string output = LarimoctlStatus(m_sandbox.App(), status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("Voice service: running"), std::string::npos) << output;

    const std::string log = ReadText(Log());
    EXPECT_NE(log.find("NtServiceGetPath(\"LarimoSrv\")"), std::string::npos) << log;
    EXPECT_NE(log.find("NtServiceGetPath() = Service not found"), std::string::npos) << log;
    EXPECT_NE(log.find("_InstallServerBse()"), std::string::npos) << log;
}

TEST_F(ServiceInstallTest, SameVersionWritesNothingAndOnlyAsksForThePath)
{
    InstallAndRun();
    const pid_t pid = ServicePid();
    const std::string settings = ReadText(ConfigIni());
    const auto written = fs::last_write_time(ConfigIni());
    fs::resize_file(Log(), 0);

    ASSERT_TRUE(InstallServer());
    EXPECT_EQ(ReadText(ConfigIni()), settings);
    EXPECT_EQ(fs::last_write_time(ConfigIni()), written);
    const std::string log = ReadText(Log());
    EXPECT_NE(log.find("NtServiceGetPath(\"LarimoSrv\")"), std::string::npos) << log;
    for (const char* other : {"NtServiceUninstall", "NtServiceStart", "NtServiceStop", "NtServiceStatus", "_InstallServerBse"})
        EXPECT_EQ(log.find(other), std::string::npos) << other << " in\n" << log;
    EXPECT_EQ(ServicePid(), pid);
    EXPECT_TRUE(ProcessAlive(pid));
}

TEST_F(ServiceInstallTest, NewVersionReplacesTheRunningService)
{
    InstallAndRun();
    const pid_t old = ServicePid();
    std::string newVersion = LARIMO_EXPECTED_VERSION;
    newVersion.back() = newVersion.back() == '7' ? '8' : '7';
    // An upgrade puts a new file in place while the old program still runs.
    ASSERT_TRUE(test::CopyWithProductVersion(m_sandbox.Program(), m_sandbox.Program(), newVersion));

    ASSERT_TRUE(InstallServer());
    EXPECT_TRUE(m_sink.boxes.empty()) << m_sink.boxes.front().text;
    EXPECT_EQ(StoredVersion(), newVersion);
    EXPECT_FALSE(ProcessAlive(old));
    const std::string log = ReadText(Log());
    EXPECT_NE(log.find("Server version: " + newVersion + ", cfg.version: " LARIMO_EXPECTED_VERSION), std::string::npos) << log;
    EXPECT_NE(log.find("NtServiceUninstall() = Success"), std::string::npos) << log;

    ASSERT_TRUE(RunServer());
    EXPECT_NE(ServicePid(), old);
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
}

// Two app folders of one version: the panel of each drives the service of its own folder.
TEST_F(ServiceInstallTest, AServiceRegisteredFromAnotherAppFolderIsReplacedByThisOne)
{
    const fs::path other = m_sandbox.App() / "other-copy";
    fs::create_directories(other);
    fs::copy_file(m_sandbox.Program(), other / "LarimoServer");
    const std::unique_ptr<ServiceManager> manager = OpenServiceManager();
    ASSERT_TRUE(manager->Create({kServiceName, "Larimo Service", "Capturing sound", (other / "LarimoServer").string()}));
    Config settings(m_sandbox.App().string());
    settings.ReadGeneral();
    settings.m_version = LARIMO_EXPECTED_VERSION;
    ASSERT_TRUE(settings.WriteGeneral());

    ASSERT_TRUE(InstallServer());
    EXPECT_TRUE(m_sink.boxes.empty()) << m_sink.boxes.front().text;
    std::string path;
    EXPECT_EQ(NtServiceGetPath(kServiceName, path, kServicePathCapacity), kNtsSuccess);
    EXPECT_EQ(path, m_sandbox.Program().string()) << "the service of the other folder is still registered";
    const std::string log = ReadText(Log());
    EXPECT_NE(log.find("is registered from \"" + (other / "LarimoServer").string()), std::string::npos) << log;
}

TEST_F(ServiceInstallTest, MissingServiceProgramNamesTheProgramFolder)
{
    fs::remove(m_sandbox.Program());
    EXPECT_FALSE(InstallServer());
    ASSERT_EQ(m_sink.boxes.size(), 1U);
    EXPECT_EQ(m_sink.boxes[0].text, FillText(168, "LarimoServer", AppFolder().c_str()));
    EXPECT_EQ(m_sink.boxes[0].style & MB_ICONMASK, MB_ICONERROR);
    EXPECT_FALSE(fs::exists(m_sandbox.Registration(kServiceName)));
    EXPECT_FALSE(fs::exists(ConfigIni()));
}

// The registered program is checked at every start; what is wrong with it is shown, and the stored
// version stays.
TEST_F(ServiceInstallTest, UnreadableRegisteredProgramIsShown)
{
    InstallAndRun();
    kill(ServicePid(), SIGKILL);
    const std::string settings = ReadText(ConfigIni());

    fs::remove(m_sandbox.Program());
    EXPECT_FALSE(InstallServer());
    ASSERT_EQ(m_sink.boxes.size(), 1U);
    EXPECT_EQ(m_sink.boxes[0].text, FillText(168, "LarimoServer", AppFolder().c_str()));

    // A program without a version record.
    fs::copy_file("/bin/true", m_sandbox.Program());
    m_sink.boxes.clear();
    EXPECT_FALSE(InstallServer());
    ASSERT_EQ(m_sink.boxes.size(), 1U);
    EXPECT_EQ(m_sink.boxes[0].text, "Can not get file version after install.\nError code: " + std::to_string(ENODATA) +
                                        " (\"" + SystemErrorText(ENODATA) + "\") \nFile: " + m_sandbox.Program().string());
    EXPECT_EQ(ReadText(ConfigIni()), settings);
}

TEST_F(ServiceInstallTest, StartPendingCountsAsRunning)
{
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    m_sandbox.WriteRegistration(kServiceName, m_sandbox.Program().string(), child, test::ProcessStartTime(child));
    uint32_t state = 0;
    EXPECT_EQ(NtServiceStatus(kServiceName, state), kNtsSuccess);
    EXPECT_EQ(state, kServiceStartPending);

    fs::resize_file(Log(), 0);
    EXPECT_TRUE(RunServer());
    EXPECT_EQ(ReadText(Log()).find("NtServiceStart"), std::string::npos);
    EXPECT_EQ(ServicePid(), child);
    EXPECT_FALSE(ServiceAnswers());
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(ServiceInstallTest, StoppedOrKilledServiceIsStartedAgain)
{
    InstallAndRun();
    const pid_t first = ServicePid();

    // The sound card page's restart: stop, then start once it has stopped.
    EXPECT_EQ(NtServiceStop(kServiceName), kNtsSuccess);
    uint32_t state = 0;
    EXPECT_TRUE(WaitFor(10000, [&] { return NtServiceStatus(kServiceName, state) == kNtsSuccess && state == kServiceStopped; }));
    EXPECT_FALSE(ProcessAlive(first));
    ASSERT_TRUE(RunServer());
    const pid_t second = ServicePid();
    EXPECT_NE(second, first);
    ASSERT_TRUE(WaitFor(10000, ServiceAnswers));

    kill(second, SIGKILL);
    EXPECT_TRUE(WaitFor(10000, [&] { return !ProcessAlive(second); }));
    EXPECT_EQ(NtServiceStatus(kServiceName, state), kNtsSuccess);
    EXPECT_EQ(state, kServiceStopped);
    ASSERT_TRUE(RunServer());
    EXPECT_NE(ServicePid(), second);
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    EXPECT_TRUE(m_sink.boxes.empty());
}

TEST_F(ServiceInstallTest, FailuresAreShownWithTheirTextsAndCodes)
{
    // No service manager at all.
    setenv("LARIMO_SERVICE_BACKEND", "nothing", 1);
    EXPECT_FALSE(RunServer());
    EXPECT_FALSE(InstallServer());
    ASSERT_EQ(m_sink.boxes.size(), 2U);
    EXPECT_EQ(m_sink.boxes[0].text, FillText(207, GetText(177).c_str(), unsigned{EINVAL}));
    EXPECT_EQ(m_sink.boxes[1].text, FillText(206, GetText(177).c_str(), unsigned{EINVAL}));
    setenv("LARIMO_SERVICE_BACKEND", "supervisor", 1);

    // A registered program that cannot be executed.
    m_sink.boxes.clear();
    ASSERT_TRUE(InstallServer());
    ASSERT_EQ(chmod(m_sandbox.Program().c_str(), 0644), 0);
    EXPECT_FALSE(RunServer());
    ASSERT_EQ(m_sink.boxes.size(), 1U);
    const std::string expected = GetText(208) + "\n\n" + FillText(206, GetText(180).c_str(), unsigned{EACCES}) + " (\"" +
                                 SystemErrorText(EACCES) + "\")";
    EXPECT_EQ(m_sink.boxes[0].text, expected);
    EXPECT_EQ(m_sink.boxes[0].style & MB_ICONMASK, MB_ICONERROR);
}

// The same start-up under a user systemd, where the machine has one (a desktop session).
TEST(ServiceInstallSystemd, InstallAndRunLeaveARunningUserUnit)
{
    if (!OpenSystemdServiceManager())
        GTEST_SKIP() << test::WhyNoUserSystemd(LastServiceError());
    std::string existing;
    if (NtServiceGetPath(kServiceName, existing, kServicePathCapacity) != kNtsNotFound)
        GTEST_SKIP() << "a LarimoSrv unit is installed on this machine (" << existing << "); the test leaves it alone";
    ASSERT_TRUE(StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra"));
    test::ServiceProcess app; // its app folder holds a LarimoServer copy
    SetDataRoot(app.Folder().string());
    RecordingSink sink;
    SetMessageBoxSink(&sink);

    EXPECT_TRUE(InstallServer());
    EXPECT_TRUE(RunServer());
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    uint32_t state = 0;
    EXPECT_TRUE(WaitFor(10000, [&] { return NtServiceStatus(kServiceName, state) == kNtsSuccess && state == kServiceRunning; }));
    std::string path;
    EXPECT_EQ(NtServiceGetPath(kServiceName, path, kServicePathCapacity), kNtsSuccess);
    EXPECT_EQ(path, app.Program().string());
    Config settings(app.Folder().string());
    settings.ReadGeneral();
    EXPECT_EQ(settings.m_version, LARIMO_EXPECTED_VERSION);
    EXPECT_TRUE(sink.boxes.empty()) << sink.boxes.front().text;
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "larimoctl", app.Folder() / "larimoctl");
    int status = -1;
    const std::string output = LarimoctlStatus(app.Folder(), status);
    EXPECT_EQ(status, 0) << output;
    EXPECT_NE(output.find("Voice service: running"), std::string::npos) << output;

    EXPECT_EQ(NtServiceUninstall(kServiceName), kNtsSuccess);
    EXPECT_TRUE(WaitFor(10000, [] { return !ServiceAnswers(); }));
    EXPECT_TRUE(WaitFor(10000, [&] { return NtServiceStatus(kServiceName, state) == kNtsNotFound; }));
    SetMessageBoxSink(nullptr);
    SetDataRoot(ProgramFolder());
}

TEST(NtServiceResults, EveryResultHasItsText)
{
    ASSERT_TRUE(StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra"));
    const std::array<const char*, 11> texts = {
        "Success",
        "Service undefined error",
        "Service not found",
        "Access to service manager denied. Your privileges might not be sufficient for installing/uninstalling windows services.",
        "Access to service denied. Your privileges might not be sufficient for changing the settings of windows services.",
        "Error opening service",
        "Error starting service",
        "Error starting service. It seems to be unresponsive.",
        "Error stopping service. It seems to be unresponsive.",
        "Error stopping service",
        "Error deleting service",
    };
    for (int result = 0; result < static_cast<int>(texts.size()); ++result)
        EXPECT_EQ(NtServiceErrorText(result), texts[static_cast<size_t>(result)]) << result;
    for (int other : {-1, 11, 1000})
        EXPECT_EQ(NtServiceErrorText(other), "Undefined error") << other;
}

TEST(NtServicePath, PathIsCutToTheCapacity)
{
    test::ServiceSandbox sandbox;
    fs::path deep = sandbox.App();
    for (int i = 0; i < 8; ++i)
        deep /= std::string(40, 'a' + i);
    const std::string program = (deep / "LarimoServer").string();
    sandbox.WriteRegistration(kServiceName, program, 0, 0);
    std::string path;
    EXPECT_EQ(NtServiceGetPath(kServiceName, path, kServicePathCapacity), kNtsSuccess);
    EXPECT_EQ(path, program);
    EXPECT_EQ(NtServiceGetPath(kServiceName, path, 21), kNtsSuccess);
    EXPECT_EQ(path, program.substr(0, 20));
}

} // namespace
} // namespace larimo
