// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/SystemdServiceManager.h"

#include "mlog.h"
#include "platform/SdBus.h"
#include "platform/ServiceFiles.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

namespace larimo {

namespace {

constexpr const char* kDestination = "org.freedesktop.systemd1";
constexpr const char* kManagerPath = "/org/freedesktop/systemd1";
constexpr const char* kManager = "org.freedesktop.systemd1.Manager";
constexpr const char* kUnit = "org.freedesktop.systemd1.Unit";
constexpr const char* kServiceInterface = "org.freedesktop.systemd1.Service";
constexpr uint64_t kCallTimeoutUs = 10'000'000;
constexpr auto kDeletionGrace = std::chrono::milliseconds(3000);

struct FreeDeleter {
    void operator()(char* text) const { std::free(text); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

int Result(int result, int code)
{
    SetLastServiceError(static_cast<uint32_t>(code < 0 ? -code : code));
    return result;
}

bool Fail(int code)
{
    SetLastServiceError(static_cast<uint32_t>(code < 0 ? -code : code));
    return false;
}

std::string UnitName(const std::string& name)
{
    return name + ".service";
}

std::string QuoteExecPath(std::string_view path)
{
    std::string quoted = "\"";
    for (const char c : path) {
        if (c == '"' || c == '\\')
            quoted += '\\';
        if (c == '%' || c == '$')
            quoted += c; // specifiers and variables are written doubled
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

// A running unit from whose file only the memory is left: what a removed service is until its
// process ends.
bool IsPendingDeletion(const std::string& loadState, const std::string& activeState)
{
    return loadState == "not-found" && activeState != "inactive" && activeState != "failed";
}

ServiceState StateFromActiveState(const std::string& activeState)
{
    if (activeState == "active" || activeState == "reloading")
        return kServiceRunning;
    if (activeState == "activating")
        return kServiceStartPending;
    if (activeState == "deactivating")
        return kServiceStopPending;
    return kServiceStopped;
}

class SystemdServiceManager final : public ServiceManager {
public:
    explicit SystemdServiceManager(BusPointer bus) : m_bus(std::move(bus)) { }

    std::string_view Backend() const override { return "systemd"; }

    bool Create(const ServiceIdentity& identity) override
    {
        if (!IsValidServiceName(identity.m_name) || identity.m_program.empty() || identity.m_program.front() != '/')
            return Fail(EINVAL);
        const std::string unit = UnitName(identity.m_name);
        const auto deadline = std::chrono::steady_clock::now() + kDeletionGrace;
        for (;;) {
            std::string loadState;
            std::string activeState;
            const int error = UnitStates(unit, loadState, activeState);
            if (error < 0)
                return Fail(error);
            if (!IsPendingDeletion(loadState, activeState)) {
                if (loadState != "not-found")
                    return Fail(EEXIST);
                break;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                return Fail(EBUSY);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const std::string folder = UnitFolder();
        if (folder.empty())
            return Fail(ENOENT);
        if (!MakeFolders(folder) || !ReplaceFile(folder + "/" + unit, MakeUnitText(identity)))
            return Fail(errno);
        int error = Reload();
        if (error < 0)
            return Fail(error);
        BusError busError;
        MessagePointer reply;
        sd_bus_message* raw = nullptr;
        const char* files[] = {unit.c_str(), nullptr};
        MessagePointer request;
        sd_bus_message* rawRequest = nullptr;
        error = sd_bus_message_new_method_call(m_bus.get(), &rawRequest, kDestination, kManagerPath, kManager, "EnableUnitFiles");
        request.reset(rawRequest);
        if (error >= 0)
            error = sd_bus_message_append_strv(request.get(), const_cast<char**>(files));
        if (error >= 0)
            error = sd_bus_message_append(request.get(), "bb", 0, 1);
        if (error >= 0)
            error = sd_bus_call(m_bus.get(), request.get(), kCallTimeoutUs, busError.Get(), &raw);
        reply.reset(raw);
        if (error < 0) {
            LogWarning("systemd: enabling %s failed: %s", unit.c_str(), busError.Message());
            return Fail(error);
        }
        return true;
    }

    bool SetDescription(const std::string& name, const std::string& description) override
    {
        return EditUnit(name, "Unit", "Description", EscapeUnitValue(description));
    }

    bool RegisterLogSource(const std::string& name, const std::string& identifier) override
    {
        return EditUnit(name, "Service", "SyslogIdentifier", EscapeUnitValue(identifier));
    }

    int Start(const std::string& name) override
    {
        std::string path;
        const int opened = OpenUnit(name, path);
        if (opened != kNtsSuccess)
            return opened;
        std::string activeState;
        if (const int error = UnitProperty(path, kUnit, "ActiveState", activeState); error < 0)
            return Result(kNtsQueryFailed, error);
        const ServiceState state = StateFromActiveState(activeState);
        if (state == kServiceRunning || state == kServiceStartPending)
            return Result(kNtsSuccess, 0);
        if (const int error = UnitJob("StartUnit", name); error < 0)
            return Result(kNtsStartFailed, error);
        return Result(kNtsSuccess, 0);
    }

    int Stop(const std::string& name) override
    {
        std::string path;
        const int opened = OpenUnit(name, path);
        if (opened != kNtsSuccess)
            return opened;
        std::string activeState;
        if (const int error = UnitProperty(path, kUnit, "ActiveState", activeState); error < 0)
            return Result(kNtsQueryFailed, error);
        const ServiceState state = StateFromActiveState(activeState);
        if (state == kServiceStopped || state == kServiceStopPending)
            return Result(kNtsSuccess, 0);
        if (const int error = UnitJob("StopUnit", name); error < 0)
            return Result(kNtsStopFailed, error);
        return Result(kNtsSuccess, 0);
    }

    int Status(const std::string& name, ServiceState& state) override
    {
        if (!IsValidServiceName(name))
            return Result(kNtsNotFound, EINVAL);
        std::string loadState;
        std::string activeState;
        if (const int error = UnitStates(UnitName(name), loadState, activeState); error < 0)
            return Result(error == -EACCES || error == -EPERM ? kNtsManagerDenied : kNtsQueryFailed, error);
        if (loadState == "not-found" && !IsPendingDeletion(loadState, activeState))
            return Result(kNtsNotFound, ENOENT);
        state = StateFromActiveState(activeState);
        return Result(kNtsSuccess, 0);
    }

    int GetPath(const std::string& name, std::string& path) override
    {
        std::string object;
        const int opened = OpenUnit(name, object);
        if (opened != kNtsSuccess)
            return opened;
        BusError busError;
        sd_bus_message* raw = nullptr;
        int error = sd_bus_get_property(m_bus.get(), kDestination, object.c_str(), kServiceInterface, "ExecStart",
                                        busError.Get(), &raw, "a(sasbttttuii)");
        MessagePointer reply(raw);
        if (error >= 0)
            error = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_ARRAY, "(sasbttttuii)");
        if (error > 0)
            error = sd_bus_message_enter_container(reply.get(), SD_BUS_TYPE_STRUCT, "sasbttttuii");
        const char* program = nullptr;
        if (error > 0)
            error = sd_bus_message_read(reply.get(), "s", &program);
        if (error <= 0 || program == nullptr)
            return Result(kNtsQueryFailed, error < 0 ? error : ENODATA);
        path = program;
        return Result(kNtsSuccess, 0);
    }

    int Uninstall(const std::string& name) override
    {
        std::string object;
        const int opened = OpenUnit(name, object);
        if (opened != kNtsSuccess)
            return Result(kNtsOpenFailed, static_cast<int>(LastServiceError()));
        const std::string unit = UnitName(name);
        std::string fragment;
        UnitProperty(object, kUnit, "FragmentPath", fragment);
        UnitJob("StopUnit", name);

        BusError busError;
        sd_bus_message* rawRequest = nullptr;
        int error = sd_bus_message_new_method_call(m_bus.get(), &rawRequest, kDestination, kManagerPath, kManager, "DisableUnitFiles");
        MessagePointer request(rawRequest);
        const char* files[] = {unit.c_str(), nullptr};
        if (error >= 0)
            error = sd_bus_message_append_strv(request.get(), const_cast<char**>(files));
        if (error >= 0)
            error = sd_bus_message_append(request.get(), "b", 0);
        sd_bus_message* raw = nullptr;
        if (error >= 0)
            error = sd_bus_call(m_bus.get(), request.get(), kCallTimeoutUs, busError.Get(), &raw);
        MessagePointer reply(raw);
        if (error < 0) {
            LogWarning("systemd: disabling %s failed: %s", unit.c_str(), busError.Message());
            return Result(kNtsDeleteFailed, error);
        }
        // Only our own unit folder is ours to change; a unit installed elsewhere stays.
        const std::string folder = UnitFolder();
        if (!fragment.empty()) {
            if (folder.empty() || fragment != folder + "/" + unit)
                return Result(kNtsDeleteFailed, EPERM);
            if (unlink(fragment.c_str()) != 0 && errno != ENOENT)
                return Result(kNtsDeleteFailed, errno);
        }
        if (const int reloaded = Reload(); reloaded < 0)
            return Result(kNtsDeleteFailed, reloaded);
        return Result(kNtsSuccess, 0);
    }

private:
    // "Opening" a service: the unit's object, and that a unit file stands behind it.
    int OpenUnit(const std::string& name, std::string& object)
    {
        if (!IsValidServiceName(name))
            return Result(kNtsOpenFailed, EINVAL);
        BusError busError;
        sd_bus_message* raw = nullptr;
        const std::string unit = UnitName(name);
        int error = sd_bus_call_method(m_bus.get(), kDestination, kManagerPath, kManager, "LoadUnit", busError.Get(),
                                       &raw, "s", unit.c_str());
        MessagePointer reply(raw);
        const char* path = nullptr;
        if (error >= 0)
            error = sd_bus_message_read(reply.get(), "o", &path);
        if (error < 0) {
            if (error == -EACCES || error == -EPERM)
                return Result(kNtsAccessDenied, error);
            if (busError.Is("org.freedesktop.systemd1.NoSuchUnit"))
                return Result(kNtsNotFound, ENOENT);
            return Result(kNtsOpenFailed, error);
        }
        object = path;
        std::string loadState;
        if (const int stateError = UnitProperty(object, kUnit, "LoadState", loadState); stateError < 0)
            return Result(kNtsOpenFailed, stateError);
        if (loadState == "not-found")
            return Result(kNtsNotFound, ENOENT);
        return kNtsSuccess;
    }

    int UnitStates(const std::string& unit, std::string& loadState, std::string& activeState)
    {
        BusError busError;
        sd_bus_message* raw = nullptr;
        int error = sd_bus_call_method(m_bus.get(), kDestination, kManagerPath, kManager, "LoadUnit", busError.Get(),
                                       &raw, "s", unit.c_str());
        MessagePointer reply(raw);
        const char* path = nullptr;
        if (error >= 0)
            error = sd_bus_message_read(reply.get(), "o", &path);
        if (error < 0)
            return error;
        const std::string object = path;
        error = UnitProperty(object, kUnit, "LoadState", loadState);
        if (error >= 0)
            error = UnitProperty(object, kUnit, "ActiveState", activeState);
        return error;
    }

    int UnitProperty(const std::string& object, const char* interface, const char* property, std::string& value)
    {
        BusError busError;
        char* raw = nullptr;
        const int error = sd_bus_get_property_string(m_bus.get(), kDestination, object.c_str(), interface, property,
                                                     busError.Get(), &raw);
        CString text(raw);
        if (error < 0)
            return error;
        value = text ? text.get() : "";
        return 0;
    }

    // StartUnit or StopUnit; the job is queued, not waited for.
    int UnitJob(const char* method, const std::string& name)
    {
        BusError busError;
        sd_bus_message* raw = nullptr;
        const std::string unit = UnitName(name);
        const int error = sd_bus_call_method(m_bus.get(), kDestination, kManagerPath, kManager, method, busError.Get(),
                                             &raw, "ss", unit.c_str(), "replace");
        MessagePointer reply(raw);
        if (error < 0)
            LogWarning("systemd: %s %s failed: %s", method, unit.c_str(), busError.Message());
        return error;
    }

    int Reload()
    {
        BusError busError;
        sd_bus_message* raw = nullptr;
        const int error = sd_bus_call_method(m_bus.get(), kDestination, kManagerPath, kManager, "Reload", busError.Get(),
                                             &raw, "");
        MessagePointer reply(raw);
        if (error < 0)
            LogWarning("systemd: reloading the units failed: %s", busError.Message());
        return error;
    }

    bool EditUnit(const std::string& name, std::string_view section, std::string_view key, const std::string& value)
    {
        std::string object;
        if (OpenUnit(name, object) != kNtsSuccess)
            return false;
        std::string fragment;
        if (const int error = UnitProperty(object, kUnit, "FragmentPath", fragment); error < 0)
            return Fail(error);
        std::string text;
        if (fragment.empty() || !ReadSmallFile(fragment, text))
            return Fail(fragment.empty() ? ENOENT : errno);
        if (!ReplaceFile(fragment, SetUnitKey(text, section, key, value)))
            return Fail(errno);
        if (const int error = Reload(); error < 0)
            return Fail(error);
        return true;
    }

    // The configuration-home entry of the manager's unit search path: where `systemctl --user
    // edit --full` puts units. Our own idea of the folder is the fallback.
    std::string UnitFolder()
    {
        BusError busError;
        char** raw = nullptr;
        const int error = sd_bus_get_property_strv(m_bus.get(), kDestination, kManagerPath, kManager, "UnitPath",
                                                   busError.Get(), &raw);
        std::vector<std::string> paths;
        if (error >= 0 && raw != nullptr) {
            for (char** entry = raw; *entry != nullptr; ++entry) {
                paths.emplace_back(*entry);
                std::free(*entry);
            }
            std::free(static_cast<void*>(raw));
        }
        const std::string home = UserConfigHome();
        const std::string own = home.empty() ? std::string() : home + "/systemd/user";
        for (const std::string& path : paths) {
            if (path == own)
                return path;
        }
        for (const std::string& path : paths) {
            constexpr std::string_view kSuffix = "/.config/systemd/user";
            if (path.size() > kSuffix.size() && path.compare(path.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0)
                return path;
        }
        return own;
    }

    BusPointer m_bus;
};

int CheckManager(sd_bus* bus)
{
    BusError busError;
    char* raw = nullptr;
    const int error = sd_bus_get_property_string(bus, kDestination, kManagerPath, kManager, "Version", busError.Get(), &raw);
    CString version(raw);
    return error;
}

BusPointer ConnectUserBus(int& error)
{
    sd_bus* raw = nullptr;
    error = sd_bus_open_user(&raw);
    BusPointer bus(raw);
    if (error < 0)
        return nullptr;
    sd_bus_set_method_call_timeout(bus.get(), kCallTimeoutUs);
    error = CheckManager(bus.get());
    return error < 0 ? nullptr : std::move(bus);
}

// What `systemctl --user` uses when there is no bus: the manager's own socket.
BusPointer ConnectPrivateSocket(int& error)
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || runtime[0] != '/') {
        error = -ENOENT;
        return nullptr;
    }
    const std::string socket = std::string(runtime) + "/systemd/private";
    if (access(socket.c_str(), F_OK) != 0) {
        error = -errno;
        return nullptr;
    }
    sd_bus* raw = nullptr;
    error = sd_bus_new(&raw);
    BusPointer bus(raw);
    if (error < 0)
        return nullptr;
    const std::string address = "unix:path=" + socket;
    error = sd_bus_set_address(bus.get(), address.c_str());
    if (error >= 0)
        error = sd_bus_start(bus.get());
    if (error < 0)
        return nullptr;
    sd_bus_set_method_call_timeout(bus.get(), kCallTimeoutUs);
    error = CheckManager(bus.get());
    return error < 0 ? nullptr : std::move(bus);
}

} // namespace

std::string EscapeUnitValue(std::string_view text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '%')
            escaped += "%%";
        else if (c == '\n' || c == '\r')
            escaped += ' ';
        else
            escaped += c;
    }
    return escaped;
}

std::string MakeUnitText(const ServiceIdentity& identity)
{
    std::string text;
    text += "# " + EscapeUnitValue(identity.m_displayName) + ", registered by Larimo; rewritten when it is upgraded.\n";
    text += "[Unit]\n";
    text += "Description=" + EscapeUnitValue(identity.m_displayName) + "\n";
    text += "After=pipewire.service pipewire-pulse.service wireplumber.service pulseaudio.service\n";
    text += "\n[Service]\n";
    text += "Type=simple\n";
    text += "ExecStart=" + QuoteExecPath(identity.m_program) + "\n";
    text += "Restart=on-failure\n";
    // Status 1 is "another instance runs": starting again cannot help.
    text += "RestartPreventExitStatus=1\n";
    text += "\n[Install]\n";
    text += "WantedBy=default.target\n";
    return text;
}

std::string SetUnitKey(std::string_view unitText, std::string_view section, std::string_view key, std::string_view value)
{
    std::vector<std::string> lines;
    for (size_t start = 0; start < unitText.size();) {
        const size_t end = std::min(unitText.find('\n', start), unitText.size());
        lines.emplace_back(unitText.substr(start, end - start));
        start = end + 1;
    }
    std::string header(1, '[');
    header.append(section).append(1, ']');
    std::string line(key);
    line.append(1, '=').append(value);

    bool inSection = false;
    bool replaced = false;
    size_t insertAt = std::string::npos;
    for (size_t i = 0; i < lines.size() && !replaced; ++i) {
        const size_t first = lines[i].find_first_not_of(" \t");
        const std::string_view content = first == std::string::npos ? std::string_view()
                                                                    : std::string_view(lines[i]).substr(first);
        if (StartsWith(content, "[")) {
            if (inSection)
                break;
            inSection = StartsWith(content, header);
            if (inSection)
                insertAt = i + 1;
            continue;
        }
        if (!inSection || content.empty() || content.front() == '#' || content.front() == ';')
            continue;
        const size_t equals = content.find('=');
        const size_t keyEnd = content.find_last_not_of(" \t", equals == std::string_view::npos ? content.size() : equals - 1);
        if (equals != std::string_view::npos && content.substr(0, keyEnd + 1) == key) {
            lines[i] = line;
            replaced = true;
        }
        insertAt = i + 1;
    }
    if (!replaced) {
        if (insertAt != std::string::npos) {
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(insertAt), line);
        } else {
            if (!lines.empty() && !lines.back().empty())
                lines.emplace_back();
            lines.push_back(header);
            lines.push_back(line);
        }
    }
    std::string joined;
    for (const std::string& each : lines)
        joined += each + "\n";
    return joined;
}

std::unique_ptr<ServiceManager> OpenSystemdServiceManager()
{
    int error = 0;
    BusPointer bus = ConnectUserBus(error);
    if (!bus)
        bus = ConnectPrivateSocket(error);
    if (!bus) {
        SetLastServiceError(static_cast<uint32_t>(error < 0 ? -error : ECONNREFUSED));
        return nullptr;
    }
    return std::make_unique<SystemdServiceManager>(std::move(bus));
}

} // namespace larimo
