// SPDX-License-Identifier: GPL-3.0-or-later
// A shared object loaded at run time (a plug-in), owned like a file handle.
#pragma once

#include <cstdint>
#include <string>

namespace larimo {

/// Owns one dlopen handle. Not thread-safe: one thread at a time, never the real-time audio
/// thread (loading and unloading take the loader's lock and run the library's constructors and
/// destructors).
class SharedLibrary {
public:
    enum class OpenError {
        None,
        Missing, ///< the file, or a library it needs, does not exist
        Invalid, ///< anything else: not a shared object, wrong architecture, unresolved symbols
    };

    SharedLibrary() = default;
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;
    SharedLibrary(SharedLibrary&& other) noexcept;
    SharedLibrary& operator=(SharedLibrary&& other) noexcept;

    /// Loads `path` (closing what was loaded before) with every symbol bound at once, so that a
    /// library with unresolved symbols fails here and not later inside a call. On failure
    /// returns false with the kind of failure, an errno-style code (ENOENT for Missing,
    /// ENOEXEC otherwise) and the loader's message. Runs the library's constructors: callers
    /// loading foreign code do it under the crash guard.
    bool Open(const std::string& path, OpenError& error, uint32_t& code, std::string& message);

    /// The address of `name` when this library itself defines it; null otherwise, also when
    /// only a library it depends on defines the name.
    void* Symbol(const char* name) const;

    bool IsOpen() const noexcept { return m_handle != nullptr; }

    /// Unloads the library. Runs its destructors.
    void Close();

    /// Forgets the handle without unloading: the library's code stays mapped for the rest of
    /// the process. For libraries whose code faulted, which must not run again, not even
    /// their destructors, and whose threads may still be executing in them.
    void Abandon() noexcept;

private:
    void* m_handle = nullptr;
};

} // namespace larimo
