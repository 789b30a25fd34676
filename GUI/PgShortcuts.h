// SPDX-License-Identifier: GPL-3.0-or-later
// The shortcut keys tab: every action of the main window with its hot key, bound by pressing
// the keys.
#pragma once

#include "OptionsPage.h"

#include <cstdint>
#include <functional>

class QEvent;
class QKeyEvent;
class QLabel;
class QPushButton;
class QTreeWidget;

namespace larimo {

/// Window thread.
class CPgShortcuts final : public COptionsPage {
    Q_OBJECT
public:
    static constexpr int kListId = 1027;
    static constexpr int kChangeId = 1124;
    static constexpr int kRemoveId = 1152;
    static constexpr int kPromptId = 1148;
    static constexpr int kNoticeId = 1149;

    enum class State { Idle, Selected, Capturing };

    explicit CPgShortcuts(COptionsSheet& sheet);
    ~CPgShortcuts() override;

    bool OnKillActive() override;

    // The handlers, as the controls run them.
    void SelectRow(int row);
    void OnChange();
    void OnRemove();

    State PageState() const { return m_state; }
    QTreeWidget* List() const { return m_list; }
    /// What the page says about the last binding (a key used twice, a key the desktop keeps).
    QLabel* Notice() const { return m_notice; }

    /// Asks whether the desktop lets Larimo have a hot key; the default tries an X11 grab and
    /// lets it go again, and says yes where no grab can be tried. Tests replace it.
    using KeyProbe = std::function<bool(uint32_t virtualKey, uint32_t modifiers)>;
    void SetKeyProbe(KeyProbe probe) { m_probe = std::move(probe); }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void Enter(State state);
    void CaptureKeyDown(const QKeyEvent& event);
    void CaptureKeyUp();
    void ShowNotice(int action);
    int Action(int row) const;
    bool ProbeKey(uint32_t virtualKey, uint32_t modifiers);

    QTreeWidget* m_list = nullptr;
    QPushButton* m_change = nullptr;
    QPushButton* m_remove = nullptr;
    QLabel* m_prompt = nullptr;
    QLabel* m_notice = nullptr;
    State m_state = State::Idle;
    int m_row = -1;
    QString m_savedText;
    uint32_t m_capturedKey = 0;
    KeyProbe m_probe;
};

} // namespace larimo
