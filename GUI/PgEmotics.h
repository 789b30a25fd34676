// SPDX-License-Identifier: GPL-3.0-or-later
// The fun sounds tab: the library's groups and sounds as a tree, and the "Used" list of fun
// sounds the main window offers, with import, delete, new groups and a preview.
#pragma once

#include "SoundPage.h"

#include <string>

class QTreeWidget;
class QTreeWidgetItem;

namespace larimo {

class CMoListBox;

/// Window thread.
class CPgEmotics final : public CSoundPage {
    Q_OBJECT
public:
    static constexpr int kUsedId = 1108;
    static constexpr int kTreeId = 1107;
    static constexpr int kAddId = 1109;
    static constexpr int kRemoveId = 1030;
    static constexpr int kNewGroupId = 1111;
    static constexpr int kTreeDeleteId = 1112;
    static constexpr int kImportId = 1113;
    /// The text of a group that is being named.
    static constexpr const char* kNewGroupText = "New Folder";

    /// `funSounds` is the main window's fun sound list: its rows limit the Used list (null: no
    /// limit).
    CPgEmotics(COptionsSheet& sheet, CMoListBox* funSounds);

    // The handlers, as the controls run them.
    void OnAdd();
    void OnRemove();
    void OnTest();
    void OnNewGroup();
    void OnTreeDelete();
    void OnImport();
    /// Removes `file` (relative, "Group\Name.wav") from the library, both used lists, the
    /// settings file and the service.
    bool DeleteSound(const std::string& file);

    QTreeWidget* Used() const { return m_used; }
    QTreeWidget* Tree() const { return m_tree; }
    /// The library path of a tree item ("Party\Laugh"), groups joined with "\".
    static std::string ItemPath(const QTreeWidgetItem* item);
    int SlotLimit() const { return m_limit; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void FillTree(const std::string& folder, QTreeWidgetItem* parent);
    void RefillTree();
    void AddUsedRow(int at, const std::string& name, const std::string& file);
    void RebuildUsed();
    void OnGroupEditEnded(QTreeWidgetItem* item, bool cancelled);
    QTreeWidgetItem* TargetGroup() const;
    static bool IsGroup(const QTreeWidgetItem* item);

    QTreeWidget* m_used = nullptr;
    QTreeWidget* m_tree = nullptr;
    QPushButton* m_add = nullptr;
    QTreeWidgetItem* m_naming = nullptr;
    int m_limit = -1;
};

} // namespace larimo
