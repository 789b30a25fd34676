// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgShortcuts.h"

#include "DialogTools.h"
#include "OptionsSheet.h"
#include "config.h"
#include "filltext.h"
#include "keyboard.h"
#include "mlog.h"
#include "platform/GlobalHotKeys.h"
#include "platform/KeyMap.h"

#include <QApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace larimo {

namespace {

constexpr unsigned kActionColumnText = 276;
constexpr unsigned kKeyColumnText = 277;
constexpr unsigned kChangeText = 279;
constexpr unsigned kPressKeysText = 280;
constexpr unsigned kPromptText = 340;
constexpr unsigned kRemoveText = 341;
constexpr unsigned kDuplicateText = 342;
constexpr unsigned kRefusedText = 343;

bool IsModifierKey(int key)
{
    return key == Qt::Key_Shift || key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_AltGr ||
           key == Qt::Key_Meta;
}

uint32_t ModifierBits(Qt::KeyboardModifiers modifiers, int key)
{
    uint32_t bits = 0;
    if (modifiers.testFlag(Qt::AltModifier) || key == Qt::Key_Alt)
        bits |= kModAlt;
    if (modifiers.testFlag(Qt::ControlModifier) || key == Qt::Key_Control)
        bits |= kModCtrl;
    if (modifiers.testFlag(Qt::ShiftModifier) || key == Qt::Key_Shift)
        bits |= kModShift;
    return bits;
}

} // namespace

CPgShortcuts::CPgShortcuts(COptionsSheet& sheet)
    : COptionsPage(sheet, kPageShortcuts)
{
    m_list = new QTreeWidget(this);
    SetCtrlId(m_list, kListId);
    m_list->setColumnCount(2);
    m_list->setHeaderLabels({UiText(kActionColumnText), UiText(kKeyColumnText)});
    m_list->setRootIsDecorated(false);
    m_list->setSelectionMode(QAbstractItemView::SingleSelection);
    m_list->setAllColumnsShowFocus(true);
    m_list->header()->resizeSection(0, 200);
    for (int action = 0; action < kShortcutCount; ++action) {
        auto* item = new QTreeWidgetItem(m_list);
        item->setText(0, QString::fromStdString(ShortcutActionText(static_cast<ShortcutAction>(action))));
        item->setText(1, QString::fromStdString(ShortcutToText(Working().m_shortcuts[static_cast<size_t>(action)])));
        item->setData(0, Qt::UserRole, action);
    }
    connect(m_list, &QTreeWidget::itemSelectionChanged, this, [this] {
        const QList<QTreeWidgetItem*> selected = m_list->selectedItems();
        SelectRow(selected.isEmpty() ? -1 : m_list->indexOfTopLevelItem(selected.first()));
    });

    m_change = MakeButton(this, kChangeText, kChangeId);
    m_remove = MakeButton(this, kRemoveText, kRemoveId);
    connect(m_change, &QPushButton::clicked, this, &CPgShortcuts::OnChange);
    connect(m_remove, &QPushButton::clicked, this, &CPgShortcuts::OnRemove);
    m_prompt = new QLabel(UiText(kPromptText), this);
    SetCtrlId(m_prompt, kPromptId);
    m_prompt->setWordWrap(true);
    m_notice = new QLabel(this);
    SetCtrlId(m_notice, kNoticeId);
    m_notice->setWordWrap(true);
    m_notice->setStyleSheet(QStringLiteral("color: #a33;"));

    auto* buttons = new QHBoxLayout;
    buttons->addWidget(m_change);
    buttons->addWidget(m_remove);
    buttons->addStretch(1);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_list, 1);
    layout->addLayout(buttons);
    layout->addWidget(m_prompt);
    layout->addWidget(m_notice);
    Enter(State::Idle);
}

CPgShortcuts::~CPgShortcuts()
{
    qApp->removeEventFilter(this);
}

bool CPgShortcuts::OnKillActive()
{
    if (m_state == State::Capturing)
        Enter(State::Selected);
    return COptionsPage::OnKillActive();
}

int CPgShortcuts::Action(int row) const
{
    return m_list->topLevelItem(row)->data(0, Qt::UserRole).toInt();
}

void CPgShortcuts::Enter(State state)
{
    if (state != State::Idle && m_row < 0)
        state = State::Idle;
    const bool wasCapturing = m_state == State::Capturing;
    m_state = state;
    m_change->setText(UiText(state == State::Capturing ? kPressKeysText : kChangeText));
    m_change->setEnabled(state != State::Idle);
    m_prompt->setVisible(state == State::Capturing);
    switch (state) {
    case State::Idle:
        m_remove->setEnabled(false);
        break;
    case State::Selected:
        m_remove->setEnabled(!m_list->topLevelItem(m_row)->text(1).isEmpty());
        m_capturedKey = 0;
        break;
    case State::Capturing:
        m_remove->setEnabled(true);
        m_savedText = m_list->topLevelItem(m_row)->text(1);
        m_capturedKey = 0;
        m_notice->clear();
        break;
    }
    // While capturing, every key pressed anywhere in the program is the user's answer.
    if (state == State::Capturing && !wasCapturing)
        qApp->installEventFilter(this);
    else if (state != State::Capturing && wasCapturing)
        qApp->removeEventFilter(this);
}

void CPgShortcuts::SelectRow(int row)
{
    if (row >= m_list->topLevelItemCount())
        row = -1;
    if (row >= 0 && m_list->currentItem() != m_list->topLevelItem(row))
        m_list->setCurrentItem(m_list->topLevelItem(row));
    m_row = row;
    Enter(row >= 0 ? State::Selected : State::Idle);
}

void CPgShortcuts::OnChange()
{
    if (m_row < 0)
        return;
    Enter(State::Capturing);
    m_list->setFocus();
}

void CPgShortcuts::OnRemove()
{
    if (m_row < 0)
        return;
    QTreeWidgetItem* item = m_list->topLevelItem(m_row);
    if (!item->text(1).isEmpty()) {
        item->setText(1, QString());
        Working().m_shortcuts[static_cast<size_t>(Action(m_row))] = 0;
        SetModified(true);
        m_notice->clear();
    }
    Enter(State::Selected);
}

bool CPgShortcuts::eventFilter(QObject* watched, QEvent* event)
{
    if (m_state != State::Capturing || m_row < 0)
        return COptionsPage::eventFilter(watched, event);
    if (event->type() == QEvent::KeyPress || event->type() == QEvent::ShortcutOverride) {
        const auto* key = static_cast<QKeyEvent*>(event);
        // Qt offers a key to the shortcut machinery first; taking it there keeps menus and
        // mnemonics from acting on it, and the press itself follows.
        if (event->type() == QEvent::ShortcutOverride) {
            event->accept();
            return true;
        }
        if (!key->isAutoRepeat())
            CaptureKeyDown(*key);
        return true;
    }
    if (event->type() == QEvent::KeyRelease) {
        if (!static_cast<QKeyEvent*>(event)->isAutoRepeat())
            CaptureKeyUp();
        return true;
    }
    return COptionsPage::eventFilter(watched, event);
}

void CPgShortcuts::CaptureKeyDown(const QKeyEvent& event)
{
    QTreeWidgetItem* item = m_list->topLevelItem(m_row);
    if (event.key() == Qt::Key_Escape) {
        item->setText(1, m_savedText);
        Enter(State::Selected);
        return;
    }
    const uint32_t modifiers = ModifierBits(event.modifiers(), event.key());
    if (!IsModifierKey(event.key()))
        m_capturedKey = QtKeyToVirtualKey(event.key(), event.modifiers().testFlag(Qt::KeypadModifier));
    item->setText(1, QString::fromStdString(ShortcutToText(m_capturedKey, modifiers)));
}

void CPgShortcuts::CaptureKeyUp()
{
    QTreeWidgetItem* item = m_list->topLevelItem(m_row);
    const int action = Action(m_row);
    if (m_capturedKey != 0) {
        Working().m_shortcuts[static_cast<size_t>(action)] = ShortcutFromText(item->text(1).toStdString());
        SetModified(true);
        Enter(State::Selected);
        ShowNotice(action);
        return;
    }
    // Only modifiers were pressed: nothing was bound, so the row shows what is stored.
    item->setText(1, QString::fromStdString(ShortcutToText(Working().m_shortcuts[static_cast<size_t>(action)])));
    Enter(State::Selected);
}

void CPgShortcuts::ShowNotice(int action)
{
    const uint64_t value = Working().m_shortcuts[static_cast<size_t>(action)];
    m_notice->clear();
    if (ShortcutKey(value) == 0)
        return;
    const std::string keys = ShortcutToText(value);
    for (int other = 0; other < kShortcutCount; ++other) {
        if (other != action && Working().m_shortcuts[static_cast<size_t>(other)] == value) {
            const std::string otherText = ShortcutActionText(static_cast<ShortcutAction>(other));
            m_notice->setText(QString::fromStdString(FillText(kDuplicateText, keys.c_str(), otherText.c_str())));
            return;
        }
    }
    // The main window holds the stored key already; only a new one needs asking about.
    if (value != Real().m_shortcuts[static_cast<size_t>(action)] &&
        !ProbeKey(ShortcutKey(value), ShortcutModifiers(value))) {
        m_notice->setText(QString::fromStdString(FillText(kRefusedText, keys.c_str())));
        LogWarning("CPgShortcuts: the desktop refuses %s", keys.c_str());
    }
}

bool CPgShortcuts::ProbeKey(uint32_t virtualKey, uint32_t modifiers)
{
    if (m_probe)
        return m_probe(virtualKey, modifiers);
    // Only X11 can be asked without asking the user: the portal would show its own dialog.
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        return true;
    GlobalHotKeys* probe = CreateGlobalHotKeys(this);
    bool free = true;
    if (probe->BackendName() == "X11" && probe->Available()) {
        free = probe->Register(0, virtualKey, modifiers);
        probe->UnregisterAll();
    }
    delete probe;
    return free;
}

} // namespace larimo
