// SPDX-License-Identifier: GPL-3.0-or-later
// The background and fun sounds tabs against the real service and the private sound server:
// slots, the Used list, previews, groups, import of every kind and deletes that act at once.
#include "QtTestApplication.h"

#include "OptionsSheet.h"
#include "OptionsTestSupport.h"
#include "PgBackSounds.h"
#include "PgEmotics.h"
#include "DialogTools.h"
#include "MoListBox.h"
#include "SkinParser.h"
#include "modb.h"
#include "moipc_cli.h"
#include "moipc_cmds.h"
#include "../WaveTestFiles.h"

#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

#include <gtest/gtest.h>
#include <sndfile.h>

#include <filesystem>
#include <fstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;

std::string Settings()
{
    return test::PanelSettings("[soundcards]\ninput=Microphone (Test)\nmonitor=Speakers\n"
                               "[sound_0]\nfile=Rain.wav\ndescr=Rain at night\nvolume=40\n"
                               "[emotics]\nnum=3\nname_0=Laugh\nfile_0=Party\\Laugh.wav\n"
                               "name_1=Boing\nfile_1=Party\\Boing.wav\nname_2=Laugh again\nfile_2=Party\\Laugh.wav\n");
}

// An MP3 of a quiet tone outside the library.
std::string WriteMp3(const fs::path& path)
{
    std::vector<int16_t> tone(44100);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<int16_t>(8000 * ((i / 50) % 2 == 0 ? 1 : -1));
    test::WriteSound(path.string(), SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100, 1, tone);
    return path.string();
}

class SoundPagesTest : public test::OptionsTest {
protected:
    SoundPagesTest()
        : OptionsTest(Settings())
    {
    }
    void SetUp() override
    {
        m_service.AddSound("backsounds/Rain.wav", 2.0);
        m_service.AddSound("backsounds/Cafe.wav", 2.0);
        m_service.AddSound("emoticsounds/Party/Laugh.wav", 0.5);
        m_service.AddSound("emoticsounds/Party/Boing.wav", 0.3);
        m_service.AddSound("emoticsounds/Top.wav", 0.3);
        fs::create_directories(m_service.Folder() / "emoticsounds" / "Empty");
        OptionsTest::SetUp();
        m_outside = fs::temp_directory_path() / ("larimo-sounds-" + std::to_string(::getpid()));
        fs::create_directories(m_outside);
    }
    void TearDown() override
    {
        m_sheet.reset();
        SetOpenFileChooser(nullptr);
        std::error_code ignored;
        fs::remove_all(m_outside, ignored);
        OptionsTest::TearDown();
    }

    void Choose(const std::string& path)
    {
        SetOpenFileChooser([path](QWidget*, const QString& filter) {
            EXPECT_TRUE(filter.startsWith("Sound files (*.wav *.mp3")) << filter.toStdString();
            EXPECT_TRUE(filter.endsWith("All files (*)")) << filter.toStdString();
            return QString::fromStdString(path);
        });
    }
    static QTreeWidgetItem* Find(QTreeWidget* tree, const QString& path)
    {
        QTreeWidgetItem* item = nullptr;
        for (const QString& part : path.split('\\')) {
            const int count = item != nullptr ? item->childCount() : tree->topLevelItemCount();
            QTreeWidgetItem* next = nullptr;
            for (int i = 0; i < count && next == nullptr; ++i) {
                QTreeWidgetItem* child = item != nullptr ? item->child(i) : tree->topLevelItem(i);
                if (child->text(0) == part)
                    next = child;
            }
            if (next == nullptr)
                return nullptr;
            item = next;
        }
        return item;
    }

    fs::path m_outside;
};

TEST_F(SoundPagesTest, BackgroundSlotsTakeTheSelectedSoundAtFullVolumeWithItsNameAsDescription)
{
    CPgBackSounds& page = OpenPage<CPgBackSounds>(1);
    ASSERT_EQ(page.List()->count(), 2);
    EXPECT_EQ(page.List()->currentItem()->text(), "Cafe") << "the first entry is selected after a refill";
    EXPECT_EQ(page.SlotText(0)->text(), "Rain");
    EXPECT_EQ(page.Description(0)->text(), "Rain at night");
    m_sheet->grab().save(QDir::tempPath() + "/larimo-background-page.png");

    page.OnTake(1);
    EXPECT_EQ(page.SlotText(1)->text(), "Cafe");
    EXPECT_EQ(page.Description(1)->text(), "Cafe");
    EXPECT_EQ(page.Working().m_backSounds[1], (BackSound{"Cafe.wav", "Cafe", 100}));
    page.List()->setCurrentRow(1);
    page.OnTake(0);
    EXPECT_EQ(page.Working().m_backSounds[0].m_volume, 100) << "a sound taken into a slot starts at full volume";
    page.Description(0)->setText("Rain, loud");
    EXPECT_EQ(page.Working().m_backSounds[0].m_descr, "Rain, loud");

    page.List()->clearSelection();
    const auto before = page.Working().m_backSounds;
    page.OnTake(2);
    EXPECT_EQ(page.Working().m_backSounds, before) << "\"<<\" without a selection changes nothing";
}

TEST_F(SoundPagesTest, TestPlaysTheSoundAndLeavingTheTabPutsTheCaptionBack)
{
    CPgBackSounds& page = OpenPage<CPgBackSounds>(1);
    page.OnTest();
    EXPECT_TRUE(page.IsPlaying());
    EXPECT_TRUE(page.Test().IsRunning());
    EXPECT_EQ(page.TestButton()->text(), "Stop");
    m_sheet->SetActivePage(0);
    EXPECT_FALSE(page.IsPlaying());
    EXPECT_EQ(page.TestButton()->text(), "Test");
    EXPECT_TRUE(m_sink.m_texts.empty()) << m_sink.m_texts.front();
}

TEST_F(SoundPagesTest, DeletingABackgroundInARealSlotEmptiesItEverywhereAtOnce)
{
    Connect();
    CPgBackSounds& page = OpenPage<CPgBackSounds>(1);
    const int selects = Requests(kCmdBackSoundSelect);
    page.List()->setCurrentRow(1);
    ASSERT_EQ(page.List()->currentItem()->text(), "Rain");
    m_sink.m_answer = IDYES;
    page.OnDelete();
    EXPECT_EQ(m_sink.m_texts.back(), "Do you really want to delete \"Rain\"?");
    EXPECT_FALSE(LibBackSoundExists("Rain.wav"));
    EXPECT_EQ(Requests(kCmdBackSoundSelect), selects + 1);
    EXPECT_EQ(m_settings->m_backSounds[0], (BackSound{"", "", 40}));
    EXPECT_EQ(page.SlotText(0)->text(), "");
    m_sheet->PressCancel();
    Config saved(m_service.Folder().string());
    saved.LoadAll();
    EXPECT_EQ(saved.m_backSounds[0].m_file, "") << "the settings file follows at once, Cancel or not";
}

TEST_F(SoundPagesTest, AnMp3IsImportedAndAReplaceAnsweredNoChangesNothing)
{
    CPgBackSounds& page = OpenPage<CPgBackSounds>(1);
    Choose(WriteMp3(m_outside / "Waves.mp3"));
    page.OnImport();
    ASSERT_TRUE(LibBackSoundExists("Waves.wav")) << (m_sink.m_texts.empty() ? "" : m_sink.m_texts.back());
    EXPECT_EQ(page.List()->count(), 3);

    const auto size = fs::file_size(m_service.Folder() / "backsounds" / "Rain.wav");
    Choose(WriteMp3(m_outside / "rain.mp3"));
    m_sink.m_answer = IDNO;
    page.OnImport();
    EXPECT_EQ(m_sink.m_texts.back(), "Do you want to replace rain.wav?");
    EXPECT_EQ(fs::file_size(m_service.Folder() / "backsounds" / "Rain.wav"), size);

    std::ofstream(m_outside / "notes.ogg") << "no sound in here";
    Choose((m_outside / "notes.ogg").string());
    page.OnImport();
    EXPECT_TRUE(m_sink.m_texts.back().starts_with("\"notes.ogg\" is not a sound file Larimo can read."));
    EXPECT_EQ(page.List()->count(), 3);
}

TEST_F(SoundPagesTest, FunSoundsShowTheLibraryTreeAndTheUsedListWithinItsLimit)
{
    CPgEmotics& page = OpenPage<CPgEmotics>(2);
    EXPECT_NE(Find(page.Tree(), "Party\\Laugh"), nullptr);
    EXPECT_NE(Find(page.Tree(), "Empty"), nullptr);
    EXPECT_NE(Find(page.Tree(), "Top"), nullptr);
    ASSERT_EQ(page.Used()->topLevelItemCount(), 3);
    EXPECT_EQ(page.Used()->topLevelItem(1)->text(1), "Party\\Boing");
    EXPECT_EQ(CPgEmotics::ItemPath(Find(page.Tree(), "Party\\Boing")), "Party\\Boing");
    m_sheet->grab().save(QDir::tempPath() + "/larimo-funsounds-page.png");

    page.Tree()->setCurrentItem(Find(page.Tree(), "Top"));
    page.Used()->clearSelection();
    page.OnAdd();
    ASSERT_EQ(page.Used()->topLevelItemCount(), 4);
    EXPECT_EQ(page.Working().m_emotics.back(), (Emotic{"Top", "Top.wav"}));
    EXPECT_TRUE(COptionsPage::IsModified());

    // The Used list plays its focused row, whatever the tree shows.
    page.Used()->setCurrentItem(page.Used()->topLevelItem(1));
    page.OnTest();
    EXPECT_TRUE(page.IsPlaying());
    page.OnTest();
    EXPECT_FALSE(page.IsPlaying());

    page.Used()->setCurrentItem(page.Used()->topLevelItem(0));
    page.OnRemove();
    EXPECT_EQ(page.Working().m_emotics.front().m_name, "Boing");
    m_sheet->PressOk();
    Config saved(m_service.Folder().string());
    saved.LoadAll();
    EXPECT_EQ(saved.m_emotics.size(), 3U);
}

TEST_F(SoundPagesTest, AFullUsedListRefusesUntilARowIsRemoved)
{
    // A skin whose fun sound list has three rows.
    const fs::path skin = m_outside / "Small.sdf";
    std::ofstream(skin) << "Larimo skin Small\n\n[EmList]\nposition=0,0,0,0\nsize=100,60\nmax_items=3\n";
    CSkinParser parser;
    ASSERT_TRUE(parser.Init(skin.string()));
    CMoListBox funSounds(nullptr, 1079);
    funSounds.parseSkin(parser, "[EmList]", 1079);
    ASSERT_EQ(funSounds.MaxItems(), 3);

    auto& page = *qobject_cast<CPgEmotics*>(OpenSheet(2, &funSounds).Page(2));
    EXPECT_EQ(page.SlotLimit(), 3);
    ASSERT_EQ(page.Used()->topLevelItemCount(), 3);
    page.Tree()->setCurrentItem(Find(page.Tree(), "Top"));
    page.OnAdd();
    EXPECT_EQ(m_sink.m_texts.back(),
              "All Fun Sound Slots occupied. Please delete one of the used sounds to clear a slot.");
    EXPECT_EQ(page.Used()->topLevelItemCount(), 3);
    page.Used()->setCurrentItem(page.Used()->topLevelItem(2));
    page.OnRemove();
    page.Used()->clearSelection();
    page.Tree()->setCurrentItem(Find(page.Tree(), "Top"));
    page.OnAdd();
    EXPECT_EQ(page.Used()->topLevelItemCount(), 3);
    EXPECT_EQ(page.Working().m_emotics[2].m_file, "Top.wav");
}

TEST_F(SoundPagesTest, GroupsAreNamedInPlaceAndEscOrAnEmptyNameRemovesANewOne)
{
    CPgEmotics& page = OpenPage<CPgEmotics>(2);
    const auto name = [&](const QString& text, Qt::Key end) {
        page.OnNewGroup();
        auto* editor = page.Tree()->viewport()->findChild<QLineEdit*>();
        ASSERT_NE(editor, nullptr);
        editor->selectAll();
        if (text.isEmpty())
            QTest::keyClick(editor, Qt::Key_Delete);
        else
            QTest::keyClicks(editor, text);
        QTest::keyClick(editor, end);
        QTest::qWait(20);
    };
    const int top = page.Tree()->topLevelItemCount();
    name("Ignored", Qt::Key_Escape);
    EXPECT_EQ(page.Tree()->topLevelItemCount(), top);
    name("", Qt::Key_Return);
    EXPECT_EQ(page.Tree()->topLevelItemCount(), top);
    name("Voices", Qt::Key_Return);
    EXPECT_EQ(page.Tree()->topLevelItemCount(), top + 1);
    EXPECT_TRUE(fs::is_directory(m_service.Folder() / "emoticsounds" / "Voices"));

    // A group inside the selected one.
    page.Tree()->setCurrentItem(Find(page.Tree(), "Party"));
    name("Loud", Qt::Key_Return);
    EXPECT_TRUE(fs::is_directory(m_service.Folder() / "emoticsounds" / "Party" / "Loud"));

    // A group with something in it stays; an empty one goes after the question.
    page.Tree()->setCurrentItem(Find(page.Tree(), "Party"));
    page.OnTreeDelete();
    EXPECT_EQ(m_sink.m_texts.back(), "Cannot delete group \"Party\"\nPlease delete all sub-groups and sounds first.");
    page.Tree()->setCurrentItem(Find(page.Tree(), "Empty"));
    m_sink.m_answer = IDYES;
    page.OnTreeDelete();
    EXPECT_FALSE(fs::exists(m_service.Folder() / "emoticsounds" / "Empty"));
    EXPECT_EQ(Find(page.Tree(), "Empty"), nullptr);
}

TEST_F(SoundPagesTest, DeletingASoundUsedTwiceRemovesEveryUseAtOnce)
{
    Connect();
    CPgEmotics& page = OpenPage<CPgEmotics>(2);
    const int updates = Requests(kCmdSrvUpdate);
    page.Tree()->setCurrentItem(Find(page.Tree(), "Party\\Laugh"));
    m_sink.m_answer = IDYES;
    page.OnTreeDelete();
    EXPECT_EQ(m_sink.m_texts.back(), "Do you really want to delete \"Party\\Laugh.wav\"?");
    EXPECT_FALSE(LibFunSoundExists("Party\\Laugh.wav"));
    EXPECT_EQ(Find(page.Tree(), "Party\\Laugh"), nullptr);
    ASSERT_EQ(page.Used()->topLevelItemCount(), 1);
    EXPECT_EQ(page.Working().m_emotics, (std::vector<Emotic>{{"Boing", "Party\\Boing.wav"}}));
    EXPECT_EQ(m_settings->m_emotics, (std::vector<Emotic>{{"Boing", "Party\\Boing.wav"}}));
    EXPECT_EQ(Requests(kCmdEmoticSelect), 2);
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates + 1);
    m_sheet->PressCancel();
    Config saved(m_service.Folder().string());
    saved.LoadAll();
    EXPECT_EQ(saved.m_emotics.size(), 1U);
}

TEST_F(SoundPagesTest, AFunSoundIsImportedIntoTheSelectedGroupAndAReplaceAnsweredNoKeepsTheOld)
{
    CPgEmotics& page = OpenPage<CPgEmotics>(2);
    page.Tree()->setCurrentItem(Find(page.Tree(), "Party\\Boing"));
    Choose(WriteMp3(m_outside / "Whistle.mp3"));
    page.OnImport();
    EXPECT_TRUE(LibFunSoundExists("Party\\Whistle.wav")) << (m_sink.m_texts.empty() ? "" : m_sink.m_texts.back());
    EXPECT_NE(Find(page.Tree(), "Party\\Whistle"), nullptr);

    const auto size = fs::file_size(m_service.Folder() / "emoticsounds" / "Party" / "Laugh.wav");
    Choose(WriteMp3(m_outside / "Laugh.mp3"));
    m_sink.m_answer = IDNO;
    page.OnImport();
    EXPECT_EQ(m_sink.m_texts.back(), "File \"Party\\Laugh.wav\" in current directory exists. Delete it?");
    EXPECT_EQ(fs::file_size(m_service.Folder() / "emoticsounds" / "Party" / "Laugh.wav"), size);
    EXPECT_EQ(page.Used()->topLevelItemCount(), 3);
}

} // namespace
} // namespace larimo
