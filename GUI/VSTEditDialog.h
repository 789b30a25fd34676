// SPDX-License-Identifier: GPL-3.0-or-later
// The parameter window of a loaded plug-in: the plug-in's own editor in a native X11 window,
// or rows of name, value field and slider made from its parameter list. Every turn of a knob
// reaches the plug-in at once.
#pragma once

#include "effect.h"

#include <QPoint>
#include <QPointer>
#include <QString>

#include <memory>
#include <string>
#include <vector>

class QDialog;
class QLabel;
class QLineEdit;
class QSlider;
class QWidget;

namespace larimo {

class ParamWindowFrame;

/// Window thread. Made by MoAudioEffect::Config through the factory below and destroyed by
/// CloseConfig or with its effect.
class VSTEditDialog final : public EffectParamWindow {
public:
    // Control ids of the generated window.
    static constexpr int kOkId = 1001;
    static constexpr int kCancelId = 1002;
    static constexpr int kGroupId = 1003;
    static constexpr int kValueIdBase = 2000;
    static constexpr int kSliderIdBase = 3000;
    static constexpr int kTimerMs = 100;
    static constexpr int kMinEditorSide = 50;
    static constexpr int kValueChars = 8;

    VSTEditDialog(MoAudioEffect& effect, std::string baseName, QWidget* parent);
    ~VSTEditDialog() override;
    VSTEditDialog(const VSTEditDialog&) = delete;
    VSTEditDialog& operator=(const VSTEditDialog&) = delete;

    /// The maker SetEffectParamWindowFactory takes.
    static std::unique_ptr<EffectParamWindow> Make(MoAudioEffect& effect, const std::string& baseName, void* parent);

    /// False, after telling the user, when the effect has neither parameters nor an editor, or
    /// when the window could not be made.
    bool ShowNotModal(void* parent) override;
    /// As the close box: the window ends with code 1.
    void Close() override;
    /// Ends the window: 1 for OK or the close box, 2 for cancel or a failed plug-in editor.
    void EndEditDialog(int code);

    /// The window while it is open, else null.
    QDialog* Window() const;
    /// Whether the plug-in's own editor is shown (else the generated rows).
    bool ShowsPluginEditor() const { return m_pluginEditor; }
    /// The code the window ended with; 0 while open or never shown.
    int Result() const { return m_result; }

    /// Where the last parameter window of the process stood (its client area's top left).
    static QPoint RememberedPosition();
    static void ForgetPosition();

private:
    friend class ParamWindowFrame;

    struct Row {
        QLabel* name = nullptr;
        QLineEdit* value = nullptr;
        QSlider* slider = nullptr;
        QLabel* shown = nullptr;
    };

    bool InitDialog();
    bool OpenPluginEditor();
    void BuildParamControls();
    void PlaceWindow();
    void OnSliderMoved(int index, int position);
    void OnValueEdited(int index, const QString& text);
    void OnTimer();
    void OnMoved();
    void RefreshShownValue(int index);
    // Runs plug-in code through the effect and reports a fault it caused.
    template <typename Call>
    bool Plugin(Call&& call);
    void ReportFault();
    // Lets go of the window (it is deleted from the event loop) and of the effect.
    void DropWindow(int code);
    QString Title() const;

    MoAudioEffect* m_effect;
    std::string m_baseName;
    std::string m_effectName;
    std::string m_modulePath;
    QPointer<QWidget> m_parent;
    QPointer<ParamWindowFrame> m_window;
    QWidget* m_editorHost = nullptr;
    std::vector<Row> m_rows;
    int m_timer = 0;
    bool m_pluginEditor = false;
    bool m_placed = false;
    int m_result = 0;
};

} // namespace larimo
