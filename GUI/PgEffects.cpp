// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgEffects.h"

#include "DialogTools.h"
#include "EditEffect.h"
#include "OptionsSheet.h"
#include "config.h"
#include "filltext.h"
#include "mlog.h"
#include "modb.h"
#include "texts.h"

#include <QButtonGroup>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalBlocker>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace larimo {

namespace {

constexpr unsigned kSlotLabelText = 271;
constexpr unsigned kAvailableText = 328;
constexpr unsigned kNewText = 329;
constexpr unsigned kEditText = 330;
constexpr unsigned kDeleteText = 326;
constexpr unsigned kAlwaysText = 331;
constexpr unsigned kOnlyText = 332;
constexpr unsigned kListenText = 333;
constexpr unsigned kTestText = 110;
constexpr unsigned kNameColumnText = 258;
constexpr unsigned kPluginColumnText = 263;

} // namespace

CPgEffects::CPgEffects(COptionsSheet& sheet)
    : COptionsPage(sheet, kPageEffects)
{
    auto* slotRows = new QGridLayout;
    for (int k = 0; k < 3; ++k) {
        auto* label = new QLabel(QString::fromStdString(FillText(kSlotLabelText, k + 1)), this);
        auto* text = new QLabel(this);
        text->setFrameShape(QFrame::StyledPanel);
        text->setMinimumWidth(160);
        SetCtrlId(text, kSlotTextIds[k]);
        auto* take = new QPushButton(QStringLiteral("<<"), this);
        take->setFixedWidth(take->fontMetrics().horizontalAdvance(QStringLiteral("<<<<")) + 8);
        SetCtrlId(take, kTakeIds[k]);
        slotRows->addWidget(label, k, 0);
        slotRows->addWidget(text, k, 1);
        slotRows->addWidget(take, k, 2);
        m_slotTexts[static_cast<size_t>(k)] = text;
        connect(take, &QPushButton::clicked, this, [this, k] { OnTake(k); });
    }

    m_list = new QTreeWidget(this);
    SetCtrlId(m_list, kListId);
    m_list->setColumnCount(2);
    m_list->setHeaderLabels({UiText(kNameColumnText), UiText(kPluginColumnText)});
    m_list->setRootIsDecorated(false);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_list->setAllColumnsShowFocus(true);
    m_list->header()->resizeSection(0, 154);
    m_list->header()->resizeSection(1, 94);
    connect(m_list, &QTreeWidget::itemSelectionChanged, this, [this] { Select(SelectedRow()); });
    connect(m_list, &QTreeWidget::itemDoubleClicked, this, [this] { OnEdit(); });

    m_test = MakeButton(this, kTestText, kTestId);
    m_test->setCheckable(true);
    auto* create = MakeButton(this, kNewText, kNewId);
    m_edit = MakeButton(this, kEditText, kEditId);
    m_delete = MakeButton(this, kDeleteText, kDeleteId);
    connect(m_test, &QPushButton::toggled, this, &CPgEffects::OnTest);
    connect(create, &QPushButton::clicked, this, &CPgEffects::OnNew);
    connect(m_edit, &QPushButton::clicked, this, &CPgEffects::OnEdit);
    connect(m_delete, &QPushButton::clicked, this, &CPgEffects::OnDelete);

    auto* listen = new QGroupBox(UiText(kListenText), this);
    m_always = new QRadioButton(UiText(kAlwaysText), listen);
    m_only = new QRadioButton(UiText(kOnlyText), listen);
    SetCtrlId(m_always, kAlwaysId);
    SetCtrlId(m_only, kOnlyId);
    auto* listenLayout = new QHBoxLayout(listen);
    listenLayout->addWidget(m_always);
    listenLayout->addWidget(m_only);
    listenLayout->addStretch(1);
    connect(m_always, &QRadioButton::clicked, this, [this] {
        Working().m_listen = 0;
        SetModified(true);
    });
    connect(m_only, &QRadioButton::clicked, this, [this] {
        Working().m_listen = 1;
        SetModified(true);
    });

    QHBoxLayout* library = ListWithButtons(m_list, {m_test, create, m_edit, m_delete});
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(slotRows);
    layout->addWidget(new QLabel(UiText(kAvailableText), this));
    layout->addLayout(library, 1);
    layout->addWidget(listen);

    Select(-1);
}

bool CPgEffects::OnSetActive()
{
    LogInfo("Page: CPgEffects");
    FillList();
    for (int k = 0; k < 3; ++k)
        m_slotTexts[static_cast<size_t>(k)]->setText(QString::fromStdString(Working().m_effectSlots[static_cast<size_t>(k)]));
    (Working().m_listen == 1 ? m_only : m_always)->setChecked(true);
    return COptionsPage::OnSetActive();
}

bool CPgEffects::OnKillActive()
{
    ReleaseTest();
    return COptionsPage::OnKillActive();
}

void CPgEffects::OnTestStop()
{
    MonitorRestore();
}

void CPgEffects::FillList()
{
    Select(-1);
    const QSignalBlocker blocker(m_list);
    m_list->clear();
    for (const VoiceEffect& effect : Working().m_effects) {
        auto* item = new QTreeWidgetItem(m_list);
        item->setText(0, QString::fromStdString(effect.m_name));
        item->setText(1, QString::fromStdString(effect.m_plugin));
    }
}

int CPgEffects::SelectedRow() const
{
    const QList<QTreeWidgetItem*> selected = m_list->selectedItems();
    return selected.isEmpty() ? -1 : m_list->indexOfTopLevelItem(selected.first());
}

std::string CPgEffects::SelectedName() const
{
    const int row = SelectedRow();
    return row < 0 ? std::string() : m_list->topLevelItem(row)->text(0).toStdString();
}

void CPgEffects::SelectRow(int row)
{
    if (row < 0 || row >= m_list->topLevelItemCount())
        m_list->clearSelection();
    else
        m_list->setCurrentItem(m_list->topLevelItem(row));
}

void CPgEffects::StopPreview()
{
    LogInfo("CPgEffects::TestStop");
    Test().Stop();
    Test().UnLoad();
}

void CPgEffects::ReleaseTest()
{
    const QSignalBlocker blocker(m_test);
    m_test->setChecked(false);
    m_testToggle = false;
}

void CPgEffects::Select(int row)
{
    StopPreview();
    const bool any = row >= 0;
    m_test->setEnabled(any);
    m_edit->setEnabled(any);
    m_delete->setEnabled(any);
    if (any) {
        if (m_testToggle)
            TestStart(m_list->topLevelItem(row)->text(0).toStdString());
    } else {
        ReleaseTest();
    }
}

void CPgEffects::OnTake(int slot)
{
    const std::string name = SelectedName();
    SetModified(true);
    auto& slotName = Working().m_effectSlots[static_cast<size_t>(slot)];
    slotName.clear();
    m_slotTexts[static_cast<size_t>(slot)]->clear();
    slotName = name;
    m_slotTexts[static_cast<size_t>(slot)]->setText(QString::fromStdString(name));
}

void CPgEffects::OnTest(bool pressed)
{
    m_testToggle = pressed;
    if (pressed && SelectedRow() >= 0)
        TestStart(SelectedName());
    else
        StopPreview();
}

void CPgEffects::TestStart(const std::string& effectName)
{
    const int index = Working().FindEffect(effectName);
    if (index < 0) {
        StopPreview();
        return;
    }
    const VoiceEffect& effect = Working().m_effects[static_cast<size_t>(index)];
    if (effect.m_plugin.empty()) {
        WarningBox(FillText(212, effect.m_name.c_str()));
        return;
    }
    const MoVstErrorNum loaded = Test().LoadEffect(LibPluginPath(effect.m_plugin));
    if (loaded != kVstSuccess) {
        LogError("CPgEffects::TestStart: %s: %s", effect.m_plugin.c_str(), MoVstErrorText(loaded).c_str());
        ErrorBox(FillText(213, MoVstErrorText(loaded).c_str()));
    }
    MonitorOff();
    Test().SetTestVolume(Working().m_testVolVEff);
    Test().Effect().SetParams(effect.m_values);
    const unsigned started = Test().TestStart();
    if (started != kMmeSuccess)
        ErrorBox(FillText(234, MmeErrorText(started).c_str()));
}

bool CPgEffects::RunEditor(VoiceEffect& effect)
{
    if (m_editorRunner)
        return m_editorRunner(this, effect, Sheet().Real(), Working());
    CEditEffect editor(this, effect, Sheet().Real(), Working());
    return editor.exec() == QDialog::Accepted;
}

void CPgEffects::OnNew()
{
    ReleaseTest();
    StopPreview();
    Select(-1);
    MonitorOff();
    VoiceEffect effect;
    if (RunEditor(effect)) {
        Working().m_effects.push_back(effect);
        SetModified(true);
    }
    FillList();
    MonitorRestore();
}

void CPgEffects::OnEdit()
{
    ReleaseTest();
    StopPreview();
    MonitorOff();
    const int index = Working().FindEffect(SelectedName());
    if (index >= 0) {
        VoiceEffect effect = Working().m_effects[static_cast<size_t>(index)];
        const std::string oldName = effect.m_name;
        if (RunEditor(effect)) {
            for (int k = 0; k < 3; ++k) {
                std::string& slot = Working().m_effectSlots[static_cast<size_t>(k)];
                if (slot == oldName) {
                    slot = effect.m_name;
                    m_slotTexts[static_cast<size_t>(k)]->setText(QString::fromStdString(slot));
                }
            }
            // The editor may have stripped a deleted plug-in from the list meanwhile.
            const int now = Working().FindEffect(oldName);
            if (now >= 0)
                Working().m_effects[static_cast<size_t>(now)] = effect;
            SetModified(true);
        }
    }
    FillList();
    MonitorRestore();
}

void CPgEffects::OnDelete()
{
    const std::string name = SelectedName();
    if (!AskWarningQuestion(FillText(218, name.c_str())))
        return;
    const int index = Working().FindEffect(name);
    if (index < 0)
        return;
    Working().RemoveEffect(index);
    for (QLabel* text : m_slotTexts) {
        if (text->text().toStdString() == name)
            text->clear();
    }
    FillList();
    Select(-1);
    SetModified(true);
}

} // namespace larimo
