// SPDX-License-Identifier: GPL-3.0-or-later
#include "error.h"
#include "exception.h"
#include "mlog.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace larimo {
namespace {

struct ShownBox {
    void* owner;
    std::string text;
    std::string caption;
    unsigned style;
};

class RecordingSink : public MessageBoxSink {
public:
    int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style) override
    {
        boxes.push_back({owner, text, caption, style});
        return answer;
    }

    std::vector<ShownBox> boxes;
    int answer = IDOK;
};

class MessageBoxes : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetMessageBoxSink(&m_sink);
        ResetDefaults();
    }
    void TearDown() override
    {
        SetMessageBoxSink(nullptr);
        ResetDefaults();
    }
    static void ResetDefaults() { SetMessageDefaults(nullptr, ""); }

    RecordingSink m_sink;
    int m_window = 0;
    int m_otherWindow = 0;
};

TEST_F(MessageBoxes, EveryBoxCarriesTheApplicationTitle)
{
    SetMessageDefaults(&m_window, "Larimo");
    m_sink.answer = IDYES;
    EXPECT_EQ(ShowInfo("Imported %d sounds", 3), IDYES);
    EXPECT_EQ(ShowMessage(&m_otherWindow, MB_YESNO | MB_ICONQUESTION, "Replace %s?", "Robot"), IDYES);
    ASSERT_EQ(m_sink.boxes.size(), 2U);
    EXPECT_EQ(m_sink.boxes[0].owner, nullptr) << "information boxes have no owner";
    EXPECT_EQ(m_sink.boxes[0].text, "Imported 3 sounds");
    EXPECT_EQ(m_sink.boxes[0].caption, "Larimo");
    EXPECT_EQ(m_sink.boxes[0].style, MB_ICONINFORMATION);
    EXPECT_EQ(m_sink.boxes[1].owner, &m_otherWindow);
    EXPECT_EQ(m_sink.boxes[1].text, "Replace Robot?");
    EXPECT_EQ(m_sink.boxes[1].caption, "Larimo");
    EXPECT_EQ(m_sink.boxes[1].style, MB_YESNO | MB_ICONQUESTION);

    // A null caption changes only the owner.
    SetMessageDefaults(&m_otherWindow, nullptr);
    EXPECT_EQ(MessageCaption(), "Larimo");
    EXPECT_EQ(MessageOwner(), &m_otherWindow);

    // The title is cut to 127 characters, counted as UTF-16 units, never inside a character.
    std::string longTitle;
    for (int i = 0; i < 100; ++i)
        longTitle += "\xC3\xBC"; // one unit each
    longTitle += std::string(100, 't');
    SetMessageDefaults(nullptr, longTitle.c_str());
    EXPECT_EQ(MessageCaption(), longTitle.substr(0, 200) + std::string(27, 't'));
}

TEST_F(MessageBoxes, MessagesAreCutAt3999Characters)
{
    const std::string huge(6000, 'm');
    ShowInfo("%s", huge.c_str());
    ShowMessage(nullptr, MB_OK, "%s", huge.c_str());
    ASSERT_EQ(m_sink.boxes.size(), 2U);
    EXPECT_EQ(m_sink.boxes[0].text.size(), 3999U);
    EXPECT_EQ(m_sink.boxes[1].text.size(), 3999U);
}

TEST_F(MessageBoxes, MyErrorShowsWithErrorCaptionUntilATitleIsSet)
{
    const MyError error("Cannot open %s", "Laugh.wav");
    EXPECT_EQ(error.Show(&m_window, MB_ICONERROR), IDOK);
    SetMessageDefaults(&m_otherWindow, "Larimo");
    m_sink.answer = IDCANCEL;
    EXPECT_EQ(error.Show(MB_OKCANCEL | MB_ICONWARNING), IDCANCEL);

    ASSERT_EQ(m_sink.boxes.size(), 2U);
    EXPECT_EQ(m_sink.boxes[0].caption, "Error");
    EXPECT_EQ(m_sink.boxes[0].owner, &m_window);
    EXPECT_EQ(m_sink.boxes[0].text, "Cannot open Laugh.wav");
    EXPECT_EQ(m_sink.boxes[0].style, MB_ICONERROR | MB_SETFOREGROUND);
    EXPECT_EQ(m_sink.boxes[1].caption, "Larimo");
    EXPECT_EQ(m_sink.boxes[1].owner, &m_otherWindow) << "Show(style) uses the default owner";
    EXPECT_EQ(m_sink.boxes[1].style, MB_OKCANCEL | MB_ICONWARNING | MB_SETFOREGROUND);
}

TEST(MyErrorValue, TravelsByValueWithItsTextCut)
{
    std::string caught;
    try {
        throw MyError("Effect %d: %s", 2, "bad plug-in");
    } catch (MyError error) {
        const MyError copy = error;
        error = MyError("other");
        caught = copy.Text();
        EXPECT_TRUE(copy.HasText());
    }
    EXPECT_EQ(caught, "Effect 2: bad plug-in");

    const std::string huge(2500, 'e');
    EXPECT_EQ(MyError("%s", huge.c_str()).Text().size(), 1999U);
}

struct FallbackCase {
    unsigned style;
    int answer;
};

class MessageFallback : public ::testing::TestWithParam<FallbackCase> {};

TEST_P(MessageFallback, WithoutASinkTheMessageIsLoggedAndTheCautiousAnswerReturned)
{
    const std::filesystem::path log =
        std::filesystem::temp_directory_path() / ("larimo-error-test-" + std::to_string(getpid()) + ".log");
    std::filesystem::remove(log);
    LogOpen(log.string(), false, false, false, false, true);
    SetMessageDefaults(nullptr, "Larimo");

    ::testing::internal::CaptureStderr();
    EXPECT_EQ(ShowMessage(nullptr, GetParam().style | MB_ICONERROR, "Service %s", "stopped"), GetParam().answer);
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(printed, "Larimo: Service stopped\n");

    LogOpen("", false, false, false, false, false);
    std::ifstream in(log, std::ios::binary);
    std::stringstream written;
    written << in.rdbuf();
    EXPECT_EQ(written.str(), "Error: Message \"Larimo\": Service stopped\r\n");
    std::filesystem::remove(log);
    SetMessageDefaults(nullptr, "");
}

INSTANTIATE_TEST_SUITE_P(Styles, MessageFallback,
                         ::testing::Values(FallbackCase{MB_OK, IDOK}, FallbackCase{MB_OKCANCEL, IDCANCEL},
                                           FallbackCase{MB_YESNO, IDNO}, FallbackCase{MB_YESNOCANCEL, IDCANCEL},
                                           FallbackCase{MB_ABORTRETRYIGNORE, IDABORT},
                                           FallbackCase{MB_RETRYCANCEL, IDCANCEL}));

TEST(SystemErrors, TextsComeFromTheSystemWithoutLineEnds)
{
    const std::string text = SystemErrorText(ENOENT);
    EXPECT_EQ(text, std::strerror(ENOENT));
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(SystemErrorText(0x7FFFFFF0U), "");
    EXPECT_EQ(SystemErrorText(0xFFFFFFFFU), "");
}

TEST(CMyExceptionText, KindDecidesHowTheTextIsMade)
{
    const CMyException missing(CMyException::kSystemError, 2, "Cannot open %s.", "config.ini");
    EXPECT_EQ(missing.Text(), "Cannot open config.ini. " + SystemErrorText(2));
    EXPECT_EQ(missing.Code(), 2U);
    EXPECT_EQ(missing.Kind(), CMyException::kSystemError);

    const CMyException unknown(CMyException::kSystemError, 0xE0001234U, "Driver");
    EXPECT_EQ(unknown.Text(), "Driver Unknown error code 0xE0001234.");
    const CMyException none(CMyException::kSystemError, CMyException::kNoCode, nullptr);
    EXPECT_EQ(none.Text(), " Unknown error code 0xFFFFFFFF.");
    const CMyException small(CMyException::kSystemError, 0x7FFFFFF0U, "x");
    EXPECT_EQ(small.Text(), "x Unknown error code 0x7FFFFFF0.");

    const CMyException plain(CMyException::kPlainText, CMyException::kNoCode, "Skin %s is missing", "Default");
    EXPECT_TRUE(plain.HasText());
    EXPECT_EQ(plain.Text(), "Skin Default is missing");
    EXPECT_FALSE(CMyException(CMyException::kPlainText, 0, "%s", "").HasText());
    EXPECT_FALSE(CMyException(CMyException::kPlainText, 0, nullptr).HasText());

    // Long messages are not cut to any box size.
    const std::string longText(5000, 'l');
    EXPECT_EQ(CMyException(CMyException::kPlainText, 0, "%s", longText.c_str()).Text(), longText);

    const auto owned = std::make_unique<CMyException>(plain);
    CMyException copy = *owned;
    EXPECT_EQ(copy.Text(), "Skin Default is missing");
    EXPECT_EQ(copy.Code(), CMyException::kNoCode);
}

struct NameCase {
    uint32_t code;
    const char* name;
};

class ExceptionNames : public ::testing::TestWithParam<NameCase> {};

TEST_P(ExceptionNames, CodeHasItsNameAndDescription)
{
    const char* name = ExceptionName(GetParam().code);
    ExceptionRecord record;
    record.code = GetParam().code;
    const std::string description = DescribeException(record);
    if (GetParam().name == nullptr) {
        EXPECT_EQ(name, nullptr);

        char hex[16];
        std::snprintf(hex, sizeof hex, "%x", GetParam().code);
        EXPECT_EQ(description, std::string("Unhandled exeption. Exception code: ") + hex);
    } else {
        ASSERT_NE(name, nullptr);
        EXPECT_STREQ(name, GetParam().name);
        if (GetParam().code != kExceptionAccessViolation) {
            EXPECT_EQ(description, std::string("Unhandled exeption. Exception code: ") + GetParam().name);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ExceptionNames,
    ::testing::Values(NameCase{0x80000001U, "EXCEPTION_GUARD_PAGE"},
                      NameCase{0x80000002U, "EXCEPTION_DATATYPE_MISALIGNMENT"},
                      NameCase{0x80000003U, "EXCEPTION_BREAKPOINT"},
                      NameCase{0x80000004U, "EXCEPTION_SINGLE_STEP"},
                      NameCase{0xC0000005U, "EXCEPTION_ACCESS_VIOLATION"},
                      NameCase{0xC0000006U, "EXCEPTION_IN_PAGE_ERROR"},
                      NameCase{0xC0000008U, "EXCEPTION_INVALID_HANDLE"},
                      NameCase{0xC000001DU, "EXCEPTION_ILLEGAL_INSTRUCTION"},
                      NameCase{0xC0000025U, "EXCEPTION_NONCONTINUABLE_EXCEPTION"},
                      NameCase{0xC0000026U, "EXCEPTION_INVALID_DISPOSITION"},
                      NameCase{0xC000008CU, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
                      NameCase{0xC000008DU, "EXCEPTION_FLT_DENORMAL_OPERAND"},
                      NameCase{0xC000008EU, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
                      NameCase{0xC000008FU, "EXCEPTION_FLT_INEXACT_RESULT"},
                      NameCase{0xC0000090U, "EXCEPTION_FLT_INVALID_OPERATION"},
                      NameCase{0xC0000091U, "EXCEPTION_FLT_OVERFLOW"},
                      NameCase{0xC0000092U, "EXCEPTION_FLT_STACK_CHECK"},
                      NameCase{0xC0000093U, "EXCEPTION_FLT_UNDERFLOW"},
                      NameCase{0xC0000094U, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
                      NameCase{0xC0000095U, "EXCEPTION_INT_OVERFLOW"},
                      NameCase{0xC0000096U, "EXCEPTION_PRIV_INSTRUCTION"},
                      NameCase{0xC00000FDU, "EXCEPTION_STACK_OVERFLOW"}, NameCase{0xE06D7363U, nullptr},
                      NameCase{0x80000000U, nullptr}, NameCase{0U, nullptr}, NameCase{0xC0000007U, nullptr}));

TEST(DescribeFault, AccessViolationsNameTheAccessAndTheAddress)
{
    ExceptionRecord record;
    record.code = kExceptionAccessViolation;
    record.numberParameters = 2;
    record.information[0] = 1;
    record.information[1] = 0x10;
    EXPECT_EQ(DescribeException(record), "Unhandled exeption. Access violation writing location by address 0x10");
    record.information[0] = 0;
    record.information[1] = 0xDEADBEEF;
    EXPECT_EQ(DescribeException(record),
              "Unhandled exeption. Access violation reading location by address 0xDEADBEEF");

    EXPECT_EQ(DescribeException(ExceptionRecord{0xE06D7363U}), "Unhandled exeption. Exception code: e06d7363");

    char small[10];
    std::memset(small, '#', sizeof small);
    EXPECT_EQ(DescribeException(record, small, sizeof small), kExceptionExecuteHandler);
    EXPECT_STREQ(small, "Unhandled");
    EXPECT_EQ(DescribeException(record, nullptr, 0), kExceptionExecuteHandler);
}

} // namespace
} // namespace larimo
