// SPDX-License-Identifier: GPL-3.0-or-later
#include "texts.h"

#include "PoCatalog.h"
#include "StringTable.h"
#include "mlog.h"
#include "platform/ProcessInfo.h"
#include "translate.h"
#include "wintools.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;

const std::string kLangDir = std::string(LARIMO_SOURCE_DIR) + "/data/lang/";

std::string ReadFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

PoParseResult ParseLanguageFile(const std::string& name)
{
    const std::string content = ReadFile(kLangDir + name);
    EXPECT_FALSE(content.empty()) << name;
    return ParsePo(content);
}

class TempFolder {
public:
    TempFolder()
        : m_path(fs::temp_directory_path() /
                 ("larimo-texts-" + std::to_string(getpid()) + "-" + std::to_string(++s_count)))
    {
        fs::create_directories(m_path);
    }
    ~TempFolder()
    {
        std::error_code ec;
        fs::remove_all(m_path, ec);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    std::string Write(const std::string& name, const std::string& content) const
    {
        const fs::path file = m_path / name;
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }
    std::string Path() const { return m_path.string() + "/"; }

private:
    static inline int s_count = 0;
    fs::path m_path;
};

// Every test leaves the texts ended, whatever it started.
class Texts : public testing::Test {
protected:
    void TearDown() override { EndTexts(); }
};

TEST(LanguageFiles, GermanTranslatesEveryTextWithTheSameConversions)
{
    const PoParseResult parsed = ParseLanguageFile("larimo_de.tra");
    ASSERT_TRUE(parsed.ok) << parsed.errorLine << ": " << parsed.error;
    std::vector<std::string> warnings;
    const PoCatalog catalog = PoCatalog::FromEntries(parsed.entries, &warnings);
    EXPECT_TRUE(warnings.empty()) << warnings.front();
    EXPECT_NE(catalog.Header().find("Language: de"), std::string::npos);

    for (const StringTableEntry& entry : StringTable()) {
        const std::string* german = catalog.Find(entry.text);
        ASSERT_NE(german, nullptr) << "string " << entry.id << " has no usable German text";
        EXPECT_FALSE(german->empty());
        EXPECT_EQ(PrintfConversions(*german), PrintfConversions(entry.text))
            << "string " << entry.id << ": " << *german;
        // A line break in the English text is part of the layout of a message box.
        EXPECT_EQ(std::count(german->begin(), german->end(), '\n') > 0,
                  std::string_view(entry.text).find('\n') != std::string_view::npos)
            << "string " << entry.id;
    }
}

TEST(LanguageFiles, EnglishHoldsExactlyTheTableTextsUntranslated)
{
    const PoParseResult parsed = ParseLanguageFile("larimo_en.tra");
    ASSERT_TRUE(parsed.ok) << parsed.errorLine << ": " << parsed.error;

    std::vector<std::string> tableOrder;
    std::set<std::string> seen;
    for (const StringTableEntry& entry : StringTable()) {
        if (seen.insert(entry.text).second)
            tableOrder.emplace_back(entry.text);
    }
    std::vector<std::string> fileOrder;
    for (const PoEntry& entry : parsed.entries) {
        if (entry.id.empty())
            continue;
        fileOrder.push_back(entry.id);
        EXPECT_FALSE(entry.hasContext);
        ASSERT_EQ(entry.translations.size(), 1u);
        EXPECT_EQ(entry.translations.front(), "") << entry.id;
    }
    EXPECT_EQ(fileOrder, tableOrder);
    EXPECT_EQ(ReadFile(kLangDir + "larimo_en.tra"), StringTablePoTemplate())
        << "data/lang/larimo_en.tra is out of date: run scripts/update-lang.sh";
}

TEST_F(Texts, EnglishFileGivesTheTableAndOnlyPreloadedIdsAreFound)
{
    ASSERT_TRUE(StartTexts(kLangDir, kLangDir + "larimo_en.tra"));
    EXPECT_EQ(GetText(113), "Larimo");
    std::set<unsigned> ids;
    for (const StringTableEntry& entry : StringTable()) {
        EXPECT_EQ(GetText(entry.id), entry.text);
        ids.insert(entry.id);
    }
    for (unsigned id : {0u, 99u, 401u, 100u, 101u, 146u, 999u, 0xFFFFFFFFu}) {
        ASSERT_EQ(ids.count(id), 0u);
        EXPECT_EQ(GetText(id), kTextNotFound) << id;
    }
    // The same reference every time: callers may keep it until the texts end.
    EXPECT_EQ(&GetText(136), &GetText(136));

    EndTexts();
    EXPECT_EQ(GetText(113), kTextNotFound);
}

TEST_F(Texts, GermanFileGivesGerman)
{
    ASSERT_TRUE(StartTexts(kLangDir, kLangDir + "larimo_de.tra"));
    EXPECT_EQ(GetText(113), "Larimo");
    EXPECT_EQ(GetText(136), "Optionen");
    EXPECT_EQ(GetText(271), "Stimmeffekt %d");
    EXPECT_EQ(GetText(207), "%s\nFehlercode: %u");
    EXPECT_EQ(GetText(99), kTextNotFound);
    EXPECT_EQ(GetText(401), kTextNotFound);

    // Starting again replaces the language.
    ASSERT_TRUE(StartTexts(kLangDir, kLangDir + "larimo_en.tra"));
    EXPECT_EQ(GetText(136), "Options");
}

TEST_F(Texts, FileTranslatingNothingGivesEnglishAndBadTranslationsAreSkipped)
{
    const TempFolder folder;
    const std::string headerOnly = folder.Write(
        "header.tra", "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n");
    ASSERT_TRUE(StartTexts(folder.Path(), headerOnly));
    for (const StringTableEntry& entry : StringTable())
        EXPECT_EQ(GetText(entry.id), entry.text);

    const std::string mixed = folder.Write("mixed.tra",
                                           "msgid \"Voice Effect %d\"\nmsgstr \"Effekt %s\"\n\n"
                                           "#, fuzzy\nmsgid \"Options\"\nmsgstr \"Optionen\"\n\n"
                                           "msgid \"Stop\"\nmsgstr \"Halt\"\n");
    ASSERT_TRUE(StartTexts(folder.Path(), mixed));
    EXPECT_EQ(GetText(271), "Voice Effect %d");
    EXPECT_EQ(GetText(136), "Options");
    EXPECT_EQ(GetText(111), "Halt");
}

TEST_F(Texts, RelativeSettingsAreTakenFromTheProgramFolder)
{
    const std::string folderName = "texts-test-lang-" + std::to_string(getpid());
    const fs::path folder = fs::path(ProgramFolder()) / folderName;
    fs::create_directories(folder);
    fs::copy_file(kLangDir + "larimo_de.tra", folder / "larimo_de.tra",
                  fs::copy_options::overwrite_existing);

    const bool started = StartTexts(".\\" + folderName, ".\\" + folderName + "\\larimo_de.tra");
    const std::string options = GetText(136);
    EndTexts();
    fs::remove_all(folder);
    ASSERT_TRUE(started);
    EXPECT_EQ(options, "Optionen");
}

struct Refusal {
    const char* name;
    const char* file;    // written into the temporary folder unless null
    const char* content; // null: the path is a folder or nothing at all
    const char* logged;
};

class TextsRefuse : public testing::TestWithParam<Refusal> {
protected:
    void TearDown() override { EndTexts(); }
};

TEST_P(TextsRefuse, BadLanguageFileStopsStartWithAReasonInTheLog)
{
    const Refusal& bad = GetParam();
    const TempFolder folder;
    const std::string logFile = folder.Path() + "texts.log";
    ASSERT_TRUE(LogOpen(logFile, false, false, false, false, false));

    // Texts of an earlier, good start must not survive a refused one.
    ASSERT_TRUE(StartTexts(kLangDir, kLangDir + "larimo_de.tra"));
    std::string path = folder.Path() + bad.file;
    if (bad.content)
        path = folder.Write(bad.file, bad.content);
    else if (std::string(bad.name) == "Folder")
        fs::create_directories(path);

    EXPECT_FALSE(StartTexts(folder.Path(), path));
    EXPECT_EQ(GetText(113), kTextNotFound);
    EXPECT_EQ(GetText(136), kTextNotFound);

    const std::string log = ReadFile(logFile);
    EXPECT_NE(log.find(bad.logged), std::string::npos) << log;
    EXPECT_NE(log.find("StartTexts() = false"), std::string::npos) << log;
}

INSTANTIATE_TEST_SUITE_P(
    Files, TextsRefuse,
    testing::Values(Refusal{"Missing", "none.tra", nullptr, "the file does not exist"},
                    Refusal{"Folder", "folder.tra", nullptr, "not a regular file"},
                    Refusal{"Garbage", "garbage.tra", "\x7f" "ELF binary\n", "line 1: unknown keyword"},
                    Refusal{"Unterminated", "open.tra", "msgid \"Test\"\nmsgstr \"Tes\n",
                            "line 2: the string has no closing quote"},
                    Refusal{"WrongCharset", "latin.tra",
                            "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=CP1252\\n\"\n",
                            "unsupported charset"}),
    [](const testing::TestParamInfo<Refusal>& param) { return std::string(param.param.name); });

// The expected record is built here field by field from the layout, not with the code under test.
LanguageRecord ExpectedRecord(const std::u16string& file, const std::u16string& folder)
{
    LanguageRecord bytes{};
    const auto word = [&](size_t offset, std::uint32_t value) {
        bytes[offset] = value & 0xFF;
        bytes[offset + 1] = (value >> 8) & 0xFF;
        bytes[offset + 2] = (value >> 16) & 0xFF;
        bytes[offset + 3] = (value >> 24) & 0xFF;
    };
    const auto text = [&](size_t offset, const std::u16string& units) {
        for (size_t i = 0; i < units.size(); ++i) {
            bytes[offset + 2 * i] = units[i] & 0xFF;
            bytes[offset + 2 * i + 1] = units[i] >> 8;
        }
    };
    word(0, 1596);
    text(4, file);
    text(524, folder);
    word(1568, 1);
    return bytes;
}

void ExpectSameBytes(const LanguageRecord& actual, const LanguageRecord& expected)
{
    for (size_t offset = 0; offset < expected.size(); ++offset)
        ASSERT_EQ(actual[offset], expected[offset]) << "first difference at offset " << offset;
}

TEST(LanguageRecord, HoldsFullPathsAndFixedWordsAtTheirOffsets)
{
    static_assert(sizeof(LanguageRecord) == 1596);

    std::string why;
    auto record = MakeLanguageRecord(".\\lang", ".\\lang\\larimo_en.tra", "/opt/larimo/", &why);
    ASSERT_TRUE(record) << why;
    ExpectSameBytes(*record, ExpectedRecord(u"/opt/larimo/lang/larimo_en.tra", u"/opt/larimo/lang/"));

    // Absolute settings are only normalised; the folder keeps exactly one separator.
    record = MakeLanguageRecord("/usr/share/larimo/../larimo/lang/", "/srv//x/./de.tra", "/opt/larimo/");
    ASSERT_TRUE(record);
    ExpectSameBytes(*record, ExpectedRecord(u"/srv/x/de.tra", u"/usr/share/larimo/lang/"));

    // Characters are UTF-16 units: "ä" is one unit, the emoji two.
    record = MakeLanguageRecord("Sprachen", "Sprachen\\Deutsch ä 😀.tra", "/home/jürgen/larimo/");
    ASSERT_TRUE(record);
    ExpectSameBytes(*record, ExpectedRecord(u"/home/jürgen/larimo/Sprachen/Deutsch ä 😀.tra",
                                            u"/home/jürgen/larimo/Sprachen/"));
}

TEST(LanguageRecord, PathsLongerThanTheFieldAreRefusedNotCut)
{
    const std::string folder = "/" + std::string(240, 'f') + "/"; // 242 units
    std::string why;
    EXPECT_TRUE(MakeLanguageRecord(folder, folder + std::string(15, 'n') + ".t", "/", &why))
        << "259 units and the terminator fit: " << why;
    EXPECT_FALSE(MakeLanguageRecord(folder, folder + std::string(16, 'n') + ".t", "/", &why));
    EXPECT_NE(why.find("language file path is longer"), std::string::npos) << why;
    EXPECT_FALSE(MakeLanguageRecord(folder + std::string(30, 'g'), "a.tra", "/", &why));
    EXPECT_NE(why.find("language folder path is longer"), std::string::npos) << why;
}

class TranslationLibrary : public testing::Test {
protected:
    void SetUp() override
    {
        m_file = m_folder.Write("de.tra", "msgid \"Options\"\nmsgstr \"Optionen\"\n");
    }
    void TearDown() override { GLEnd(); }

    int Start()
    {
        const auto record = MakeLanguageRecord(m_folder.Path(), m_file, "/");
        return record ? GLStart(record->data()) : 0;
    }

    TempFolder m_folder;
    std::string m_file;
};

TEST_F(TranslationLibrary, TranslatesIntoBuffersThatFitAndLeavesOthersUntouched)
{
    char16_t buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(GLTranslateString(buffer, u"Options", 16), 0) << "not started";

    ASSERT_NE(Start(), 0);
    EXPECT_EQ(GLTranslateString(buffer, u"Unknown", 16), 0);
    EXPECT_EQ(GLTranslateString(buffer, u"Options", 8), 0) << "8 units are needed with the zero";
    EXPECT_EQ(buffer[0], u'#');
    EXPECT_EQ(GLTranslateString(buffer, u"Options", 0), 0);
    EXPECT_EQ(GLTranslateString(nullptr, u"Options", 16), 0);
    EXPECT_EQ(GLTranslateString(buffer, nullptr, 16), 0);
    EXPECT_EQ(buffer[0], u'#');

    ASSERT_NE(GLTranslateString(buffer, u"Options", 9), 0);
    EXPECT_EQ(std::u16string(buffer), u"Optionen");
    EXPECT_EQ(buffer[9], u'#') << "nothing written past the terminator";

    GLEnd();
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    EXPECT_EQ(GLTranslateString(buffer, u"Options", 16), 0) << "ended";
    EXPECT_EQ(buffer[0], u'#');
}

TEST_F(TranslationLibrary, ServesOnlyRegisteredThreads)
{
    ASSERT_NE(Start(), 0);
    std::thread unregistered([] {
        char16_t buffer[16] = {};
        EXPECT_EQ(GLTranslateString(buffer, u"Options", 16), 0);
        EXPECT_EQ(buffer[0], u'\0');
    });
    unregistered.join();

    std::thread registered([] {
        GLAddThread(CurrentThreadId());
        char16_t buffer[16] = {};
        EXPECT_NE(GLTranslateString(buffer, u"Options", 16), 0);
    });
    registered.join();
}

TEST_F(TranslationLibrary, RefusesRecordsThatAreNotLanguageRecords)
{
    EXPECT_EQ(GLStart(nullptr), 0);

    auto record = MakeLanguageRecord(m_folder.Path(), m_file, "/");
    ASSERT_TRUE(record);
    (*record)[0] = 0x3D; // size word 1597
    (*record)[1] = 0x06;
    EXPECT_EQ(GLStart(record->data()), 0);

    record = MakeLanguageRecord(m_folder.Path(), m_file, "/");
    for (size_t i = kLanguageRecordFileOffset; i < kLanguageRecordFolderOffset; ++i)
        (*record)[i] = 'a'; // no terminator in the file field
    EXPECT_EQ(GLStart(record->data()), 0);

    // A bare file name is found in the language folder.
    record = MakeLanguageRecord(m_folder.Path(), m_file, "/");
    std::fill(record->begin() + kLanguageRecordFileOffset,
              record->begin() + kLanguageRecordFolderOffset, 0);
    (*record)[kLanguageRecordFileOffset] = 'd';
    (*record)[kLanguageRecordFileOffset + 2] = 'e';
    (*record)[kLanguageRecordFileOffset + 4] = '.';
    (*record)[kLanguageRecordFileOffset + 6] = 't';
    (*record)[kLanguageRecordFileOffset + 8] = 'r';
    (*record)[kLanguageRecordFileOffset + 10] = 'a';
    EXPECT_NE(GLStart(record->data()), 0);
}

} // namespace
} // namespace larimo
