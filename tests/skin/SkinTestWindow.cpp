// SPDX-License-Identifier: GPL-3.0-or-later
#include "SkinTestWindow.h"

#include <QPainter>

#include "FFButton.h"
#include "FFSliderCtrl.h"
#include "FFStaticText.h"
#include "MoListBox.h"
#include "SkinObjects.h"
#include "SkinParser.h"
#include "osci.h"

namespace larimo::test {

namespace {

// The template gives each text its room; here the room the skin asks for.
QSize SkinSizeOf(CSkinParser& parser, const std::string& section)
{
    QSize size(100, 16);
    if (!parser.FindObject(section))
        return size;
    while (parser.NextKey()) {
        int w = 0;
        int h = 0;
        if (parser.GetSize("size", w, h))
            size = QSize(w, h);
    }
    return size;
}

QString TemplateText(int ctrlId)
{
    switch (ctrlId) {
    case 1115:
        return "?";
    case 1116:
        return "_";
    case 1117:
        return "X";
    default:
        return {};
    }
}

} // namespace

SkinTestWindow::SkinTestWindow()
{
    setWindowFlags(Qt::FramelessWindowHint);
    resize(400, 300);
}

bool SkinTestWindow::Load(const std::string& skinFile, std::string& error)
{
    CSkinParser parser;
    if (!parser.Init(skinFile)) {
        error = "Could not open skin file " + skinFile;
        return false;
    }
    if (parser.FindObject(std::string(kMainWindowSection))) {
        std::string bitmap;
        std::string region;
        int w = width();
        int h = height();
        while (parser.NextKey()) {
            if (!parser.GetSize("size", w, h) && !parser.GetFilePath("bitmap", bitmap))
                parser.GetFilePath("region", region);
        }
        if (!region.empty() && m_region.LoadFromPath(region, 1.0, 1.0))
            setMask(m_region.Region());
        m_background.Reset();
        if (!bitmap.empty())
            m_background.LoadFromPath(bitmap);
        resize(w, h);
    }

    for (const SkinObject& object : kMainWindowSkinObjects) {
        const std::string section(object.section);
        QWidget* control = nullptr;
        bool ok = false;
        switch (object.kind) {
        case SkinClass::Button:
        case SkinClass::RadioButton: {
            const unsigned style = object.kind == SkinClass::RadioButton ? CFFButton::kBsAutoRadioButton
                                                                         : CFFButton::kBsPushButton;
            auto* button = new CFFButton(this, style, object.ctrlId, TemplateText(object.ctrlId));
            button->SetRadioGroup(object.radioGroup);
            if (object.ctrlId == 1123)
                button->Enable(false);
            ok = button->parseSkin(parser, section, -1);
            control = button;
            break;
        }
        case SkinClass::StaticText: {
            auto* text = new CFFStaticText(this, CFFStaticText::kSsEndEllipsis, object.ctrlId);
            text->resize(SkinSizeOf(parser, section));
            ok = text->parseSkin(parser, section, -1);
            control = text;
            break;
        }
        case SkinClass::Slider: {
            auto* slider = new CFFSliderCtrl(this, object.vertical ? Qt::Vertical : Qt::Horizontal, object.ctrlId);
            ok = slider->parseSkin(parser, section, -1);
            control = slider;
            break;
        }
        case SkinClass::FunSoundList: {
            auto* list = new CMoListBox(this, object.ctrlId);
            ok = list->parseSkin(parser, section, -1);
            control = list;
            break;
        }
        case SkinClass::Oscilloscope: {
            auto* osci = new OSCI(this, object.ctrlId);
            ok = osci->parseSkin(parser, section, -1);
            control = osci;
            break;
        }
        }
        m_controls[object.ctrlId] = control;
        if (!ok) {
            error = "Could not parse skin for " + section + " control.";
            return false;
        }
    }
    update();
    return true;
}

QWidget* SkinTestWindow::Control(int ctrlId) const
{
    const auto found = m_controls.find(ctrlId);
    return found == m_controls.end() ? nullptr : found->second;
}

void SkinTestWindow::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    if (m_background.IsNull())
        painter.fillRect(rect(), palette().window());
    else
        painter.drawImage(QPoint(0, 0), m_background.Image());
}

} // namespace larimo::test
