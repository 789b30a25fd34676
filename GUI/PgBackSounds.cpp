// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgBackSounds.h"

#include "DialogTools.h"
#include "OptionsSheet.h"
#include "config.h"
#include "filltext.h"
#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "texts.h"

#include <QFileInfo>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace larimo {

namespace {

constexpr unsigned kSlotLabelText = 274;
constexpr unsigned kAvailableText = 328;
constexpr unsigned kImportText = 325;
constexpr unsigned kDeleteText = 326;
constexpr unsigned kFilterText = 365;

QString Stem(const std::string& file)
{
    return QFileInfo(QString::fromStdString(file)).completeBaseName();
}

} // namespace

CPgBackSounds::CPgBackSounds(COptionsSheet& sheet)
    : CSoundPage(sheet, kPageBackSounds)
{
    auto* slotRows = new QGridLayout;
    for (int k = 0; k < 3; ++k) {
        const auto index = static_cast<size_t>(k);
        auto* text = new QLabel(this);
        text->setFrameShape(QFrame::StyledPanel);
        text->setMinimumWidth(120);
        SetCtrlId(text, kSlotTextIds[k]);
        auto* description = new QLineEdit(this);
        SetCtrlId(description, kDescrIds[k]);
        auto* take = new QPushButton(QStringLiteral("<<"), this);
        take->setFixedWidth(take->fontMetrics().horizontalAdvance(QStringLiteral("<<<<")) + 8);
        SetCtrlId(take, kTakeIds[k]);
        slotRows->addWidget(new QLabel(QString::fromStdString(FillText(kSlotLabelText, k + 1)), this), k, 0);
        slotRows->addWidget(text, k, 1);
        slotRows->addWidget(description, k, 2);
        slotRows->addWidget(take, k, 3);
        m_slotTexts[index] = text;
        m_descriptions[index] = description;
        // Every change of the text counts, also one the page makes itself.
        connect(description, &QLineEdit::textChanged, this, [this, index](const QString& value) {
            SetModified(true);
            Working().m_backSounds[index].m_descr = value.toStdString();
        });
        connect(take, &QPushButton::clicked, this, [this, k] { OnTake(k); });
    }

    m_list = new QListWidget(this);
    SetCtrlId(m_list, kListId);
    m_list->setSortingEnabled(true);
    auto* import = MakeButton(this, kImportText, kImportId);
    auto* remove = MakeButton(this, kDeleteText, kDeleteId);
    connect(m_test, &QPushButton::clicked, this, &CPgBackSounds::OnTest);
    connect(import, &QPushButton::clicked, this, &CPgBackSounds::OnImport);
    connect(remove, &QPushButton::clicked, this, &CPgBackSounds::OnDelete);
    connect(m_list, &QListWidget::itemDoubleClicked, this, [this] { OnTest(); });
    QHBoxLayout* library = ListWithButtons(m_list, {m_test, import, remove});
    auto* layout = new QVBoxLayout(this);
    layout->addLayout(slotRows);
    layout->addWidget(new QLabel(UiText(kAvailableText), this));
    layout->addLayout(library, 1);

    FillList();
    for (int k = 0; k < 3; ++k) {
        const BackSound& slot = Working().m_backSounds[static_cast<size_t>(k)];
        m_slotTexts[static_cast<size_t>(k)]->setText(Stem(slot.m_file));
        const QSignalBlocker blocker(m_descriptions[static_cast<size_t>(k)]);
        m_descriptions[static_cast<size_t>(k)]->setText(QString::fromStdString(slot.m_descr));
    }
}

void CPgBackSounds::FillList()
{
    m_list->clear();
    for (const std::string& name : LibListBackSounds())
        m_list->addItem(Stem(name));
    if (m_list->count() > 0)
        m_list->setCurrentRow(0);
}

QString CPgBackSounds::Selected() const
{
    const QListWidgetItem* item = m_list->currentItem();
    return item != nullptr && item->isSelected() ? item->text() : QString();
}

void CPgBackSounds::UnTake(int slot)
{
    const auto index = static_cast<size_t>(slot);
    m_slotTexts[index]->clear();
    m_descriptions[index]->clear();
    Working().m_backSounds[index] = BackSound{};
}

void CPgBackSounds::OnTake(int slot)
{
    const QString name = Selected();
    if (name.isEmpty())
        return;
    SetModified(true);
    UnTake(slot);
    const auto index = static_cast<size_t>(slot);
    m_slotTexts[index]->setText(name);
    m_descriptions[index]->setText(name);
    BackSound sound;
    sound.m_file = name.toStdString() + ".wav";
    sound.m_descr = name.toStdString();
    Working().m_backSounds[index] = sound;
}

void CPgBackSounds::OnTest()
{
    if (IsPlaying()) {
        StopPreview("CPgBackSounds");
        return;
    }
    const QString name = Selected();
    if (!name.isEmpty())
        StartPreview(LibBackSoundPath(name.toStdString() + ".wav"), Working().m_testVolBack, 211);
}

void CPgBackSounds::OnDelete()
{
    const QString name = Selected();
    if (name.isEmpty())
        return;
    if (AskQuestion(FillText(209, name.toStdString().c_str())))
        DeleteSound(name.toStdString() + ".wav");
}

bool CPgBackSounds::DeleteSound(const std::string& file)
{
    LogEnter("CPgBackSounds::DeleteSound", "%s", file.c_str());
    if (!LibDeleteBackSound(file)) {
        ErrorBox(LibGetLastError());
        return false;
    }
    Config& real = Sheet().Real();
    if (const auto client = CommandClient()) {
        for (int k = 0; k < 3; ++k) {
            if (real.m_backSounds[static_cast<size_t>(k)].m_file == file)
                client->BackSoundSelect(static_cast<uint32_t>(k), std::string());
        }
    }
    for (int k = 0; k < 3; ++k) {
        const auto index = static_cast<size_t>(k);
        BackSound& working = Working().m_backSounds[index];
        if (working.m_file == file) {
            working.m_file.clear();
            working.m_descr.clear();
            Working().WriteBackSound(k);
            real.m_backSounds[index] = working;
            UnTake(k);
        }
        BackSound& kept = real.m_backSounds[index];
        if (kept.m_file == file) {
            kept.m_file.clear();
            kept.m_descr.clear();
            real.WriteBackSound(k);
        }
    }
    FillList();
    return true;
}

void CPgBackSounds::OnImport()
{
    const QString path = ChooseOpenFile(this, FileDialogFilter(GetText(kFilterText)));
    if (path.isEmpty())
        return;
    const std::string source = path.toStdString();
    const std::string name = LibSoundFileName(source);
    if (LibBackSoundExists(name)) {
        if (!AskWarningQuestion(FillText(210, name.c_str())))
            return;
        if (!DeleteSound(name))
            return;
    }
    if (LibImportBackSound(source))
        FillList();
    else
        ErrorBox(LibGetLastError());
}

} // namespace larimo
