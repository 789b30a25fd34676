// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/Profile.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;

class TempFolder {
public:
    TempFolder()
    {
        std::string pattern = (fs::temp_directory_path() / "larimo-ini-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempFolder()
    {
        std::error_code ignored;
        fs::permissions(m_path, fs::perms::owner_all, ignored);
        fs::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string File(const std::string& name) const { return (m_path / name).string(); }
    const fs::path& Path() const { return m_path; }

private:
    fs::path m_path;
};

void WriteFile(const std::string& path, const std::string& contents)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string Replace(std::string text, const std::string& from, const std::string& to)
{
    for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
        text.replace(pos, from.size(), to);
    return text;
}

// One file that exercises every reading rule, stored three ways.
const std::string kSample = "; settings\n"
                            "orphan=before any section\n"
                            "[Sys]\n"
                            "  ActiveEffect   =   2  \n"
                            "quoted=\"  spaced  \"\n"
                            "single='x'\n"
                            "halfQuoted=\"abc'\n"
                            "empty=\n"
                            "noEquals\n"
                            "# hash comment=ignored\n"
                            "dup=first\n"
                            "dup=second\n"
                            "\n"
                            "[ sound_0 ]\n"
                            "file=a.wav\n"
                            "[SYS]\n"
                            "dup=other section\n"
                            "onlyInSecond=hidden\n"
                            "[unterminated\n"
                            "k=v\n"
                            "[a]b]\n"
                            "k=inner bracket\n";

struct Encoding {
    const char* m_name;
    std::string (*m_make)(const std::string&);
};

class IniReading : public ::testing::TestWithParam<Encoding> { };

TEST_P(IniReading, FollowsTheProfileRules)
{
    const IniDocument doc = IniDocument::Parse(GetParam().m_make(kSample));

    EXPECT_EQ(doc.Get("sys", "activeeffect", "-1"), "2");
    EXPECT_EQ(doc.Get("SYS", "ACTIVEEFFECT", "-1"), "2");
    EXPECT_EQ(doc.Get("sys", "quoted", ""), "  spaced  ");
    EXPECT_EQ(doc.Get("sys", "single", ""), "x");
    EXPECT_EQ(doc.Get("sys", "halfQuoted", ""), "\"abc'");
    EXPECT_EQ(doc.Get("sys", "empty", "default"), "") << "a present empty key is not missing";
    EXPECT_EQ(doc.Get("sys", "noEquals", "default"), "default");
    EXPECT_EQ(doc.Get("sys", "# hash comment", "default"), "default");
    EXPECT_EQ(doc.Get("sys", "missing", "fallback  "), "fallback") << "trailing blanks of a default go";
    EXPECT_EQ(doc.Get("nosuch", "missing", "d"), "d");

    // Duplicates: the first section and the first key win; the rest is never seen.
    EXPECT_EQ(doc.Get("sys", "dup", ""), "first");
    EXPECT_EQ(doc.Get("sys", "onlyInSecond", "none"), "none");
    EXPECT_EQ(doc.Keys("sys"), (std::vector<std::string> { "ActiveEffect", "quoted", "single", "halfQuoted",
                                                           "empty", "dup" }));

    EXPECT_EQ(doc.Get("sound_0", "file", ""), "a.wav");
    EXPECT_EQ(doc.Get("unterminated", "k", ""), "v");
    EXPECT_EQ(doc.Get("a]b", "k", ""), "inner bracket");
    EXPECT_FALSE(doc.HasSection("orphan"));
    EXPECT_EQ(doc.Get("", "orphan", "none"), "none");
}

TEST_P(IniReading, SerializesToTheSameBytes)
{
    const std::string contents = GetParam().m_make(kSample);
    EXPECT_EQ(IniDocument::Parse(contents).Serialize(), contents);
}

INSTANTIATE_TEST_SUITE_P(
    Encodings, IniReading,
    ::testing::Values(Encoding { "Lf", [](const std::string& s) { return s; } },
                      Encoding { "CrLf", [](const std::string& s) { return Replace(s, "\n", "\r\n"); } },
                      Encoding { "BomCrLfNoFinalEol",
                                 [](const std::string& s) {
                                     return "\xEF\xBB\xBF" + Replace(s.substr(0, s.size() - 1), "\n", "\r\n");
                                 } }),
    [](const ::testing::TestParamInfo<Encoding>& param) { return std::string(param.param.m_name); });

TEST(IniReading, CutsLongValuesAtUtf16UnitsWithoutSplittingCharacters)
{
    const std::string emoji = "\xF0\x9F\x98\x80"; // two UTF-16 units
    const std::string euro = "\xE2\x82\xAC"; // one unit
    IniDocument doc;
    doc.Set("s", "long", std::string(2000, 'x'));
    doc.Set("s", "pairAtEdge", std::string(1022, 'a') + emoji);
    doc.Set("s", "pairFits", std::string(1021, 'a') + emoji + "tail");
    doc.Set("s", "threeByte", std::string(1022, 'a') + euro + euro);

    EXPECT_EQ(doc.Get("s", "long", ""), std::string(1023, 'x'));
    EXPECT_EQ(doc.Get("s", "pairAtEdge", ""), std::string(1022, 'a'));
    EXPECT_EQ(doc.Get("s", "pairFits", ""), std::string(1021, 'a') + emoji);
    EXPECT_EQ(doc.Get("s", "threeByte", ""), std::string(1022, 'a') + euro);
    EXPECT_EQ(doc.Get("s", "long", "", 126).size(), 125u);
    EXPECT_EQ(doc.Get("s", "missing", std::string(3000, 'd')).size(), 1023u);
    EXPECT_EQ(*doc.Find("s", "long"), std::string(2000, 'x'));

    // Broken sequences count byte by byte and never run past the end.
    EXPECT_EQ(Utf16PrefixBytes("\xF0\x9F", 5), 2u);
    EXPECT_EQ(Utf16PrefixBytes("\xC3", 1), 1u);
    EXPECT_EQ(Utf16PrefixBytes("\xE2\x82\xAC\xE2\x82\xAC", 1), 3u);
    EXPECT_EQ(Utf16PrefixBytes(emoji, 1), 0u);
}

TEST(IniEditing, ChangesOnlyWhatIsWritten)
{
    const std::string original = "\xEF\xBB\xBF; keep me\r\n"
                                 "[sys]\r\n"
                                 "   Version  =  1.0  \r\n"
                                 "other=x\r\n"
                                 "\r\n"
                                 "; about the next section\r\n"
                                 "[Monitors]\r\n"
                                 "listen=always";
    IniDocument doc = IniDocument::Parse(original);

    doc.Set("SYS", "version", "2.0");
    doc.Set("sys", "added", "new");
    doc.Set("monitors", "monitorOn", "1");
    doc.Set("stream", "inBuffsN", "40");
    EXPECT_TRUE(doc.Modified());
    EXPECT_EQ(doc.Serialize(), "\xEF\xBB\xBF; keep me\r\n"
                               "[sys]\r\n"
                               "   Version=2.0\r\n"
                               "other=x\r\n"
                               "added=new\r\n"
                               "\r\n"
                               "; about the next section\r\n"
                               "[Monitors]\r\n"
                               "listen=always\r\n"
                               "monitorOn=1\r\n"
                               "\r\n"
                               "[stream]\r\n"
                               "inBuffsN=40\r\n");

    // Writing what the file already says changes nothing, however it is spelled there.
    IniDocument same = IniDocument::Parse(original);
    same.Set("sys", "version", "1.0");
    same.DeleteKey("sys", "absent");
    same.DeleteSection("absent");
    EXPECT_FALSE(same.Modified());
    EXPECT_EQ(same.Serialize(), original);
}

TEST(IniEditing, DeletesKeysAndSectionsAndCreatesAFreshFile)
{
    IniDocument doc = IniDocument::Parse("[emotics]\nnum=2\nfile_0=a\n[sys]\nk=1\nk=2\n[EMOTICS]\nname_0=b\n");
    doc.DeleteSection("Emotics");
    doc.DeleteKey("sys", "K");
    EXPECT_EQ(doc.Serialize(), "[sys]\n");
    EXPECT_FALSE(doc.HasSection("emotics")) << "every section of the name goes";

    IniDocument fresh;
    fresh.Set("sys", "numEffects", "0");
    fresh.Set("eff_0", "name", "Robot");
    EXPECT_EQ(fresh.Serialize(), "[sys]\nnumEffects=0\n\n[eff_0]\nname=Robot\n");
    EXPECT_TRUE(fresh.Write("eff_0", std::nullopt, std::nullopt));
    EXPECT_EQ(fresh.Get("eff_0", "name", "gone"), "gone");
}

TEST(IniEditing, ReplacingASectionKeepsItsPlace)
{
    const std::string original = "[a]\nx=1\n[list]\n; gone\nnum=3\nk_2=c\n\n[b]\ny=2\n[LIST]\nk_9=z\n[c]\n[list]";
    IniDocument doc = IniDocument::Parse(original);
    const std::vector<std::pair<std::string, std::string>> entries { { "num", "1" }, { "k_0", " a " } };
    EXPECT_TRUE(doc.ReplaceSection("List", entries));
    EXPECT_EQ(doc.Serialize(), "[a]\nx=1\n[list]\nnum=1\nk_0=\" a \"\n\n[b]\ny=2\n[c]\n");

    IniDocument again = IniDocument::Parse(doc.Serialize());
    EXPECT_TRUE(again.ReplaceSection("list", entries));
    EXPECT_FALSE(again.Modified()) << "a section that already reads so is left alone";

    IniDocument atEnd = IniDocument::Parse("[a]\nx=1\n[list]");
    EXPECT_TRUE(atEnd.ReplaceSection("list", entries));
    EXPECT_EQ(atEnd.Serialize(), "[a]\nx=1\n[list]\nnum=1\nk_0=\" a \"\n");

    IniDocument missing;
    EXPECT_TRUE(missing.ReplaceSection("list", entries));
    EXPECT_EQ(missing.Serialize(), "[list]\nnum=1\nk_0=\" a \"\n");
    EXPECT_FALSE(missing.ReplaceSection("list", { { "bad=key", "v" } }));
    EXPECT_EQ(missing.Get("list", "num", ""), "1");
}

TEST(IniEditing, ValuesComeBackAsWritten)
{
    const std::vector<std::string> values { "  leading",      "trailing\t", "\"quoted\"", "'single'",
                                            "a = b ; c",      "[not a header]", ";not a comment",
                                            "Ümlaut \xF0\x9F\x8E\xA4", "",    "\"" };
    IniDocument doc;
    for (size_t i = 0; i < values.size(); ++i)
        doc.Set("s", "k" + std::to_string(i), values[i]);
    const IniDocument reread = IniDocument::Parse(doc.Serialize());
    for (size_t i = 0; i < values.size(); ++i)
        EXPECT_EQ(reread.Get("s", "k" + std::to_string(i), "?"), values[i]) << "value " << i;

    // A line break would split the line; it is stored as a blank instead.
    doc.Set("s", "broken", "one\r\ntwo");
    EXPECT_EQ(IniDocument::Parse(doc.Serialize()).Get("s", "broken", ""), "one  two");
}

TEST(IniEditing, RefusesNamesThatCannotBeStored)
{
    IniDocument doc = IniDocument::Parse("[s]\nk=v\n");
    EXPECT_FALSE(doc.Write("", std::string_view("k"), std::string_view("v")));
    EXPECT_FALSE(doc.Write("a]b", std::string_view("k"), std::string_view("v")));
    EXPECT_FALSE(doc.Write("s", std::string_view("a=b"), std::string_view("v")));
    EXPECT_FALSE(doc.Write("s", std::string_view("line\nbreak"), std::string_view("v")));
    EXPECT_FALSE(doc.Write("s", std::string_view(";comment"), std::string_view("v")));
    EXPECT_FALSE(doc.Write("s", std::string_view("  "), std::string_view("v")));
    EXPECT_FALSE(doc.Modified());
    EXPECT_EQ(doc.Serialize(), "[s]\nk=v\n");
}

TEST(IniFile, MissingFileReadsAsDefaultsAndIsCreatedByTheFirstWrite)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    EXPECT_EQ(ProfileReadString("sys", "wizard", "0", path), "0");
    EXPECT_TRUE(ProfileWriteString("sys", std::string_view("wizard"), std::nullopt, path));
    EXPECT_FALSE(fs::exists(path)) << "deleting from nothing creates nothing";

    EXPECT_TRUE(ProfileWriteString("sys", std::string_view("wizard"), std::string_view("1"), path));
    EXPECT_EQ(ReadFile(path), "[sys]\nwizard=1\n");
    EXPECT_EQ(ProfileReadString("SYS", "Wizard", "0", path), "1");
    EXPECT_FALSE(ProfileWriteString("sys", std::string_view("a=b"), std::string_view("1"), path));

    EXPECT_TRUE(ProfileWriteString("sys", std::nullopt, std::nullopt, path));
    EXPECT_EQ(ReadFile(path), "");
}

TEST(IniFile, APathThatIsADirectoryFailsCleanly)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    fs::create_directory(path);
    WriteFile(path + "/inside", "kept");

    IniDocument doc;
    EXPECT_FALSE(LoadIniFile(path, doc));
    EXPECT_EQ(ProfileReadString("sys", "wizard", "0", path), "0");
    EXPECT_FALSE(ProfileWriteString("sys", std::string_view("wizard"), std::string_view("1"), path));
    EXPECT_FALSE(ReplaceIniFile(path, IniDocument::Parse("[sys]\n")));
    EXPECT_TRUE(fs::is_directory(path));
    EXPECT_EQ(ReadFile(path + "/inside"), "kept");
    EXPECT_FALSE(fs::exists(path + ".tmp"));
}

TEST(IniFile, AFileThatCannotBeReadIsNeverOverwritten)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    // Far beyond any settings file; sparse, so it costs no disk.
    {
        std::ofstream out(path);
    }
    fs::resize_file(path, 100u * 1024 * 1024);

    IniDocument doc;
    EXPECT_FALSE(LoadIniFile(path, doc));
    EXPECT_FALSE(ProfileWriteString("sys", std::string_view("wizard"), std::string_view("1"), path));
    EXPECT_EQ(fs::file_size(path), 100u * 1024 * 1024);
}

// Runs `body` in a child process and returns its exit code (-1 when it died of a signal).
template <typename Body>
int InChild(Body body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(IniFile, AReadOnlyFolderKeepsTheOldFile)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    const std::string original = "; mine\n[sys]\nwizard=0\n";
    WriteFile(path, original);
    fs::permissions(folder.Path(), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read
                        | fs::perms::group_exec | fs::perms::others_read | fs::perms::others_exec);

    // Root ignores permissions, so the write runs as an ordinary user when we are root.
    const int result = InChild([&] {
        if (::geteuid() == 0 && ::setuid(65534) != 0)
            return 10;
        if (ProfileReadString("sys", "wizard", "?", path) != "0")
            return 11;
        if (ProfileWriteString("sys", std::string_view("wizard"), std::string_view("1"), path))
            return 12;
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ReadFile(path), original);
    EXPECT_FALSE(fs::exists(path + ".tmp"));
}

TEST(IniFile, AFullDiskKeepsTheOldFile)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    const std::string original = "[sys]\nwizard=0\n";
    WriteFile(path, original);

    // A file size limit makes the write fail half way, as a full disk would.
    const int result = InChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit { 4096, 4096 };
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 10;
        return ProfileWriteString("sys", std::string_view("big"), std::string(100000, 'x'), path) ? 11 : 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ReadFile(path), original);
    EXPECT_FALSE(fs::exists(path + ".tmp"));
}

TEST(IniFile, AStaleTemporaryFileFromACrashDoesNotHurt)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    WriteFile(path, "[sys]\nwizard=1\n");
    WriteFile(path + ".tmp", "[sys]\nwizard=half written gar");
    WriteFile(path + ".lock", "");

    EXPECT_EQ(ProfileReadString("sys", "wizard", "0", path), "1");
    EXPECT_TRUE(ProfileWriteString("sys", std::string_view("version"), std::string_view("1.2.3.4"), path));
    EXPECT_EQ(ReadFile(path), "[sys]\nwizard=1\nversion=1.2.3.4\n");
    EXPECT_FALSE(fs::exists(path + ".tmp"));

    // Even a link planted where the temporary file goes is replaced, not followed.
    WriteFile(folder.File("victim"), "untouched");
    fs::create_symlink(folder.File("victim"), path + ".tmp");
    EXPECT_TRUE(ProfileWriteString("sys", std::string_view("wizard"), std::string_view("0"), path));
    EXPECT_EQ(ReadFile(folder.File("victim")), "untouched");
    EXPECT_EQ(ProfileReadString("sys", "wizard", "?", path), "0");
}

TEST(IniFile, WritingThroughASymbolicLinkKeepsTheLink)
{
    TempFolder folder;
    const std::string real = folder.File("real.ini");
    const std::string link = folder.File("config.ini");
    WriteFile(real, "[sys]\n");
    fs::create_symlink(real, link);
    EXPECT_TRUE(ProfileWriteString("sys", std::string_view("wizard"), std::string_view("1"), link));
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(ReadFile(real), "[sys]\nwizard=1\n");
}

TEST(IniFile, ConcurrentWritersLoseNoKeyAndReadersNeverSeeHalfAFile)
{
    TempFolder folder;
    const std::string path = folder.File("config.ini");
    WriteFile(path, "[sys]\nend=1\n");
    constexpr int kWriters = 4;
    constexpr int kKeys = 40;

    std::vector<pid_t> children;
    for (int w = 0; w < kWriters; ++w) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            bool ok = true;
            for (int k = 0; k < kKeys; ++k) {
                // Long values make each replacement big enough to be caught half way.
                ok = ProfileWriteString("w" + std::to_string(w), "k" + std::to_string(k), std::string(1000, 'v'),
                                        path)
                    && ok;
            }
            ::_exit(ok ? 0 : 1);
        }
        children.push_back(pid);
    }
    const pid_t reader = ::fork();
    if (reader == 0) {
        for (int i = 0; i < 300; ++i) {
            IniDocument doc;
            if (!LoadIniFile(path, doc) || doc.Get("sys", "end", "") != "1")
                ::_exit(1);
        }
        ::_exit(0);
    }
    children.push_back(reader);

    for (const pid_t pid : children) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child " << pid;
    }
    IniDocument doc;
    ASSERT_TRUE(LoadIniFile(path, doc));
    for (int w = 0; w < kWriters; ++w) {
        for (int k = 0; k < kKeys; ++k)
            EXPECT_TRUE(doc.Find("w" + std::to_string(w), "k" + std::to_string(k))) << w << "/" << k;
    }
}

} // namespace
} // namespace larimo
