// SPDX-License-Identifier: GPL-3.0-or-later
// Renders the shipped skins: the whole window and every button in every state, as PNG files
// under the build folder for people to look at, and checks sample pixels against the skin's
// own bitmaps.
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include <QPainter>
#include <QTest>

#include "FFButton.h"
#include "FFSliderCtrl.h"
#include "FFStaticText.h"
#include "MoListBox.h"
#include "SkinObjects.h"
#include "SkinTestWindow.h"
#include "osci.h"

namespace larimo::test {

namespace {

const std::string kSkinFolder = LARIMO_SOURCE_DIR "/data/skins/en/";
const std::string kRenderFolder = LARIMO_RENDER_DIR;

QImage Shaped(const QImage& image, const QRegion& region)
{
    if (region.isEmpty())
        return image;
    QImage shaped(image.size(), QImage::Format_ARGB32);
    shaped.fill(0);
    QPainter painter(&shaped);
    painter.setClipRegion(region);
    painter.drawImage(0, 0, image);
    return shaped;
}

void Save(const QImage& image, const std::string& name)
{
    std::filesystem::create_directories(kRenderFolder);
    QVERIFY2(image.save(QString::fromStdString(kRenderFolder + "/" + name + ".png")), name.c_str());
}

// A point of the button inside its shape and away from its caption, where the window must
// show the state bitmap's own pixel.
QPoint PlainPoint(const CFFButton& button)
{
    const QRect caption = button.CaptionRect();
    for (int y = 1; y < button.height() - 1; ++y) {
        for (int x = 1; x < button.width() - 1; ++x) {
            const QPoint p(x, y);
            // The caption runs from its corner to the right and bottom edges.
            const bool underCaption = !caption.isEmpty() && x >= caption.left() - 2 && y >= caption.top() - 2;
            if (button.Hit(p) && !underCaption)
                return p;
        }
    }
    return {-1, -1};
}

void MoveMouse(QWidget* widget, QPoint at)
{
    QMouseEvent move(QEvent::MouseMove, at, widget->mapToGlobal(at), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(widget, &move);
}

void Press(QWidget* widget, QPoint at)
{
    QMouseEvent press(QEvent::MouseButtonPress, at, widget->mapToGlobal(at), Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QApplication::sendEvent(widget, &press);
}

void Release(QWidget* widget, QPoint at)
{
    QMouseEvent release(QEvent::MouseButtonRelease, at, widget->mapToGlobal(at), Qt::LeftButton, Qt::NoButton,
                        Qt::NoModifier);
    QApplication::sendEvent(widget, &release);
}

std::vector<std::int16_t> Voice(int count)
{
    std::vector<std::int16_t> samples(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const double t = i / 44100.0;
        const double envelope = 0.55 + 0.45 * std::sin(2 * 3.14159265 * 3 * t);
        const double v = envelope * (0.6 * std::sin(2 * 3.14159265 * 180 * t) + 0.3 * std::sin(2 * 3.14159265 * 410 * t));
        samples[static_cast<std::size_t>(i)] = static_cast<std::int16_t>(v * 30000);
    }
    return samples;
}

void Populate(SkinTestWindow& window)
{
    const char* effects[] = {"Robot", "Deep Voice", "Chipmunk Party With A Very Long Name"};
    const char* sounds[] = {"Rain", "Cafe", "Office chatter"};
    for (int i = 0; i < 3; ++i) {
        window.ControlAs<CFFStaticText>(1006 + i)->SetText(effects[i]);
        window.ControlAs<CFFStaticText>(1015 + i)->SetText(sounds[i]);
        window.ControlAs<CFFSliderCtrl>(1009 + i)->setValue(100 - (80 - 25 * i));
    }
    window.ControlAs<CFFButton>(1004)->SetCheck(1);
    window.ControlAs<CFFButton>(1012)->SetCheck(1);
    window.ControlAs<CFFButton>(1072)->SetCheck(1);
    window.ControlAs<CFFButton>(1123)->SetCheck(1);
    window.ControlAs<CFFSliderCtrl>(1073)->setValue(70);
    auto* list = window.ControlAs<CMoListBox>(1079);
    for (const char* name : {"Applause", "Laugh track", "Drum roll", "Air horn", "Crickets", "Boing"})
        list->InsertItem(-1, name);
    list->SetSel(1, true);
}

// The oscilloscope shows what arrived since its last paint, so this goes right before a grab.
void FeedOscilloscope(SkinTestWindow& window)
{
    const std::vector<std::int16_t> voice = Voice(4410);
    window.ControlAs<OSCI>(1083)->SetData(voice.data(), voice.size());
}

} // namespace

class RenderTest : public QObject {
    Q_OBJECT

private slots:
    void WholeWindow_data()
    {
        QTest::addColumn<QString>("skin");
        QTest::newRow("Default") << "Default";
        QTest::newRow("Light") << "Light";
    }

    void WholeWindow()
    {
        QFETCH(QString, skin);
        SkinTestWindow window;
        std::string error;
        QVERIFY2(window.Load(kSkinFolder + skin.toStdString() + ".sdf", error), error.c_str());
        Populate(window);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        // Hover the fourth fun sound, so its configure button shows.
        auto* list = window.ControlAs<CMoListBox>(1079);
        MoveMouse(list, list->RowRect(3).center());
        QCOMPARE(list->Current(), 3);
        QVERIFY(list->ConfigureButton()->isVisible());

        FeedOscilloscope(window);
        const QImage shot = window.grab().toImage().convertToFormat(QImage::Format_RGB32);
        Save(Shaped(shot, window.WindowRegion().Region()), "window-" + skin.toStdString());

        // The window's own bitmap shows wherever no control lies.
        const QImage& background = window.Background().Image();
        QCOMPARE(window.size(), QSize(600, 430));
        for (const QPoint p : {QPoint(300, 8), QPoint(5, 200), QPoint(310, 250), QPoint(590, 415)})
            QCOMPARE(shot.pixel(p), background.pixel(p));

        // Every button shows the bitmap of its state.
        for (const SkinObject& object : kMainWindowSkinObjects) {
            auto* button = window.ControlAs<CFFButton>(object.ctrlId);
            if (button == nullptr)
                continue;
            const CFFButton::Look look = button->CurrentLook();
            const QImage& bitmap = button->Bitmap(look.slot).Image();
            QVERIFY2(!bitmap.isNull(), object.section.data());
            const QPoint p = PlainPoint(*button);
            QVERIFY2(p.x() >= 0, object.section.data());
            QCOMPARE(shot.pixel(button->mapTo(&window, p)), bitmap.pixel(p));
        }

        // A slider shows the window beneath it and its thumb over that.
        auto* fader = window.ControlAs<CFFSliderCtrl>(1009);
        const QRect thumb = fader->ThumbRect();
        const QPoint groove = thumb.top() > 20 ? QPoint(thumb.center().x(), 3) : QPoint(thumb.center().x(), fader->height() - 3);
        QCOMPARE(shot.pixel(fader->mapTo(&window, groove)), background.pixel(fader->mapTo(&window, groove)));
        QCOMPARE(QColor(shot.pixel(fader->mapTo(&window, thumb.center() + QPoint(0, 3)))),
                 QColor(fader->grab().toImage().pixel(thumb.center() + QPoint(0, 3))));
        QVERIFY(shot.pixel(fader->mapTo(&window, thumb.center() + QPoint(0, 3))) !=
                background.pixel(fader->mapTo(&window, thumb.center() + QPoint(0, 3))));

        // List rows: a marked row, the hovered row, a plain one.
        const auto rowPixel = [&](int row) { return QColor(shot.pixel(list->mapTo(&window, list->RowRect(row).topLeft() + QPoint(2, 1)))); };
        QCOMPARE(rowPixel(0), list->ColorsOf(0).background);
        QCOMPARE(rowPixel(1), list->ColorsOf(1).background);
        QCOMPARE(rowPixel(3), list->ColorsOf(3).background);
        QVERIFY(rowPixel(0) != rowPixel(1) && rowPixel(1) != rowPixel(3) && rowPixel(0) != rowPixel(3));

        // The oscilloscope's corner lies outside its region; its inside is its background.
        auto* osci = window.ControlAs<OSCI>(1083);
        QCOMPARE(QColor(shot.pixel(osci->mapTo(&window, QPoint(12, 3)))), osci->BackgroundColor());
        int traced = 0;
        for (int x = 0; x < osci->width(); ++x) {
            for (int y = 0; y < osci->height(); ++y)
                traced += QColor(shot.pixel(osci->mapTo(&window, QPoint(x, y)))) == osci->TraceColor() ? 1 : 0;
        }
        QVERIFY2(traced > 2 * osci->width(), "the trace should swing away from the centre line");
    }

    void ButtonStates_data()
    {
        QTest::addColumn<QString>("skin");
        QTest::newRow("Default") << "Default";
        QTest::newRow("Light") << "Light";
    }

    // Each button alone in up, over, down and disabled, unchecked and checked, side by side.
    void ButtonStates()
    {
        QFETCH(QString, skin);
        SkinTestWindow window;
        std::string error;
        QVERIFY2(window.Load(kSkinFolder + skin.toStdString() + ".sdf", error), error.c_str());
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));

        std::vector<CFFButton*> buttons;
        for (const SkinObject& object : kMainWindowSkinObjects) {
            if (auto* button = window.ControlAs<CFFButton>(object.ctrlId))
                buttons.push_back(button);
        }
        int sheetWidth = 0;
        int sheetHeight = 8;
        for (CFFButton* button : buttons) {
            sheetWidth = std::max(sheetWidth, 8 * (button->width() + 8) + 8);
            sheetHeight += button->height() + 8;
        }
        QImage sheet(sheetWidth, sheetHeight, QImage::Format_RGB32);
        sheet.fill(QColor(128, 128, 128));
        QPainter painter(&sheet);
        int y = 8;
        for (CFFButton* button : buttons) {
            const QPoint inside = PlainPoint(*button);
            int x = 8;
            for (int check = 0; check < 2; ++check) {
                button->SetCheck(check);
                for (int state = 0; state < 4; ++state) {
                    button->Enable(state != 3 && button->CtrlId() != 1123);
                    if (state == 1 || state == 2)
                        MoveMouse(button, inside);
                    if (state == 2)
                        Press(button, inside);
                    const QPixmap picture = button->grab();
                    painter.drawPixmap(x, y, picture);
                    const CFFButton::Look look = button->CurrentLook();
                    if (!button->Bitmap(look.slot).IsNull())
                        QCOMPARE(picture.toImage().pixel(inside), button->Bitmap(look.slot).Image().pixel(inside));
                    if (state == 2)
                        Release(button, QPoint(-50, -50));
                    MoveMouse(button, QPoint(-50, -50));
                    x += button->width() + 8;
                }
            }
            y += button->height() + 8;
        }
        painter.end();
        Save(sheet, "buttons-" + skin.toStdString());
    }
};

} // namespace larimo::test

QTEST_MAIN(larimo::test::RenderTest)
#include "render_test.moc"
