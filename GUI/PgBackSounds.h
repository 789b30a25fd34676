// SPDX-License-Identifier: GPL-3.0-or-later
// The background tab: the library of background sounds, the three slots of the main window
// with their descriptions, a preview, import and delete.
#pragma once

#include "SoundPage.h"

#include <array>
#include <string>

class QLabel;
class QLineEdit;
class QListWidget;

namespace larimo {

/// Window thread.
class CPgBackSounds final : public CSoundPage {
    Q_OBJECT
public:
    static constexpr int kSlotTextIds[3] = {1023, 1031, 1035};
    static constexpr int kDescrIds[3] = {1039, 1040, 1041};
    static constexpr int kTakeIds[3] = {1025, 1033, 1037};
    static constexpr int kListId = 1027;
    static constexpr int kImportId = 1029;
    static constexpr int kDeleteId = 1030;

    explicit CPgBackSounds(COptionsSheet& sheet);

    // The handlers, as the controls run them.
    void OnTake(int slot);
    void OnTest();
    void OnImport();
    void OnDelete();
    /// Removes `file` from the library, both settings, the settings file and the service.
    bool DeleteSound(const std::string& file);

    QListWidget* List() const { return m_list; }
    QLabel* SlotText(int slot) const { return m_slotTexts[static_cast<size_t>(slot)]; }
    QLineEdit* Description(int slot) const { return m_descriptions[static_cast<size_t>(slot)]; }

private:
    void FillList();
    void UnTake(int slot);
    QString Selected() const;

    QListWidget* m_list = nullptr;
    std::array<QLabel*, 3> m_slotTexts{};
    std::array<QLineEdit*, 3> m_descriptions{};
};

} // namespace larimo
