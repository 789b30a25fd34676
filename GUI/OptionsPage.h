// SPDX-License-Identifier: GPL-3.0-or-later
// The page base of the options sheet and the wizard: a tab that has a help topic, and an
// options page that edits the sheet's working copy of the settings, shares the sheet's
// preview stream and hears when a preview stops.
#pragma once

#include "teststream.h"

#include <QString>
#include <QWidget>

#include <string>

namespace larimo {

class Config;
class COptionsSheet;

/// Dialog template ids of the options pages; each is also the page's help topic.
enum OptionsPageId : int {
    kPageShortcuts = 106,
    kPageEffects = 107,
    kPageBackSounds = 108,
    kPageSoundCard = 109,
    kPageEmotics = 134,
};

/// The tab title of an options page, translated. Window thread.
QString OptionsPageTitle(int templateId);

/// A page with a help topic: F1 and the sheet's Help button call ShowHelp. Window thread.
class CMyPropertyPage : public QWidget {
    Q_OBJECT
public:
    explicit CMyPropertyPage(int templateId, QWidget* parent = nullptr);

    int TemplateId() const { return m_templateId; }
    /// The text of the page's tab.
    virtual QString Title() const;
    /// Opens the page's help; does nothing by default.
    virtual void ShowHelp() {}

    // What the sheet tells its pages, as a property sheet does: the page becomes the visible
    // tab, is left (false keeps it), is asked to apply (false keeps the sheet open), or the
    // sheet is cancelled. Only pages that have been shown are asked to apply or cancel.
    virtual bool OnSetActive() { return true; }
    virtual bool OnKillActive() { return true; }
    virtual bool OnApply() { return true; }
    virtual void OnCancel() {}

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    const int m_templateId;
};

/// One page of the options sheet. Pages work on the sheet's working copy; the real settings
/// change only when the sheet applies. Window thread.
class COptionsPage : public CMyPropertyPage, public TestStreamOwner {
    Q_OBJECT
public:
    COptionsPage(COptionsSheet& sheet, int templateId);

    COptionsSheet& Sheet() { return m_sheet; }
    Config& Working();
    /// The main window's settings: read them, never write them from a page.
    const Config& Real() const;
    TestStream& Test();

    /// One flag for every page of the process: any page that changed something sets it, and
    /// the first page asked to apply does the work for all. Also enables Apply.
    void SetModified(bool modified);
    static bool IsModified();

    /// Copies the working copy into the real settings, saves them and has the service read
    /// them, once, if anything was changed. True: the sheet may close.
    bool OnApply() override;
    void OnCancel() override;
    /// The page becomes the visible tab: it owns the preview stream from now on.
    bool OnSetActive() override;
    /// The page is left: its preview stops and the stream has no owner.
    bool OnKillActive() override;
    void OnTestStop() override {}

    /// The service's listen-in off while a preview plays, and back to the real setting.
    void MonitorOff();
    void MonitorRestore();

    void ShowHelp() override;

    // Message boxes with the application title as their caption. Ask* return true for Yes.
    void ErrorBox(const std::string& text);
    void WarningBox(const std::string& text);
    bool AskQuestion(const std::string& text);
    bool AskWarningQuestion(const std::string& text);

private:
    friend class COptionsSheet;
    static bool s_modified;

    COptionsSheet& m_sheet;
};

} // namespace larimo
