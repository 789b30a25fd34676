// SPDX-License-Identifier: GPL-3.0-or-later
#include "OptionsPage.h"

#include "DialogTools.h"
#include "OptionsSheet.h"
#include "config.h"
#include "error.h"
#include "help.h"
#include "mlog.h"
#include "moipc_cli.h"
#include "texts.h"

#include <QKeyEvent>

namespace larimo {

namespace {

// The texts of the tab titles.
constexpr unsigned kTitleTexts[][2] = {
    {kPageEffects, 300}, {kPageBackSounds, 301}, {kPageEmotics, 302}, {kPageShortcuts, 303}, {kPageSoundCard, 304},
};

void* Owner(QWidget* widget)
{
    return static_cast<void*>(widget);
}

} // namespace

QString OptionsPageTitle(int templateId)
{
    for (const auto& [id, text] : kTitleTexts) {
        if (static_cast<int>(id) == templateId)
            return UiText(text);
    }
    return {};
}

CMyPropertyPage::CMyPropertyPage(int templateId, QWidget* parent)
    : QWidget(parent)
    , m_templateId(templateId)
{
    setObjectName(QStringLiteral("page%1").arg(templateId));
}

QString CMyPropertyPage::Title() const
{
    return OptionsPageTitle(m_templateId);
}

void CMyPropertyPage::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_F1) {
        ShowHelp();
        event->accept();
        return;
    }
    QWidget::keyPressEvent(event);
}

bool COptionsPage::s_modified = false;

COptionsPage::COptionsPage(COptionsSheet& sheet, int templateId)
    : CMyPropertyPage(templateId)
    , m_sheet(sheet)
{
    s_modified = false;
}

Config& COptionsPage::Working()
{
    return m_sheet.Working();
}

const Config& COptionsPage::Real() const
{
    return m_sheet.Real();
}

TestStream& COptionsPage::Test()
{
    return m_sheet.Test();
}

void COptionsPage::SetModified(bool modified)
{
    s_modified = modified;
    m_sheet.SetPageModified(this, modified);
}

bool COptionsPage::IsModified()
{
    return s_modified;
}

bool COptionsPage::OnApply()
{
    if (!s_modified)
        return true;
    s_modified = false;
    LogScopeInfo("COptionsPage::OnApply");
    // The devices may have changed: the preview stream opens them again, so a preview that
    // plays now ends first and its page hears of it.
    if (Test().IsRunning())
        Test().Stop();
    Test().InitTestStream(Working(), Owner(this));
    m_sheet.Real() = Working();
    m_sheet.Real().SaveAll();
    if (const auto client = CommandClient())
        client->SrvUpdate();
    return true;
}

void COptionsPage::OnCancel()
{
    s_modified = false;
}

bool COptionsPage::OnSetActive()
{
    LogInfo("Page changed");
    Test().SetOwner(this);
    return true;
}

bool COptionsPage::OnKillActive()
{
    Test().Stop();
    Test().SetOwner(nullptr);
    return true;
}

void COptionsPage::MonitorOff()
{
    m_sheet.MonitorOff();
}

void COptionsPage::MonitorRestore()
{
    m_sheet.MonitorRestore();
}

void COptionsPage::ShowHelp()
{
    HelpShow(Owner(this), TemplateId());
}

void COptionsPage::ErrorBox(const std::string& text)
{
    larimo::ErrorBox(this, text);
}

void COptionsPage::WarningBox(const std::string& text)
{
    larimo::WarningBox(this, text);
}

bool COptionsPage::AskQuestion(const std::string& text)
{
    return larimo::AskQuestion(this, text);
}

bool COptionsPage::AskWarningQuestion(const std::string& text)
{
    return larimo::AskWarningQuestion(this, text);
}

} // namespace larimo
