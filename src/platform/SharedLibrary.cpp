// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/SharedLibrary.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

namespace larimo {

SharedLibrary::~SharedLibrary()
{
    Close();
}

SharedLibrary::SharedLibrary(SharedLibrary&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr))
{
}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& other) noexcept
{
    if (this != &other) {
        Close();
        m_handle = std::exchange(other.m_handle, nullptr);
    }
    return *this;
}

bool SharedLibrary::Open(const std::string& path, OpenError& error, uint32_t& code, std::string& message)
{
    Close();
    error = OpenError::None;
    code = 0;
    message.clear();

    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        const int reason = errno;
        error = reason == ENOENT || reason == ENOTDIR ? OpenError::Missing : OpenError::Invalid;
        code = static_cast<uint32_t>(reason);
        message = path + ": " + std::strerror(reason);
        return false;
    }
    // dlopen() of a folder or a device would succeed oddly or hang; only files are plug-ins.
    if (!S_ISREG(info.st_mode)) {
        error = OpenError::Invalid;
        code = ENOEXEC;
        message = path + ": not a regular file";
        return false;
    }

    dlerror();
    // A name without a slash would be searched for in the system's library folders.
    const std::string name = path.find('/') == std::string::npos ? "./" + path : path;
    m_handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_handle != nullptr)
        return true;

    const char* why = dlerror();
    message = why != nullptr ? why : "unknown loader error";
    // The loader words a missing dependency with the system's own text for ENOENT.
    if (message.find(std::strerror(ENOENT)) != std::string::npos) {
        error = OpenError::Missing;
        code = ENOENT;
    } else {
        error = OpenError::Invalid;
        code = ENOEXEC;
    }
    return false;
}

void* SharedLibrary::Symbol(const char* name) const
{
    if (m_handle == nullptr || name == nullptr)
        return nullptr;
    dlerror();
    void* address = dlsym(m_handle, name);
    if (address == nullptr)
        return nullptr;
    // dlsym() searches the library's dependencies as well; an entry point found in one of
    // them belongs to some other program.
    link_map* self = nullptr;
    Dl_info where{};
    if (dlinfo(m_handle, RTLD_DI_LINKMAP, &self) != 0 || self == nullptr || dladdr(address, &where) == 0 ||
        where.dli_fname == nullptr || self->l_name == nullptr || std::strcmp(where.dli_fname, self->l_name) != 0)
        return nullptr;
    return address;
}

void SharedLibrary::Close()
{
    if (m_handle != nullptr)
        dlclose(std::exchange(m_handle, nullptr));
}

void SharedLibrary::Abandon() noexcept
{
    m_handle = nullptr;
}

} // namespace larimo
