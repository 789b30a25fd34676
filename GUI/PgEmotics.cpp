// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgEmotics.h"

#include "DialogTools.h"
#include "MoListBox.h"
#include "OptionsSheet.h"
#include "config.h"
#include "filltext.h"
#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "texts.h"
#include "wintools.h"

#include <QAbstractItemDelegate>
#include <QGridLayout>
#include <QHeaderView>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTreeWidget>
#include <QVBoxLayout>

#include <filesystem>

namespace larimo {

namespace {

namespace fs = std::filesystem;

constexpr unsigned kAvailableText = 328;
constexpr unsigned kUsedText = 367;
constexpr unsigned kDescriptionText = 224;
constexpr unsigned kFileText = 225;
constexpr unsigned kDeleteText = 326;
constexpr unsigned kImportText = 325;
constexpr unsigned kNewGroupButtonText = 366;
constexpr unsigned kFilterText = 365;
constexpr int kMarkerRole = Qt::UserRole;
constexpr int kFileRole = Qt::UserRole + 1;
constexpr int kGroupMarker = 1;
constexpr int kSoundMarker = 0;

QString Text(const std::string& text)
{
    return QString::fromStdString(text);
}

// What the Used list shows of a file: without a final ".wav" (in that letter case only).
std::string ShownFile(const std::string& file)
{
    return file.size() > 4 && file.compare(file.size() - 4, 4, ".wav") == 0 ? file.substr(0, file.size() - 4) : file;
}

fs::path GroupFolder(const std::string& path)
{
    return fs::path(SettingsPathToFs(path, LibFunSoundsFolder()));
}

} // namespace

CPgEmotics::CPgEmotics(COptionsSheet& sheet, CMoListBox* funSounds)
    : CSoundPage(sheet, kPageEmotics)
    , m_limit(funSounds != nullptr ? funSounds->MaxItems() : -1)
{
    m_used = new QTreeWidget(this);
    SetCtrlId(m_used, kUsedId);
    m_used->setColumnCount(2);
    m_used->setHeaderLabels({UiText(kDescriptionText), UiText(kFileText)});
    m_used->setRootIsDecorated(false);
    m_used->setSelectionMode(QAbstractItemView::SingleSelection);
    m_used->setAllColumnsShowFocus(true);
    m_used->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
    m_used->header()->resizeSection(0, 110);
    connect(m_used, &QTreeWidget::itemChanged, this, [this](QTreeWidgetItem* item, int column) {
        if (column != 0)
            return;
        const int row = m_used->indexOfTopLevelItem(item);
        auto& used = Working().m_emotics;
        if (row >= 0 && static_cast<size_t>(row) < used.size() && !item->text(0).isEmpty()) {
            used[static_cast<size_t>(row)].m_name = item->text(0).toStdString();
            SetModified(true);
        }
    });

    m_tree = new QTreeWidget(this);
    SetCtrlId(m_tree, kTreeId);
    m_tree->setHeaderHidden(true);
    m_tree->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_tree->viewport()->installEventFilter(this);
    connect(m_tree, &QTreeWidget::itemSelectionChanged, this, [this] {
        const QList<QTreeWidgetItem*> selected = m_tree->selectedItems();
        m_add->setEnabled(!selected.isEmpty() && !IsGroup(selected.first()));
    });
    connect(m_tree->itemDelegate(), &QAbstractItemDelegate::closeEditor, this,
            [this](QWidget*, QAbstractItemDelegate::EndEditHint hint) {
                if (m_naming != nullptr)
                    OnGroupEditEnded(m_naming, hint == QAbstractItemDelegate::RevertModelCache);
            });

    m_add = new QPushButton(QStringLiteral("<<"), this);
    SetCtrlId(m_add, kAddId);
    m_add->setEnabled(false);
    auto* remove = MakeButton(this, kDeleteText, kRemoveId);
    auto* newGroup = MakeButton(this, kNewGroupButtonText, kNewGroupId);
    auto* treeDelete = MakeButton(this, kDeleteText, kTreeDeleteId);
    auto* import = MakeButton(this, kImportText, kImportId);
    connect(m_add, &QPushButton::clicked, this, &CPgEmotics::OnAdd);
    connect(remove, &QPushButton::clicked, this, &CPgEmotics::OnRemove);
    connect(m_test, &QPushButton::clicked, this, &CPgEmotics::OnTest);
    connect(newGroup, &QPushButton::clicked, this, &CPgEmotics::OnNewGroup);
    connect(treeDelete, &QPushButton::clicked, this, &CPgEmotics::OnTreeDelete);
    connect(import, &QPushButton::clicked, this, &CPgEmotics::OnImport);

    auto* grid = new QGridLayout(this);
    grid->addWidget(new QLabel(UiText(kUsedText), this), 0, 0);
    grid->addWidget(new QLabel(UiText(kAvailableText), this), 0, 2);
    grid->addWidget(m_used, 1, 0);
    auto* middle = new QVBoxLayout;
    middle->addStretch(1);
    middle->addWidget(m_add);
    middle->addStretch(1);
    grid->addLayout(middle, 1, 1);
    grid->addWidget(m_tree, 1, 2);
    auto* usedButtons = new QHBoxLayout;
    usedButtons->addWidget(m_test);
    usedButtons->addWidget(remove);
    usedButtons->addStretch(1);
    auto* treeButtons = new QHBoxLayout;
    treeButtons->addWidget(newGroup);
    treeButtons->addWidget(import);
    treeButtons->addWidget(treeDelete);
    treeButtons->addStretch(1);
    grid->addLayout(usedButtons, 2, 0);
    grid->addLayout(treeButtons, 2, 2);
    grid->setColumnStretch(0, 1);
    grid->setColumnStretch(2, 1);

    RefillTree();
    const QSignalBlocker blocker(m_used);
    for (const Emotic& sound : Working().m_emotics) {
        if (m_limit != -1 && m_used->topLevelItemCount() >= m_limit)
            break;
        AddUsedRow(m_used->topLevelItemCount(), sound.m_name, sound.m_file);
    }
}

bool CPgEmotics::IsGroup(const QTreeWidgetItem* item)
{
    return item != nullptr && item->data(0, kMarkerRole).toInt() == kGroupMarker;
}

std::string CPgEmotics::ItemPath(const QTreeWidgetItem* item)
{
    std::string path;
    for (; item != nullptr; item = item->parent())
        path = item->text(0).toStdString() + (path.empty() ? "" : "\\" + path);
    return path;
}

void CPgEmotics::FillTree(const std::string& folder, QTreeWidgetItem* parent)
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        const fs::path& path = entry.path();
        QTreeWidgetItem* item = nullptr;
        if (entry.is_directory(ec)) {
            item = parent != nullptr ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(m_tree);
            item->setText(0, Text(path.filename().string()));
            item->setData(0, kMarkerRole, kGroupMarker);
            FillTree(path.string(), item);
        } else if (EqualsNoCase(path.extension().string(), ".wav")) {
            item = parent != nullptr ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(m_tree);
            item->setText(0, Text(path.stem().string()));
            item->setData(0, kMarkerRole, kSoundMarker);
        }
    }
    if (parent != nullptr)
        parent->setExpanded(true);
}

void CPgEmotics::RefillTree()
{
    m_tree->clear();
    FillTree(LibFunSoundsFolder(), nullptr);
}

bool CPgEmotics::eventFilter(QObject* watched, QEvent* event)
{
    // A click beside every item clears the tree's selection.
    if (watched == m_tree->viewport() && event->type() == QEvent::MouseButtonPress && m_naming == nullptr) {
        const auto* mouse = static_cast<QMouseEvent*>(event);
        if (mouse->button() == Qt::LeftButton && m_tree->itemAt(mouse->position().toPoint()) == nullptr)
            m_tree->clearSelection();
    }
    return CSoundPage::eventFilter(watched, event);
}

void CPgEmotics::AddUsedRow(int at, const std::string& name, const std::string& file)
{
    auto* item = new QTreeWidgetItem;
    item->setText(0, Text(name));
    item->setText(1, Text(ShownFile(file)));
    item->setData(0, kFileRole, Text(file));
    item->setFlags(item->flags() | Qt::ItemIsEditable);
    m_used->insertTopLevelItem(at, item);
}

void CPgEmotics::RebuildUsed()
{
    std::vector<Emotic>& used = Working().m_emotics;
    used.clear();
    for (int row = 0; row < m_used->topLevelItemCount(); ++row) {
        const QTreeWidgetItem* item = m_used->topLevelItem(row);
        used.push_back({item->text(0).toStdString(), item->data(0, kFileRole).toString().toStdString()});
    }
}

void CPgEmotics::OnAdd()
{
    const QList<QTreeWidgetItem*> selected = m_tree->selectedItems();
    if (selected.isEmpty() || IsGroup(selected.first()))
        return;
    if (m_limit != -1 && m_used->topLevelItemCount() >= m_limit) {
        WarningBox(GetText(215));
        return;
    }
    const QList<QTreeWidgetItem*> at = m_used->selectedItems();
    const int row = at.isEmpty() ? m_used->topLevelItemCount() : m_used->indexOfTopLevelItem(at.first());
    {
        const QSignalBlocker blocker(m_used);
        AddUsedRow(row, selected.first()->text(0).toStdString(), ItemPath(selected.first()) + ".wav");
    }
    RebuildUsed();
    SetModified(true);
}

void CPgEmotics::OnRemove()
{
    const QList<QTreeWidgetItem*> selected = m_used->selectedItems();
    if (selected.isEmpty())
        return;
    delete selected.first();
    RebuildUsed();
    SetModified(true);
}

void CPgEmotics::OnTest()
{
    if (IsPlaying()) {
        StopPreview("CPgEmotics");
        return;
    }
    const QTreeWidgetItem* focused = m_used->currentItem();
    if (focused == nullptr)
        return;
    const std::string file = focused->data(0, kFileRole).toString().toStdString();
    StartPreview(LibFunSoundPath(file), Working().m_testVolEmotic, 226);
}

QTreeWidgetItem* CPgEmotics::TargetGroup() const
{
    const QList<QTreeWidgetItem*> selected = m_tree->selectedItems();
    if (selected.isEmpty())
        return nullptr;
    return IsGroup(selected.first()) ? selected.first() : selected.first()->parent();
}

void CPgEmotics::OnNewGroup()
{
    if (m_naming != nullptr)
        return;
    QTreeWidgetItem* parent = TargetGroup();
    auto* item = parent != nullptr ? new QTreeWidgetItem(parent) : new QTreeWidgetItem(m_tree);
    item->setText(0, QString::fromLatin1(kNewGroupText));
    item->setData(0, kMarkerRole, kGroupMarker);
    item->setFlags(item->flags() | Qt::ItemIsEditable);
    if (parent != nullptr)
        parent->setExpanded(true);
    m_naming = item;
    m_tree->setFocus();
    m_tree->setCurrentItem(item);
    m_tree->editItem(item);
}

void CPgEmotics::OnGroupEditEnded(QTreeWidgetItem* item, bool cancelled)
{
    m_naming = nullptr;
    item->setFlags(item->flags() & ~Qt::ItemIsEditable);
    const std::string name = item->text(0).trimmed().toStdString();
    if (cancelled || name.empty()) {
        delete item;
        return;
    }
    const std::string parent = ItemPath(item->parent());
    std::error_code ec;
    const bool made = fs::create_directory(GroupFolder(parent.empty() ? name : parent + "\\" + name), ec);
    if (!made || ec) {
        delete item;
        ErrorBox(GetText(145));
        return;
    }
    item->setText(0, Text(name));
}

bool CPgEmotics::DeleteSound(const std::string& file)
{
    LogEnter("CPgEmotics::DeleteSound", "%s", file.c_str());
    if (!LibDeleteFunSound(file)) {
        ErrorBox(LibGetLastError());
        return false;
    }
    Config& real = Sheet().Real();
    const auto client = CommandClient();
    bool changed = false;
    for (size_t i = real.m_emotics.size(); i-- > 0;) {
        if (real.m_emotics[i].m_file != file)
            continue;
        if (client)
            client->EmoticSelect(static_cast<uint32_t>(i), std::string());
        real.m_emotics.erase(real.m_emotics.begin() + static_cast<std::ptrdiff_t>(i));
        changed = true;
    }
    if (changed) {
        real.WriteEmotics();
        if (client)
            client->SrvUpdate();
    }
    std::vector<Emotic>& used = Working().m_emotics;
    for (size_t i = used.size(); i-- > 0;) {
        if (used[i].m_file == file)
            used.erase(used.begin() + static_cast<std::ptrdiff_t>(i));
    }
    for (int row = m_used->topLevelItemCount() - 1; row >= 0; --row) {
        const QString rowFile = m_used->topLevelItem(row)->data(0, kFileRole).toString();
        if (rowFile.isEmpty() || EqualsNoCase(rowFile.toStdString(), file))
            delete m_used->topLevelItem(row);
    }
    return true;
}

void CPgEmotics::OnTreeDelete()
{
    const QList<QTreeWidgetItem*> selected = m_tree->selectedItems();
    if (selected.isEmpty())
        return;
    QTreeWidgetItem* item = selected.first();
    const std::string path = ItemPath(item);
    if (IsGroup(item)) {
        if (item->childCount() > 0) {
            WarningBox(FillText(214, path.c_str()));
            return;
        }
        if (!AskQuestion(FillText(216, path.c_str())))
            return;
        std::error_code ec;
        if (fs::remove(GroupFolder(path), ec) && !ec) {
            delete item;
        } else {
            ErrorBox(GetText(144));
            RefillTree();
        }
        return;
    }
    const std::string file = path + ".wav";
    if (!AskQuestion(FillText(230, file.c_str())))
        return;
    if (DeleteSound(file))
        delete item;
}

void CPgEmotics::OnImport()
{
    QTreeWidgetItem* group = TargetGroup();
    const std::string groupPath = ItemPath(group);
    const QString chosen = ChooseOpenFile(this, FileDialogFilter(GetText(kFilterText)));
    if (chosen.isEmpty())
        return;
    const std::string source = chosen.toStdString();
    const std::string name = LibSoundFileName(source);
    const std::string relative = groupPath.empty() ? name : groupPath + "\\" + name;
    bool replaced = false;
    if (LibFunSoundExists(relative)) {
        if (!AskWarningQuestion(FillText(231, relative.c_str())))
            return;
        if (!DeleteSound(relative))
            return;
        replaced = true;
    }
    if (!LibImportFunSound(source, groupPath)) {
        ErrorBox(LibGetLastError());
        return;
    }
    const QString stem = Text(fs::path(name).stem().string());
    // A replaced sound keeps its item: the library holds one file of that name.
    if (replaced) {
        const int count = group != nullptr ? group->childCount() : m_tree->topLevelItemCount();
        for (int i = 0; i < count; ++i) {
            const QTreeWidgetItem* child = group != nullptr ? group->child(i) : m_tree->topLevelItem(i);
            if (!IsGroup(child) && child->text(0).compare(stem, Qt::CaseInsensitive) == 0)
                return;
        }
    }
    auto* item = group != nullptr ? new QTreeWidgetItem(group) : new QTreeWidgetItem(m_tree);
    item->setText(0, stem);
    item->setData(0, kMarkerRole, kSoundMarker);
}

} // namespace larimo
