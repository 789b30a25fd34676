// SPDX-License-Identifier: GPL-3.0-or-later
#include "help.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace larimo {
namespace {

struct Shown {
    void* owner;
    std::string target;
};

class RecordingViewer : public HelpViewer {
public:
    explicit RecordingViewer(std::vector<Shown>& shown) : m_shown(shown) {}
    void DisplayTopic(void* owner, const std::string& target) override
    {
        m_shown.push_back({owner, target});
    }

private:
    std::vector<Shown>& m_shown;
};

TEST(Help, ShowHandsTheTopicTargetOfEachDialogToTheViewer)
{
    std::vector<Shown> shown;
    SetHelpViewer(std::make_unique<RecordingViewer>(shown));
    SetHelpFilePath("/opt/larimo/help\\larimo_de.chm");
    int window = 0;

    HelpShow(&window, 102);
    HelpShow(&window, 135);
    HelpShow(nullptr, 136);
    HelpShow(nullptr, 107);
    HelpShow(nullptr, 137);
    HelpShow(nullptr, 0);
    HelpShow(nullptr, 4711);

    ASSERT_EQ(shown.size(), 7u);
    EXPECT_EQ(shown[0].owner, &window);
    EXPECT_EQ(shown[0].target, "/opt/larimo/help\\larimo_de.chm::/gui.html");
    EXPECT_EQ(shown[1].target, "/opt/larimo/help\\larimo_de.chm") << "wizard pages have no topic";
    EXPECT_EQ(shown[2].target, "/opt/larimo/help\\larimo_de.chm");
    EXPECT_EQ(shown[3].target, "/opt/larimo/help\\larimo_de.chm::/options.html#effects");
    EXPECT_EQ(shown[4].target, "/opt/larimo/help\\larimo_de.chm::/effects.html");
    EXPECT_EQ(shown[5].target, "/opt/larimo/help\\larimo_de.chm") << "0 ends the topic table";
    EXPECT_EQ(shown[6].target, "/opt/larimo/help\\larimo_de.chm");

    // Without a viewer the request is only logged.
    SetHelpViewer(nullptr);
    HelpShow(nullptr, 102);
    EXPECT_EQ(shown.size(), 7u);
}

TEST(Help, EveryPageOfTheOptionsSheetHasItsTopic)
{
    EXPECT_EQ(HelpTopic(106), "options.html#shortcuts");
    EXPECT_EQ(HelpTopic(107), "options.html#effects");
    EXPECT_EQ(HelpTopic(108), "sounds.html#backgrounds");
    EXPECT_EQ(HelpTopic(109), "options.html#general");
    EXPECT_EQ(HelpTopic(134), "sounds.html#funsounds");
}

struct LocationCase {
    const char* target;
    const char* file;
    const char* fragment;
};

class HelpLocationOf : public testing::TestWithParam<LocationCase> {};

TEST_P(HelpLocationOf, OpensThePageBesideTheHelpFile)
{
    const HelpLocation location = HelpTargetToLocation(GetParam().target, "/opt/larimo/");
    EXPECT_EQ(location.file, GetParam().file);
    EXPECT_EQ(location.fragment, GetParam().fragment);
}

INSTANTIATE_TEST_SUITE_P(
    Targets, HelpLocationOf,
    testing::Values(
        LocationCase{"help/larimo_de.html::/gui.html", "/opt/larimo/help/gui.html", ""},
        LocationCase{"/usr/share/larimo/help/larimo_de.html::/options.html#effects",
                     "/usr/share/larimo/help/options.html", "effects"},
        LocationCase{"/opt/larimo/help\\larimo_de.chm::/sounds.html#funsounds",
                     "/opt/larimo/help/sounds.html", "funsounds"},
        LocationCase{"/opt/larimo/help\\larimo_de.chm", "/opt/larimo/help/larimo_de.html", ""},
        LocationCase{"/opt/larimo/help/larimo_de.HTML", "/opt/larimo/help/larimo_de.HTML", ""},
        LocationCase{"help\\larimo_en.CHM::/", "/opt/larimo/help/larimo_en.html", ""},
        LocationCase{"help/x.html::/sub\\page.html#a#b", "/opt/larimo/help/sub/page.html", "a#b"},
        LocationCase{"help/x.html::///gui.html", "/opt/larimo/help/gui.html", ""}));

} // namespace
} // namespace larimo
