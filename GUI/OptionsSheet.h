// SPDX-License-Identifier: GPL-3.0-or-later
// The options: a modal, tabbed sheet with OK, Cancel, Apply and Help over pages that edit a
// working copy of the settings and hand it back in one step.
#pragma once

#include "OptionsPage.h"
#include "config.h"

#include <QDialog>
#include <QDialogButtonBox>

#include <atomic>
#include <memory>
#include <set>

class QPushButton;
class QTabWidget;

namespace larimo {

class CMoListBox;
class TestStream;

/// A tabbed sheet of pages with OK, Cancel, Apply and Help. It asks its pages as a property
/// sheet does: OnKillActive and OnSetActive on a tab change, OnApply on every page shown so far
/// for OK and Apply, OnCancel for Cancel, Escape and the window's close box. Window thread.
class CMyPropertySheet : public QDialog {
    Q_OBJECT
public:
    CMyPropertySheet(const QString& caption, QWidget* parent, int firstPage = 0);

    /// The sheet takes the page; pages are shown in the order they were added.
    void AddPage(CMyPropertyPage* page);
    /// Takes a page out of the sheet again and hands it back to the caller.
    void RemovePage(CMyPropertyPage* page);
    int PageCount() const;
    CMyPropertyPage* Page(int index) const;
    CMyPropertyPage* ActivePage() const;
    int ActiveIndex() const;
    /// Switches tabs as a click on the tab does; false when the page that is left refused.
    bool SetActivePage(int index);
    /// Apply is enabled while some page says it has changes.
    void SetPageModified(CMyPropertyPage* page, bool modified);
    QPushButton* Button(QDialogButtonBox::StandardButton which) const;

    // The buttons, as a click on them does.
    void PressOk();
    void PressCancel();
    void PressApply();
    void PressHelp();

    int exec() override;

protected:
    /// OK, Cancel and the close box call this before the pages are asked.
    virtual void BeforeClose() {}
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void showEvent(QShowEvent* event) override;

public slots:
    void reject() override;
    void accept() override;

private:
    void OnTabChanged(int index);
    bool ApplyAll();
    void ActivateFirstPage();

    QTabWidget* m_tabs = nullptr;
    QDialogButtonBox* m_buttons = nullptr;
    std::set<CMyPropertyPage*> m_shown;
    std::set<CMyPropertyPage*> m_modifiedPages;
    int m_firstPage = 0;
    int m_current = -1;
    bool m_closing = false;
};

/// The options sheet of the main window. It holds the working copy, the one preview stream
/// of its pages and a view of the main window's connected flag. Window thread.
class COptionsSheet : public CMyPropertySheet {
    Q_OBJECT
public:
    /// Copies `real` into the working copy and opens the preview stream on its devices.
    COptionsSheet(QWidget* parent, Config& real, const std::atomic<bool>* connected, int firstPage = 0);
    ~COptionsSheet() override;

    /// Makes the five pages in tab order; `funSounds` is the main window's fun sound list,
    /// whose rows limit the fun sounds in use (may be null).
    void AddPages(CMoListBox* funSounds);

    Config& Working() { return m_working; }
    Config& Real() { return m_real; }
    TestStream& Test() { return *m_test; }
    bool Connected() const { return m_connected != nullptr && m_connected->load(); }
    /// The main window's own flag, for a worker that watches it (may be null).
    const std::atomic<bool>* ConnectedFlag() const { return m_connected; }

    /// The service's listen-in off for a preview, and back to what the real settings say.
    /// Nothing is sent while the service is not connected.
    void MonitorOff();
    void MonitorRestore();

protected:
    void BeforeClose() override;

private:
    Config& m_real;
    Config m_working;
    const std::atomic<bool>* m_connected;
    std::unique_ptr<TestStream> m_test;
};

} // namespace larimo
