// SPDX-License-Identifier: GPL-3.0-or-later
#include "wintools.h"

#include "platform/ProcessInfo.h"

#include <algorithm>
#include <vector>

namespace larimo {

namespace {

std::string& DataRootStorage()
{
    static std::string root = ProgramFolder();
    return root;
}

char LowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::string ProgramFolder()
{
    const std::string exe = ExecutablePath();
    const auto slash = exe.rfind('/');
    if (slash == std::string::npos)
        return {};
    return exe.substr(0, slash + 1);
}

const std::string& DataRoot()
{
    return DataRootStorage();
}

void SetDataRoot(std::string_view folder)
{
    std::string root(folder);
    if (!root.empty() && root.back() == '\\')
        root.back() = '/';
    DataRootStorage() = WithTrailingSlash(root);
}

std::string WithTrailingSlash(std::string_view folder)
{
    std::string result(folder);
    if (!result.empty() && result.back() != '/')
        result += '/';
    return result;
}

std::string SettingsPathToFs(std::string_view settingsPath, std::string_view baseFolder)
{
    std::string path(settingsPath);
    std::replace(path.begin(), path.end(), '\\', '/');
    const bool trailingSlash = !path.empty() && path.back() == '/';
    if (path.empty() || path.front() != '/') {
        std::string base(baseFolder);
        std::replace(base.begin(), base.end(), '\\', '/');
        path = WithTrailingSlash(base) + path;
    }

    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string> segments;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        const std::string segment = path.substr(start, end - start);
        if (segment == "..") {
            if (!segments.empty() && segments.back() != "..")
                segments.pop_back();
            else if (!absolute)
                segments.push_back(segment);
        } else if (!segment.empty() && segment != ".") {
            segments.push_back(segment);
        }
        start = end + 1;
    }

    std::string result = absolute ? "/" : "";
    for (size_t i = 0; i < segments.size(); ++i) {
        if (i > 0)
            result += '/';
        result += segments[i];
    }
    if (trailingSlash && !segments.empty())
        result += '/';
    if (result.empty())
        result = ".";
    return result;
}

bool EqualsNoCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
}

} // namespace larimo
