// SPDX-License-Identifier: GPL-3.0-or-later
// The user's library on disk: the folders of voice-effect plug-ins, background sounds and fun
// sounds under the program folder, and importing, deleting and listing what they hold.
//
// Sounds are stored in the library format (PCM, 44100 Hz, mono, 16 bit). Names are compared
// without regard to letter case: "rain.WAV" and "Rain.wav" are the same sound. Fun sounds are
// named by their path below the fun sound folder in the settings' backslash form
// ("Animals\Cat.wav").
//
// Call LibInit once at start-up before other threads use the library. The other functions
// touch the file system and may be called from any thread except the real-time audio thread;
// imports and deletions are not meant to run concurrently on the same names.
#pragma once

#include <string>
#include <vector>

namespace larimo {

/// Stores the program folder (a trailing '/' is added when missing) and derives the library
/// folders "effects/", "backsounds/" and "emoticsounds/" beneath it.
void LibInit(const std::string& programFolder);

const std::string& LibProgramFolder();
const std::string& LibEffectsFolder();
const std::string& LibBackSoundsFolder();
const std::string& LibFunSoundsFolder();

/// The file of the plug-in named `name` ("Reverb"): the existing "*.so" file whose name
/// matches without regard to case, otherwise the effects folder + `name` + ".so".
std::string LibPluginPath(const std::string& name);
bool LibPluginExists(const std::string& name);
/// Why the file at `path` cannot be a plug-in of this program, in plain words, judged from its
/// header without loading it (not a shared library, 32-bit, another processor); empty when
/// it may be one or cannot be read. Any thread.
std::string PluginFileProblem(const std::string& path);
/// Loads the plug-in at `path` into a temporary host and unloads it again. True when it is a
/// usable effect; `errorText` gets "Success", or why it is not one in plain words. A plug-in
/// that crashes is caught and refused. Window thread (plug-ins may need it).
bool LibTestPlugin(const std::string& path, std::string& errorText);
/// Copies the plug-in at `sourcePath` into the effects folder under its own file name, which
/// must end in ".so" with at least one character before it. False, with the reason in
/// LibGetLastError, for a bad name, a plug-in of that name already there (names compared
/// without regard to case), a plug-in that fails LibTestPlugin, or a failed copy; the library
/// is then as it was. Window thread.
bool LibImportPlugin(const std::string& sourcePath);
/// False, with the reason in LibGetLastError, when the plug-in cannot be deleted.
bool LibDeletePlugin(const std::string& name);
/// The names of the "*.so" files of the effects folder without ".so", first letter upper
/// case, sorted.
std::vector<std::string> LibListPlugins();

/// The file of a background sound: the existing file whose name matches without regard to
/// case, otherwise the background folder + `name`.
std::string LibBackSoundPath(const std::string& name);
bool LibBackSoundExists(const std::string& name);
/// Imports a WAV file as a background sound named after the file. False, with the reason in
/// LibGetLastError, when the name exists already, the file is not a usable WAV file, or the
/// conversion or the copy fails; the library is then as it was.
bool LibImportBackSound(const std::string& sourcePath);
/// False, with the reason in LibGetLastError, when the sound cannot be deleted.
bool LibDeleteBackSound(const std::string& name);
/// The names (with extension) of the "*.wav" files of the background folder, sorted.
std::vector<std::string> LibListBackSounds();

/// The file of a fun sound given by its path relative to the fun sound folder ("Animals\Cat.wav"),
/// matched without regard to case like LibBackSoundPath.
std::string LibFunSoundPath(const std::string& relativePath);
bool LibFunSoundExists(const std::string& relativePath);
/// Imports a WAV file into the group folder `group` ("Animals", "Party\Kids", or empty for
/// the top) of the fun sounds, creating the folder when needed. Like LibImportBackSound.
bool LibImportFunSound(const std::string& sourcePath, const std::string& group);
/// Every fun sound of the library as its settings path ("Party\\Laugh.wav"), sorted without
/// regard to case.
std::vector<std::string> LibListFunSounds();
bool LibDeleteFunSound(const std::string& relativePath);

/// Converts `sourcePath` to the library format and puts it at `destinationPath`, replacing a
/// file there. The result is written to the temporary "tmp.wav" of the program folder first
/// and renamed into place, so the destination is never half written. Throws MyError with
/// the message on failure.
bool LibImportWave(const std::string& sourcePath, const std::string& destinationPath);
/// Gives the owner write permission, then deletes the file; `kind` names it in the message
/// ("Background sound"). Throws MyError with the message on failure.
bool LibDeleteFile(const std::string& path, const std::string& kind);

/// The file-name part of `path` (behind the last '/' or '\') without its extension, the first
/// letter made upper case: "/x/reverb.dll" gives "Reverb", ".hidden" stays ".hidden".
std::string LibBaseName(const std::string& path);
/// The name a sound file gets in the library: its file name, with ".wav" in place of any other
/// extension ("/x/Laugh.mp3" gives "Laugh.wav"). Any thread.
std::string LibSoundFileName(const std::string& sourcePath);

/// The message of the last failed import or deletion.
std::string LibGetLastError();

} // namespace larimo
