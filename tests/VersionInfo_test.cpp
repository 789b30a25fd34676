// SPDX-License-Identifier: GPL-3.0-or-later
#include "VersionInfo.h"

#include "mlog.h"
#include "platform/ElfSection.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;

const std::string kAppDir = LARIMO_APP_DIR;

class TempFile {
public:
    explicit TempFile(const std::string& contents)
        : m_path(fs::temp_directory_path() / ("larimo-version-" + std::to_string(getpid()) + "-" + std::to_string(++s_count)))
    {
        std::ofstream(m_path, std::ios::binary) << contents;
    }
    ~TempFile()
    {
        std::error_code ignored;
        fs::remove(m_path, ignored);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    std::string Path() const { return m_path.string(); }

private:
    static inline int s_count = 0;
    fs::path m_path;
};

std::string ReadText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

struct ProgramCase {
    const char* file;
    const char* description;
};

class OurPrograms : public ::testing::TestWithParam<ProgramCase> { };

TEST_P(OurPrograms, CarryTheProductVersionAndTheirTexts)
{
    VersionRecord record;
    const std::string path = kAppDir + "/" + GetParam().file;
    ASSERT_EQ(ReadVersionInfo(path, kVersionLanguage, kVersionCodePage, record), 0);
    EXPECT_EQ(record.m_productVersion, LARIMO_EXPECTED_VERSION);
    EXPECT_EQ(record.m_fileVersion, LARIMO_EXPECTED_VERSION);
    EXPECT_EQ(record.m_productVersionText, LARIMO_EXPECTED_VERSION);
    EXPECT_EQ(record.m_productName, "Larimo");
    EXPECT_EQ(record.m_fileDescription, GetParam().description);
    EXPECT_EQ(record.m_internalName, GetParam().file);
    EXPECT_EQ(record.m_originalFilename, GetParam().file);
    EXPECT_FALSE(record.m_companyName.empty());
    EXPECT_FALSE(record.m_legalCopyright.empty());
    EXPECT_TRUE(record.m_privateBuild.empty());
    EXPECT_TRUE(record.m_specialBuild.empty());
    const std::string dotted = std::to_string(record.m_productNumbers[0]) + "." + std::to_string(record.m_productNumbers[1]) +
                               "." + std::to_string(record.m_productNumbers[2]) + "." +
                               std::to_string(record.m_productNumbers[3]);
    EXPECT_EQ(dotted, LARIMO_EXPECTED_VERSION);

    std::string version;
    EXPECT_EQ(FileVersion(path, version), 0);
    EXPECT_EQ(version, LARIMO_EXPECTED_VERSION);

    // Another language finds no texts, but the record is there.
    VersionRecord german;
    ASSERT_EQ(ReadVersionInfo(path, 1031, kVersionCodePage, german), 0);
    EXPECT_TRUE(german.m_productName.empty());
    EXPECT_EQ(german.m_productVersion, "0.0.0.0");
}

INSTANTIATE_TEST_SUITE_P(Programs, OurPrograms,
                         ::testing::Values(ProgramCase{"LarimoServer", "Larimo voice service"},
                                           ProgramCase{"larimoctl", "Larimo command-line control"}));

TEST(ReadVersionInfo, FilesWithoutARecordGiveTheirCause)
{
    VersionRecord record;
    record.m_productName = "untouched";
    EXPECT_EQ(ReadVersionInfo("/nonexistent/LarimoServer", kVersionLanguage, kVersionCodePage, record), 2);
    EXPECT_EQ(ReadVersionInfo("/proc/self/exe/x", kVersionLanguage, kVersionCodePage, record), 2);
    // This test program is an ELF file the build gave no record.
    EXPECT_EQ(ReadVersionInfo("/proc/self/exe", kVersionLanguage, kVersionCodePage, record), ENODATA);
    EXPECT_EQ(ReadVersionInfo("/tmp", kVersionLanguage, kVersionCodePage, record), EISDIR);

    const TempFile text("just some text, no program\n");
    EXPECT_EQ(ReadVersionInfo(text.Path(), kVersionLanguage, kVersionCodePage, record), ENOEXEC);
    const TempFile empty("");
    EXPECT_EQ(ReadVersionInfo(empty.Path(), kVersionLanguage, kVersionCodePage, record), ENOEXEC);
    // A program cut short: its headers point past the end.
    const TempFile cut(ReadText(kAppDir + "/LarimoServer").substr(0, 4096));
    EXPECT_EQ(ReadVersionInfo(cut.Path(), kVersionLanguage, kVersionCodePage, record), ENOEXEC);
    EXPECT_EQ(record.m_productName, "untouched");
    std::string version = "kept";
    EXPECT_EQ(FileVersion(text.Path(), version), ENOEXEC);
    EXPECT_EQ(version, "kept");
}

TEST(LogProgramVersion, WritesTheVersionLineOnlyForAProgramWithARecord)
{
    const TempFile log("");
    LogOpen(log.Path(), false, false, false, false, false);
    EXPECT_FALSE(LogProgramVersion("/proc/self/exe"));
    EXPECT_FALSE(LogProgramVersion("/nonexistent"));
    EXPECT_EQ(ReadText(log.Path()), "");
    EXPECT_TRUE(LogProgramVersion(kAppDir + "/LarimoServer"));
    const std::string written = ReadText(log.Path());
    EXPECT_NE(written.find("Larimo version: " LARIMO_EXPECTED_VERSION), std::string::npos) << written;
    EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), 2) << written;
}

struct SplitCase {
    const char* text;
    std::array<uint16_t, 4> numbers;
};

class VersionNumbers : public ::testing::TestWithParam<SplitCase> { };

TEST_P(VersionNumbers, SplitAtDotsAndCommasWithBlanksIgnored)
{
    EXPECT_EQ(SplitVersionNumbers(GetParam().text), GetParam().numbers) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(Texts, VersionNumbers,
                         ::testing::Values(SplitCase{"1, 5, 24, 0", {1, 5, 24, 0}}, SplitCase{"1.5.24.0", {1, 5, 24, 0}},
                                           SplitCase{"2,0.1 , 7", {2, 0, 1, 7}}, SplitCase{"3.1", {3, 1, 0, 0}},
                                           SplitCase{"", {0, 0, 0, 0}}, SplitCase{"1.2.3.4.5", {1, 2, 3, 4}},
                                           SplitCase{"70000.65535.1.x", {65535, 65535, 1, 0}},
                                           SplitCase{"1.2b.3", {1, 0, 3, 0}}, SplitCase{"..9", {0, 0, 9, 0}}));

std::string Record(const std::string& tables)
{
    return std::string("LRMV\0StringFileInfo\0", 20) + tables + std::string(1, '\0');
}

TEST(ParseVersionRecord, PicksTheTableOfTheLanguageAndRefusesDamage)
{
    using namespace std::string_literals;
    const std::string two = Record("040704b0\0ProductName\0Larimo DE\0ProductVersion\0 9, 9\0\0"s
                                   "040904B0\0ProductName\0Larimo\0FileVersion\0 1, 5, 24, 0\0Unknown\0x\0\0"s);
    VersionRecord record;
    ASSERT_TRUE(ParseVersionRecord(two, kVersionLanguage, kVersionCodePage, record));
    EXPECT_EQ(record.m_productName, "Larimo");
    EXPECT_EQ(record.m_fileVersion, "1.5.24.0");
    EXPECT_EQ(record.m_productVersion, "0.0.0.0");
    ASSERT_TRUE(ParseVersionRecord(two, 0x0407, kVersionCodePage, record));
    EXPECT_EQ(record.m_productName, "Larimo DE");
    EXPECT_EQ(record.m_productVersion, "9.9.0.0");

    record.m_productName = "untouched";
    for (const std::string& damaged :
         {""s, "LRMV"s, "XXXX\0StringFileInfo\0\0"s, "LRMV\0Other\0\0"s, Record("040904b0\0ProductName\0"s),
          std::string("LRMV\0StringFileInfo\0040904b0\0ProductName\0Lar", 43)}) {
        EXPECT_FALSE(ParseVersionRecord(damaged, kVersionLanguage, kVersionCodePage, record)) << damaged.size();
        EXPECT_EQ(record.m_productName, "untouched");
    }
}

// A tiny ELF image of the other class and byte order than this machine's programs.
std::vector<uint8_t> BigEndianElf32(const std::string& sectionName, const std::string& contents)
{
    std::vector<uint8_t> image(52, 0);
    auto put = [&image](size_t at, uint32_t value, size_t size) {
        for (size_t i = 0; i < size; ++i)
            image[at + i] = static_cast<uint8_t>(value >> (8 * (size - 1 - i)));
    };
    image[0] = 0x7F;
    image[1] = 'E';
    image[2] = 'L';
    image[3] = 'F';
    image[4] = 1; // 32 bit
    image[5] = 2; // big endian
    const std::string names = std::string("\0.shstrtab\0", 11) + sectionName + '\0';
    const auto namesAt = static_cast<uint32_t>(image.size());
    image.insert(image.end(), names.begin(), names.end());
    const auto dataAt = static_cast<uint32_t>(image.size());
    image.insert(image.end(), contents.begin(), contents.end());
    const auto tableAt = static_cast<uint32_t>(image.size());
    image.resize(image.size() + 3 * 40, 0);
    put(0x20, tableAt, 4);
    put(0x2E, 40, 2);
    put(0x30, 3, 2);
    put(0x32, 1, 2);
    put(tableAt + 40 + 0, 1, 4); // .shstrtab
    put(tableAt + 40 + 4, 3, 4);
    put(tableAt + 40 + 16, namesAt, 4);
    put(tableAt + 40 + 20, static_cast<uint32_t>(names.size()), 4);
    put(tableAt + 80 + 0, 11, 4); // the section asked for
    put(tableAt + 80 + 4, 1, 4);
    put(tableAt + 80 + 16, dataAt, 4);
    put(tableAt + 80 + 20, static_cast<uint32_t>(contents.size()), 4);
    return image;
}

int FindIn(const std::vector<uint8_t>& image, const std::string& name, ElfSectionPlace& place)
{
    const ElfByteReader read = [&image](uint64_t offset, void* data, size_t size) {
        if (offset > image.size() || size > image.size() - offset)
            return false;
        std::memcpy(data, image.data() + offset, size);
        return true;
    };
    return FindElfSection(read, image.size(), name, place);
}

TEST(ElfSection, ReadsBothClassesAndByteOrdersAndRefusesBrokenHeaders)
{
    std::vector<uint8_t> image = BigEndianElf32(kVersionSection, "payload");
    ElfSectionPlace place;
    ASSERT_EQ(FindIn(image, kVersionSection, place), 0);
    EXPECT_EQ(std::string(image.begin() + static_cast<long>(place.m_offset),
                          image.begin() + static_cast<long>(place.m_offset + place.m_size)),
              "payload");
    EXPECT_EQ(FindIn(image, ".larimo", place), ENODATA);
    EXPECT_EQ(FindIn(image, ".larimo.version.x", place), ENODATA);

    std::vector<uint8_t> badEntrySize = image;
    badEntrySize[0x2F] = 39;
    EXPECT_EQ(FindIn(badEntrySize, kVersionSection, place), ENOEXEC);
    std::vector<uint8_t> pastTheEnd = image;
    pastTheEnd[pastTheEnd.size() - 40 + 20 + 3] = 0xFF; // section size
    EXPECT_EQ(FindIn(pastTheEnd, kVersionSection, place), ENOEXEC);
    std::vector<uint8_t> badNameIndex = image;
    badNameIndex[0x33] = 7;
    EXPECT_EQ(FindIn(badNameIndex, kVersionSection, place), ENOEXEC);
    std::vector<uint8_t> badClass = image;
    badClass[4] = 3;
    EXPECT_EQ(FindIn(badClass, kVersionSection, place), ENOEXEC);

    // Our own 64-bit little-endian programs, read from the file.
    std::string bytes;
    ASSERT_EQ(ReadElfSection(kAppDir + "/LarimoServer", kVersionSection, 1 << 16, bytes, &place), 0);
    EXPECT_EQ(bytes.substr(0, 5), std::string("LRMV\0", 5));
    EXPECT_EQ(place.m_size, bytes.size());
    EXPECT_EQ(ReadElfSection(kAppDir + "/LarimoServer", kVersionSection, 8, bytes), EFBIG);
}

} // namespace
} // namespace larimo
