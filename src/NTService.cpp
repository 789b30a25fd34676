// SPDX-License-Identifier: GPL-3.0-or-later
#include "NTService.h"

#include "VersionInfo.h"
#include "config.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "texts.h"
#include "textformat.h"
#include "wintools.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>

namespace larimo {

namespace {

// The manager for one operation, or the failure every operation reports when there is none.
std::unique_ptr<ServiceManager> OpenManager(int& result)
{
    std::unique_ptr<ServiceManager> manager = OpenServiceManager();
    result = manager ? kNtsSuccess : kNtsManagerDenied;
    return manager;
}

int LeaveWith(const char* scope, int result)
{
    LogLeaveResult(scope, NtServiceErrorText(result));
    return result;
}

std::string ServiceProgramPath()
{
    return WithTrailingSlash(DataRoot()) + kServiceProgram;
}

// Shows string 206 with the text of `result` and the last error code.
void ShowServiceError(int result)
{
    const uint32_t code = LastServiceError();
    ShowMessage(nullptr, MB_ICONERROR, "%s", FillText(206, NtServiceErrorText(result).c_str(), code).c_str());
}

} // namespace

std::string NtServiceErrorText(int result)
{
    switch (result) {
    case kNtsSuccess:
        return GetText(120);
    case kNtsQueryFailed:
        return GetText(175);
    case kNtsNotFound:
        return GetText(176);
    case kNtsManagerDenied:
        return GetText(177);
    case kNtsAccessDenied:
        return GetText(178);
    case kNtsOpenFailed:
        return GetText(179);
    case kNtsStartFailed:
        return GetText(180);
    case kNtsStartNoResponse:
        return GetText(182);
    case kNtsStopNoResponse:
        return GetText(183);
    case kNtsStopFailed:
        return GetText(181);
    case kNtsDeleteFailed:
        return GetText(184);
    default:
        return GetText(141);
    }
}

namespace {

// One manager operation on the named service, logged under `scope`.
int OnService(const char* scope, const std::string& name, int (ServiceManager::*operation)(const std::string&))
{
    LogEnter(scope, "\"%s\"", name.c_str());
    int result = kNtsSuccess;
    const std::unique_ptr<ServiceManager> manager = OpenManager(result);
    if (manager)
        result = ((*manager).*operation)(name);
    return LeaveWith(scope, result);
}

} // namespace

int NtServiceStart(const std::string& name)
{
    return OnService("NtServiceStart", name, &ServiceManager::Start);
}

int NtServiceStop(const std::string& name)
{
    return OnService("NtServiceStop", name, &ServiceManager::Stop);
}

int NtServiceUninstall(const std::string& name)
{
    return OnService("NtServiceUninstall", name, &ServiceManager::Uninstall);
}

int NtServiceStatus(const std::string& name, uint32_t& state)
{
    LogEnter("NtServiceStatus", "\"%s\"", name.c_str());
    int result = kNtsSuccess;
    const std::unique_ptr<ServiceManager> manager = OpenManager(result);
    if (manager) {
        ServiceState current = kServiceStopped;
        result = manager->Status(name, current);
        if (result == kNtsSuccess)
            state = current;
    }
    return LeaveWith("NtServiceStatus", result);
}

int NtServiceGetPath(const std::string& name, std::string& path, size_t capacity)
{
    LogEnter("NtServiceGetPath", "\"%s\"", name.c_str());
    int result = kNtsSuccess;
    const std::unique_ptr<ServiceManager> manager = OpenManager(result);
    if (manager) {
        std::string program;
        result = manager->GetPath(name, program);
        if (result == kNtsSuccess)
            path = std::string(CutToUtf16(program, capacity > 0 ? capacity - 1 : 0));
    }
    return LeaveWith("NtServiceGetPath", result);
}

bool _InstallServerBse()
{
    LogScopeInfo("_InstallServerBse");
    const std::string folder = WithTrailingSlash(DataRoot());
    const std::string program = ServiceProgramPath();
    if (access(program.c_str(), F_OK) != 0) {
        ShowMessage(nullptr, MB_ICONERROR, "%s", FillText(168, kServiceProgram, folder.c_str()).c_str());
        return false;
    }
    try {
        const std::unique_ptr<ServiceManager> manager = OpenServiceManager();
        if (!manager)
            throw MyError("%s", FillText(169, LastServiceError()).c_str());
        const ServiceIdentity identity{kServiceName, kServiceDisplayName, kServiceDescription, program};
        if (!manager->Create(identity))
            throw MyError("%s", FillText(170, LastServiceError()).c_str());
        if (!manager->SetDescription(kServiceName, kServiceDescription))
            throw MyError("%s", FillText(171, LastServiceError()).c_str());
        if (!manager->RegisterLogSource(kServiceName, kServiceName))
            throw MyError("%s", FillText(172).c_str());
        LogInfo("_InstallServerBse: \"%s\" registered with %s (%s)", kServiceName, program.c_str(),
                std::string(manager->Backend()).c_str());
        return true;
    } catch (const MyError& error) {
        LogError("%s", error.Text().c_str());
        error.Show(nullptr, MB_ICONERROR);
        return false;
    }
}

bool InstallServer()
{
    LogScopeInfo("InstallServer");
    Config settings;
    settings.ReadGeneral();

    std::string path;
    int result = NtServiceGetPath(kServiceName, path, kServicePathCapacity);
    if (result == kNtsNotFound) {
        if (!_InstallServerBse())
            return false;
        result = NtServiceGetPath(kServiceName, path, kServicePathCapacity);
        if (result != kNtsSuccess) {
            ShowServiceError(result);
            return false;
        }
        std::string version;
        if (!FileVersionSecure(path, version))
            return false;
        settings.m_version = version;
        settings.WriteGeneral();
        return true;
    }
    if (result != kNtsSuccess) {
        ShowServiceError(result);
        return false;
    }

    // A service registered from another app folder (a build folder beside an installed copy)
    // would read that folder's settings and sounds: this folder registers its own, whatever
    // the versions say.
    const std::string own = ServiceProgramPath();
    std::error_code ec;
    const bool ownFolder = path == own || std::filesystem::equivalent(path, own, ec);
    if (!ownFolder) {
        LogInfo("InstallServer: the voice service is registered from \"%s\"; this panel's own is \"%s\" and "
                "takes its place",
                path.c_str(), own.c_str());
        path = own;
    }
    std::string version;
    if (!FileVersionSecure(path, version))
        return false;
    LogInfo("Server version: %s, cfg.version: %s", version.c_str(), settings.m_version.c_str());
    if (ownFolder && version == settings.m_version)
        return true;
    try {
        result = NtServiceUninstall(kServiceName);
        if (result != kNtsSuccess)
            throw MyError("%s", FillText(174, NtServiceErrorText(result).c_str(), LastServiceError()).c_str());
    } catch (const MyError& error) {
        LogError("%s", error.Text().c_str());
        error.Show(nullptr, MB_ICONERROR);
        return false;
    }
    if (!_InstallServerBse())
        return false;
    settings.m_version = version;
    settings.WriteGeneral();
    return true;
}

bool RunServer()
{
    LogScopeInfo("RunServer");
    uint32_t state = kServiceStopped;
    int result = NtServiceStatus(kServiceName, state);
    if (result != kNtsSuccess) {
        const uint32_t code = LastServiceError();
        ShowMessage(nullptr, MB_ICONERROR, "%s", FillText(207, NtServiceErrorText(result).c_str(), code).c_str());
        return false;
    }
    if (state == kServiceStopped) {
        result = NtServiceStart(kServiceName);
        if (result != kNtsSuccess) {
            const uint32_t code = LastServiceError();
            const std::string text = FillText(206, NtServiceErrorText(result).c_str(), code);
            ShowMessage(nullptr, MB_ICONERROR, "%s\n\n%s (\"%s\")", GetText(208).c_str(), text.c_str(),
                        SystemErrorText(code).c_str());
            return false;
        }
    }
    return true;
}

bool FileVersionSecure(const std::string& path, std::string& version)
{
    LogEnter("FileVersionSecure", "%s", path.c_str());
    const int result = FileVersion(path, version);
    if (result == 0)
        return true;
    if (result == 2) {
        const size_t cut = path.find_last_of("\\/");
        const std::string folder = cut == std::string::npos ? std::string() : path.substr(0, cut + 1);
        const std::string file = cut == std::string::npos ? path : path.substr(cut + 1);
        ShowMessage(nullptr, MB_ICONERROR, "%s", FillText(168, file.c_str(), folder.c_str()).c_str());
        return false;
    }
    const auto code = static_cast<uint32_t>(result);
    ShowMessage(nullptr, MB_ICONERROR, "Can not get file version after install.\nError code: %u (\"%s\") \nFile: %s",
                code, SystemErrorText(code).c_str(), path.c_str());
    return false;
}

} // namespace larimo
