// SPDX-License-Identifier: GPL-3.0-or-later
#include "OptionsTestSupport.h"

#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "moipc_cmds.h"
#include "texts.h"
#include "wintools.h"

#include <QTest>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace larimo::test {

int AnsweringSink::ShowMessageBox(void* /*owner*/, const std::string& text, const std::string& caption,
                                  unsigned style)
{
    m_texts.push_back(text);
    m_captions.push_back(caption);
    return (style & MB_TYPEMASK) == MB_YESNO ? m_answer : IDOK;
}

std::string PanelSettings(const std::string& extra)
{
    const std::string source = LARIMO_SOURCE_DIR;
    return "[sys]\nwizard=1\nlangsPath=" + source + "/data/lang/\nlangFile=" + source +
           "/data/lang/larimo_en.tra\n" + extra;
}

OptionsTest::OptionsTest(const std::string& configIni)
    : m_service(configIni)
{
}

void OptionsTest::SetUpTestSuite()
{
    UsePrivateObjectNamespace();
}

void OptionsTest::TearDownTestSuite()
{
    RemovePrivateObjectNamespace();
}

void OptionsTest::SetUp()
{
    const char* server = std::getenv("PULSE_SERVER");
    if (server == nullptr || std::strstr(server, "soundserver") == nullptr)
        GTEST_SKIP() << "needs the private sound server of the CTest fixture (PULSE_SERVER)";
    const std::string folder = m_service.Folder().string();
    LogOpen(folder + "/larimocl.log", true, false, false, false, false);
    SetDataRoot(folder);
    LibInit(folder);
    m_settings = std::make_unique<Config>(folder);
    m_settings->LoadAll();
    ASSERT_TRUE(StartTexts(m_settings->m_langsPath, m_settings->m_langFile));
    SetMessageBoxSink(&m_sink);
    SetMessageDefaults(nullptr, "Larimo");
}

void OptionsTest::TearDown()
{
    m_sheet.reset();
    SetCommandClient(nullptr);
    SetMessageBoxSink(nullptr);
    EndTexts();
}

void OptionsTest::Connect()
{
    ASSERT_TRUE(m_service.Start());
    SetCommandClient(ConnectToService(kIpcBaseName));
    ASSERT_NE(CommandClient(), nullptr);
    m_connected = true;
}

int OptionsTest::Requests(uint32_t code) const
{
    QTest::qWait(100);
    std::istringstream log(File("larimosrv.log"));
    const std::string needle = "Request " + std::to_string(code) + ",";
    int count = 0;
    for (std::string line; std::getline(log, line);)
        count += line.find(needle) != std::string::npos ? 1 : 0;
    return count;
}

COptionsSheet& OptionsTest::OpenSheet(int index, CMoListBox* funSounds)
{
    m_sheet = std::make_unique<COptionsSheet>(nullptr, *m_settings, &m_connected);
    m_sheet->AddPages(funSounds);
    m_sheet->show();
    m_sheet->SetActivePage(index);
    return *m_sheet;
}

std::string OptionsTest::File(const std::string& name) const
{
    std::ifstream in(m_service.Folder() / name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace larimo::test
