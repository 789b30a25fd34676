// SPDX-License-Identifier: GPL-3.0-or-later
#include "SkinParser.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DynBitmap.h"
#include "DynRgn.h"

namespace larimo {
namespace {

class SkinParserTest : public testing::Test {
protected:
    void SetUp() override
    {
        m_folder = std::filesystem::temp_directory_path() /
                   ("larimo-skin-" + std::to_string(::getpid()) + "-" +
                    testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(m_folder / "sub");
    }
    void TearDown() override { std::filesystem::remove_all(m_folder); }

    std::string Write(const std::string& name, const std::string& text)
    {
        const std::filesystem::path path = m_folder / name;
        std::ofstream(path, std::ios::binary) << text;
        return path.string();
    }

    // Opens a skin and moves to the first key of `object`.
    void Open(const std::string& text, const std::string& object = "[Obj]")
    {
        ASSERT_TRUE(m_parser.Init(Write("test.sdf", text)));
        ASSERT_TRUE(m_parser.FindObject(object));
        ASSERT_TRUE(m_parser.NextKey());
    }

    std::filesystem::path m_folder;
    CSkinParser m_parser;
};

TEST(SkinNumbers, ReadLikeTheSystemsAtoi)
{
    EXPECT_EQ(SkinAtoi("  -42xyz"), -42);
    EXPECT_EQ(SkinAtoi("+7"), 7);
    EXPECT_EQ(SkinAtoi("abc"), 0);
    EXPECT_EQ(SkinAtoi(""), 0);
    EXPECT_EQ(SkinAtoi("99999999999"), 2147483647);
    EXPECT_EQ(SkinAtoi("-99999999999"), -2147483647 - 1);
    EXPECT_EQ(SkinNumbers("1,,,2", 3), (std::vector<int>{1, 2, 0}));
    EXPECT_EQ(SkinNumbers(",,5,6", 2), (std::vector<int>{5, 6}));
    EXPECT_EQ(SkinNumbers("7", 3), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(SkinNumbers("1, 2,3,4,5", 4), (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(SkinParserTest, ColoursAreCutToEightBitsPerComponent)
{
    const struct {
        const char* value;
        ColorRef expected;
    } cases[] = {
        {"255,0,0", MakeColorRef(255, 0, 0)},
        {"300,0,0", MakeColorRef(44, 0, 0)},
        {"255", MakeColorRef(255, 0, 0)},
        {"7", 0},
        {"0,-1,16", MakeColorRef(0, 255, 16)},
        {"10,20,30", 10U + 256U * 20U + 65536U * 30U},
    };
    for (const auto& c : cases) {
        Open(std::string("[Obj]\ncolor=") + c.value + "\n");
        ColorRef color = 0xDEADBEEF;
        EXPECT_TRUE(m_parser.GetColor("color", color)) << c.value;
        EXPECT_EQ(color, c.expected) << c.value;
    }
}

TEST_F(SkinParserTest, SizesAndPositionsPadMissingNumbersWithZero)
{
    Open("[Obj]\nsize=10\nposition=1,2,3\n");
    int w = -1;
    int h = -1;
    EXPECT_TRUE(m_parser.GetSize("size", w, h));
    EXPECT_EQ(w, 10);
    EXPECT_EQ(h, 0);
    ASSERT_TRUE(m_parser.NextKey());
    QPoint a;
    QPoint b(9, 9);
    EXPECT_TRUE(m_parser.GetPosition("position", a, b));
    EXPECT_EQ(a, QPoint(1, 2));
    EXPECT_EQ(b, QPoint(3, 0));
}

TEST_F(SkinParserTest, GettersAcceptOnlyTheirOwnNonEmptyKey)
{
    Open("[Obj]\nSize=1,2\n");
    int w = 5;
    int h = 6;
    EXPECT_FALSE(m_parser.GetSize("size", w, h)) << "keys are case-sensitive";
    EXPECT_EQ(w, 5);
    Open("[Obj]\ncaption=\nnext=1\n");
    std::string text = "kept";
    EXPECT_FALSE(m_parser.GetString("caption", text));
    EXPECT_EQ(text, "kept");
    ASSERT_TRUE(m_parser.NextKey()) << "an empty value is still a key line";
    int n = 0;
    EXPECT_TRUE(m_parser.GetInt("next", n));
    EXPECT_EQ(n, 1);
}

TEST_F(SkinParserTest, KeyLinesAreTrimmedAndSplitAtTheFirstEquals)
{
    Open("[Obj]\n   caption   =   a = b  \t\r\n");
    EXPECT_EQ(m_parser.CurrentKey(), "caption");
    EXPECT_EQ(m_parser.CurrentValue(), "a = b");
}

TEST_F(SkinParserTest, ObjectEndsAtBlankLineLineWithoutEqualsOrHeader)
{
    ASSERT_TRUE(m_parser.Init(Write("t.sdf", "[A]\na=1\n\nb=2\n[B]\nc=3\nplain text\nd=4\n[C]\n\ne=5\n[D]\nf=6\n[E]x=1\ng=7\n")));
    ASSERT_TRUE(m_parser.FindObject("[A]"));
    EXPECT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.NextKey()) << "blank line";
    ASSERT_TRUE(m_parser.FindObject("[B]"));
    EXPECT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.NextKey()) << "line without =";
    ASSERT_TRUE(m_parser.FindObject("[C]"));
    EXPECT_FALSE(m_parser.NextKey()) << "a blank line right after the header leaves no keys";
    ASSERT_TRUE(m_parser.FindObject("[D]"));
    EXPECT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.NextKey()) << "next header, even one holding an equals sign";
    ASSERT_TRUE(m_parser.FindObject("[E]"));
    EXPECT_TRUE(m_parser.NextKey());
    EXPECT_EQ(m_parser.CurrentKey(), "g");
    EXPECT_FALSE(m_parser.NextKey()) << "end of file";
}

TEST_F(SkinParserTest, HeadersMatchByPrefixFromTheTop)
{
    ASSERT_TRUE(m_parser.Init(Write("t.sdf", "[SText1] old style\nv=1\n[SText10]\nv=10\n   [SText1]\nv=2\n")));
    int v = 0;
    ASSERT_TRUE(m_parser.FindObject("[SText1]"));
    ASSERT_TRUE(m_parser.NextKey());
    ASSERT_TRUE(m_parser.GetInt("v", v));
    EXPECT_EQ(v, 1) << "the first match wins and text after the name is ignored";
    ASSERT_TRUE(m_parser.FindObject("[SText10]"));
    ASSERT_TRUE(m_parser.FindObject("[SText1]")) << "every search starts at the top";
    ASSERT_TRUE(m_parser.NextKey());
    ASSERT_TRUE(m_parser.GetInt("v", v));
    EXPECT_EQ(v, 1);
    EXPECT_FALSE(m_parser.FindObject("[stext1]")) << "case-sensitive";
    EXPECT_FALSE(m_parser.FindObject("[Missing]"));
}

TEST_F(SkinParserTest, FontsFollowTheirFiveFields)
{
    SkinFont font;
    ASSERT_TRUE(CSkinParser::ParseFont("Arial,14,bold,italic", font));
    EXPECT_EQ(font.face, "Arial");
    EXPECT_EQ(font.height, 14);
    EXPECT_EQ(font.weight, 700);
    EXPECT_TRUE(font.italic);
    EXPECT_FALSE(font.underline);

    ASSERT_TRUE(CSkinParser::ParseFont("Arial,14,normal,underline", font));
    EXPECT_EQ(font.weight, 400);
    EXPECT_TRUE(font.underline);
    EXPECT_FALSE(font.italic);

    ASSERT_TRUE(CSkinParser::ParseFont("Arial,-12,Bold,x,italic", font));
    EXPECT_EQ(font.weight, 400) << "a capitalised weight word is not bold";
    EXPECT_EQ(font.height, -12);
    EXPECT_TRUE(font.italic) << "italic may stand in either style field";
    EXPECT_EQ(font.charSet, 1);

    ASSERT_TRUE(CSkinParser::ParseFont(std::string(40, 'F') + ",10", font));
    EXPECT_EQ(font.face.size(), 31U);
}

TEST_F(SkinParserTest, BadFontsLeaveTheTargetAndReadingGoesOn)
{
    Open("[Obj]\nfont=Arial\nfont=,12\nfont=Sans,\nfont=Serif,9\n");
    SkinFont font;
    font.face = "kept";
    std::vector<std::string> traces;
    SetSkinTraceHook([&](const std::string& text) { traces.push_back(text); });
    EXPECT_FALSE(m_parser.GetFont("font", font));
    ASSERT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.GetFont("font", font));
    ASSERT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.GetFont("font", font));
    EXPECT_EQ(font.face, "kept");
    ASSERT_TRUE(m_parser.NextKey());
    EXPECT_TRUE(m_parser.GetFont("font", font));
    EXPECT_EQ(font.face, "Serif");
    SetSkinTraceHook(nullptr);
    ASSERT_EQ(traces.size(), 3U);
    EXPECT_EQ(traces[0], "couldn't dissolve Arial to font");
}

TEST_F(SkinParserTest, FilesAreRelativeToTheSkinAndMustExist)
{
    Write("sub/here.txt", "x");
    Open("[Obj]\nfile=sub\\here.txt\nfile=sub/missing.txt\n");
    std::string path = "kept";
    EXPECT_TRUE(m_parser.GetFilePath("file", path));
    EXPECT_EQ(path, (m_folder / "sub/here.txt").string());
    EXPECT_EQ(m_parser.BaseFolder(), m_folder.string() + "/");
    ASSERT_TRUE(m_parser.NextKey());
    path = "kept";
    EXPECT_FALSE(m_parser.GetFilePath("file", path));
    EXPECT_EQ(path, "kept");
}

TEST_F(SkinParserTest, MissingBitmapsRegionsAndCursorsAreRefused)
{
    Write("bad.bmp", "BM but nothing else");
    Open("[Obj]\nbitmap=none.bmp\nbitmap=bad.bmp\nregion=none.rgn\ncursor=none.cur\n");
    CDynBitmap bitmap;
    EXPECT_FALSE(m_parser.GetBitmap("bitmap", bitmap));
    ASSERT_TRUE(m_parser.NextKey());
    EXPECT_FALSE(m_parser.GetBitmap("bitmap", bitmap));
    EXPECT_TRUE(bitmap.IsNull());
    ASSERT_TRUE(m_parser.NextKey());
    CDynRgn region;
    EXPECT_FALSE(m_parser.GetRegion("region", region));
    EXPECT_TRUE(region.IsNull());
}

TEST_F(SkinParserTest, MissingFileAndIdentifierMakeInitFail)
{
    std::vector<std::string> traces;
    SetSkinTraceHook([&](const std::string& text) { traces.push_back(text); });
    EXPECT_FALSE(m_parser.Init((m_folder / "absent.sdf").string()));
    EXPECT_FALSE(m_parser.IsOpen());
    EXPECT_FALSE(m_parser.FindObject("[Obj]"));
    const std::string file = Write("id.sdf", "SkinId = Night\n[Obj]\na=1\n");
    EXPECT_TRUE(m_parser.Init(file, "SkinId"));
    EXPECT_EQ(m_parser.Identifier(), "Night");
    EXPECT_FALSE(m_parser.Init(file, "Other"));
    EXPECT_FALSE(m_parser.IsOpen());
    SetSkinTraceHook(nullptr);
    ASSERT_EQ(traces.size(), 2U);
    EXPECT_EQ(traces[0].rfind("Error initializing parser from file [", 0), 0U);
    EXPECT_EQ(traces[1], "Error cannot find matching ID [Other] in file [" + file + "]");
}

TEST_F(SkinParserTest, WindowsLineEndsAndByteOrderMarkReadTheSame)
{
    Open("\xEF\xBB\xBF[Obj]\r\nsize=3,4\r\n\r\nother=1\r\n");
    int w = 0;
    int h = 0;
    EXPECT_TRUE(m_parser.GetSize("size", w, h));
    EXPECT_EQ(h, 4);
    EXPECT_FALSE(m_parser.NextKey());
}

TEST_F(SkinParserTest, ShippedSkinsHoldEveryObjectTheWindowReads)
{
    for (const char* skin : {"Default", "Light"}) {
        CSkinParser parser;
        ASSERT_TRUE(parser.Init(std::string(LARIMO_SOURCE_DIR) + "/data/skins/en/" + skin + ".sdf")) << skin;
        for (const char* section :
             {"[Larimo]", "[ERadio1]", "[EText1]", "[EConfig1]", "[ERadio2]", "[EText2]", "[EConfig2]", "[ERadio3]",
              "[EText3]", "[EConfig3]", "[SSlider1]", "[SRadio1]", "[SText1]", "[SConfig1]", "[SSlider2]", "[SRadio2]",
              "[SText2]", "[SConfig2]", "[SSlider3]", "[SRadio3]", "[SText3]", "[SConfig3]", "[EmList]", "[StopAll]",
              "[Monitor]", "[MonitorLvl]", "[Options]", "[Help]", "[About]", "[Minimize]", "[Exit]", "[Osci]",
              "[DevLed]", "[EmoticConfig]"}) {
            ASSERT_TRUE(parser.FindObject(section)) << skin << " " << section;
            // Every file the object names is there and reads.
            while (parser.NextKey()) {
                const std::string& key = parser.CurrentKey();
                CDynBitmap bitmap;
                CDynRgn region;
                std::string path;
                if ((key.starts_with("bitmap_") && !key.ends_with("_color")) || (key == "bitmap" && std::string(section) != "[Larimo]")) {
                    EXPECT_TRUE(parser.GetBitmap(key, bitmap)) << skin << " " << section << " " << key;
                } else if (key == "region" && std::string(section) != "[Larimo]") {
                    EXPECT_TRUE(parser.GetRegion(key, region)) << skin << " " << section;
                } else if (key == "bitmap" || key == "region") {
                    EXPECT_TRUE(parser.GetFilePath(key, path)) << skin << " " << section << " " << key;
                }
            }
        }
    }
}

} // namespace
} // namespace larimo
