// SPDX-License-Identifier: GPL-3.0-or-later
// The main window: the skinned control panel of the voice service. It owns the link to the
// service (the observer, the event thread and the process-wide command client) and turns every
// user action into a settings write and, while connected, one command.
#pragma once

#include "PanelActions.h"
#include "ProgrammState.h"
#include "ServiceEventThread.h"
#include "config.h"
#include "defsnc.h"
#include "sharemem.h"

#include "DynBitmap.h"
#include "DynRgn.h"

#include <QDialog>
#include <QPointer>
#include <QSystemTrayIcon>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class QMenu;

namespace larimo {

class CFFButton;
class CFFSliderCtrl;
class CFFStaticText;
class CMoListBox;
class GlobalHotKeys;
class OSCI;

/// The main window. Every member is for the window thread unless it says otherwise.
class CLarimoDlg : public QDialog, public ServiceLinkListener {
    Q_OBJECT
public:
    // Control ids of the main window, shared with its skin objects.
    enum ControlId : int {
        kEffectRadio1 = 1003,
        kEffectText1 = 1006,
        kEffectConfig1 = 1076,
        kSoundSlider1 = 1009,
        kSoundRadio1 = 1012,
        kSoundText1 = 1015,
        kSoundConfig1 = 1086,
        kFunSoundList = 1079,
        kStopAll = 1084,
        kMonitor = 1072,
        kMonitorLevel = 1073,
        kOptions = 1018,
        kHelp = 57670,
        kAbout = 1115,
        kMinimize = 1116,
        kExit = 1117,
        kOsci = 1083,
        kDeviceLed = 1123,
    };
    static constexpr int kLedIntervalMs = 200;
    /// Base name of the service's running-state objects.
    static constexpr const char* kServStateName = "Global\\MO_ServState";
    /// Base name of the command channel.
    static constexpr const char* kIpcName = "Global\\MOS_ipc";

    explicit CLarimoDlg(QWidget* parent = nullptr);
    ~CLarimoDlg() override;
    CLarimoDlg(const CLarimoDlg&) = delete;
    CLarimoDlg& operator=(const CLarimoDlg&) = delete;

    /// Reads the settings, dresses the window from its skin and starts the service link.
    /// False after the "Skin error" box; the window must then not be shown.
    bool OnInitDialog();

    /// Observer thread: open and close the connection. They never wait for the window thread:
    /// whatever the window must do is posted to it.
    void ServOnStart() override;
    void ServOnStop() override;
    /// Service event thread.
    void OnEmotics();
    void UpdateOsci();

    bool IsConnected() const { return m_connected.load(); }
    Config& Settings() { return m_settings; }

    void UpdateParams(const Config& settings);
    void EnableWindows(bool enable);
    void CheckParams(const Config& settings);
    void ShowServiceErrors();

    // The handlers, callable from tests as the controls and hot keys call them.
    void OnSelectEffect(int ctrlId);
    void OnSelectSound(int ctrlId);
    void ConfigEffect(int slot);
    void ConfigSound(int slot);
    void ConfigEmotic(int row, int x, int y);
    void ChangeSoundFromSlider(int slot);
    void ChangeMonitorLvlFromSlider();
    void OnBnClickedMonitor();
    void StopAll();
    void StepBackSoundVolume(int slot, bool up);
    void OnPlayEmotic(int row);
    void OnLbnSelchangeEmoticList();
    void OnHotKey(int index);
    void OnAbout();
    /// The options sheet, modal; afterwards the window follows the settings again.
    void OnOptions();
    void OnHelp();
    void MinimizeToTray();
    void RestoreFromTray();
    void OnExit();
    void UpdateDeviceLed();

    /// The control with `ctrlId`, or null before the skin is loaded.
    QWidget* Control(int ctrlId) const;
    template <typename T>
    T* ControlAs(int ctrlId) const
    {
        return qobject_cast<T*>(Control(ctrlId));
    }
    int EffectIndex() const { return m_effectIndex; }
    int SoundIndex() const { return m_soundIndex; }
    QSystemTrayIcon* TrayIcon() const { return m_tray; }
    GlobalHotKeys* HotKeys() const { return m_hotKeys; }
    /// How many hot keys the last RegisterHotKeys made active.
    int ActiveHotKeys() const { return m_activeHotKeys; }

    /// The volume a slider stands for: its position, or 100 minus it on a vertical slider.
    static int SliderValue(const CFFSliderCtrl& slider);
    static void ShowSliderValue(CFFSliderCtrl& slider, int value);

    /// Fun sound menus: sub-folders become sub-menus, empty branches vanish. Appends to
    /// `paths` the path of every sound relative to the fun sound folder; an item's data is its
    /// index there plus 2. Returns whether any sound lies below `folder`.
    static bool CollectFunSounds(const std::string& folder, const std::string& root, QMenu& menu,
                                 std::vector<std::string>& paths);

    /// Posted by tests and other threads: runs `call` on the window thread.
    template <typename Call>
    void Post(Call call)
    {
        QMetaObject::invokeMethod(this, std::move(call), Qt::QueuedConnection);
    }

    /// How the menus of the configure buttons are shown. Tests replace it to pick an entry;
    /// the default runs the menu at `where` and returns the chosen action (null: dismissed).
    using MenuRunner = std::function<QAction*(QMenu& menu, const QPoint& where)>;
    void SetMenuRunner(MenuRunner runner) { m_menuRunner = std::move(runner); }

signals:
    /// The connection opened or closed and the controls follow it (window thread).
    void ConnectionChanged(bool connected);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
    void changeEvent(QEvent* event) override;
    void timerEvent(QTimerEvent* event) override;

public slots:
    void reject() override;
    void accept() override;

private:
    bool LoadSkin();
    void CreateControls();
    void WireControls();
    void RegisterHotKeys(const std::array<uint64_t, kShortcutCount>& shortcuts);
    void UnregisterHotKeys();
    void RefreshRadioGroups();
    int ReadRadioGroup(int firstId) const;
    void SetMonitorButton(bool on);
    void SelectEffect(int index);
    void SelectSound(int index);
    void ChangeSound(int slot, int volume);
    void GuiDeselecteEmotics();
    void GuiRefreshEmotics(const std::vector<bool>& flags);
    void ConnectedOnWindowThread();
    void DisconnectedOnWindowThread();
    void CreateTrayIcon();
    void Shutdown();
    bool OverDragBlocker(const QPoint& globalPoint) const;
    QAction* RunMenu(QMenu& menu, const QPoint& where);

    Config m_settings;
    PanelActions m_actions{m_settings};

    // The service link. m_serviceLock serialises ServOnStart and ServOnStop; the trace lock
    // guards the trace memory between the event thread and the stop.
    std::unique_ptr<ServState> m_observer;
    std::mutex m_serviceLock;
    std::atomic<bool> m_connected{false};
    ServiceEventThread m_events;
    std::mutex m_traceLock;
    std::unique_ptr<ShareMem> m_trace;

    std::unique_ptr<DriverControl> m_device;
    uint32_t m_lastActivity = 0;
    int m_ledTimer = 0;

    CDynRgn m_region;
    CDynBitmap m_background;

    int m_effectIndex = -1;
    int m_soundIndex = -1;
    QPoint m_dragAnchor{-1, -1};
    bool m_shutDown = false;

    std::map<int, QWidget*> m_controls;
    QPointer<QSystemTrayIcon> m_tray;
    QMenu* m_trayMenu = nullptr;
    GlobalHotKeys* m_hotKeys = nullptr;
    int m_activeHotKeys = 0;
    MenuRunner m_menuRunner;
};

} // namespace larimo
