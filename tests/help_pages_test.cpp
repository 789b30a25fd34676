// SPDX-License-Identifier: GPL-3.0-or-later
// The help pages shipped in data/help/: every dialog's topic opens an existing page at an
// existing anchor, in the page's own language, and the links between pages lead somewhere.
#include "help.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace larimo {
namespace {

namespace fs = std::filesystem;

constexpr int kDialogsWithHelp[] = {102, 106, 107, 108, 109, 134, 135, 136, 137};

struct HelpLanguage {
    const char* helpFile; ///< the helpFile setting
    const char* lang;     ///< the pages' lang attribute
};

std::string ProgramFolder()
{
    return std::string(LARIMO_SOURCE_DIR) + "/data/";
}

std::string ReadPage(const fs::path& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::set<std::string> Anchors(const std::string& page)
{
    std::set<std::string> ids;
    static const std::regex kId(R"re(\bid="([^"]+)")re");
    for (auto it = std::sregex_iterator(page.begin(), page.end(), kId); it != std::sregex_iterator(); ++it)
        ids.insert((*it)[1]);
    return ids;
}

class HelpPages : public ::testing::TestWithParam<HelpLanguage> {
protected:
    void SetUp() override { SetHelpFilePath(ProgramFolder() + GetParam().helpFile); }
    void TearDown() override { SetHelpFilePath({}); }

    HelpLocation Locate(int dialogId) const { return HelpTargetToLocation(HelpTarget(dialogId), ProgramFolder()); }

    std::string HelpFolder() const { return fs::path(Locate(135).file).parent_path().string(); }
};

TEST_P(HelpPages, EveryDialogTopicOpensAnExistingPageAtItsAnchor)
{
    for (const int dialog : kDialogsWithHelp) {
        SCOPED_TRACE("dialog " + std::to_string(dialog));
        const HelpLocation location = Locate(dialog);
        ASSERT_TRUE(fs::is_regular_file(location.file)) << location.file;
        const std::string page = ReadPage(location.file);
        EXPECT_NE(page.find(std::string("<html lang=\"") + GetParam().lang + "\""), std::string::npos)
            << location.file << " is not in the language the setting names";
        if (!location.fragment.empty()) {
            EXPECT_TRUE(Anchors(page).contains(location.fragment)) << location.file << "#" << location.fragment;
        }
    }
}

TEST_P(HelpPages, LinksBetweenPagesLeadToExistingPagesAndAnchors)
{
    static const std::regex kLink(R"re(href="([^"#:]*)(?:#([^"]*))?")re");
    int links = 0;
    for (const auto& entry : fs::directory_iterator(HelpFolder())) {
        if (entry.path().extension() != ".html")
            continue;
        const std::string page = ReadPage(entry.path());
        for (auto it = std::sregex_iterator(page.begin(), page.end(), kLink); it != std::sregex_iterator(); ++it) {
            const std::string file = (*it)[1];
            const std::string anchor = (*it)[2];
            const fs::path target = file.empty() ? entry.path() : entry.path().parent_path() / file;
            SCOPED_TRACE(entry.path().filename().string() + " -> " + file + "#" + anchor);
            ASSERT_TRUE(fs::is_regular_file(target));
            if (!anchor.empty()) {
                EXPECT_TRUE(Anchors(ReadPage(target)).contains(anchor));
            }
            ++links;
        }
    }
    EXPECT_GT(links, 5) << "the start page links every topic";
}

INSTANTIATE_TEST_SUITE_P(Languages, HelpPages,
                         ::testing::Values(HelpLanguage{"help\\larimo_de.chm", "de"},
                                           HelpLanguage{"help\\en\\larimo_en.chm", "en"}),
                         [](const ::testing::TestParamInfo<HelpLanguage>& language) {
                             return std::string(language.param.lang);
                         });

// A section one language has and the other lacks leaves a reader of the other language
// without it.
TEST(HelpPages, BothLanguagesHaveTheSamePagesAndSections)
{
    const fs::path german = ProgramFolder() + "help";
    const fs::path english = german / "en";
    for (const char* page : {"gui.html", "options.html", "sounds.html", "effects.html"}) {
        SCOPED_TRACE(page);
        EXPECT_EQ(Anchors(ReadPage(german / page)), Anchors(ReadPage(english / page)));
    }
}

} // namespace
} // namespace larimo
