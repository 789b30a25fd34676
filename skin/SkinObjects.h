// SPDX-License-Identifier: GPL-3.0-or-later
// The objects a skin for the main window holds, in the order the window reads them, with the
// control each one dresses. Shared by the main window, the skin painter and the tests.
#pragma once

#include <array>
#include <string_view>

namespace larimo {

enum class SkinClass { Button, RadioButton, StaticText, Slider, FunSoundList, Oscilloscope };

struct SkinObject {
    std::string_view section;
    SkinClass kind;
    int ctrlId;
    /// Radio buttons with the same non-zero group uncheck each other.
    int radioGroup = 0;
    /// Sliders: the template's orientation, which a skin may change.
    bool vertical = false;
};

/// The window's own object: size, background bitmap and region.
inline constexpr std::string_view kMainWindowSection = "[Larimo]";
/// The configure button of the fun sound list's rows.
inline constexpr std::string_view kFunSoundConfigSection = "[EmoticConfig]";

inline constexpr std::array<SkinObject, 32> kMainWindowSkinObjects{{
    {"[ERadio1]", SkinClass::RadioButton, 1003, 1},
    {"[EText1]", SkinClass::StaticText, 1006},
    {"[EConfig1]", SkinClass::Button, 1076},
    {"[ERadio2]", SkinClass::RadioButton, 1004, 1},
    {"[EText2]", SkinClass::StaticText, 1007},
    {"[EConfig2]", SkinClass::Button, 1077},
    {"[ERadio3]", SkinClass::RadioButton, 1005, 1},
    {"[EText3]", SkinClass::StaticText, 1008},
    {"[EConfig3]", SkinClass::Button, 1078},
    {"[SSlider1]", SkinClass::Slider, 1009, 0, true},
    {"[SRadio1]", SkinClass::RadioButton, 1012, 2},
    {"[SText1]", SkinClass::StaticText, 1015},
    {"[SConfig1]", SkinClass::Button, 1086},
    {"[SSlider2]", SkinClass::Slider, 1010, 0, true},
    {"[SRadio2]", SkinClass::RadioButton, 1013, 2},
    {"[SText2]", SkinClass::StaticText, 1016},
    {"[SConfig2]", SkinClass::Button, 1087},
    {"[SSlider3]", SkinClass::Slider, 1011, 0, true},
    {"[SRadio3]", SkinClass::RadioButton, 1014, 2},
    {"[SText3]", SkinClass::StaticText, 1017},
    {"[SConfig3]", SkinClass::Button, 1088},
    {"[EmList]", SkinClass::FunSoundList, 1079},
    {"[StopAll]", SkinClass::Button, 1084},
    {"[Monitor]", SkinClass::RadioButton, 1072},
    {"[MonitorLvl]", SkinClass::Slider, 1073},
    {"[Options]", SkinClass::Button, 1018},
    {"[Help]", SkinClass::Button, 57670},
    {"[About]", SkinClass::Button, 1115},
    {"[Minimize]", SkinClass::Button, 1116},
    {"[Exit]", SkinClass::Button, 1117},
    {"[Osci]", SkinClass::Oscilloscope, 1083},
    {"[DevLed]", SkinClass::RadioButton, 1123},
}};

} // namespace larimo
