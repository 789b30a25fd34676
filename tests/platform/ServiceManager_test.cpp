// SPDX-License-Identifier: GPL-3.0-or-later
// Both service manager backends against the real LarimoServer: the supervisor always, systemd
// when the machine has a user systemd.
#include "platform/ServiceManager.h"
#include "platform/SupervisorServiceManager.h"
#include "platform/SystemdServiceManager.h"

#include "../server/ServiceProcess.h"
#include "../server/ServiceSandbox.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;
using test::ProcessAlive;
using test::ServiceAnswers;
using test::WaitFor;

constexpr char kName[] = "LarimoSrv";

ServiceIdentity IdentityFor(const fs::path& program, const std::string& name = kName)
{
    return {name, "Larimo Service", "Capturing sound", program.string()};
}

ServiceState StateOf(ServiceManager& manager, const std::string& name = kName)
{
    ServiceState state = kServiceStopped;
    EXPECT_EQ(manager.Status(name, state), kNtsSuccess);
    return state;
}

std::string ReadText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class SupervisorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_manager = OpenServiceManager();
        ASSERT_NE(m_manager, nullptr);
        ASSERT_EQ(m_manager->Backend(), "supervisor");
    }

    test::ServiceSandbox m_sandbox;
    std::unique_ptr<ServiceManager> m_manager;
};

TEST_F(SupervisorTest, RegistrationStartStopAndKillAreSeenAsTheServiceStates)
{
    ServiceState state = kServiceRunning;
    EXPECT_EQ(m_manager->Status(kName, state), kNtsNotFound);
    ASSERT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_EQ(SupervisorFolder(), m_sandbox.ConfigHome().string() + "/larimo/services/");
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);
    std::string path;
    EXPECT_EQ(m_manager->GetPath(kName, path), kNtsSuccess);
    EXPECT_EQ(path, m_sandbox.Program().string());

    ASSERT_EQ(m_manager->Start(kName), kNtsSuccess);
    const pid_t pid = m_sandbox.RecordedPid(kName);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(StateOf(*m_manager), kServiceRunning);
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    // Starting a running service launches nothing more.
    EXPECT_EQ(m_manager->Start(kName), kNtsSuccess);
    EXPECT_EQ(m_sandbox.RecordedPid(kName), pid);
    // The service is detached: its own session, not our child.
    EXPECT_NE(getsid(pid), getsid(0));
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);

    ASSERT_EQ(m_manager->Stop(kName), kNtsSuccess);
    EXPECT_TRUE(WaitFor(10000, [&] { return !ProcessAlive(pid); }));
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);
    EXPECT_EQ(m_manager->Stop(kName), kNtsSuccess);

    ASSERT_EQ(m_manager->Start(kName), kNtsSuccess);
    const pid_t second = m_sandbox.RecordedPid(kName);
    ASSERT_TRUE(WaitFor(10000, ServiceAnswers));
    kill(second, SIGKILL);
    EXPECT_TRUE(WaitFor(10000, [&] { return !ProcessAlive(second); }));
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);

    // The service's output goes to its log beside the registration.
    EXPECT_TRUE(fs::exists(m_sandbox.ConfigHome() / "larimo" / "services" / "LarimoSrv.log"));
}

TEST_F(SupervisorTest, WrongRequestsFailWithTheirResults)
{
    EXPECT_FALSE(m_manager->Create(IdentityFor(m_sandbox.Program(), "../escape")));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EINVAL));
    EXPECT_FALSE(m_manager->Create(IdentityFor("relative/LarimoServer")));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EINVAL));

    std::string path;
    EXPECT_EQ(m_manager->GetPath(kName, path), kNtsNotFound);
    EXPECT_EQ(m_manager->Start(kName), kNtsNotFound);
    EXPECT_EQ(m_manager->Stop(kName), kNtsNotFound);
    EXPECT_EQ(m_manager->Uninstall(kName), kNtsOpenFailed);
    EXPECT_FALSE(m_manager->SetDescription(kName, "text"));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(ENOENT));

    ASSERT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_FALSE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EEXIST));

    fs::remove(m_sandbox.Program());
    EXPECT_EQ(m_manager->Start(kName), kNtsStartFailed);
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(ENOENT));

    EXPECT_EQ(m_manager->Uninstall(kName), kNtsSuccess);
    EXPECT_FALSE(fs::exists(m_sandbox.Registration(kName)));
}

TEST_F(SupervisorTest, DescriptionAndLogSourceAreKeptInTheRegistration)
{
    ASSERT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    ASSERT_TRUE(m_manager->SetDescription(kName, "Capturing sound from microphone and sending to loopback adapter"));
    ASSERT_TRUE(m_manager->RegisterLogSource(kName, kName));
    const std::string text = ReadText(m_sandbox.Registration(kName));
    EXPECT_NE(text.find("Description=Capturing sound from microphone and sending to loopback adapter"), std::string::npos);
    EXPECT_NE(text.find("DisplayName=Larimo Service"), std::string::npos);
    EXPECT_NE(text.find("LogIdentifier=LarimoSrv"), std::string::npos);
    EXPECT_NE(text.find("StartType=auto"), std::string::npos);
}

TEST_F(SupervisorTest, RemovalStaysPendingWhileTheOldProcessRuns)
{
    ASSERT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    ASSERT_EQ(m_manager->Start(kName), kNtsSuccess);
    const pid_t pid = m_sandbox.RecordedPid(kName);
    ASSERT_TRUE(WaitFor(10000, ServiceAnswers));

    // A stopped process receives the stop request only when it continues.
    kill(pid, SIGSTOP);
    ASSERT_EQ(m_manager->Uninstall(kName), kNtsSuccess);
    EXPECT_EQ(StateOf(*m_manager), kServiceStopPending);
    EXPECT_FALSE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EBUSY));
    std::string path;
    EXPECT_EQ(m_manager->GetPath(kName, path), kNtsSuccess);

    kill(pid, SIGCONT);
    ASSERT_TRUE(WaitFor(10000, [&] { return !ProcessAlive(pid); }));
    ServiceState state = kServiceRunning;
    EXPECT_EQ(m_manager->Status(kName, state), kNtsNotFound);
    EXPECT_FALSE(fs::exists(m_sandbox.Registration(kName)));
    EXPECT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
}

TEST_F(SupervisorTest, UpgradeWaitsBrieflyForTheOldProcessToEnd)
{
    ASSERT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    ASSERT_EQ(m_manager->Start(kName), kNtsSuccess);
    const pid_t pid = m_sandbox.RecordedPid(kName);
    ASSERT_TRUE(WaitFor(10000, ServiceAnswers));
    ASSERT_EQ(m_manager->Uninstall(kName), kNtsSuccess);
    EXPECT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_FALSE(ProcessAlive(pid));
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);
}

// The recorded process tells the state; only the process that was started counts.
TEST_F(SupervisorTest, RecordedProcessGivesTheState)
{
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    ASSERT_GT(child, 0);
    const uint64_t started = test::ProcessStartTime(child);
    ASSERT_NE(started, 0U);

    // Launched, but not yet the program: starting.
    m_sandbox.WriteRegistration(kName, m_sandbox.Program().string(), child, started);
    EXPECT_EQ(StateOf(*m_manager), kServiceStartPending);
    EXPECT_EQ(m_manager->Start(kName), kNtsSuccess);
    EXPECT_EQ(m_sandbox.RecordedPid(kName), child);

    // The same pid with another start time is somebody else's process.
    m_sandbox.WriteRegistration(kName, m_sandbox.Program().string(), child, started + 1);
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);

    // A process that was ours, now a zombie.
    m_sandbox.WriteRegistration(kName, m_sandbox.Program().string(), child, started);
    kill(child, SIGKILL);
    EXPECT_TRUE(WaitFor(5000, [&] { return !ProcessAlive(child); }));
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);
    waitpid(child, nullptr, 0);
}

TEST_F(SupervisorTest, DamagedRegistrationReadsAsNoneAndIsReplaced)
{
    fs::create_directories(m_sandbox.Registration(kName).parent_path());
    std::ofstream(m_sandbox.Registration(kName)) << "\x01\x02 not a registration\n=\n[\n";
    ServiceState state = kServiceRunning;
    EXPECT_EQ(m_manager->Status(kName, state), kNtsNotFound);
    EXPECT_TRUE(m_manager->Create(IdentityFor(m_sandbox.Program())));
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);

    // Numbers that are no numbers record no process.
    std::ofstream(m_sandbox.Registration(kName)) << "[Service]\nProgram=" << m_sandbox.Program().string()
                                                 << "\n[Process]\nPid=-5x\nStartTime=zz\n";
    EXPECT_EQ(StateOf(*m_manager), kServiceStopped);
}

TEST(ServiceManagerChoice, UnknownBackendIsRefusedWithItsReason)
{
    setenv("LARIMO_SERVICE_BACKEND", "launchd", 1);
    EXPECT_EQ(OpenServiceManager(), nullptr);
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EINVAL));
    unsetenv("LARIMO_SERVICE_BACKEND");
}

TEST(ServiceNames, OnlyPlainNamesAreServiceNames)
{
    for (const char* good : {"LarimoSrv", "a", "Larimo-Srv_2.test"})
        EXPECT_TRUE(IsValidServiceName(good)) << good;
    for (const char* bad : {"", ".hidden", "-x", "a/b", "../x", "a b", "a\nb", "Larimo@x"})
        EXPECT_FALSE(IsValidServiceName(bad)) << bad;
    EXPECT_TRUE(IsValidServiceName(std::string(200, 'a')));
    EXPECT_FALSE(IsValidServiceName(std::string(201, 'a')));
}

TEST(UnitText, NewUnitStartsWithTheSessionAfterTheSoundServer)
{
    const std::string text = MakeUnitText({"LarimoSrv", "Larimo Service", "unused", "/opt/my app/100%$HOME\"x\\y"});
    EXPECT_NE(text.find("[Unit]\nDescription=Larimo Service\n"), std::string::npos) << text;
    EXPECT_NE(text.find("After=pipewire.service pipewire-pulse.service wireplumber.service pulseaudio.service\n"),
              std::string::npos);
    EXPECT_NE(text.find("ExecStart=\"/opt/my app/100%%$$HOME\\\"x\\\\y\"\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Restart=on-failure\nRestartPreventExitStatus=1\n"), std::string::npos);
    EXPECT_NE(text.find("[Install]\nWantedBy=default.target\n"), std::string::npos);
}

TEST(UnitText, KeysAreReplacedOrAddedInTheirSection)
{
    const std::string unit = "# c\n[Unit]\nDescription=Old\nAfter=x\n\n[Service]\nExecStart=\"/p\"\n\n[Install]\nWantedBy=default.target\n";
    EXPECT_EQ(SetUnitKey(unit, "Unit", "Description", "New"),
              "# c\n[Unit]\nDescription=New\nAfter=x\n\n[Service]\nExecStart=\"/p\"\n\n[Install]\nWantedBy=default.target\n");
    EXPECT_EQ(SetUnitKey(unit, "Service", "SyslogIdentifier", "LarimoSrv"),
              "# c\n[Unit]\nDescription=Old\nAfter=x\n\n[Service]\nExecStart=\"/p\"\nSyslogIdentifier=LarimoSrv\n\n[Install]\nWantedBy=default.target\n");
    EXPECT_EQ(SetUnitKey("[Unit]\nDescription = Old\n", "Unit", "Description", "New"), "[Unit]\nDescription=New\n");
    EXPECT_EQ(SetUnitKey("[Unit]\nDescriptionX=1\n", "Unit", "Description", "New"),
              "[Unit]\nDescriptionX=1\nDescription=New\n");
    EXPECT_EQ(SetUnitKey("[Unit]\nA=1\n", "Service", "B", "2"), "[Unit]\nA=1\n\n[Service]\nB=2\n");
    EXPECT_EQ(EscapeUnitValue("50% of\nthe text"), "50%% of the text");
}

// Runs on a machine with a user systemd (a desktop session); elsewhere it says why it is skipped.
TEST(SystemdUnits, LifecycleOfAUserUnit)
{
    std::unique_ptr<ServiceManager> manager = OpenSystemdServiceManager();
    if (!manager)
        GTEST_SKIP() << test::WhyNoUserSystemd(LastServiceError());
    // A name of its own, so a Larimo installed by the user stays untouched.
    const std::string name = "LarimoSrvTest" + std::to_string(getpid());
    test::ServiceProcess folder; // only for its app folder with a LarimoServer copy
    const fs::path program = folder.Program();

    ASSERT_TRUE(manager->Create({name, "Larimo Service", "unused", program.string()})) << LastServiceError();
    EXPECT_FALSE(manager->Create({name, "Larimo Service", "unused", program.string()}));
    EXPECT_EQ(LastServiceError(), static_cast<uint32_t>(EEXIST));
    EXPECT_TRUE(manager->SetDescription(name, "Capturing sound from microphone and sending to loopback adapter"));
    EXPECT_TRUE(manager->RegisterLogSource(name, name));
    std::string path;
    EXPECT_EQ(manager->GetPath(name, path), kNtsSuccess);
    EXPECT_EQ(path, program.string());
    EXPECT_EQ(StateOf(*manager, name), kServiceStopped);

    ASSERT_EQ(manager->Start(name), kNtsSuccess) << LastServiceError();
    EXPECT_TRUE(WaitFor(10000, [&] { return StateOf(*manager, name) == kServiceRunning; }));
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    EXPECT_EQ(manager->Start(name), kNtsSuccess);

    ASSERT_EQ(manager->Stop(name), kNtsSuccess);
    EXPECT_TRUE(WaitFor(10000, [&] { return StateOf(*manager, name) == kServiceStopped; }));
    EXPECT_TRUE(WaitFor(10000, [] { return !ServiceAnswers(); }));

    ASSERT_EQ(manager->Start(name), kNtsSuccess);
    EXPECT_TRUE(WaitFor(10000, ServiceAnswers));
    ASSERT_EQ(manager->Uninstall(name), kNtsSuccess) << LastServiceError();
    EXPECT_TRUE(WaitFor(10000, [&] {
        ServiceState state = kServiceRunning;
        return manager->Status(name, state) == kNtsNotFound;
    }));
    EXPECT_TRUE(WaitFor(10000, [] { return !ServiceAnswers(); }));
    EXPECT_EQ(manager->GetPath(name, path), kNtsNotFound);
}

} // namespace
} // namespace larimo
