// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <string_view>

namespace larimo {

/// A file that is only ever appended to, shared with other processes that append to the same
/// file. Every Append is one write under an exclusive lock on the file, so the lines of several
/// processes never mix. The lock does not exclude threads sharing this object: callers
/// serialise their own threads.
class AppendFile {
public:
    AppendFile() = default;
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    /// Opens (creating with mode 0644 when missing, never truncating) the file at `path`.
    /// Returns false and stays closed when the system refuses.
    bool Open(const std::string& path);
    bool IsOpen() const { return m_fd >= 0; }
    void Close();

    /// Appends `bytes` at the current end of the file. Returns false when the write failed or
    /// was short.
    bool Append(std::string_view bytes);

private:
    int m_fd = -1;
};

} // namespace larimo
