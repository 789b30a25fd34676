// SPDX-License-Identifier: GPL-3.0-or-later
#include "LarimoDlg.h"

#include "AboutDlg.h"
#include "OptionsSheet.h"
#include "platform/GlobalHotKeys.h"
#include "platform/PortalHotKeys.h"

#include "FFButton.h"
#include "FFSliderCtrl.h"
#include "FFStaticText.h"
#include "MoListBox.h"
#include "SkinObjects.h"
#include "SkinParser.h"
#include "TraceMemory.h"
#include "osci.h"

#include "error.h"
#include "filltext.h"
#include "help.h"
#include "ipc.h"
#include "keyboard.h"
#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "texts.h"
#include "wintools.h"
#include "wmme.h"
#include "platform/NamedObjects.h"

#include <QCloseEvent>
#include <QFileInfo>
#include <QIcon>
#include <QWindow>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QSystemTrayIcon>

#include <algorithm>
#include <filesystem>

namespace larimo {

namespace {

constexpr const char* kTraceMemoryName = "Global\\MO_SHM_OSCI";
constexpr uint32_t kShareMemReadWrite = 2;
constexpr int kCancelCommand = 1;
// The text of the menus' Cancel entry.
constexpr unsigned kCancelText = 187;
constexpr int kFirstItemCommand = 2;
constexpr int kMaxFunSoundFlags = 60;
constexpr int kVolumeStep = 10;

// Controls over which a press starts no window drag: everything that acts on a click.
constexpr std::array<int, 24> kDragBlockers{1003, 1076, 1004, 1077, 1005, 1078, 1009, 1012,
                                            1086, 1010, 1013, 1087, 1011, 1014, 1088, 1079,
                                            1084, 1072, 1073, 1018, 57670, 1115, 1116, 1117};

QString Q(const std::string& text)
{
    return QString::fromStdString(text);
}

// The texts the buttons show when the skin gives them no caption.
QString TemplateText(int ctrlId)
{
    switch (ctrlId) {
    case CLarimoDlg::kAbout:
        return QStringLiteral("?");
    case CLarimoDlg::kMinimize:
        return QStringLiteral("_");
    case CLarimoDlg::kExit:
        return QStringLiteral("X");
    default:
        return {};
    }
}

// Static texts take the room their skin object asks for; the template's room otherwise.
QSize SkinSizeOf(CSkinParser& parser, const std::string& section, QSize size)
{
    if (!parser.FindObject(section))
        return size;
    while (parser.NextKey()) {
        int width = 0;
        int height = 0;
        if (parser.GetSize("size", width, height) && width > 0 && height > 0)
            size = QSize(width, height);
    }
    return size;
}

QIcon ApplicationIcon()
{
    for (const char* name : {"larimo.svg", "larimo.png"}) {
        const QString path = Q(ProgramFolder() + name);
        if (QFileInfo::exists(path))
            return QIcon(path);
    }
    return QIcon::fromTheme(QStringLiteral("audio-input-microphone"));
}

template <typename Command>
bool SendCommand(const char* scope, Command command)
{
    const std::shared_ptr<MoIpcCli> client = CommandClient();
    if (!client)
        return false;
    try {
        return command(*client);
    } catch (ShmErrorNum error) {
        LogError("%s: %s", scope, ShmErrorText(error).c_str());
        return false;
    }
}

} // namespace

CLarimoDlg::CLarimoDlg(QWidget* parent)
    : QDialog(parent, Qt::Window | Qt::FramelessWindowHint)
{
    setObjectName(QStringLiteral("LarimoDlg"));
    setWindowTitle(Q(GetText(113)));
    setWindowIcon(ApplicationIcon());
    setAttribute(Qt::WA_OpaquePaintEvent);
    DriverControlOpen(m_device);
    m_lastActivity = DriverControlQuery(m_device.get(), 1);
    CreateControls();
    WireControls();
    m_hotKeys = CreateGlobalHotKeys(this);
    connect(m_hotKeys, &GlobalHotKeys::Activated, this, &CLarimoDlg::OnHotKey);
    // The portal binds keys only once the desktop (and perhaps the user) said yes.
    if (auto* portal = qobject_cast<PortalHotKeys*>(m_hotKeys)) {
        connect(portal, &PortalHotKeys::BindFinished, this, [this, portal](bool bound) {
            m_activeHotKeys = bound ? portal->BoundCount() : 0;
            LogInfo("CLarimoDlg: the desktop confirmed %d hot keys", m_activeHotKeys);
        });
    }
    m_menuRunner = [](QMenu& menu, const QPoint& where) { return menu.exec(where); };
}

CLarimoDlg::~CLarimoDlg()
{
    Shutdown();
}

void CLarimoDlg::CreateControls()
{
    for (const SkinObject& object : kMainWindowSkinObjects) {
        QWidget* control = nullptr;
        switch (object.kind) {
        case SkinClass::Button:
        case SkinClass::RadioButton: {
            const unsigned style =
                object.kind == SkinClass::RadioButton ? CFFButton::kBsAutoRadioButton : CFFButton::kBsPushButton;
            auto* button = new CFFButton(this, style, object.ctrlId, TemplateText(object.ctrlId));
            button->SetRadioGroup(object.radioGroup);
            control = button;
            break;
        }
        case SkinClass::StaticText:
            control = new CFFStaticText(this, CFFStaticText::kSsEndEllipsis, object.ctrlId);
            control->resize(100, 16);
            break;
        case SkinClass::Slider:
            control = new CFFSliderCtrl(this, object.vertical ? Qt::Vertical : Qt::Horizontal, object.ctrlId);
            break;
        case SkinClass::FunSoundList:
            control = new CMoListBox(this, object.ctrlId);
            break;
        case SkinClass::Oscilloscope:
            control = new OSCI(this, object.ctrlId);
            break;
        }
        control->setObjectName(QStringLiteral("ctrl%1").arg(object.ctrlId));
        control->setProperty("ctrlId", object.ctrlId);
        m_controls[object.ctrlId] = control;
    }
    // The lamp only shows; the template has it disabled so skins draw it with those bitmaps.
    ControlAs<CFFButton>(kDeviceLed)->Enable(false);
}

void CLarimoDlg::WireControls()
{
    for (int i = 0; i < Config::kSlotCount; ++i) {
        connect(ControlAs<CFFButton>(kEffectRadio1 + i), &CFFButton::Clicked, this, &CLarimoDlg::OnSelectEffect);
        connect(ControlAs<CFFButton>(kSoundRadio1 + i), &CFFButton::Clicked, this, &CLarimoDlg::OnSelectSound);
        connect(ControlAs<CFFButton>(kEffectConfig1 + i), &CFFButton::Clicked, this, [this, i] { ConfigEffect(i); });
        connect(ControlAs<CFFButton>(kSoundConfig1 + i), &CFFButton::Clicked, this, [this, i] { ConfigSound(i); });
        connect(ControlAs<CFFSliderCtrl>(kSoundSlider1 + i), &CFFSliderCtrl::Scrolled, this,
                [this, i] { ChangeSoundFromSlider(i); });
    }
    connect(ControlAs<CFFSliderCtrl>(kMonitorLevel), &CFFSliderCtrl::Scrolled, this,
            [this] { ChangeMonitorLvlFromSlider(); });
    connect(ControlAs<CFFButton>(kMonitor), &CFFButton::Clicked, this, [this] { OnBnClickedMonitor(); });
    connect(ControlAs<CFFButton>(kStopAll), &CFFButton::Clicked, this, [this] { StopAll(); });
    connect(ControlAs<CFFButton>(kHelp), &CFFButton::Clicked, this, [this] { OnHelp(); });
    connect(ControlAs<CFFButton>(kAbout), &CFFButton::Clicked, this, [this] { OnAbout(); });
    connect(ControlAs<CFFButton>(kOptions), &CFFButton::Clicked, this, [this] { OnOptions(); });
    connect(ControlAs<CFFButton>(kMinimize), &CFFButton::Clicked, this, [this] { MinimizeToTray(); });
    connect(ControlAs<CFFButton>(kExit), &CFFButton::Clicked, this, [this] { OnExit(); });
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    connect(list, &CMoListBox::RowClicked, this, &CLarimoDlg::OnPlayEmotic);
    connect(list, &CMoListBox::ConfigureClicked, this, &CLarimoDlg::ConfigEmotic);
    connect(list, &CFFListBox::SelChange, this, [this] { OnLbnSelchangeEmoticList(); });
}

QWidget* CLarimoDlg::Control(int ctrlId) const
{
    const auto found = m_controls.find(ctrlId);
    return found == m_controls.end() ? nullptr : found->second;
}

bool CLarimoDlg::OnInitDialog()
{
    LogScopeInfo("CLarimoDlg::OnInitDialog");
    EnableWindows(false);
    m_connected = false;
    m_settings.LoadAll();
    m_observer = std::make_unique<ServState>(kServStateName);
    m_observer->ObserverStart(static_cast<ServiceLinkListener*>(this));
    m_ledTimer = startTimer(kLedIntervalMs);
    if (!LoadSkin())
        return false;
    UpdateParams(m_settings);
    ControlAs<CMoListBox>(kFunSoundList)->SetCurrent(-1);
    return true;
}

bool CLarimoDlg::LoadSkin()
{
    LogScopeInfo("CLarimoDlg::LoadSkin");
    CSkinParser parser;
    std::string error;
    const std::string skinFile = SettingsPathToFs(m_settings.m_skinFile, ProgramFolder());
    if (!parser.Init(skinFile)) {
        error = "Could not open skin file " + m_settings.m_skinFile;
    } else {
        if (parser.FindObject(std::string(kMainWindowSection))) {
            int width = this->width();
            int height = this->height();
            bool sized = false;
            std::string bitmap;
            std::string region;
            while (parser.NextKey()) {
                if (parser.GetSize("size", width, height))
                    sized = true;
                else if (!parser.GetFilePath("bitmap", bitmap))
                    parser.GetFilePath("region", region);
            }
            if (!region.empty()) {
                if (m_region.LoadFromPath(region, 1.0, 1.0))
                    setMask(m_region.Region());
                else
                    LogWarning("CLarimoDlg::LoadSkin: window region %s: %s", region.c_str(), m_region.LastError().c_str());
            }
            m_background.Reset();
            if (!bitmap.empty() && !m_background.LoadFromPath(bitmap))
                LogWarning("CLarimoDlg::LoadSkin: background %s: %s", bitmap.c_str(), m_background.LastError().c_str());
            if (sized)
                setFixedSize(std::max(1, width), std::max(1, height));
        }
        for (const SkinObject& object : kMainWindowSkinObjects) {
            const std::string section(object.section);
            QWidget* control = Control(object.ctrlId);
            bool ok = false;
            switch (object.kind) {
            case SkinClass::Button:
            case SkinClass::RadioButton:
                ok = static_cast<CFFButton*>(control)->parseSkin(parser, section, -1);
                break;
            case SkinClass::StaticText:
                control->resize(SkinSizeOf(parser, section, control->size()));
                ok = static_cast<CFFStaticText*>(control)->parseSkin(parser, section, -1);
                break;
            case SkinClass::Slider:
                ok = static_cast<CFFSliderCtrl*>(control)->parseSkin(parser, section, -1);
                break;
            case SkinClass::FunSoundList:
                ok = static_cast<CMoListBox*>(control)->parseSkin(parser, section, -1);
                break;
            case SkinClass::Oscilloscope:
                ok = static_cast<OSCI*>(control)->parseSkin(parser, section, -1);
                break;
            }
            if (!ok) {
                error = FillText(201, section.c_str());
                break;
            }
        }
    }
    if (!error.empty()) {
        LogError("CLarimoDlg::LoadSkin: %s", error.c_str());
        ShowMessageBox(this, error, GetText(202), MB_OK | MB_ICONERROR);
        return false;
    }
    update();
    return true;
}

// ------------------------------------------------------------------ state shown by the controls

void CLarimoDlg::UpdateParams(const Config& settings)
{
    const int definitions = static_cast<int>(settings.m_effects.size());
    for (int i = 0; i < Config::kSlotCount; ++i) {
        ControlAs<CFFStaticText>(kEffectText1 + i)
            ->SetText(i < definitions ? Q(settings.m_effectSlots[i]) : QString());
        ShowSliderValue(*ControlAs<CFFSliderCtrl>(kSoundSlider1 + i), settings.m_backSounds[i].m_volume);
        ControlAs<CFFStaticText>(kSoundText1 + i)->SetText(Q(settings.m_backSounds[i].m_descr));
    }
    m_effectIndex = settings.m_activeEffect;
    m_soundIndex = settings.m_activeBackSound;
    RefreshRadioGroups();

    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    list->ResetContent();
    int rows = static_cast<int>(settings.m_emotics.size());
    if (list->MaxItems() >= 0)
        rows = std::min(rows, list->MaxItems());
    for (int i = 0; i < rows; ++i)
        list->InsertItem(-1, Q(settings.m_emotics[static_cast<size_t>(i)].m_name));

    RegisterHotKeys(settings.m_shortcuts);
    ShowSliderValue(*ControlAs<CFFSliderCtrl>(kMonitorLevel), settings.m_monitorVol);
    SetMonitorButton(settings.m_monitorOn);
}

void CLarimoDlg::RefreshRadioGroups()
{
    for (int i = 0; i < Config::kSlotCount; ++i) {
        ControlAs<CFFButton>(kEffectRadio1 + i)->SetCheck(i == m_effectIndex ? 1 : 0);
        ControlAs<CFFButton>(kSoundRadio1 + i)->SetCheck(i == m_soundIndex ? 1 : 0);
    }
}

int CLarimoDlg::ReadRadioGroup(int firstId) const
{
    for (int i = 0; i < Config::kSlotCount; ++i) {
        if (ControlAs<CFFButton>(firstId + i)->GetCheck() != 0)
            return i;
    }
    return -1;
}

void CLarimoDlg::EnableWindows(bool enable)
{
    for (int i = 0; i < Config::kSlotCount; ++i) {
        ControlAs<CFFButton>(kEffectRadio1 + i)->Enable(enable);
        ControlAs<CFFButton>(kSoundRadio1 + i)->Enable(enable);
        // Slots stay configurable while the service is stopped; the service reads them later.
        if (enable) {
            ControlAs<CFFButton>(kEffectConfig1 + i)->Enable(true);
            ControlAs<CFFButton>(kSoundConfig1 + i)->Enable(true);
            ControlAs<CFFSliderCtrl>(kSoundSlider1 + i)->Enable(true);
        }
    }
    ControlAs<CFFButton>(kMonitor)->Enable(enable);
    ControlAs<CFFSliderCtrl>(kMonitorLevel)->Enable(enable);
    ControlAs<CMoListBox>(kFunSoundList)->setEnabled(enable);
    ControlAs<CFFButton>(kStopAll)->Enable(enable);
}

int CLarimoDlg::SliderValue(const CFFSliderCtrl& slider)
{
    return slider.orientation() == Qt::Vertical ? 100 - slider.value() : slider.value();
}

void CLarimoDlg::ShowSliderValue(CFFSliderCtrl& slider, int value)
{
    value = std::clamp(value, 0, 100);
    slider.setValue(slider.orientation() == Qt::Vertical ? 100 - value : value);
    slider.update();
}

void CLarimoDlg::SetMonitorButton(bool on)
{
    ControlAs<CFFButton>(kMonitor)->SetCheck(on ? 1 : 0);
    if (on && m_connected)
        ControlAs<CFFSliderCtrl>(kMonitorLevel)->Enable(true);
    else if (!on)
        ControlAs<CFFSliderCtrl>(kMonitorLevel)->Enable(false);
}

// ------------------------------------------------------------------ slots and volumes

void CLarimoDlg::SelectEffect(int index)
{
    m_actions.SelectEffect(index);
}

void CLarimoDlg::SelectSound(int index)
{
    m_actions.SelectSound(index);
}

void CLarimoDlg::OnSelectEffect(int /*ctrlId*/)
{
    const int previous = m_effectIndex;
    m_effectIndex = ReadRadioGroup(kEffectRadio1);
    if (m_effectIndex == previous) {
        m_effectIndex = -1;
        RefreshRadioGroups();
    }
    SelectEffect(m_effectIndex);
}

void CLarimoDlg::OnSelectSound(int /*ctrlId*/)
{
    const int previous = m_soundIndex;
    m_soundIndex = ReadRadioGroup(kSoundRadio1);
    if (m_soundIndex == previous) {
        m_soundIndex = -1;
        RefreshRadioGroups();
    }
    SelectSound(m_soundIndex);
}

void CLarimoDlg::ChangeSound(int slot, int volume)
{
    m_actions.ChangeSound(slot, volume);
}

void CLarimoDlg::ChangeSoundFromSlider(int slot)
{
    ChangeSound(slot, SliderValue(*ControlAs<CFFSliderCtrl>(kSoundSlider1 + slot)));
}

void CLarimoDlg::ChangeMonitorLvlFromSlider()
{
    m_actions.ChangeMonitorLvl(SliderValue(*ControlAs<CFFSliderCtrl>(kMonitorLevel)));
}

void CLarimoDlg::StepBackSoundVolume(int slot, bool up)
{
    if (slot < 0 || slot >= Config::kSlotCount)
        return;
    auto* slider = ControlAs<CFFSliderCtrl>(kSoundSlider1 + slot);
    const int volume = std::clamp(SliderValue(*slider) + (up ? kVolumeStep : -kVolumeStep), 0, 100);
    ChangeSound(slot, volume);
    ShowSliderValue(*slider, volume);
}

void CLarimoDlg::OnBnClickedMonitor()
{
    m_actions.ToggleMonitor();
    SetMonitorButton(m_settings.m_monitorOn);
}

void CLarimoDlg::StopAll()
{
    m_actions.StopAll();
    m_effectIndex = -1;
    m_soundIndex = -1;
    GuiDeselecteEmotics();
    RefreshRadioGroups();
}

// ------------------------------------------------------------------ fun sounds

void CLarimoDlg::OnPlayEmotic(int row)
{
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    LogInfo("slot=%d", row);
    if (row < 0 || row >= list->Count() || !m_connected)
        return;
    const bool marked = list->GetSel(row);
    const int current = list->Current();
    list->SetSel(row, !marked);
    m_actions.PlayFunSound(row, !marked);
    list->SetCurrent(current);
}

void CLarimoDlg::OnLbnSelchangeEmoticList()
{
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    const int row = list->Current();
    if (row >= 0 && m_connected)
        m_actions.PlayFunSound(row, list->GetSel(row));
}

void CLarimoDlg::GuiDeselecteEmotics()
{
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    for (int i = 0; i < list->Count(); ++i)
        list->SetSel(i, false);
}

void CLarimoDlg::GuiRefreshEmotics(const std::vector<bool>& flags)
{
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    const int current = list->Current();
    const int rows = std::min({list->Count(), kMaxFunSoundFlags, static_cast<int>(flags.size())});
    for (int i = 0; i < rows; ++i)
        list->SetSel(i, flags[static_cast<size_t>(i)]);
    list->SetCurrent(current);
}

void CLarimoDlg::OnEmotics()
{
    if (!m_connected)
        return;
    std::vector<bool> flags;
    if (!SendCommand("CLarimoDlg::OnEmotics", [&](MoIpcCli& client) { return client.EmoticsStatus(flags); }))
        return;
    Post([this, flags] { GuiRefreshEmotics(flags); });
}

void CLarimoDlg::UpdateOsci()
{
    std::vector<int16_t> samples;
    {
        std::lock_guard<std::mutex> lock(m_traceLock);
        if (!m_trace || !m_trace->Lock())
            return;
        try {
            uint32_t bytes = 0;
            m_trace->ReadAt(&bytes, sizeof bytes, 0);
            // The word is checked against the mapping before anything is sized by it.
            if (const std::optional<size_t> count = TraceSampleCount(bytes, m_trace->Size())) {
                samples.resize(*count);
                m_trace->ReadAt(samples.data(), samples.size() * 2, 4);
            } else {
                LogError("CLarimoDlg::UpdateOsci: the trace claims %u bytes in a mapping of %zu", bytes,
                         m_trace->Size());
            }
        } catch (ShmErrorNum error) {
            LogError("CLarimoDlg::UpdateOsci: %s", ShmErrorText(error).c_str());
            samples.clear();
        }
        m_trace->Unlock();
    }
    if (!samples.empty())
        ControlAs<OSCI>(kOsci)->SetData(samples.data(), samples.size());
}

// ------------------------------------------------------------------ configure menus

QAction* CLarimoDlg::RunMenu(QMenu& menu, const QPoint& where)
{
    return m_menuRunner ? m_menuRunner(menu, where) : nullptr;
}

void CLarimoDlg::ConfigEffect(int slot)
{
    LogInfo("%s(%d)", "CLarimoDlg::ConfigEffect", slot);
    if (slot < 0 || slot >= Config::kSlotCount)
        return;
    QMenu menu(this);
    for (size_t i = 0; i < m_settings.m_effects.size(); ++i)
        menu.addAction(Q(m_settings.m_effects[i].m_name))->setData(static_cast<int>(i) + kFirstItemCommand);
    menu.addAction(QString::fromStdString(GetText(kCancelText)))->setData(kCancelCommand);
    QAction* chosen = RunMenu(menu, ControlAs<CFFButton>(kEffectConfig1 + slot)->mapToGlobal(QPoint(0, 0)));
    if (chosen == nullptr)
        return;
    const int command = chosen->data().toInt();
    std::string name;
    if (command >= kFirstItemCommand && command - kFirstItemCommand < static_cast<int>(m_settings.m_effects.size()))
        name = m_settings.m_effects[static_cast<size_t>(command - kFirstItemCommand)].m_name;
    SendCommand("CLarimoDlg::ConfigEffect",
                [&](MoIpcCli& client) { return client.EffectSelect(static_cast<uint32_t>(slot), name); });
    ShowServiceErrors();
    m_settings.m_effectSlots[static_cast<size_t>(slot)] = name;
    ControlAs<CFFStaticText>(kEffectText1 + slot)->SetText(Q(name));
    m_settings.WriteEffectSlots();
}

void CLarimoDlg::ConfigSound(int slot)
{
    LogInfo("%s(%d)", "CLarimoDlg::ConfigSound", slot);
    if (slot < 0 || slot >= Config::kSlotCount)
        return;
    const std::vector<std::string> files = LibListBackSounds();
    QMenu menu(this);
    for (size_t i = 0; i < files.size(); ++i)
        menu.addAction(Q(LibBaseName(files[i])))->setData(static_cast<int>(i) + kFirstItemCommand);
    menu.addAction(Q(GetText(187)))->setData(kCancelCommand);
    QAction* chosen = RunMenu(menu, ControlAs<CFFButton>(kSoundConfig1 + slot)->mapToGlobal(QPoint(0, 0)));
    if (chosen == nullptr)
        return;
    const int command = chosen->data().toInt();
    std::string file;
    if (command >= kFirstItemCommand && command - kFirstItemCommand < static_cast<int>(files.size()))
        file = files[static_cast<size_t>(command - kFirstItemCommand)];
    SendCommand("CLarimoDlg::ConfigSound",
                [&](MoIpcCli& client) { return client.BackSoundSelect(static_cast<uint32_t>(slot), file); });
    ShowServiceErrors();
    BackSound& sound = m_settings.m_backSounds[static_cast<size_t>(slot)];
    sound.m_file = file;
    sound.m_descr = file.size() > 4 ? file.substr(0, file.size() - 4) : file;
    ControlAs<CFFStaticText>(kSoundText1 + slot)->SetText(Q(sound.m_descr));
    m_settings.WriteBackSound(slot);
}

bool CLarimoDlg::CollectFunSounds(const std::string& folder, const std::string& root, QMenu& menu,
                                  std::vector<std::string>& paths)
{
    namespace fs = std::filesystem;
    bool found = false;
    std::error_code error;
    fs::directory_iterator it(fs::path(folder), error);
    if (error)
        return false;
    for (; it != fs::directory_iterator(); it.increment(error)) {
        if (error)
            break;
        const fs::directory_entry& entry = *it;
        const std::string name = entry.path().filename().string();
        std::error_code kindError;
        if (entry.is_directory(kindError)) {
            auto* sub = new QMenu(Q(name), &menu);
            if (CollectFunSounds(entry.path().string(), root, *sub, paths)) {
                menu.addMenu(sub);
                found = true;
            } else {
                delete sub;
            }
            continue;
        }
        const std::string extension = entry.path().extension().string();
        if (!EqualsNoCase(extension, ".wav"))
            continue;
        const int command = static_cast<int>(paths.size()) + kFirstItemCommand;
        menu.addAction(Q(entry.path().stem().string()))->setData(command);
        std::string relative = entry.path().string();
        relative = relative.size() > root.size() ? relative.substr(root.size()) : name;
        while (!relative.empty() && relative.front() == '/')
            relative.erase(relative.begin());
        std::replace(relative.begin(), relative.end(), '/', '\\');
        paths.push_back(relative);
        found = true;
    }
    return found;
}

void CLarimoDlg::ConfigEmotic(int row, int x, int y)
{
    LogInfo("%s(%d)", "CLarimoDlg::ConfigEmotic", row);
    auto* list = ControlAs<CMoListBox>(kFunSoundList);
    if (row < 0 || row >= list->Count())
        return;
    std::vector<std::string> paths;
    QMenu menu(list);
    const std::string root = LibFunSoundsFolder();
    CollectFunSounds(root, root, menu, paths);
    menu.addAction(QString::fromStdString(GetText(kCancelText)))->setData(kCancelCommand);
    QAction* chosen = RunMenu(menu, QPoint(x, y));
    if (chosen == nullptr)
        return;
    const int command = chosen->data().toInt();
    if (command < kFirstItemCommand || command - kFirstItemCommand >= static_cast<int>(paths.size()))
        return;
    LogInfo("nEmotic=%d", row);
    const std::string& path = paths[static_cast<size_t>(command - kFirstItemCommand)];
    const std::string name = LibBaseName(path);
    if (static_cast<size_t>(row) >= m_settings.m_emotics.size())
        m_settings.m_emotics.resize(static_cast<size_t>(row) + 1);
    m_settings.m_emotics[static_cast<size_t>(row)] = Emotic{name, path};
    m_settings.WriteEmotics();
    SendCommand("CLarimoDlg::ConfigEmotic",
                [&](MoIpcCli& client) { return client.EmoticSelect(static_cast<uint32_t>(row), path); });
    list->DeleteItem(row);
    list->InsertItem(row, Q(name));
    list->SetCurrent(row);
}

// ------------------------------------------------------------------ checks and service errors

void CLarimoDlg::CheckParams(const Config& settings)
{
    LogScopeInfo("CLarimoDlg::CheckParams");
    std::vector<std::string> recording;
    std::vector<std::string> playback;
    PaGetSoundDevList(recording, 1);
    PaGetSoundDevList(playback, 2);
    const auto contains = [](const std::vector<std::string>& names, const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    const std::string virtualName(kVirtualDeviceName);
    std::string warning;
    int device = 0;
    if (settings.m_virtualDevice.empty() && PaGetDevNByName(virtualName, 2, device) != kMmeSuccess)
        warning = FillText(189, virtualName.c_str());
    else if (recording.empty() && playback.empty())
        warning = GetText(190);
    else if (recording.empty())
        warning = GetText(191);
    else if (playback.empty())
        warning = GetText(192);
    else if (!contains(recording, settings.m_input))
        warning = FillText(193, GetText(194).c_str(), settings.m_input.c_str());
    else if (!contains(playback, settings.m_monitor))
        warning = FillText(193, GetText(195).c_str(), settings.m_monitor.c_str());
    else if (!settings.m_virtualDevice.empty() && !contains(playback, settings.m_virtualDevice))
        warning = FillText(193, GetText(196).c_str(), settings.m_virtualDevice.c_str());
    if (!warning.empty()) {
        LogWarning("CLarimoDlg::CheckParams: %s", warning.c_str());
        ShowMessage(this, MB_OK | MB_ICONWARNING, "%s", warning.c_str());
    }
}

void CLarimoDlg::ShowServiceErrors()
{
    if (!m_connected)
        return;
    std::vector<std::string> errors;
    if (!SendCommand("CLarimoDlg::ShowServiceErrors", [&](MoIpcCli& client) { return client.SrvGetErrors(errors); }))
        return;
    if (errors.empty())
        return;
    std::string text;
    for (const std::string& error : errors)
        text += (text.empty() ? "" : "\n") + error;
    ShowMessage(this, MB_OK | MB_ICONERROR, "%s", text.c_str());
}

// ------------------------------------------------------------------ the service link

void CLarimoDlg::ServOnStart()
{
    LogEnter("CLarimoDlg::ServOnStart");
    std::lock_guard<std::mutex> lock(m_serviceLock);
    if (m_connected) {
        // The service announced itself again without a stop between: start afresh.
        m_events.Stop();
        SetCommandClient(nullptr);
        std::lock_guard<std::mutex> traceLock(m_traceLock);
        m_trace.reset();
        m_connected = false;
    }
    auto ipc = std::make_unique<IPC>(kIpcName);
    if (!ipc->Open()) {
        const uint32_t code = LastObjectError();
        ipc->Close();
        LogError("CLarimoDlg::ServOnStart: the service's objects could not be opened (%u)", code);
        Post([this, code] { ShowMessage(this, MB_OK | MB_ICONERROR, "%s", FillText(188, code).c_str()); });
        LogLeave("CLarimoDlg::ServOnStart");
        return;
    }
    auto client = std::make_shared<MoIpcCli>(std::move(ipc));
    SetCommandClient(client);
    SendCommand("CLarimoDlg::ServOnStart", [](MoIpcCli& cli) { return cli.CliOnStarted(); });
    m_connected = true;
    {
        std::lock_guard<std::mutex> traceLock(m_traceLock);
        m_trace = std::make_unique<ShareMem>();
        if (m_trace->Open(kTraceMemoryName, kShareMemReadWrite) != kShmSuccess)
            m_trace.reset();
    }
    m_events.Start({[this] { OnEmotics(); }, [this] { UpdateOsci(); }});
    Post([this] { ConnectedOnWindowThread(); });
    LogLeave("CLarimoDlg::ServOnStart");
}

void CLarimoDlg::ServOnStop()
{
    LogEnter("CLarimoDlg::ServOnStop");
    std::lock_guard<std::mutex> lock(m_serviceLock);
    SetCommandClient(nullptr);
    m_connected = false;
    m_events.Stop();
    {
        std::lock_guard<std::mutex> traceLock(m_traceLock);
        m_trace.reset();
    }
    if (!m_shutDown)
        Post([this] { DisconnectedOnWindowThread(); });
    LogLeave("CLarimoDlg::ServOnStop");
}

void CLarimoDlg::ConnectedOnWindowThread()
{
    if (!m_connected)
        return;
    EnableWindows(true);
    m_settings.LoadAll();
    CheckParams(m_settings);
    UpdateParams(m_settings);
    emit ConnectionChanged(true);
    ShowServiceErrors();
}

void CLarimoDlg::DisconnectedOnWindowThread()
{
    if (m_connected)
        return;
    EnableWindows(false);
    GuiDeselecteEmotics();
    emit ConnectionChanged(false);
}

void CLarimoDlg::Shutdown()
{
    if (m_shutDown)
        return;
    m_shutDown = true;
    if (m_ledTimer != 0) {
        killTimer(m_ledTimer);
        m_ledTimer = 0;
    }
    if (m_observer) {
        m_observer->ObserverStop();
        m_observer.reset();
    }
    if (m_connected)
        SendCommand("CLarimoDlg::OnDestroy", [](MoIpcCli& client) { return client.CliOnClose(); });
    ServOnStop();
    if (m_hotKeys != nullptr)
        m_hotKeys->UnregisterAll();
    if (m_tray)
        m_tray->hide();
}

// ------------------------------------------------------------------ hot keys

void CLarimoDlg::RegisterHotKeys(const std::array<uint64_t, kShortcutCount>& shortcuts)
{
    UnregisterHotKeys();
    const bool confirmedLater = qobject_cast<PortalHotKeys*>(m_hotKeys) != nullptr;
    if (!confirmedLater)
        m_activeHotKeys = 0;
    int wanted = 0;
    for (int i = 0; i < kShortcutCount; ++i) {
        const uint64_t shortcut = shortcuts[static_cast<size_t>(i)];
        if (ShortcutKey(shortcut) == 0)
            continue;
        ++wanted;
        if (m_hotKeys->Register(i, ShortcutKey(shortcut), ShortcutModifiers(shortcut)) && !confirmedLater)
            ++m_activeHotKeys;
    }
    if (wanted > 0)
        LogInfo("CLarimoDlg::RegisterHotKeys: %d of %d hot keys active (%s)", m_activeHotKeys, wanted,
                m_hotKeys->BackendName().c_str());
}

void CLarimoDlg::UnregisterHotKeys()
{
    m_hotKeys->UnregisterAll();
}

void CLarimoDlg::OnHotKey(int index)
{
    LogInfo("CLarimoDlg::OnHotKey(%d)", index);
    switch (index) {
    case kScVoiceEffect1:
    case kScVoiceEffect2:
    case kScVoiceEffect3:
        m_effectIndex = m_actions.ToggleEffect(index - kScVoiceEffect1);
        RefreshRadioGroups();
        break;
    case kScListen:
        OnBnClickedMonitor();
        break;
    case kScFunSound1:
    case kScFunSound2:
    case kScFunSound3:
        OnPlayEmotic(index - kScFunSound1);
        break;
    case kScBackSound1:
    case kScBackSound2:
    case kScBackSound3:
        m_soundIndex = m_actions.ToggleSound((index - kScBackSound1) / 3);
        RefreshRadioGroups();
        break;
    case kScBackSound1VolAdd:
    case kScBackSound2VolAdd:
    case kScBackSound3VolAdd:
        StepBackSoundVolume((index - kScBackSound1VolAdd) / 3, true);
        break;
    case kScBackSound1VolSub:
    case kScBackSound2VolSub:
    case kScBackSound3VolSub:
        StepBackSoundVolume((index - kScBackSound1VolSub) / 3, false);
        break;
    case kScStop:
        StopAll();
        break;
    default:
        break;
    }
}

// ------------------------------------------------------------------ about, help, tray, exit

void CLarimoDlg::OnAbout()
{
    CAboutDlg about(m_settings.m_homePage, this);
    about.exec();
}

void CLarimoDlg::OnOptions()
{
    LogScopeInfo("CLarimoDlg::OnOptions");
    {
        COptionsSheet sheet(this, m_settings, &m_connected);
        sheet.AddPages(ControlAs<CMoListBox>(kFunSoundList));
        sheet.exec();
    }
    UpdateParams(m_settings);
}

void CLarimoDlg::OnHelp()
{
    HelpShow(this, 102);
}

void CLarimoDlg::CreateTrayIcon()
{
    if (m_tray)
        return;
    m_tray = new QSystemTrayIcon(windowIcon(), this);
    m_tray->setObjectName(QStringLiteral("trayIcon"));
    m_tray->setToolTip(Q(GetText(113)).left(127));
    m_trayMenu = new QMenu(this);
    m_trayMenu->setObjectName(QStringLiteral("trayMenu"));
    QAction* exit = m_trayMenu->addAction(tr("&Exit"));
    exit->setData(32772);
    connect(exit, &QAction::triggered, this, [this] { OnExit(); });
    m_tray->setContextMenu(m_trayMenu);
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        // A double-click brings the window back; a single one may be the first half of it.
        if (reason == QSystemTrayIcon::DoubleClick)
            RestoreFromTray();
    });
}

void CLarimoDlg::MinimizeToTray()
{
    CreateTrayIcon();
    if (!QSystemTrayIcon::isSystemTrayAvailable()) {
        // Hiding without a tray would leave no way back; the task bar keeps the window reachable.
        LogInfo("CLarimoDlg: the desktop has no system tray; minimising to the task bar");
        showMinimized();
        return;
    }
    LogInfo("CLarimoDlg: minimised to the tray");
    m_tray->show();
    showMinimized();
    hide();
}

void CLarimoDlg::RestoreFromTray()
{
    LogInfo("CLarimoDlg: restored from the tray");
    if (m_tray)
        m_tray->hide();
    RefreshRadioGroups();
    // Out of the minimised state before the window is mapped again: mapped while minimised, it
    // asks to stay iconic and would go straight back into the tray.
    setWindowState(windowState() & ~Qt::WindowMinimized);
    show();
    raise();
    activateWindow();
}

void CLarimoDlg::OnExit()
{
    Shutdown();
    done(0);
}

void CLarimoDlg::UpdateDeviceLed()
{
    const uint32_t activity = DriverControlQuery(m_device.get(), 1);
    auto* lamp = ControlAs<CFFButton>(kDeviceLed);
    if (activity == m_lastActivity) {
        if (lamp->GetCheck() != 0)
            lamp->SetCheck(0);
        return;
    }
    m_lastActivity = activity;
    if (lamp->GetCheck() == 0)
        lamp->SetCheck(1);
}

// ------------------------------------------------------------------ window events

void CLarimoDlg::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == m_ledTimer)
        UpdateDeviceLed();
    else
        QDialog::timerEvent(event);
}

void CLarimoDlg::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    if (m_background.IsNull())
        painter.fillRect(rect(), palette().window());
    else
        painter.drawImage(QPoint(0, 0), m_background.Image());
}

bool CLarimoDlg::OverDragBlocker(const QPoint& globalPoint) const
{
    return std::any_of(kDragBlockers.begin(), kDragBlockers.end(), [&](int id) {
        const QWidget* control = Control(id);
        return control != nullptr && control->isVisible() &&
               control->rect().contains(control->mapFromGlobal(globalPoint));
    });
}

void CLarimoDlg::mouseMoveEvent(QMouseEvent* event)
{
    if ((event->buttons() & Qt::LeftButton) == 0) {
        m_dragAnchor = QPoint(-1, -1);
        return;
    }
    const QPoint global = event->globalPosition().toPoint();
    if (OverDragBlocker(global))
        return;
    const QPoint local = event->position().toPoint();
    if (m_dragAnchor == QPoint(-1, -1)) {
        // Wayland lets no program place its own window: the compositor moves it when asked.
        if (QGuiApplication::platformName().startsWith(QLatin1String("wayland")) && windowHandle() != nullptr &&
            windowHandle()->startSystemMove())
            return;
        m_dragAnchor = local;
        return;
    }
    move(pos() + (local - m_dragAnchor));
}

void CLarimoDlg::mouseReleaseEvent(QMouseEvent* event)
{
    m_dragAnchor = QPoint(-1, -1);
    QDialog::mouseReleaseEvent(event);
}

void CLarimoDlg::keyPressEvent(QKeyEvent* event)
{
    // Enter and Escape must not end the panel the way they end an ordinary dialog.
    switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
    case Qt::Key_Escape:
        event->accept();
        return;
    default:
        QDialog::keyPressEvent(event);
    }
}

void CLarimoDlg::closeEvent(QCloseEvent* event)
{
    // Alt+F4 and the window manager's close put the panel into the tray; only Exit ends it.
    if (m_shutDown) {
        event->accept();
        return;
    }
    event->ignore();
    MinimizeToTray();
}

void CLarimoDlg::changeEvent(QEvent* event)
{
    QDialog::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange && isMinimized() && isVisible() &&
        QSystemTrayIcon::isSystemTrayAvailable() && !(m_tray && m_tray->isVisible()))
        QMetaObject::invokeMethod(this, [this] { MinimizeToTray(); }, Qt::QueuedConnection);
}

void CLarimoDlg::reject() {}

void CLarimoDlg::accept() {}

} // namespace larimo
