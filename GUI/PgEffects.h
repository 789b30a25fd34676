// SPDX-License-Identifier: GPL-3.0-or-later
// The voice effects tab: every effect of the settings, the three slots of the main window, a
// preview on the user's own voice, new, edit and delete, and when the user hears themselves.
#pragma once

#include "OptionsPage.h"

#include <array>
#include <functional>
#include <string>

class QLabel;
class QPushButton;
class QRadioButton;
class QTreeWidget;

namespace larimo {

struct VoiceEffect;

/// Window thread.
class CPgEffects final : public COptionsPage {
    Q_OBJECT
public:
    // Control ids.
    static constexpr int kSlotTextIds[3] = {1023, 1031, 1035};
    static constexpr int kTakeIds[3] = {1025, 1033, 1037};
    static constexpr int kListId = 1027;
    static constexpr int kTestId = 1028;
    static constexpr int kNewId = 1030;
    static constexpr int kEditId = 1029;
    static constexpr int kDeleteId = 1034;
    static constexpr int kAlwaysId = 1125;
    static constexpr int kOnlyId = 1126;

    explicit CPgEffects(COptionsSheet& sheet);

    bool OnSetActive() override;
    bool OnKillActive() override;
    void OnTestStop() override;

    // The handlers, as the controls run them.
    void OnTake(int slot);
    void OnTest(bool pressed);
    void OnNew();
    void OnEdit();
    void OnDelete();
    /// Selects row `row` of the list (-1: none) as a click does.
    void SelectRow(int row);

    /// How the effect editor is run; tests replace it. Returns whether it ended with OK.
    using EditorRunner = std::function<bool(QWidget* parent, VoiceEffect& effect, Config& real, Config& working)>;
    void SetEditorRunner(EditorRunner runner) { m_editorRunner = std::move(runner); }

    QTreeWidget* List() const { return m_list; }
    QLabel* SlotText(int slot) const { return m_slotTexts[static_cast<size_t>(slot)]; }
    QPushButton* TestButton() const { return m_test; }

private:
    void FillList();
    void Select(int row);
    void TestStart(const std::string& effectName);
    void StopPreview();
    void ReleaseTest();
    std::string SelectedName() const;
    int SelectedRow() const;
    bool RunEditor(VoiceEffect& effect);

    QTreeWidget* m_list = nullptr;
    std::array<QLabel*, 3> m_slotTexts{};
    QPushButton* m_test = nullptr;
    QPushButton* m_edit = nullptr;
    QPushButton* m_delete = nullptr;
    QRadioButton* m_always = nullptr;
    QRadioButton* m_only = nullptr;
    bool m_testToggle = false;
    EditorRunner m_editorRunner;
};

} // namespace larimo
