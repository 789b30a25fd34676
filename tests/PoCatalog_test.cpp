// SPDX-License-Identifier: GPL-3.0-or-later
#include "PoCatalog.h"

#include "StringTable.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace larimo {
namespace {

using Tokens = std::vector<std::string>;

TEST(PoCatalog, ReadsEveryPartOfTheSyntax)
{
    const std::string file =
        "\xEF\xBB\xBF# translator comment\r\n"
        "msgid \"\"\r\n"
        "msgstr \"\"\r\n"
        "\"Language: de\\n\"\r\n"
        "\"Content-Type: text/plain; charset=UTF-8\\n\"\r\n"
        "\r\n"
        "#. string 120\n"
        "#: somewhere.cpp:12\n"
        "msgid \"Success\"\n"
        "msgstr \"Erfolgreich\"\n"
        "\n"
        "#, c-format\n"
        "msgid \"\"\n"
        "\"Line one\\n\"\n"
        "  \"Line \\\"two\\\" %s\"\n"
        "msgstr \"\"\n"
        "\"Zeile eins\\n\"\n"
        "\"Zeile \\\"zwei\\\" %s\"\n"
        "\n"
        "msgid \"tab\\there \\\\ \\101\\x42\"\n"
        "msgstr \"Tab\\tda \\\\ AB\"\n"
        "\n"
        "#, fuzzy, c-format\n"
        "msgid \"Stop\"\n"
        "msgstr \"Stopp\"\n"
        "\n"
        "msgid \"Test\"\n"
        "msgstr \"\"\n"
        "\n"
        "msgctxt \"menu\"\n"
        "msgid \"Options\"\n"
        "msgstr \"Einstellungen\"\n"
        "\n"
        "msgid \"Options\"\n"
        "msgstr \"Optionen\"\n"
        "\n"
        "msgid \"%u file\"\n"
        "msgid_plural \"%u files\"\n"
        "msgstr[0] \"%u Datei\"\n"
        "msgstr[1] \"%u Dateien\"\n"
        "\n"
        "#~ msgid \"Gone\"\n"
        "#~ msgstr \"Weg\"\n"
        "#| msgid \"Old\"\n"
        "msgid \"Größe\"\n"
        "msgstr \"Size in \xC3\xA4 units\"";

    const PoParseResult parsed = ParsePo(file);
    ASSERT_TRUE(parsed.ok) << parsed.errorLine << ": " << parsed.error;
    ASSERT_EQ(parsed.entries.size(), 10u);
    EXPECT_EQ(parsed.entries[1].line, 9u);
    EXPECT_EQ(parsed.entries[2].id, "Line one\nLine \"two\" %s");
    EXPECT_TRUE(parsed.entries[4].fuzzy);
    EXPECT_FALSE(parsed.entries[5].fuzzy);
    EXPECT_EQ(parsed.entries[8].idPlural, "%u files");
    ASSERT_EQ(parsed.entries[8].translations.size(), 2u);

    std::vector<std::string> warnings;
    const PoCatalog catalog = PoCatalog::FromEntries(parsed.entries, &warnings);
    EXPECT_TRUE(warnings.empty());
    EXPECT_NE(catalog.Header().find("Language: de"), std::string::npos);
    EXPECT_EQ(catalog.Find(""), nullptr) << "the header is no translation";

    const auto find = [&](const char* id) {
        const std::string* text = catalog.Find(id);
        return text ? *text : std::string("<none>");
    };
    EXPECT_EQ(find("Success"), "Erfolgreich");
    EXPECT_EQ(find("Line one\nLine \"two\" %s"), "Zeile eins\nZeile \"zwei\" %s");
    EXPECT_EQ(find("tab\there \\ AB"), "Tab\tda \\ AB");
    EXPECT_EQ(find("Stop"), "<none>") << "fuzzy entries are not used";
    EXPECT_EQ(find("Test"), "<none>") << "an empty msgstr is no translation";
    EXPECT_EQ(find("Options"), "Optionen") << "a context entry must not shadow the plain one";
    ASSERT_NE(catalog.Find("menu", "Options"), nullptr);
    EXPECT_EQ(*catalog.Find("menu", "Options"), "Einstellungen");
    EXPECT_EQ(find("%u file"), "%u Datei");
    EXPECT_EQ(find("Gone"), "<none>");
    EXPECT_EQ(find("Größe"), "Size in \xC3\xA4 units");
    EXPECT_EQ(catalog.Size(), 7u);
}

struct BadPo {
    const char* name;
    std::string_view content;
    unsigned line;
    const char* message;
};

class PoMalformed : public testing::TestWithParam<BadPo> {};

TEST_P(PoMalformed, IsRefusedWithLineAndReason)
{
    const BadPo& bad = GetParam();
    const PoParseResult parsed = ParsePo(bad.content);
    EXPECT_FALSE(parsed.ok);
    EXPECT_EQ(parsed.errorLine, bad.line);
    EXPECT_NE(parsed.error.find(bad.message), std::string::npos) << parsed.error;
    EXPECT_TRUE(parsed.entries.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, PoMalformed,
    testing::Values(
        BadPo{"Unterminated", "msgid \"a\nmsgstr \"b\"\n", 1, "closing quote"},
        BadPo{"UnknownKeyword", "msgid \"a\"\nmsgtxt \"b\"\n", 2, "unknown keyword"},
        BadPo{"NoQuotes", "msgid a\nmsgstr \"b\"\n", 1, "quoted string"},
        BadPo{"MsgstrFirst", "msgstr \"b\"\n", 1, "without a msgid"},
        BadPo{"MsgidAtEnd", "msgid \"a\"\nmsgstr \"b\"\n\nmsgid \"c\"\n", 4, "without msgstr"},
        BadPo{"TwoMsgids", "msgid \"a\"\nmsgid \"c\"\nmsgstr \"b\"\n", 2, "no msgstr"},
        BadPo{"TwoMsgstrs", "msgid \"a\"\nmsgstr \"b\"\nmsgstr \"c\"\n", 3, "two msgstr"},
        BadPo{"Duplicate", "msgid \"a\"\nmsgstr \"b\"\nmsgid \"a\"\nmsgstr \"c\"\n", 3, "twice"},
        BadPo{"BadEscape", "msgid \"a\\q\"\nmsgstr \"\"\n", 1, "escape"},
        BadPo{"HexWithoutDigits", "msgid \"a\\xZ\"\nmsgstr \"\"\n", 1, "hexadecimal"},
        BadPo{"Nul", "msgid \"a\\0b\"\nmsgstr \"\"\n", 1, "NUL"},
        BadPo{"RawNul", std::string_view("msgid \"a\0b\"\nmsgstr \"\"\n", 22), 1, "NUL"},
        BadPo{"OctalTooBig", "msgid \"a\\777\"\nmsgstr \"\"\n", 1, "octal"},
        BadPo{"TextAfterQuote", "msgid \"a\" x\nmsgstr \"\"\n", 1, "after the closing quote"},
        BadPo{"LooseString", "\"a\"\nmsgid \"a\"\nmsgstr \"\"\n", 1, "belongs to no keyword"},
        BadPo{"BadUtf8", "msgid \"a\"\nmsgstr \"\xC3\x28\"\n", 1, "UTF-8"},
        BadPo{"Latin1Header",
              "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=ISO-8859-1\\n\"\n", 1,
              "charset"},
        BadPo{"PluralOutOfOrder", "msgid \"a\"\nmsgid_plural \"b\"\nmsgstr[1] \"c\"\n", 3,
              "out of order"},
        BadPo{"PluralWithPlainMsgstr", "msgid \"a\"\nmsgid_plural \"b\"\nmsgstr \"c\"\n", 3,
              "msgstr[0]"},
        BadPo{"ContextTwice", "msgctxt \"a\"\nmsgctxt \"b\"\nmsgid \"c\"\nmsgstr \"\"\n", 2,
              "msgctxt"}),
    [](const testing::TestParamInfo<BadPo>& param) { return std::string(param.param.name); });

TEST(PoCatalog, EmptyOrCommentOnlyFileIsValidAndTranslatesNothing)
{
    for (const char* content : {"", "\xEF\xBB\xBF", "# nothing here\n\n#, fuzzy\n", "\r\n\r\n"}) {
        const PoParseResult parsed = ParsePo(content);
        ASSERT_TRUE(parsed.ok) << parsed.error;
        EXPECT_EQ(PoCatalog::FromEntries(parsed.entries).Size(), 0u);
    }
}

TEST(PoCatalog, TranslationWithOtherConversionsIsLeftOutWithAWarning)
{
    const PoParseResult parsed = ParsePo("msgid \"Voice Effect %d\"\nmsgstr \"Effekt %s\"\n"
                                         "msgid \"%s\\nError code: %u\"\nmsgstr \"%s\\nCode: %u\"\n"
                                         "msgid \"Stop all\"\nmsgstr \"Alles %s\"\n"
                                         "msgid \"Name: %s, %s\"\nmsgstr \"Name: %s\"\n");
    ASSERT_TRUE(parsed.ok) << parsed.error;
    std::vector<std::string> warnings;
    const PoCatalog catalog = PoCatalog::FromEntries(parsed.entries, &warnings);
    EXPECT_EQ(catalog.Find("Voice Effect %d"), nullptr);
    EXPECT_EQ(catalog.Find("Stop all"), nullptr);
    EXPECT_EQ(catalog.Find("Name: %s, %s"), nullptr);
    ASSERT_NE(catalog.Find("%s\nError code: %u"), nullptr);
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_NE(warnings[0].find("line 1"), std::string::npos) << warnings[0];
    EXPECT_NE(warnings[0].find("Voice Effect %d"), std::string::npos) << warnings[0];
}

struct FormatCase {
    const char* format;
    Tokens tokens;
};

class PrintfConversionsOf : public testing::TestWithParam<FormatCase> {};

TEST_P(PrintfConversionsOf, ListsTheArgumentsInOrder)
{
    EXPECT_EQ(PrintfConversions(GetParam().format), GetParam().tokens) << GetParam().format;
}

INSTANTIATE_TEST_SUITE_P(
    Formats, PrintfConversionsOf,
    testing::Values(FormatCase{"plain text", {}}, FormatCase{"100%% sure", {}},
                    FormatCase{"%s\nError code: %u", {"s", "u"}},
                    FormatCase{"%-10s|%05.2f|%+d|%#x", {"s", "f", "d", "x"}},
                    FormatCase{"%*d and %.*s", {"*", "d", "*", "s"}},
                    FormatCase{"%lu %lld %hhu %zu %Lf", {"lu", "lld", "hhu", "zu", "Lf"}},
                    FormatCase{"%2$s then %1$s", {"2$s", "1$s"}},
                    FormatCase{"dangling %", {"!"}}, FormatCase{"%y", {"!"}},
                    FormatCase{"wFormatTag=%u)", {"u"}}));

TEST(PoCatalog, QuotedTextsReadBackUnchanged)
{
    std::vector<std::string> texts = {"", "a \"quoted\" \\ text", "one\ntwo\n", "\nlead",
                                      "tab\there\r\x01\x1f", "ä ß „x“ 😀"};
    for (const StringTableEntry& entry : StringTable())
        texts.emplace_back(entry.text);
    for (const std::string& text : texts) {
        const std::string po = PoQuote("msgid", "key") + PoQuote("msgstr", text) + "\n" +
                               PoQuote("msgid", text + "#") + PoQuote("msgstr", "x");
        const PoParseResult parsed = ParsePo(po);
        ASSERT_TRUE(parsed.ok) << parsed.error << "\n" << po;
        ASSERT_EQ(parsed.entries.size(), 2u);
        EXPECT_EQ(parsed.entries[0].translations.front(), text);
        EXPECT_EQ(parsed.entries[1].id, text + "#");
    }
}

// An empty msgid_plural still makes a plural entry: its msgstr[1] must not be lost when the
// entry is written back.
TEST(PoCatalog, EmptyPluralIdKeepsEveryTranslation)
{
    const PoParseResult parsed = ParsePo("msgid \"%u file\"\nmsgid_plural \"\"\n"
                                         "msgstr[0] \"%u Datei\"\nmsgstr[1] \"%u Dateien\"\n");
    ASSERT_TRUE(parsed.ok) << parsed.error;
    ASSERT_EQ(parsed.entries.size(), 1u);
    const PoEntry& entry = parsed.entries.front();
    EXPECT_TRUE(entry.hasPlural);
    EXPECT_EQ(entry.idPlural, "");
    EXPECT_EQ(entry.translations, (std::vector<std::string>{"%u Datei", "%u Dateien"}));
    EXPECT_FALSE(ParsePo("msgid \"a\"\nmsgstr \"b\"\n").entries.front().hasPlural);
}

} // namespace
} // namespace larimo
