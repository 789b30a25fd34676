// SPDX-License-Identifier: GPL-3.0-or-later
// larimoctl: the panel's actions from the command line, for scripts, stream decks and desktops
// without global hot keys. Settings change exactly as the panel changes them.
#include "PanelActions.h"
#include "config.h"
#include "mlog.h"
#include "modb.h"
#include "moipc_cli.h"
#include "server/moipc_cmds.h"
#include "texts.h"
#include "wintools.h"

#include <charconv>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

using namespace larimo;

namespace {

enum Exit : int { kOk = 0, kNotRunning = 1, kRefused = 1, kUsage = 2 };

const char* const kHelp =
    "Usage: larimoctl COMMAND [ARGUMENTS]\n"
    "\n"
    "Controls the Larimo voice service the way the control panel does: every command changes\n"
    "the settings in the app folder and, when the voice service runs, tells it at once.\n"
    "\n"
    "Commands:\n"
    "  status                   whether the voice service runs, the active voice effect and\n"
    "                           background sound, listen-in, and the fun sounds playing\n"
    "  effect 1|2|3|off         make a voice effect slot active, or switch the effect off\n"
    "  effect toggle N          slot N on, or off when it is already on (as its hot key does)\n"
    "  background 1|2|3|off     make a background sound slot active, or switch it off\n"
    "  background toggle N      slot N on, or off when it is already on\n"
    "  background-volume N V    volume of background slot N, 0 to 100\n"
    "  fun N play|stop          play or stop the fun sound in row N of the panel's list\n"
    "  stop-all                 voice effect and background off, every fun sound stopped\n"
    "  listen on|off|toggle     hear yourself through the listen-in device\n"
    "  listen-volume V          listen-in volume, 0 to 100\n"
    "  noise on|off             suppress the steady noise behind your voice (a fan, a room)\n"
    "  gate on|off|DB           silence the microphone while you do not speak; DB is the\n"
    "                           level in dBFS at which it opens, -80 to -10 (for example -45)\n"
    "  reload                   make the voice service read the settings files again\n"
    "  sounds                   list the sound library, the background slots and the fun\n"
    "                           sounds the panel offers\n"
    "  import background FILE...  add sounds to the background library\n"
    "  import fun GROUP FILE...   add sounds to a group of the fun sound library (\"\" for none)\n"
    "                           WAV, MP3, Ogg Vorbis, Opus, FLAC and AIFF files are converted to\n"
    "                           the library's format and stored under their name with \".wav\"\n"
    "  errors                   print (and clear) the errors the voice service collected\n"
    "\n"
    "Slots and rows count from 1, as the panel shows them.\n"
    "Exit status: 0 done, 1 the voice service is not running (settings are still written) or,\n"
    "for import, a file was refused (one line on standard error says which and why),\n"
    "2 wrong usage.\n";

int Usage(const char* what)
{
    std::fprintf(stderr, "larimoctl: %s\nTry 'larimoctl --help'.\n", what);
    return kUsage;
}

bool ParseNumber(std::string_view text, int low, int high, int& value)
{
    const char* end = text.data() + text.size();
    const auto [ptr, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && ptr == end && value >= low && value <= high;
}

std::string SlotText(int index, const std::string& name)
{
    if (index < 0)
        return "off";
    std::string text = std::to_string(index + 1);
    if (!name.empty())
        text += " (" + name + ")";
    return text;
}

int Status(const Config& settings, const std::shared_ptr<MoIpcCli>& client)
{
    std::printf("Voice service: %s\n", client ? "running" : "not running");
    const int effect = settings.m_activeEffect;
    std::printf("Voice effect: %s\n", SlotText(effect, effect >= 0 ? settings.m_effectSlots[effect] : "").c_str());
    const int back = settings.m_activeBackSound;
    std::string backText = SlotText(back, back >= 0 ? settings.m_backSounds[back].m_file : "");
    if (back >= 0)
        backText += ", volume " + std::to_string(settings.m_backSounds[back].m_volume);
    std::printf("Background sound: %s\n", backText.c_str());
    std::printf("Listen-in: %s, volume %u\n", settings.m_monitorOn ? "on" : "off", settings.m_monitorVol);
    std::printf("Noise suppression: %s\n",
                settings.m_noiseSuppression ? ("on, up to " + std::to_string(settings.m_noiseStrength) + " dB").c_str()
                                            : "off");
    std::printf("Noise gate: %s\n",
                settings.m_gate ? ("opens at " + std::to_string(settings.m_gateThreshold) + " dBFS").c_str() : "off");
    if (!client)
        return kNotRunning;
    std::vector<bool> playing;
    std::string playingText;
    if (client->EmoticsStatus(playing)) {
        for (size_t row = 0; row < playing.size(); ++row) {
            if (!playing[row])
                continue;
            if (!playingText.empty())
                playingText += ", ";
            playingText += std::to_string(row + 1);
            if (row < settings.m_emotics.size())
                playingText += " (" + settings.m_emotics[row].m_name + ")";
        }
    }
    std::printf("Fun sounds playing: %s\n", playingText.empty() ? "none" : playingText.c_str());
    return kOk;
}

int Sounds(const Config& settings)
{
    std::printf("Background sounds:\n");
    for (const std::string& name : LibListBackSounds())
        std::printf("  %s\n", name.c_str());
    std::printf("Fun sounds:\n");
    for (const std::string& name : LibListFunSounds())
        std::printf("  %s\n", name.c_str());
    std::printf("Background slots:\n");
    for (int slot = 0; slot < Config::kSlotCount; ++slot) {
        const BackSound& sound = settings.m_backSounds[static_cast<size_t>(slot)];
        if (sound.m_file.empty())
            std::printf("  %d: empty\n", slot + 1);
        else
            std::printf("  %d: %s \"%s\", volume %u\n", slot + 1, sound.m_file.c_str(), sound.m_descr.c_str(),
                        unsigned{sound.m_volume});
    }
    std::printf("Fun sounds of the panel:\n");
    for (size_t row = 0; row < settings.m_emotics.size(); ++row)
        std::printf("  %zu: %s (%s)\n", row + 1, settings.m_emotics[row].m_name.c_str(),
                    settings.m_emotics[row].m_file.c_str());
    return kOk;
}

// Imports every file; a refused one gets a line that names it and says why.
int Import(const std::vector<std::string_view>& files, const std::string* group)
{
    int refused = 0;
    for (const std::string_view file : files) {
        const std::string path(file);
        const bool imported = group != nullptr ? LibImportFunSound(path, *group) : LibImportBackSound(path);
        if (imported) {
            std::printf("imported %s as %s\n", path.c_str(), LibSoundFileName(path).c_str());
        } else {
            std::fprintf(stderr, "larimoctl: %s: %s\n", path.c_str(), LibGetLastError().c_str());
            ++refused;
        }
    }
    return refused == 0 ? kOk : kRefused;
}

int Run(const std::vector<std::string_view>& args)
{
    if (args.empty())
        return Usage("no command given.");
    const std::string_view command = args[0];
    const auto argCount = args.size() - 1;

    Config settings;
    settings.LoadAll();
    // The library needs no service: these work whether it runs or not.
    if (command == "sounds" && argCount == 0)
        return Sounds(settings);
    if (command == "import" && argCount >= 2 && args[1] == "background")
        return Import({args.begin() + 2, args.end()}, nullptr);
    if (command == "import" && argCount >= 3 && args[1] == "fun") {
        const std::string group(args[2]);
        return Import({args.begin() + 3, args.end()}, &group);
    }
    if (command == "import")
        return Usage("expected 'background FILE...' or 'fun GROUP FILE...'.");
    PanelActions actions(settings);
    std::shared_ptr<MoIpcCli> client = ConnectToService(kIpcBaseName);
    SetCommandClient(client);
    const int done = client ? kOk : kNotRunning;

    int number = 0;
    int value = 0;
    if (command == "status" && argCount == 0)
        return Status(settings, client);

    if ((command == "effect" || command == "background") && argCount >= 1) {
        const bool effect = command == "effect";
        if (args[1] == "off" && argCount == 1) {
            effect ? actions.SelectEffect(-1) : actions.SelectSound(-1);
        } else if (args[1] == "toggle" && argCount == 2 && ParseNumber(args[2], 1, 3, number)) {
            effect ? actions.ToggleEffect(number - 1) : actions.ToggleSound(number - 1);
        } else if (argCount == 1 && ParseNumber(args[1], 1, 3, number)) {
            effect ? actions.SelectEffect(number - 1) : actions.SelectSound(number - 1);
        } else {
            return Usage("expected a slot 1, 2 or 3, 'off', or 'toggle' and a slot.");
        }
        return done;
    }
    if (command == "background-volume" && argCount == 2) {
        if (!ParseNumber(args[1], 1, 3, number) || !ParseNumber(args[2], 0, 100, value))
            return Usage("expected a slot 1, 2 or 3 and a volume 0 to 100.");
        actions.ChangeSound(number - 1, value);
        return done;
    }
    if (command == "fun" && argCount == 2) {
        if (!ParseNumber(args[1], 1, 100000, number) || (args[2] != "play" && args[2] != "stop"))
            return Usage("expected a row number and 'play' or 'stop'.");
        if (static_cast<size_t>(number) > settings.m_emotics.size()) {
            std::fprintf(stderr, "larimoctl: there is no fun sound in row %d (the list has %zu).\n", number,
                         settings.m_emotics.size());
            return kUsage;
        }
        if (!client)
            return kNotRunning;
        if (!actions.PlayFunSound(number - 1, args[2] == "play")) {
            std::fprintf(stderr, "larimoctl: the voice service did not take it; see 'larimoctl errors'.\n");
            return kNotRunning;
        }
        return kOk;
    }
    if (command == "stop-all" && argCount == 0) {
        actions.StopAll();
        return done;
    }
    if (command == "listen" && argCount == 1) {
        if (args[1] == "on" || args[1] == "off")
            actions.SetMonitor(args[1] == "on");
        else if (args[1] == "toggle")
            actions.ToggleMonitor();
        else
            return Usage("expected 'on', 'off' or 'toggle'.");
        return done;
    }
    if (command == "listen-volume" && argCount == 1) {
        if (!ParseNumber(args[1], 0, 100, value))
            return Usage("expected a volume 0 to 100.");
        actions.ChangeMonitorLvl(value);
        return done;
    }
    if (command == "noise" && argCount == 1) {
        if (args[1] != "on" && args[1] != "off")
            return Usage("expected 'on' or 'off'.");
        actions.SetNoiseSuppression(args[1] == "on");
        return done;
    }
    if (command == "gate" && argCount == 1) {
        if (args[1] == "on" || args[1] == "off")
            actions.SetGate(args[1] == "on");
        else if (ParseNumber(args[1], -80, -10, value))
            actions.SetGateThreshold(value);
        else
            return Usage("expected 'on', 'off' or a level in dBFS from -80 to -10.");
        return done;
    }
    if (command == "reload" && argCount == 0) {
        if (!client || !client->SrvUpdate())
            return kNotRunning;
        return kOk;
    }
    if (command == "errors" && argCount == 0) {
        std::vector<std::string> errors;
        if (!client || !client->SrvGetErrors(errors))
            return kNotRunning;
        for (const std::string& error : errors)
            std::printf("%s\n", error.c_str());
        return kOk;
    }
    return Usage(("unknown command or wrong arguments: " + std::string(command)).c_str());
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::string_view> args(argv + 1, argv + argc);
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h" || args[0] == "help")) {
        std::fputs(kHelp, stdout);
        return kOk;
    }
    const std::string root = ProgramFolder();
    SetDataRoot(root);
    LibInit(root);
    LogOpen(root + "larimocl.log", true, false, false, false, false);
    // The library's messages are texts of the user's language; only its commands need them.
    const bool libraryCommand = !args.empty() && (args[0] == "import" || args[0] == "sounds");
    if (libraryCommand && !StartTexts())
        std::fprintf(stderr, "larimoctl: the language file named in config.ini cannot be read; "
                             "the reasons for refused files cannot be shown.\n");
    int result = kUsage;
    try {
        result = Run(args);
    } catch (ShmErrorNum error) {
        std::fprintf(stderr, "larimoctl: %s\n", ShmErrorText(error).c_str());
        result = kNotRunning;
    }
    SetCommandClient(nullptr);
    EndTexts();
    if (result == kNotRunning && !libraryCommand && !(args.size() == 1 && args[0] == "status"))
        std::fprintf(stderr, "larimoctl: the voice service is not running.\n");
    return result;
}
