// SPDX-License-Identifier: GPL-3.0-or-later
// The effect editor: one voice effect's name, plug-in and knob settings, with the plug-in
// running live on the user's microphone while its knobs are turned, and the plug-in library
// (import, delete) at hand.
#pragma once

#include "teststream.h"
#include "voiceconfig.h"

#include <QDialog>

#include <memory>
#include <string>

class QLabel;
class QLineEdit;
class QListWidget;
class QPushButton;

namespace larimo {

class Config;

/// Modal. On OK the effect given to it holds the new name, plug-in and parameter values.
/// Window thread.
class CEditEffect final : public QDialog, public TestStreamOwner {
    Q_OBJECT
public:
    static constexpr int kTemplateId = 137;
    // Control ids.
    static constexpr int kNameId = 1101;
    static constexpr int kUsedId = 1146;
    static constexpr int kListId = 1089;
    static constexpr int kUseId = 3;
    static constexpr int kImportId = 1099;
    static constexpr int kDeleteId = 1100;
    static constexpr int kOkId = 1;
    static constexpr int kCancelId = 2;
    static constexpr int kHelpId = 57670;

    /// `real` is the main window's settings (plug-in deletes act on them at once), `working`
    /// the options sheet's working copy.
    CEditEffect(QWidget* parent, VoiceEffect& effect, Config& real, Config& working);
    ~CEditEffect() override;

    // The buttons' handlers, as a click on them runs them.
    void OnUse();
    void OnImport();
    void OnDeletePlugin();
    /// Removes the plug-in `name` from the library and from every effect and slot of both
    /// settings; the voice effects file is written at once. False when it is in use by the
    /// service.
    bool VstDelete(const std::string& name);

    TestStream& Test() { return *m_test; }
    bool ParamsChanged() const { return m_paramsChanged; }
    QLineEdit* NameField() const { return m_name; }
    QLabel* UsedPlugin() const { return m_used; }
    QListWidget* PluginList() const { return m_list; }
    QPushButton* Button(int ctrlId) const;
    /// Selects the list entry with exactly this text, ignoring case; false when none has it.
    bool SelectPlugin(const QString& name);

    void accept() override;

protected:
    void OnTestStop() override {}
    void moveEvent(QMoveEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void UpdateVstList();
    void UpdateOk();
    void OnSelectionChanged();
    void ConfigEffect(const std::string& plugin);
    void PlaceParamWindow();
    QString SelectedPlugin() const;
    static void OnParamChange(void* context, const std::vector<ParamValue>& params);

    VoiceEffect& m_effect;
    Config& m_real;
    Config& m_working;
    std::unique_ptr<TestStream> m_test;
    std::string m_startName;
    bool m_paramsChanged = false;

    QLineEdit* m_name = nullptr;
    QLabel* m_used = nullptr;
    QListWidget* m_list = nullptr;
    QPushButton* m_use = nullptr;
    QPushButton* m_import = nullptr;
    QPushButton* m_delete = nullptr;
    QPushButton* m_ok = nullptr;
};

} // namespace larimo
