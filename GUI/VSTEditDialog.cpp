// SPDX-License-Identifier: GPL-3.0-or-later
#include "VSTEditDialog.h"

#include "DialogTools.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "texts.h"

#include <QCloseEvent>
#include <QDialog>
#include <QGridLayout>
#include <QGroupBox>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScreen>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>
#include <QWindow>

#include <algorithm>
#include <cmath>

namespace larimo {

namespace {

constexpr unsigned kCreateErrorText = 259;
constexpr unsigned kDefaultTitleText = 260;
constexpr unsigned kFaultText = 261;
constexpr unsigned kGroupText = 264;
constexpr unsigned kNoParamsText = 265;
constexpr unsigned kNothingToConfigureText = 268;
// A window is kept where it was last moved to only this far inside the desktop.
constexpr int kEdgeMargin = 40;

QPoint g_position{-1, -1};

QString ValueText(float value)
{
    return QString::asprintf("%f", static_cast<double>(value));
}

// What a value field holds, as a parameter value: above 1 is 1, below 0 or no number is 0.
float ParseValue(const QString& text)
{
    bool ok = false;
    const double value = text.trimmed().toDouble(&ok);
    if (!ok || std::isnan(value) || value < 0.0)
        return 0.0f;
    return value > 1.0 ? 1.0f : static_cast<float>(value);
}

} // namespace

// The window itself; it hands its events to the object that owns it.
class ParamWindowFrame final : public QDialog {
public:
    ParamWindowFrame(VSTEditDialog& owner, QWidget* parent)
        : QDialog(parent)
        , m_owner(owner)
    {
        setObjectName(QStringLiteral("paramWindow"));
        setAttribute(Qt::WA_DeleteOnClose, false);
    }
    void Detach() { m_detached = true; }

    void accept() override
    {
        if (!m_detached)
            m_owner.EndEditDialog(1);
    }
    void reject() override
    {
        if (!m_detached)
            m_owner.EndEditDialog(2);
    }

protected:
    void closeEvent(QCloseEvent* event) override
    {
        event->ignore();
        if (!m_detached)
            m_owner.EndEditDialog(1);
    }
    void timerEvent(QTimerEvent* /*event*/) override
    {
        if (!m_detached)
            m_owner.OnTimer();
    }
    void moveEvent(QMoveEvent* event) override
    {
        QDialog::moveEvent(event);
        if (!m_detached && isVisible())
            m_owner.OnMoved();
    }

private:
    VSTEditDialog& m_owner;
    bool m_detached = false;
};

VSTEditDialog::VSTEditDialog(MoAudioEffect& effect, std::string baseName, QWidget* parent)
    : m_effect(&effect)
    , m_baseName(std::move(baseName))
    , m_effectName(effect.EffectName())
    , m_modulePath(effect.ModulePath())
    , m_parent(parent)
{
}

VSTEditDialog::~VSTEditDialog()
{
    if (m_window)
        EndEditDialog(1);
}

std::unique_ptr<EffectParamWindow> VSTEditDialog::Make(MoAudioEffect& effect, const std::string& baseName,
                                                       void* parent)
{
    return std::make_unique<VSTEditDialog>(effect, baseName, static_cast<QWidget*>(parent));
}

template <typename Call>
bool VSTEditDialog::Plugin(Call&& call)
{
    if (m_effect == nullptr)
        return false;
    const unsigned faults = m_effect->FaultCount();
    call(*m_effect);
    if (m_effect != nullptr && m_effect->FaultCount() == faults)
        return true;
    ReportFault();
    return false;
}

QString VSTEditDialog::Title() const
{
    return QString::fromStdString(m_effectName.empty() ? GetText(kDefaultTitleText) : m_effectName);
}

bool VSTEditDialog::ShowNotModal(void* parent)
{
    if (parent != nullptr)
        m_parent = static_cast<QWidget*>(parent);
    int params = 0;
    bool editor = false;
    if (!Plugin([&](MoAudioEffect& effect) {
            params = effect.GetNumParams();
            editor = effect.HasEditor();
        }))
        return false;
    if (params == 0 && !editor) {
        ShowMessage(m_parent.data(), MB_OK | MB_ICONWARNING, "%s", GetText(kNothingToConfigureText).c_str());
        return false;
    }
    m_result = 0;
    m_placed = false;
    m_window = new ParamWindowFrame(*this, nullptr);
    // Kept above the window it belongs to, but never owned by it: the effect owns this object.
    m_window->setWindowFlags(Qt::Dialog | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                             Qt::WindowCloseButtonHint);
    if (m_parent) {
        m_window->winId();
        if (QWindow* handle = m_window->windowHandle(); handle != nullptr && m_parent->window()->windowHandle())
            handle->setTransientParent(m_parent->window()->windowHandle());
    }
    if (!InitDialog())
        return false;
    m_window->show();
    PlaceWindow();
    m_window->raise();
    return m_window != nullptr;
}

bool VSTEditDialog::InitDialog()
{
    if (m_effect == nullptr) {
        ShowMessage(m_parent.data(), MB_OK | MB_ICONERROR, "%s", GetText(kCreateErrorText).c_str());
        delete m_window.data();
        return false;
    }
    m_window->setWindowTitle(Title());
    bool editor = false;
    Plugin([&](MoAudioEffect& effect) { editor = effect.HasEditor(); });
    // A plug-in's editor draws into an X11 window; where the panel runs on another window
    // system it gets the generated rows instead.
    const bool x11 = QGuiApplication::platformName() == QLatin1String("xcb");
    if (editor && x11) {
        if (!OpenPluginEditor()) {
            EndEditDialog(2);
            return false;
        }
    } else {
        if (editor)
            LogInfo("VSTEditDialog: the editor of %s needs X11; showing its parameters instead",
                    m_effectName.c_str());
        BuildParamControls();
    }
    if (m_window == nullptr)
        return false;
    m_timer = m_window->startTimer(kTimerMs);
    return true;
}

bool VSTEditDialog::OpenPluginEditor()
{
    m_editorHost = new QWidget(m_window);
    m_editorHost->setObjectName(QStringLiteral("pluginEditor"));
    m_editorHost->setAttribute(Qt::WA_NativeWindow);
    m_editorHost->setAttribute(Qt::WA_DontCreateNativeAncestors);
    auto* layout = new QVBoxLayout(m_window);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_editorHost);
    const auto nativeWindow = static_cast<uintptr_t>(m_editorHost->winId());
    if (m_effect == nullptr || !m_effect->EditOpen(nativeWindow, Title().toStdString(), m_window.data())) {
        // The effect has told the user and dropped the plug-in.
        m_effect = nullptr;
        return false;
    }
    m_pluginEditor = true;
    vst::ERect rect{};
    bool sized = false;
    Plugin([&](MoAudioEffect& effect) { sized = effect.EditGetRect(rect); });
    if (m_window == nullptr)
        return false;
    const int width = sized ? std::max(kMinEditorSide, rect.right - rect.left) : kMinEditorSide;
    const int height = sized ? std::max(kMinEditorSide, rect.bottom - rect.top) : kMinEditorSide;
    m_editorHost->setFixedSize(width, height);
    m_window->setFixedSize(width, height);
    Plugin([](MoAudioEffect& effect) { effect.EditIdle(); });
    return m_window != nullptr;
}

void VSTEditDialog::BuildParamControls()
{
    auto* outer = new QVBoxLayout(m_window);
    auto* group = new QGroupBox(QString::fromStdString(GetText(kGroupText)), m_window);
    SetCtrlId(group, kGroupId);
    outer->addWidget(group);
    auto* grid = new QGridLayout(group);
    grid->setVerticalSpacing(5);

    int count = 0;
    Plugin([&](MoAudioEffect& effect) { count = effect.GetNumParams(); });
    if (count == 0) {
        auto* none = new QLabel(QString::fromStdString(GetText(kNoParamsText)), group);
        none->setObjectName(QStringLiteral("noParams"));
        grid->addWidget(none, 0, 0);
    }
    m_rows.clear();
    for (int i = 0; i < count && m_effect != nullptr; ++i) {
        std::string name;
        float value = 0.0f;
        if (!Plugin([&](MoAudioEffect& effect) {
                name = effect.GetParamName(i);
                value = effect.GetParameter(i);
            }))
            return;
        Row row;
        row.name = new QLabel(QString::fromStdString(name), group);
        row.name->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
        row.value = new QLineEdit(ValueText(value), group);
        row.value->setMaxLength(kValueChars);
        row.value->setFixedWidth(row.value->fontMetrics().horizontalAdvance(QStringLiteral("0.0000000")) + 12);
        SetCtrlId(row.value, kValueIdBase + i);
        row.slider = new QSlider(Qt::Horizontal, group);
        row.slider->setRange(0, 1000);
        row.slider->setSingleStep(1);
        row.slider->setPageStep(100);
        row.slider->setMinimumWidth(150);
        row.slider->setValue(static_cast<int>(value * 1000.0f));
        SetCtrlId(row.slider, kSliderIdBase + i);
        row.shown = new QLabel(group);
        row.shown->setObjectName(QStringLiteral("shown%1").arg(i));
        row.shown->setMinimumWidth(row.shown->fontMetrics().horizontalAdvance(QStringLiteral("-00.00 dB")));
        grid->addWidget(row.name, i, 0);
        grid->addWidget(row.value, i, 1);
        grid->addWidget(row.slider, i, 2);
        grid->addWidget(row.shown, i, 3);
        QObject::connect(row.slider, &QSlider::valueChanged, m_window,
                         [this, i](int position) { OnSliderMoved(i, position); });
        QObject::connect(row.value, &QLineEdit::textChanged, m_window,
                         [this, i](const QString& text) { OnValueEdited(i, text); });
        m_rows.push_back(row);
        RefreshShownValue(i);
    }
    if (m_window == nullptr)
        return;

    auto* ok = new QPushButton(QStringLiteral("Ok"), m_window);
    ok->setFixedSize(80, 22);
    ok->setDefault(true);
    SetCtrlId(ok, kOkId);
    QObject::connect(ok, &QPushButton::clicked, m_window, [this] { EndEditDialog(1); });
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(ok);
    outer->addLayout(buttons);
    m_window->adjustSize();
}

void VSTEditDialog::RefreshShownValue(int index)
{
    if (index < 0 || static_cast<size_t>(index) >= m_rows.size())
        return;
    std::string display;
    std::string label;
    if (!Plugin([&](MoAudioEffect& effect) {
            display = effect.GetParamDisplay(index);
            label = effect.GetParamLabel(index);
        }))
        return;
    QString text = QString::fromStdString(display);
    if (!label.empty() && !display.empty())
        text += QLatin1Char(' ') + QString::fromStdString(label);
    m_rows[static_cast<size_t>(index)].shown->setText(text);
}

void VSTEditDialog::OnSliderMoved(int index, int position)
{
    const float value = static_cast<float>(position) * 0.001f;
    if (!Plugin([&](MoAudioEffect& effect) {
            effect.SetParameter(index, value);
            effect.SetParamsModified(true);
        }))
        return;
    m_rows[static_cast<size_t>(index)].value->setText(ValueText(value));
    RefreshShownValue(index);
}

void VSTEditDialog::OnValueEdited(int index, const QString& text)
{
    const float value = ParseValue(text);
    Row& row = m_rows[static_cast<size_t>(index)];
    {
        const QSignalBlocker blocker(row.slider);
        row.slider->setValue(static_cast<int>(value * 1000.0f));
    }
    // The field also changes when the slider moves; only typing applies the value.
    if (row.value->hasFocus()) {
        if (Plugin([&](MoAudioEffect& effect) { effect.SetParameter(index, value); }))
            RefreshShownValue(index);
    }
}

void VSTEditDialog::OnTimer()
{
    if (m_pluginEditor && !Plugin([](MoAudioEffect& effect) { effect.EditIdle(); }))
        return;
    if (m_effect == nullptr || m_effect->GetParamChangeListener() == nullptr)
        return;
    std::vector<ParamValue> params;
    if (!Plugin([&](MoAudioEffect& effect) { effect.GetParams(params); }))
        return;
    if (m_effect->ParamsModified()) {
        m_effect->GetParamChangeListener()(m_effect->ListenerContext(), params);
        m_effect->SetParamsModified(false);
    }
}

void VSTEditDialog::OnMoved()
{
    // Showing the window moves it too, before it is placed; only moves after that count.
    if (m_placed)
        g_position = m_window->geometry().topLeft();
}

void VSTEditDialog::PlaceWindow()
{
    if (m_window == nullptr)
        return;
    QScreen* screen = m_parent ? m_parent->screen() : QGuiApplication::primaryScreen();
    if (screen == nullptr)
        return;
    const QRect desktop = screen->availableGeometry();
    QPoint client = g_position;
    if (client.x() < kEdgeMargin || client.y() < kEdgeMargin || client.x() > desktop.width() - kEdgeMargin ||
        client.y() > desktop.height() - kEdgeMargin) {
        const QSize size = m_window->frameGeometry().size();
        client = QPoint(desktop.left() + desktop.width() / 4 - size.width() / 2,
                        desktop.top() + desktop.height() / 4 - size.height() / 2);
    }
    // The position is the client area's; the window is moved by its frame.
    const QPoint frameOffset = m_window->geometry().topLeft() - m_window->frameGeometry().topLeft();
    m_window->move(client - frameOffset);
    g_position = m_window->geometry().topLeft();
    m_placed = true;
}

void VSTEditDialog::Close()
{
    if (m_window)
        EndEditDialog(1);
}

void VSTEditDialog::EndEditDialog(int code)
{
    if (!m_window)
        return;
    m_window->Detach();
    if (m_effect != nullptr) {
        if (const MoAudioEffect::EditorClosedListener listener = m_effect->GetEditorClosedListener())
            listener(m_effect->ListenerContext());
        if (m_pluginEditor)
            Plugin([](MoAudioEffect& effect) { effect.EditClose(); });
    }
    DropWindow(code);
}

void VSTEditDialog::ReportFault()
{
    const std::string name = m_effectName.empty() ? std::string("Effect") : m_effectName;
    const std::string module = m_modulePath.empty() ? std::string("Undefined") : m_modulePath;
    const std::string fault = m_effect != nullptr ? m_effect->LastFaultText() : std::string();
    ShowMessageBox(m_window.data(), FillText(kFaultText, fault.c_str(), module.c_str()), name, MB_OK | MB_ICONERROR);
    LogException("Unhandled exception in effect %s", name.c_str());
    // The effect has already dropped the plug-in; the window lets go of it and goes.
    DropWindow(2);
}

void VSTEditDialog::DropWindow(int code)
{
    if (QPointer<ParamWindowFrame> window = m_window) {
        m_window = nullptr;
        window->Detach();
        if (m_timer != 0)
            window->killTimer(m_timer);
        window->hide();
        window->deleteLater();
        m_result = code;
    }
    m_timer = 0;
    m_rows.clear();
    m_editorHost = nullptr;
    m_pluginEditor = false;
    m_effect = nullptr;
}

QDialog* VSTEditDialog::Window() const
{
    return m_window.data();
}

QPoint VSTEditDialog::RememberedPosition()
{
    return g_position;
}

void VSTEditDialog::ForgetPosition()
{
    g_position = QPoint(-1, -1);
}

} // namespace larimo
