// SPDX-License-Identifier: GPL-3.0-or-later
// The help: HTML pages in the program's "help/" folder, one topic per dialog.
//
// A help target names the help file and, optionally, a topic: "<help file>::/<topic>", for
// example "/opt/larimo/help/larimo_de.html::/options.html#effects". On this platform the topic
// is a page beside the help file, with an optional fragment, so that target opens
// "/opt/larimo/help/options.html" at "#effects". A target without "::/" opens the help file.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace larimo {

/// Shows a help target. The GUI implements it (it opens HelpTargetToLocation's page in the
/// desktop's browser). Called on the window thread.
class HelpViewer {
public:
    virtual ~HelpViewer() = default;
    /// `owner` is the window asking for help (opaque here, may be null).
    virtual void DisplayTopic(void* owner, const std::string& target) = 0;
};

/// The help topic of a dialog template ID, or "" (the default topic) for any other ID.
/// Any thread.
std::string_view HelpTopic(int dialogId);

/// The target HelpShow hands to the viewer: "<help file>::/<topic>", or the help file path
/// alone when the dialog has no topic. Window thread.
std::string HelpTarget(int dialogId);

/// Stores the help file path (program folder followed by the helpFile setting). Set at
/// start-up; window thread.
void SetHelpFilePath(std::string path);
const std::string& HelpFilePath();

/// Installs the viewer HelpShow uses (null removes it). Window thread.
void SetHelpViewer(std::unique_ptr<HelpViewer> viewer);

/// Shows the help of the dialog `dialogId` through the viewer. Window thread.
void HelpShow(void* owner, int dialogId);

/// Where a target leads on the file system.
struct HelpLocation {
    std::string file;     ///< absolute path of the page to open
    std::string fragment; ///< part after '#', without it; empty for none
};

/// Turns a target into the page to open. The help file part is a settings-style path (a
/// relative one is taken from `programFolder`); a compiled help file name (".chm") stands for
/// the HTML page of the same name. A topic is a page in the help file's folder. Any thread.
HelpLocation HelpTargetToLocation(std::string_view target, std::string_view programFolder);

} // namespace larimo
