// SPDX-License-Identifier: GPL-3.0-or-later
// The skinned controls and the oscilloscope under QTest.
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <QSignalSpy>
#include <QWheelEvent>
#include <QTemporaryDir>
#include <QTest>

#include "FFButton.h"
#include "FFSliderCtrl.h"
#include "FFStaticText.h"
#include "MoListBox.h"
#include "SkinPaint.h"
#include "osci.h"

namespace larimo::test {

namespace {

const QColor kUp(10, 20, 30);
const QColor kOver(40, 50, 60);
const QColor kDown(70, 80, 90);
const QColor kDownOver(100, 110, 120);
const QColor kBlack(0, 0, 0);

void SendMouse(QWidget* widget, QEvent::Type type, QPoint at, Qt::MouseButton button = Qt::LeftButton)
{
    const Qt::MouseButtons held = type == QEvent::MouseButtonRelease || type == QEvent::MouseMove ? Qt::NoButton : button;
    QMouseEvent event(type, at, widget->mapToGlobal(at), type == QEvent::MouseMove ? Qt::NoButton : button, held,
                      Qt::NoModifier);
    QApplication::sendEvent(widget, &event);
}

void Click(QWidget* widget, QPoint at, QPoint releaseAt)
{
    SendMouse(widget, QEvent::MouseMove, at);
    SendMouse(widget, QEvent::MouseButtonPress, at);
    SendMouse(widget, QEvent::MouseButtonRelease, releaseAt);
}

// A skin file in a folder of its own; 2 x 2 bitmaps written beside it on request.
class TempSkin {
public:
    explicit TempSkin(const std::string& text)
    {
        m_path = m_dir.path().toStdString() + "/test.sdf";
        std::ofstream(m_path) << text;
    }
    const std::string& Path() const { return m_path; }
    void Bitmap(const std::string& name, QRgb color) const
    {
        // 24-bit, 2 x 2, rows padded to 8 bytes.
        std::vector<unsigned char> b = {'B', 'M', 70, 0, 0, 0, 0, 0, 0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 2, 0, 0, 0, 2, 0,
                                        0, 0, 1, 0, 24, 0};
        b.resize(54, 0);
        for (int row = 0; row < 2; ++row) {
            for (int x = 0; x < 2; ++x) {
                b.push_back(static_cast<unsigned char>(qBlue(color)));
                b.push_back(static_cast<unsigned char>(qGreen(color)));
                b.push_back(static_cast<unsigned char>(qRed(color)));
            }
            b.push_back(0);
            b.push_back(0);
        }
        std::ofstream(m_dir.path().toStdString() + "/" + name, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    }

private:
    QTemporaryDir m_dir;
    std::string m_path;
};

const char* kButtonSkin = "[B]\n"
                          "position=5,6,0,0\n"
                          "size=40,20\n"
                          "font_color_up=10,20,30\n"
                          "font_color_mo=40,50,60\n"
                          "font_color_do=70,80,90\n"
                          "font_color_do_mo=100,110,120\n"
                          "caption=Go\n"
                          "mouseover=\n"
                          "mouseover=1\n";

} // namespace

class ControlsTest : public QObject {
    Q_OBJECT

private slots:
    void ButtonKindFollowsTheStyle()
    {
        using K = CFFButton::Kind;
        const std::pair<unsigned, K> cases[] = {{0, K::Push},  {1, K::Push},  {2, K::Check},     {3, K::Check},
                                                {4, K::Radio}, {5, K::Radio}, {6, K::Check},     {9, K::Radio},
                                                {8, K::Push},  {0x10009, K::Radio}, {0x1B, K::Check}};
        for (const auto& [style, kind] : cases)
            QCOMPARE(CFFButton::KindFromStyle(style), kind);
    }

    void PushButtonStatesAndClicks()
    {
        QWidget parent;
        parent.resize(200, 100);
        TempSkin skin(kButtonSkin);
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* button = new CFFButton(&parent, CFFButton::kBsPushButton, 1084);
        QVERIFY(button->parseSkin(parser, "[B]", -1));
        QCOMPARE(button->geometry(), QRect(5, 6, 40, 20));
        QCOMPARE(button->property("ctrlId").toInt(), 1084);
        QCOMPARE(button->Text(), QString("Go"));
        QSignalSpy clicked(button, &CFFButton::Clicked);

        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffUp);
        QCOMPARE(button->CurrentLook().caption, kUp);
        SendMouse(button, QEvent::MouseMove, QPoint(3, 3));
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffOver);
        QCOMPARE(button->CurrentLook().caption, kOver);
        SendMouse(button, QEvent::MouseButtonPress, QPoint(3, 3));
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffDown);
        QCOMPARE(button->CurrentLook().caption, kDown);
        SendMouse(button, QEvent::MouseButtonRelease, QPoint(3, 3));
        QCOMPARE(clicked.count(), 1);
        QCOMPARE(clicked.at(0).at(0).toInt(), 1084);
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffUp);

        // Released outside: nothing is sent and the button looks up again.
        SendMouse(button, QEvent::MouseMove, QPoint(3, 3));
        SendMouse(button, QEvent::MouseButtonPress, QPoint(3, 3));
        SendMouse(button, QEvent::MouseMove, QPoint(60, 3));
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffUp); // pressed but outside
        SendMouse(button, QEvent::MouseButtonRelease, QPoint(60, 3));
        QCOMPARE(clicked.count(), 1);
        QVERIFY(!button->IsHover());
        QVERIFY(!button->IsPressed());

        QSignalSpy right(button, &CFFButton::RightClicked);
        SendMouse(button, QEvent::MouseButtonPress, QPoint(3, 3), Qt::RightButton);
        QCOMPARE(right.count(), 1);
        QCOMPARE(clicked.count(), 1);

        button->Enable(false);
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffDisabled);
        QCOMPARE(button->CurrentLook().caption, kBlack);
    }

    void CheckBoxShowsOnWhenChecked()
    {
        QWidget parent;
        TempSkin skin(kButtonSkin);
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* box = new CFFButton(&parent, CFFButton::kBsAutoCheckBox, 7);
        QVERIFY(box->parseSkin(parser, "[B]", -1));
        Click(box, QPoint(2, 2), QPoint(2, 2));
        QCOMPARE(box->GetCheck(), 1);
        QCOMPARE(box->CurrentLook().slot, CFFButton::kOnUp);
        QCOMPARE(box->CurrentLook().caption, kDown);
        Click(box, QPoint(2, 2), QPoint(2, 2));
        QCOMPARE(box->GetCheck(), 0);
        QCOMPARE(box->CurrentLook().slot, CFFButton::kOffUp);
        QCOMPARE(box->CurrentLook().caption, kUp);
    }

    void RadioButtonsTableAndGroups()
    {
        QWidget parent;
        TempSkin skin(kButtonSkin);
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        std::vector<CFFButton*> radios;
        for (int i = 0; i < 3; ++i) {
            radios.push_back(new CFFButton(&parent, CFFButton::kBsAutoRadioButton, 1003 + i));
            QVERIFY(radios.back()->parseSkin(parser, "[B]", -1));
            radios.back()->SetRadioGroup(1);
        }
        auto* outsider = new CFFButton(&parent, CFFButton::kBsAutoRadioButton, 1012);
        outsider->SetRadioGroup(2);
        outsider->SetCheck(1);
        CFFButton* r = radios[1];
        QSignalSpy clicked(r, &CFFButton::Clicked);

        radios[0]->SetCheck(1);
        Click(r, QPoint(2, 2), QPoint(2, 2));
        QCOMPARE(r->GetCheck(), 1);
        QCOMPARE(radios[0]->GetCheck(), 0);
        QCOMPARE(outsider->GetCheck(), 1); // another group keeps its choice
        QCOMPARE(clicked.count(), 1);

        // Clicked again while checked: stays checked and still tells the window.
        Click(r, QPoint(2, 2), QPoint(2, 2));
        QCOMPARE(r->GetCheck(), 1);
        QCOMPARE(clicked.count(), 2);

        // Checked: over, pressed and over, neither.
        SendMouse(r, QEvent::MouseMove, QPoint(2, 2));
        QCOMPARE(r->CurrentLook().slot, CFFButton::kOnOver);
        QCOMPARE(r->CurrentLook().caption, kDownOver);
        SendMouse(r, QEvent::MouseButtonPress, QPoint(2, 2));
        QCOMPARE(r->CurrentLook().slot, CFFButton::kOnDown);
        QCOMPARE(r->CurrentLook().caption, kDown);
        SendMouse(r, QEvent::MouseButtonRelease, QPoint(90, 2));
        QCOMPARE(r->CurrentLook().slot, CFFButton::kOnUp);
        QCOMPARE(r->CurrentLook().caption, kDown);
        QCOMPARE(clicked.count(), 2);

        // Unchecked: over, pressed and over.
        CFFButton* other = radios[2];
        SendMouse(other, QEvent::MouseMove, QPoint(2, 2));
        QCOMPARE(other->CurrentLook().slot, CFFButton::kOffOver);
        QCOMPARE(other->CurrentLook().caption, kOver);
        SendMouse(other, QEvent::MouseButtonPress, QPoint(2, 2));
        QCOMPARE(other->CurrentLook().slot, CFFButton::kOffDown);
        QCOMPARE(other->CurrentLook().caption, kUp);

        r->Enable(false);
        QCOMPARE(r->CurrentLook().slot, CFFButton::kOnDisabled);
        QCOMPARE(r->CurrentLook().caption, kBlack);
        radios[0]->Enable(false);
        QCOMPARE(radios[0]->CurrentLook().slot, CFFButton::kOffDisabled);
    }

    void WithoutMouseOverKeyThePointerChangesNothing()
    {
        QWidget parent;
        TempSkin skin("[B]\nsize=20,20\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* button = new CFFButton(&parent, CFFButton::kBsPushButton, 1);
        QVERIFY(button->parseSkin(parser, "[B]", -1));
        SendMouse(button, QEvent::MouseMove, QPoint(2, 2));
        QVERIFY(button->IsHover());
        QCOMPARE(button->CurrentLook().slot, CFFButton::kOffUp);
    }

    void MissingStateBitmapsShowTheFaceColour()
    {
        QWidget parent;
        TempSkin skin("[B]\nsize=2,2\nbitmap_up=up.bmp\n");
        skin.Bitmap("up.bmp", qRgb(200, 10, 10));
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* button = new CFFButton(&parent, CFFButton::kBsPushButton, 1);
        QVERIFY(button->parseSkin(parser, "[B]", -1));
        QCOMPARE(QColor(button->grab().toImage().pixel(1, 1)), QColor(200, 10, 10));
        SendMouse(button, QEvent::MouseMove, QPoint(1, 1));
        SendMouse(button, QEvent::MouseButtonPress, QPoint(1, 1));
        QCOMPARE(QColor(button->grab().toImage().pixel(1, 1)), button->FaceColor());
        QCOMPARE(button->FaceColor(), QColor(100, 200, 200));
    }

    void RegionDecidesWhereTheButtonIsHit()
    {
        QTemporaryDir dir;
        QRegion shape(0, 0, 10, 10);
        const std::vector<std::uint8_t> data = CDynRgn::Serialize(shape);
        std::ofstream(dir.path().toStdString() + "/b.rgn", std::ios::binary)
            .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        std::ofstream(dir.path().toStdString() + "/s.sdf") << "[B]\nsize=30,30\nregion=b.rgn\n";
        CSkinParser parser;
        QVERIFY(parser.Init(dir.path().toStdString() + "/s.sdf"));
        QWidget parent;
        auto* button = new CFFButton(&parent, CFFButton::kBsPushButton, 1);
        QVERIFY(button->parseSkin(parser, "[B]", -1));
        QCOMPARE(button->mask(), shape);
        QSignalSpy clicked(button, &CFFButton::Clicked);
        Click(button, QPoint(20, 20), QPoint(20, 20));
        QCOMPARE(clicked.count(), 0);
        Click(button, QPoint(5, 5), QPoint(5, 5));
        QCOMPARE(clicked.count(), 1);
    }

    void CaptionPlacement()
    {
        QWidget parent;
        TempSkin skin("[A]\nsize=100,40\ncaption=Hi\nalign=5,-3\n"
                      "[C]\nsize=100,40\ncaption=Hi\nalign=-4,6\nxbounds=70,10\n"
                      "[D]\nsize=100,40\ncaption=Hi\nxbounds=70,0\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* a = new CFFButton(&parent, 0, 1);
        auto* c = new CFFButton(&parent, 0, 2);
        auto* d = new CFFButton(&parent, 0, 3);
        QVERIFY(a->parseSkin(parser, "[A]", -1));
        QVERIFY(c->parseSkin(parser, "[C]", -1));
        QVERIFY(d->parseSkin(parser, "[D]", -1));
        const QSize text = QFontMetrics(a->font()).size(Qt::TextSingleLine, "Hi");
        QCOMPARE(a->CaptionRect().left(), 5);
        QCOMPARE(a->CaptionRect().top(), 40 - text.height() - 3);
        QCOMPARE(a->CaptionRect().right(), 99);
        QCOMPARE(c->CaptionRect().left(), 100 - text.width() - 4); // neither offset is 0: no lower bound
        QCOMPARE(c->CaptionRect().top(), 6);
        QCOMPARE(c->CaptionRect().right(), 100 - 10 - 1);
        QCOMPARE(d->CaptionRect().left(), 70); // centred caption raised to the lower bound
        QCOMPARE(d->CaptionRect().top(), 20 - text.height() / 2);
    }

    void StaticTextMovesAndLaysOutByStyle()
    {
        QWidget parent;
        TempSkin skin("[T]\nposition=30,40\nsize=80,20\nfont_color=1,2,3\nmaximum_length=10\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* text = new CFFStaticText(&parent, 0, 1006, "template");
        text->setGeometry(0, 0, 50, 10);
        QVERIFY(text->parseSkin(parser, "[T]", -1));
        QCOMPARE(text->pos(), QPoint(30, 40));
        QCOMPARE(text->size(), QSize(50, 10)); // only moved
        QCOMPARE(text->FontColor(), QColor(1, 2, 3));
        QCOMPARE(text->Text(), QString("template"));

        const std::pair<unsigned, unsigned> styles[] = {
            {0x2, kTextRight | kTextWordBreak},
            {0xB, kTextSingleLine},
            {0xC, kTextSingleLine},
            {0x1, kTextWordBreak},
            {0x4002, kTextWordBreak | kTextEndEllipsis},
            {0x800C, kTextWordBreak | kTextPathEllipsis},
            {0xC000, kTextWordBreak | kTextEndEllipsis | kTextPathEllipsis | kTextWordEllipsis},
        };
        for (const auto& [style, flags] : styles)
            QCOMPARE(CFFStaticText(&parent, style, 1).TextFlags(), flags);
    }

    void SliderJumpsToTheClickAndKeepsOrientation()
    {
        QWidget parent;
        parent.resize(200, 200);
        TempSkin skin("[H]\nposition=10,10,50,0\nsize=100,20\n[V]\nposition=0,0\nsize=20,100\norientation=vertical\n"
                      "[K]\nsize=20,100\norientation=Vertical\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* h = new CFFSliderCtrl(&parent, Qt::Horizontal, 1073);
        QVERIFY(h->parseSkin(parser, "[H]", -1));
        QCOMPARE(h->geometry(), QRect(110, 10, 100, 20)); // position plus half the parent's width
        QCOMPARE(h->Channel(), std::make_pair(5, 95));
        QSignalSpy scrolled(h, &CFFSliderCtrl::Scrolled);
        h->setValue(100);
        QCOMPARE(scrolled.count(), 0); // code that sets the position sends nothing

        SendMouse(h, QEvent::MouseButtonPress, QPoint(50, 10));
        QCOMPARE(h->value(), 50);
        QVERIFY(h->IsDragging());
        QCOMPARE(scrolled.count(), 1);
        SendMouse(h, QEvent::MouseButtonRelease, QPoint(50, 10));
        QVERIFY(!h->IsDragging());
        SendMouse(h, QEvent::MouseButtonPress, QPoint(0, 10));
        QCOMPARE(h->value(), 0); // clamped to the range
        SendMouse(h, QEvent::MouseButtonRelease, QPoint(0, 10));
        SendMouse(h, QEvent::MouseButtonPress, QPoint(32, 10));
        QCOMPARE(h->value(), 30); // 100 / 90 * 27 = 30.0, truncated
        QMouseEvent drag(QEvent::MouseMove, QPointF(77, 10), h->mapToGlobal(QPointF(77, 10)), Qt::NoButton,
                         Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(h, &drag);
        QCOMPARE(h->sliderPosition(), 80); // dragging follows the pointer
        SendMouse(h, QEvent::MouseButtonRelease, QPoint(77, 10));

        auto* v = new CFFSliderCtrl(&parent, Qt::Horizontal, 1009);
        QVERIFY(v->parseSkin(parser, "[V]", -1));
        QCOMPARE(v->orientation(), Qt::Vertical);
        v->setValue(100);
        QVERIFY2(v->ThumbRect().top() > 80, "the maximum lies at the bottom");
        v->setValue(0);
        QVERIFY(v->ThumbRect().top() < 5);
        // A click beside the thumb jumps by x alone, also on a vertical slider: this one is as
        // narrow as its thumb, so where on it the click lands makes no difference.
        v->setValue(50);
        SendMouse(v, QEvent::MouseButtonPress, QPoint(10, 95));
        QCOMPARE(v->value(), v->JumpPositionAt(QPoint(10, 5)));
        SendMouse(v, QEvent::MouseButtonRelease, QPoint(10, 95));
        QCOMPARE(v->JumpPositionAt(QPoint(10, 95)), 0);
        QCOMPARE(v->JumpPositionAt(QPoint(10, 2)), v->JumpPositionAt(QPoint(10, 97)));

        // The wheel moves the thumb and reports it, as the mouse and the keys do.
        QSignalSpy wheeled(h, &CFFSliderCtrl::Scrolled);
        h->setValue(50);
        QWheelEvent wheel(QPointF(50, 10), h->mapToGlobal(QPointF(50, 10)), QPoint(), QPoint(0, 120), Qt::NoButton,
                          Qt::NoModifier, Qt::NoScrollPhase, false);
        QApplication::sendEvent(h, &wheel);
        QVERIFY(h->value() != 50);
        QCOMPARE(wheeled.count(), 1);
        QCOMPARE(wheeled.at(0).at(1).toInt(), h->value());

        auto* k = new CFFSliderCtrl(&parent, Qt::Horizontal, 1010);
        QVERIFY(k->parseSkin(parser, "[K]", -1));
        QCOMPARE(k->orientation(), Qt::Horizontal); // only the exact word changes the orientation
    }

    void ListRowsHoverAndConfigureButton()
    {
        QWidget parent;
        parent.resize(300, 300);
        TempSkin skin("[L]\nmax_items=4\nposition=10,10\nsize=200,150\n"
                      "color_foreground=1,1,1\ncolor_background=2,2,2\ncolor_sel=3,3,3\n"
                      "color_selbg=4,4,4\ncolor_curr=5,5,5\ncolor_currbg=6,6,6\n"
                      "[EmoticConfig]\nsize=24,12\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* list = new CMoListBox(&parent, 1079);
        QVERIFY(list->parseSkin(parser, "[L]", -1));
        QCOMPARE(list->MaxItems(), 4);
        QCOMPARE(list->geometry(), QRect(10, 10, 200, 150));
        for (const char* name : {"one", "two", "three"})
            list->InsertItem(-1, name);
        list->InsertItem(0, "zero");
        QCOMPARE(list->ItemText(0), QString("zero"));
        parent.show();
        QVERIFY(QTest::qWaitForWindowExposed(&parent));

        list->SetSel(1, true);
        QCOMPARE(list->ColorsOf(0).background, QColor(2, 2, 2));
        QCOMPARE(list->ColorsOf(1).background, QColor(4, 4, 4));
        QCOMPARE(list->ColorsOf(1).text, QColor(3, 3, 3));

        const QPoint onRow1 = list->RowRect(1).center();
        SendMouse(list, QEvent::MouseMove, onRow1);
        QCOMPARE(list->Current(), 1);
        QCOMPARE(list->ColorsOf(1).background, QColor(6, 6, 6)); // hover wins over the mark
        QCOMPARE(list->ColorsOf(1).text, QColor(5, 5, 5));
        QCOMPARE(QColor(list->grab().toImage().pixel(1, list->RowRect(1).top() + 1)), QColor(6, 6, 6));
        CFFButton* configure = list->ConfigureButton();
        QVERIFY(configure->isVisible());
        QCOMPARE(configure->geometry(), QRect(200 - 24, list->RowRect(1).top(), 24, 12));
        QCOMPARE(configure->property("ctrlId").toInt(), 1114);

        QSignalSpy rowClicked(list, &CMoListBox::RowClicked);
        QSignalSpy configured(list, &CMoListBox::ConfigureClicked);
        SendMouse(list, QEvent::MouseButtonPress, onRow1);
        QCOMPARE(rowClicked.count(), 1);
        QCOMPARE(rowClicked.at(0).at(0).toInt(), 1);
        QVERIFY2(list->GetSel(1), "the list leaves the mark to its window");

        Click(configure, QPoint(2, 2), QPoint(2, 2));
        QCOMPARE(configured.count(), 1);
        const QPoint corner = configure->mapToGlobal(QPoint(0, 0));
        QCOMPARE(configured.at(0).at(0).toInt(), 1);
        QCOMPARE(configured.at(0).at(1).toInt(), corner.x());
        QCOMPARE(configured.at(0).at(2).toInt(), corner.y());
        QCOMPARE(rowClicked.count(), 1);

        SendMouse(list, QEvent::MouseMove, QPoint(5, 140));
        QCOMPARE(list->Current(), -1); // below the last row
        QVERIFY(!configure->isVisible());
        SendMouse(list, QEvent::MouseButtonPress, QPoint(5, 140));
        QCOMPARE(rowClicked.count(), 1);
        SendMouse(list, QEvent::MouseMove, onRow1);
        QEvent leave(QEvent::Leave);
        QApplication::sendEvent(list, &leave);
        QCOMPARE(list->Current(), -1);
    }

    void ListWithoutConfigureObjectStillLoads()
    {
        QWidget parent;
        TempSkin skin("[L]\nsize=100,100\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* list = new CMoListBox(&parent, 1079);
        QVERIFY(list->parseSkin(parser, "[L]", -1));
        QCOMPARE(list->ConfigureButton()->SkinSize(), QSize(10, 10));
        QCOMPARE(list->MaxItems(), -1);
        QVERIFY(!list->parseSkin(parser, "[Missing]", -1));
    }

    void OscilloscopeResampling()
    {
        std::vector<std::int16_t> block(441);
        for (std::size_t i = 0; i < block.size(); ++i)
            block[i] = static_cast<std::int16_t>(static_cast<int>(i) * 73 - 16000);
        std::vector<int> out = OSCI::Resample(block, 150);
        QCOMPARE(out.size(), std::size_t{150});
        for (std::size_t i = 0; i < 150; ++i)
            QCOMPARE(out[i], block[2 * i] / 2 + block[2 * i + 1] / 2);

        std::vector<std::int16_t> few(50);
        for (std::size_t i = 0; i < few.size(); ++i)
            few[i] = static_cast<std::int16_t>(1000 * static_cast<int>(i) - 25001);
        out = OSCI::Resample(few, 150);
        for (std::size_t i = 0; i < 150; ++i)
            QCOMPARE(out[i], few[i / 3] / 3);

        out = OSCI::Resample(std::vector<std::int16_t>(40, 300), 150);
        QCOMPARE(out[119], 100);
        QCOMPARE(out[120], 0); // outputs after the whole repeats stay 0
        QVERIFY(OSCI::Resample(few, 0).empty());

        QCOMPARE(OSCI::TraceY(-32767, 100), 0);
        QCOMPARE(OSCI::TraceY(32767, 100), 100);
        QCOMPARE(OSCI::TraceY(0, 100), 50);
        QCOMPARE(OSCI::TraceY(-32768, 100), 0);
    }

    void OscilloscopeDrawsFullScaleAndConsumesItsQueue()
    {
        QWidget parent;
        TempSkin skin("[O]\nposition=0,0\nsize=150,102\ncolor_background=0,0,40\ncolor_foreground=255,255,0\n");
        CSkinParser parser;
        QVERIFY(parser.Init(skin.Path()));
        auto* osci = new OSCI(&parent, 1083);
        QVERIFY(osci->parseSkin(parser, "[O]", -1));
        QCOMPARE(osci->size(), QSize(150, 102));
        const QColor trace(255, 255, 0);
        const QColor back(0, 0, 40);

        // One sample per pixel, alternating between the two full-scale values, in two blocks.
        std::vector<std::int16_t> samples(150);
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] = i % 2 == 0 ? -32767 : 32767;
        osci->SetData(samples.data(), 100);
        osci->SetData(samples.data() + 100, 50);
        QCOMPARE(osci->QueuedSamples(), std::size_t{150});
        QImage shot = osci->grab().toImage();
        QCOMPARE(osci->QueuedSamples(), std::size_t{0});
        QCOMPARE(QColor(shot.pixel(0, 0)), trace);
        QCOMPARE(QColor(shot.pixel(1, 100)), trace);
        QCOMPARE(QColor(shot.pixel(0, 101)), back);
        QCOMPARE(QColor(shot.pixel(40, 50)), trace); // the trace crosses the centre

        shot = osci->grab().toImage();
        QCOMPARE(QColor(shot.pixel(0, 0)), back); // nothing new: only the centre line
        QCOMPARE(QColor(shot.pixel(75, 50)), trace);
        QCOMPARE(QColor(shot.pixel(75, 49)), back);

        osci->SetData(samples.data(), 10);
        osci->ClearData();
        QCOMPARE(osci->QueuedSamples(), std::size_t{0});

        // A view squeezed to no width keeps its samples and draws nothing from them; given
        // its width back, it shows them.
        QVERIFY(OSCI::Resample(samples, 0).empty());
        osci->SetData(samples.data(), samples.size());
        osci->resize(0, 102);
        QImage none(1, 102, QImage::Format_RGB32);
        none.fill(Qt::magenta);
        osci->render(&none);
        QCOMPARE(QColor(none.pixel(0, 50)), QColor(Qt::magenta));
        QCOMPARE(osci->QueuedSamples(), samples.size());
        osci->resize(150, 102);
        shot = osci->grab().toImage();
        QCOMPARE(shot.width(), 150);
        QCOMPARE(QColor(shot.pixel(40, 50)), trace);
    }
};

} // namespace larimo::test

QTEST_MAIN(larimo::test::ControlsTest)
#include "FFControls_test.moc"
