// SPDX-License-Identifier: GPL-3.0-or-later
#include "EditEffect.h"

#include "DialogTools.h"
#include "VSTEditDialog.h"
#include "config.h"
#include "filltext.h"
#include "help.h"
#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "texts.h"
#include "wintools.h"

#include <QDialogButtonBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

namespace larimo {

namespace {

constexpr unsigned kCaptionText = 320;
constexpr unsigned kNameText = 321;
constexpr unsigned kUsedText = 322;
constexpr unsigned kAvailableText = 323;
constexpr unsigned kUseText = 324;
constexpr unsigned kImportText = 325;
constexpr unsigned kDeleteText = 326;
constexpr unsigned kOkText = 306;
constexpr unsigned kCancelText = 187;
constexpr unsigned kHelpText = 308;

// A label whose mnemonic moves the focus to `buddy`.
QLabel* BuddyLabel(unsigned textId, QWidget* buddy, QWidget* parent)
{
    auto* label = new QLabel(UiText(textId), parent);
    label->setBuddy(buddy);
    return label;
}

} // namespace

CEditEffect::CEditEffect(QWidget* parent, VoiceEffect& effect, Config& real, Config& working)
    : QDialog(parent)
    , m_effect(effect)
    , m_real(real)
    , m_working(working)
{
    setWindowTitle(UiText(kCaptionText));
    setObjectName(QStringLiteral("editEffect"));

    m_name = new QLineEdit(this);
    SetCtrlId(m_name, kNameId);
    m_used = new QLabel(this);
    SetCtrlId(m_used, kUsedId);
    m_used->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_list = new QListWidget(this);
    SetCtrlId(m_list, kListId);
    m_list->setSortingEnabled(true);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_use = MakeButton(this, kUseText, kUseId);
    m_import = MakeButton(this, kImportText, kImportId);
    m_delete = MakeButton(this, kDeleteText, kDeleteId);
    m_ok = MakeButton(this, kOkText, kOkId);
    m_ok->setDefault(true);
    QPushButton* cancel = MakeButton(this, kCancelText, kCancelId);
    QPushButton* help = MakeButton(this, kHelpText, kHelpId);

    auto* form = new QGridLayout;
    form->addWidget(BuddyLabel(kNameText, m_name, this), 0, 0);
    form->addWidget(m_name, 0, 1);
    form->addWidget(new QLabel(UiText(kUsedText), this), 1, 0);
    form->addWidget(m_used, 1, 1);
    QHBoxLayout* library = ListWithButtons(m_list, {m_use, m_import, m_delete});
    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton(m_ok, QDialogButtonBox::AcceptRole);
    buttons->addButton(cancel, QDialogButtonBox::RejectRole);
    buttons->addButton(help, QDialogButtonBox::HelpRole);
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(form);
    layout->addWidget(BuddyLabel(kAvailableText, m_list, this));
    layout->addLayout(library, 1);
    layout->addWidget(buttons);
    resize(420, 360);

    connect(m_name, &QLineEdit::textChanged, this, [this] { UpdateOk(); });
    connect(m_list, &QListWidget::itemSelectionChanged, this, &CEditEffect::OnSelectionChanged);
    connect(m_list, &QListWidget::itemDoubleClicked, this, [this] { OnUse(); });
    connect(m_use, &QPushButton::clicked, this, &CEditEffect::OnUse);
    connect(m_import, &QPushButton::clicked, this, &CEditEffect::OnImport);
    connect(m_delete, &QPushButton::clicked, this, &CEditEffect::OnDeletePlugin);
    connect(m_ok, &QPushButton::clicked, this, &CEditEffect::accept);
    connect(cancel, &QPushButton::clicked, this, &CEditEffect::reject);
    connect(help, &QPushButton::clicked, this, [this] { HelpShow(static_cast<QWidget*>(this), kTemplateId); });

    QPointer<CEditEffect> self(this);
    m_test = std::make_unique<TestStream>(this, [self](std::function<void()> call) {
        if (self)
            QMetaObject::invokeMethod(self.data(), std::move(call), Qt::QueuedConnection);
    });
    m_test->InitTestStream(m_working, static_cast<QWidget*>(this));

    // What the dialog starts with.
    UpdateVstList();
    m_used->setText(QString::fromStdString(m_effect.m_plugin));
    m_name->setText(QString::fromStdString(m_effect.m_name));
    m_startName = m_effect.m_name;
    m_use->setEnabled(false);
    m_delete->setEnabled(false);
    if (!m_effect.m_plugin.empty()) {
        const bool found = SelectPlugin(QString::fromStdString(m_effect.m_plugin));
        m_use->setEnabled(found);
        m_delete->setEnabled(found);
        ConfigEffect(m_effect.m_plugin);
    }
    UpdateOk();
}

CEditEffect::~CEditEffect()
{
    // The plug-in and its window go before the dialog they stand beside.
    m_test->SetOwner(nullptr);
    m_test->UnLoad();
    m_test.reset();
}

QPushButton* CEditEffect::Button(int ctrlId) const
{
    for (QPushButton* button : {m_use, m_import, m_delete, m_ok}) {
        if (button->property(kCtrlIdProperty).toInt() == ctrlId)
            return button;
    }
    return findChild<QPushButton*>(QStringLiteral("ctrl%1").arg(ctrlId));
}

void CEditEffect::UpdateVstList()
{
    m_list->clear();
    for (const std::string& name : LibListPlugins())
        m_list->addItem(QString::fromStdString(name));
    OnSelectionChanged();
}

void CEditEffect::UpdateOk()
{
    m_ok->setEnabled(!m_name->text().isEmpty() && !m_used->text().isEmpty());
}

bool CEditEffect::SelectPlugin(const QString& name)
{
    for (int i = 0; i < m_list->count(); ++i) {
        if (m_list->item(i)->text().compare(name, Qt::CaseInsensitive) == 0) {
            m_list->setCurrentRow(i);
            return true;
        }
    }
    return false;
}

QString CEditEffect::SelectedPlugin() const
{
    const QList<QListWidgetItem*> selected = m_list->selectedItems();
    return selected.isEmpty() ? QString() : selected.first()->text();
}

void CEditEffect::OnSelectionChanged()
{
    const bool any = !m_list->selectedItems().isEmpty();
    m_use->setEnabled(any);
    m_delete->setEnabled(any);
}

void CEditEffect::ConfigEffect(const std::string& plugin)
{
    m_test->UnLoad();
    if (plugin.empty())
        return;
    const std::string path = LibPluginPath(plugin);
    MoAudioEffect& effect = m_test->Effect();
    const MoVstErrorNum result = effect.SafeLoad(path, true, static_cast<QWidget*>(this));
    if (result == kVstException)
        return;
    if (result != kVstSuccess) {
        ErrorBox(this, FillText(266, path.c_str(), MoVstErrorText(result).c_str()));
        return;
    }
    if (m_effect.m_plugin == plugin)
        effect.SetParams(m_effect.m_values);
    if (!m_test->IsRunning()) {
        const unsigned started = m_test->TestStart();
        if (started != kMmeSuccess)
            LogWarning("CEditEffect::ConfigEffect: the preview did not start: %s", MmeErrorText(started).c_str());
    }
    effect.SetParamChangeListener(&CEditEffect::OnParamChange);
    if (effect.Config(static_cast<QWidget*>(this), this))
        PlaceParamWindow();
}

void CEditEffect::OnParamChange(void* context, const std::vector<ParamValue>& /*params*/)
{
    static_cast<CEditEffect*>(context)->m_paramsChanged = true;
}

void CEditEffect::PlaceParamWindow()
{
    auto* window = dynamic_cast<VSTEditDialog*>(m_test->Effect().ParamWindow());
    if (window == nullptr || window->Window() == nullptr)
        return;
    // Its top left at the editor's top right.
    window->Window()->move(frameGeometry().topRight() + QPoint(1, 0));
}

void CEditEffect::moveEvent(QMoveEvent* event)
{
    QDialog::moveEvent(event);
    PlaceParamWindow();
}

void CEditEffect::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_F1) {
        HelpShow(static_cast<QWidget*>(this), kTemplateId);
        event->accept();
        return;
    }
    QDialog::keyPressEvent(event);
}

void CEditEffect::OnUse()
{
    const QString selected = SelectedPlugin();
    if (selected.isEmpty())
        return;
    if (m_test->Effect().IsLoaded() && selected.compare(m_used->text(), Qt::CaseInsensitive) == 0 &&
        m_paramsChanged &&
        !AskWarningQuestion(this, FillText(217, m_name->text().toStdString().c_str())))
        return;
    m_used->setText(selected);
    ConfigEffect(selected.toStdString());
    UpdateOk();
}

void CEditEffect::OnImport()
{
    const QString path = ChooseOpenFile(this, FileDialogFilter(GetText(228)));
    if (path.isEmpty())
        return;
    const std::string source = path.toStdString();
    const std::string name = LibBaseName(source);
    if (LibPluginExists(name)) {
        if (!AskWarningQuestion(this, FillText(138, name.c_str())))
            return;
        if (!VstDelete(name))
            return;
    }
    if (LibImportPlugin(source))
        UpdateVstList();
    else
        ErrorBox(this, LibGetLastError());
}

void CEditEffect::OnDeletePlugin()
{
    const QString selected = SelectedPlugin();
    if (selected.isEmpty())
        return;
    if (AskWarningQuestion(this, GetText(269)))
        VstDelete(selected.toStdString());
}

bool CEditEffect::VstDelete(const std::string& name)
{
    LogEnter("CEditEffect::VstDelete", "vst=%s", name.c_str());
    // While the service runs it may be playing an effect of a slot with this plug-in.
    if (CommandClient() != nullptr) {
        for (const std::string& slot : m_real.m_effectSlots) {
            const int index = m_real.FindEffect(slot);
            if (index >= 0 && m_real.m_effects[static_cast<size_t>(index)].m_plugin == name) {
                ErrorBox(this, GetText(270));
                UpdateOk();
                LogLeaveResult("CEditEffect::VstDelete", false);
                return false;
            }
        }
    }
    if (!SelectedPlugin().isEmpty() && SelectedPlugin().compare(m_used->text(), Qt::CaseInsensitive) == 0) {
        m_test->UnLoad();
        m_used->clear();
    }
    if (!LibDeletePlugin(name))
        ErrorBox(this, LibGetLastError());
    const auto strip = [&name](Config& settings) {
        for (std::string& slot : settings.m_effectSlots) {
            const int index = settings.FindEffect(slot);
            if (index >= 0 && settings.m_effects[static_cast<size_t>(index)].m_plugin == name)
                slot.clear();
        }
    };
    const auto forget = [&name](Config& settings) {
        for (VoiceEffect& effect : settings.m_effects) {
            if (effect.m_plugin == name) {
                effect.m_plugin.clear();
                effect.m_values.clear();
            }
        }
    };
    strip(m_real);
    strip(m_working);
    forget(m_real);
    m_real.WriteEffects();
    forget(m_working);
    UpdateVstList();
    UpdateOk();
    LogLeaveResult("CEditEffect::VstDelete", true);
    return true;
}

void CEditEffect::accept()
{
    const std::string name = m_name->text().toStdString();
    // Without a loaded plug-in (it failed to load) the stored values stay as they were.
    if (m_test->Effect().IsLoaded())
        m_test->Effect().GetParams(m_effect.m_values);
    m_effect.m_name = name;
    m_effect.m_plugin = m_used->text().toStdString();
    if (!EqualsNoCase(name, m_startName) && m_working.FindEffect(name) >= 0) {
        WarningBox(this, FillText(267, name.c_str()));
        return;
    }
    QDialog::accept();
}

} // namespace larimo
