// SPDX-License-Identifier: GPL-3.0-or-later
#include "help.h"

#include "mlog.h"
#include "wintools.h"

#include <utility>

namespace larimo {

namespace {

struct HelpTopicEntry {
    int dialogId;
    const char* topic;
};

// Ends with ID 0; an empty topic means the help file's own page.
constexpr HelpTopicEntry kHelpTopics[] = {
    {102, "gui.html"},
    {106, "options.html#shortcuts"},
    {107, "options.html#effects"},
    {108, "sounds.html#backgrounds"},
    {109, "options.html#general"},
    {134, "sounds.html#funsounds"},
    {135, ""},
    {136, ""},
    {137, "effects.html"},
    {0, ""},
};

constexpr std::string_view kTopicSeparator = "::/";

struct HelpState {
    std::string filePath;
    std::unique_ptr<HelpViewer> viewer;
};

HelpState& State()
{
    static HelpState state;
    return state;
}

} // namespace

std::string_view HelpTopic(int dialogId)
{
    for (const HelpTopicEntry& entry : kHelpTopics) {
        if (entry.dialogId == 0)
            break;
        if (entry.dialogId == dialogId)
            return entry.topic;
    }
    return "";
}

std::string HelpTarget(int dialogId)
{
    const std::string_view topic = HelpTopic(dialogId);
    std::string target = State().filePath;
    if (!topic.empty()) {
        target += kTopicSeparator;
        target += topic;
    }
    return target;
}

void SetHelpFilePath(std::string path)
{
    State().filePath = std::move(path);
}

const std::string& HelpFilePath()
{
    return State().filePath;
}

void SetHelpViewer(std::unique_ptr<HelpViewer> viewer)
{
    State().viewer = std::move(viewer);
}

void HelpShow(void* owner, int dialogId)
{
    LogEnter("HelpShow", "%d", dialogId);
    const std::string target = HelpTarget(dialogId);
    if (HelpViewer* viewer = State().viewer.get())
        viewer->DisplayTopic(owner, target);
    else
        LogWarning("HelpShow: no help viewer for \"%s\"", target.c_str());
    LogLeave("HelpShow");
}

HelpLocation HelpTargetToLocation(std::string_view target, std::string_view programFolder)
{
    std::string_view filePart = target;
    std::string_view topic;
    if (const size_t at = target.find(kTopicSeparator); at != std::string_view::npos) {
        filePart = target.substr(0, at);
        topic = target.substr(at + kTopicSeparator.size());
    }

    std::string file = SettingsPathToFs(filePart, programFolder);
    // Compiled help does not exist here; the settings may still name one.
    if (file.size() > 4 && EqualsNoCase(std::string_view(file).substr(file.size() - 4), ".chm"))
        file.replace(file.size() - 4, 4, ".html");

    HelpLocation location;
    if (topic.empty()) {
        location.file = std::move(file);
        return location;
    }
    std::string_view page = topic;
    if (const size_t hash = topic.find('#'); hash != std::string_view::npos) {
        page = topic.substr(0, hash);
        location.fragment = std::string(topic.substr(hash + 1));
    }
    while (!page.empty() && (page.front() == '/' || page.front() == '\\'))
        page.remove_prefix(1);
    const size_t slash = file.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : file.substr(0, slash + 1);
    location.file = page.empty() ? file : SettingsPathToFs(page, folder);
    return location;
}

} // namespace larimo
