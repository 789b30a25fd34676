// SPDX-License-Identifier: GPL-3.0-or-later
#include "modb.h"

#include "effect.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "texts.h"
#include "wave.h"
#include "wintools.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <system_error>

namespace larimo {

namespace fs = std::filesystem;

namespace {

struct Library {
    std::string programFolder;
    std::string effectsFolder;
    std::string backSoundsFolder;
    std::string funSoundsFolder;
    std::mutex lastErrorLock;
    std::string lastError;
};

Library& State()
{
    static Library library;
    return library;
}

void SetLastError(const std::string& text)
{
    Library& library = State();
    const std::lock_guard lock(library.lastErrorLock);
    library.lastError = text;
}

// The parts of an ELF header that say whether this program can load a file as a plug-in.
constexpr size_t kElfHeaderBytes = 20;
constexpr size_t kElfClassByte = 4;
constexpr size_t kElfDataByte = 5;
constexpr size_t kElfTypeOffset = 16;
constexpr size_t kElfMachineOffset = 18;
constexpr unsigned char kElfClass64 = 2;
constexpr unsigned char kElfLittleEndian = 1;
constexpr unsigned kElfSharedObject = 3;
#if defined(__x86_64__)
constexpr unsigned kHostElfMachine = 62;
#elif defined(__aarch64__)
constexpr unsigned kHostElfMachine = 183;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr unsigned kHostElfMachine = 243;
#elif defined(__powerpc64__)
constexpr unsigned kHostElfMachine = 21;
#else
constexpr unsigned kHostElfMachine = 0; // not checked: the loader decides
#endif
constexpr bool kHostLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

std::string ElfMachineName(unsigned machine)
{
    switch (machine) {
    case 3:
        return "x86, 32-bit";
    case 8:
        return "MIPS";
    case 20:
    case 21:
        return "PowerPC";
    case 40:
        return "ARM, 32-bit";
    case 62:
        return "x86-64";
    case 183:
        return "ARM64";
    case 243:
        return "RISC-V";
    default:
        return "machine " + std::to_string(machine);
    }
}

[[noreturn]] void Raise(const std::string& text)
{
    throw MyError("%s", text.c_str());
}

// A settings name made a path relative to `folder` ("Animals\Cat.wav" -> "Animals/Cat.wav").
// Null for an empty name and for one that leads out of the folder ("..\config.ini").
std::optional<std::string> RelativeInFolder(const std::string& folder, const std::string& name)
{
    if (name.empty() || folder.empty())
        return std::nullopt;
    const std::string full = SettingsPathToFs(name, folder);
    if (full.size() <= folder.size() || full.compare(0, folder.size(), folder) != 0)
        return std::nullopt;
    return full.substr(folder.size());
}

// The existing entry that `relative` names below `folder`, each step matched without regard
// to case when there is no exact match.
std::optional<fs::path> FindNoCase(const std::string& folder, const std::string& relative)
{
    fs::path current(folder);
    std::error_code ec;
    for (const fs::path& part : fs::path(relative)) {
        if (part.empty() || part == "/")
            continue;
        const fs::path exact = current / part;
        if (fs::exists(fs::symlink_status(exact, ec))) {
            current = exact;
            continue;
        }
        std::optional<fs::path> match;
        fs::directory_iterator entries(current, ec);
        if (ec)
            return std::nullopt;
        for (const auto& entry : entries) {
            if (EqualsNoCase(entry.path().filename().string(), part.string())) {
                match = entry.path();
                break;
            }
        }
        if (!match)
            return std::nullopt;
        current = *match;
    }
    return current;
}

std::string PathInFolder(const std::string& folder, const std::string& name)
{
    const auto relative = RelativeInFolder(folder, name);
    if (!relative)
        return folder + name;
    if (const auto found = FindNoCase(folder, *relative))
        return found->string();
    return folder + *relative;
}

bool ExistsInFolder(const std::string& folder, const std::string& name)
{
    const auto relative = RelativeInFolder(folder, name);
    if (!relative)
        return false;
    const auto found = FindNoCase(folder, *relative);
    std::error_code ec;
    return found && fs::is_regular_file(*found, ec);
}

std::string FileNamePart(const std::string& path)
{
    return fs::path(path).filename().string();
}

// Whether a file starts as a RIFF file does: such a file is held to the rules of WAV files.
bool LooksLikeRiff(const std::string& path)
{
    std::ifstream in(fs::path(path), std::ios::binary);
    char id[4] = {};
    in.read(id, sizeof id);
    return in.gcount() == sizeof id && std::string_view(id, sizeof id) == "RIFF";
}

// Writes a sound in the library format beside the library and renames it into place, so the
// library never holds half a file, also when the disk is full.
void StoreLibraryWave(const Wave& wave, const std::string& destinationPath)
{
    const std::string temporaryPath = LibProgramFolder() + "tmp.wav";
    if (wave.WriteToFile(temporaryPath) != kWaveSuccess) {
        std::error_code ignored;
        fs::remove(temporaryPath, ignored);
        Raise(GetText(256));
    }
    std::error_code ec;
    const fs::path destination(destinationPath);
    if (destination.has_parent_path())
        fs::create_directories(destination.parent_path(), ec);
    // A rename within one file system swaps the finished file in at once.
    if (!ec)
        fs::rename(temporaryPath, destination, ec);
    if (ec) {
        std::error_code ignored;
        fs::remove(temporaryPath, ignored);
        Raise(FillText(254, static_cast<unsigned>(ec.value())));
    }
}

// A sound of another kind than WAV (MP3, Ogg Vorbis, Opus, FLAC, AIFF, ...), decoded into the
// library format.
void ImportDecoded(const std::string& sourcePath, const std::string& destinationPath)
{
    const std::string name = FileNamePart(sourcePath);
    std::error_code ec;
    if (fs::file_size(sourcePath, ec) == 0 && !ec)
        Raise(FillText(361, name.c_str()));
    Wave wave;
    switch (wave.DecodeFile(sourcePath)) {
    case kConvertSuccess:
        break;
    case kConvertUnsupported:
        Raise(FillText(360, name.c_str()));
    case kConvertTooLarge:
        Raise(FillText(364, name.c_str()));
    default:
        Raise(FillText(363, name.c_str()));
    }
    if (wave.DataSize() == 0)
        Raise(FillText(362, name.c_str()));
    StoreLibraryWave(wave, destinationPath);
}

// Checks the source, then converts and stores it; on failure the reason becomes the last
// library error.
bool ImportSound(const std::string& sourcePath, const std::string& destinationPath)
{
    try {
        // A file named .wav is held to the rules of WAV files whatever it holds.
        const bool wavName = EqualsNoCase(fs::path(sourcePath).extension().string(), ".wav");
        if (!wavName && !LooksLikeRiff(sourcePath) && fs::is_regular_file(sourcePath)) {
            ImportDecoded(sourcePath, destinationPath);
            return true;
        }
        const unsigned usable = WaveCanUse(sourcePath);
        if (usable != kWaveSuccess)
            Raise(FillText(250, WaveErrorText(usable).c_str(), sourcePath.c_str()));
        return LibImportWave(sourcePath, destinationPath);
    } catch (const MyError& error) {
        SetLastError(error.Text());
        return false;
    }
}

bool DeleteSound(const std::string& folder, const std::string& name, unsigned kindTextId)
{
    try {
        if (!RelativeInFolder(folder, name))
            Raise(FillText(242, GetText(kindTextId).c_str(), name.c_str(), unsigned{EINVAL}));
        return LibDeleteFile(PathInFolder(folder, name), GetText(kindTextId));
    } catch (const MyError& error) {
        SetLastError(error.Text());
        return false;
    }
}

} // namespace

void LibInit(const std::string& programFolder)
{
    Library& library = State();
    library.programFolder = WithTrailingSlash(programFolder);
    if (!library.programFolder.empty() && library.programFolder.back() == '\\')
        library.programFolder.back() = '/';
    library.effectsFolder = library.programFolder + "effects/";
    library.backSoundsFolder = library.programFolder + "backsounds/";
    library.funSoundsFolder = library.programFolder + "emoticsounds/";
}

const std::string& LibProgramFolder()
{
    return State().programFolder;
}

const std::string& LibEffectsFolder()
{
    return State().effectsFolder;
}

const std::string& LibBackSoundsFolder()
{
    return State().backSoundsFolder;
}

const std::string& LibFunSoundsFolder()
{
    return State().funSoundsFolder;
}

namespace {

constexpr char kPluginExtension[] = ".so";
constexpr size_t kPluginExtensionLength = sizeof kPluginExtension - 1;

bool IsPluginFileName(const std::string& fileName)
{
    return fileName.size() > kPluginExtensionLength &&
           EqualsNoCase(std::string_view(fileName).substr(fileName.size() - kPluginExtensionLength), kPluginExtension);
}

} // namespace

std::string LibPluginPath(const std::string& name)
{
    return PathInFolder(LibEffectsFolder(), name + kPluginExtension);
}

bool LibPluginExists(const std::string& name)
{
    return ExistsInFolder(LibEffectsFolder(), name + kPluginExtension);
}

std::string PluginFileProblem(const std::string& path)
{
    const std::string name = FileNamePart(path);
    std::ifstream file(fs::path(path), std::ios::binary);
    if (!file)
        return {};
    unsigned char header[kElfHeaderBytes] = {};
    file.read(reinterpret_cast<char*>(header), sizeof header);
    const auto got = static_cast<size_t>(file.gcount());
    if (got < sizeof header || header[0] != 0x7F || header[1] != 'E' || header[2] != 'L' || header[3] != 'F')
        return FillText(310, name.c_str());
    if (header[kElfClassByte] != kElfClass64)
        return FillText(311, name.c_str());
    // The type and machine words are in the file's own byte order.
    const bool little = header[kElfDataByte] == kElfLittleEndian;
    const auto word = [&](size_t at) {
        return little ? static_cast<unsigned>(header[at] | (header[at + 1] << 8))
                      : static_cast<unsigned>((header[at] << 8) | header[at + 1]);
    };
    if (word(kElfTypeOffset) != kElfSharedObject)
        return FillText(310, name.c_str());
    const unsigned machine = word(kElfMachineOffset);
    if (kHostElfMachine != 0 && (machine != kHostElfMachine || little != kHostLittleEndian))
        return FillText(312, name.c_str(), ElfMachineName(machine).c_str());
    return {};
}

bool LibTestPlugin(const std::string& path, std::string& errorText)
{
    LogEnter("LibTestPlugin", "\"%s\"", path.c_str());
    // What the file is tells the user more than what the loader says about it.
    errorText = PluginFileProblem(path);
    MoVstErrorNum result = kVstBadFormat;
    if (errorText.empty()) {
        MoAudioEffect effect;
        result = effect.SafeLoad(path, false, nullptr);
        const std::string name = FileNamePart(path);
        switch (result) {
        case kVstBadFormat:
            errorText = FillText(313, name.c_str());
            break;
        case kVstException:
            errorText = FillText(314, name.c_str());
            break;
        case kVstLoadError:
            errorText = FillText(315, name.c_str());
            break;
        default:
            errorText = MoVstErrorText(result);
            break;
        }
        effect.UnLoad();
    }
    if (result != kVstSuccess)
        LogWarning("LibTestPlugin: %s", errorText.c_str());
    LogLeaveResult("LibTestPlugin", result == kVstSuccess);
    return result == kVstSuccess;
}

bool LibImportPlugin(const std::string& sourcePath)
{
    LogEnter("LibImportPlugin", "\"%s\"", sourcePath.c_str());
    const std::string fileName = FileNamePart(sourcePath);
    const std::string destination = LibEffectsFolder() + fileName;
    const std::string name = LibBaseName(destination);
    bool result = false;
    std::string testError;
    if (!IsPluginFileName(fileName)) {
        SetLastError(FillText(243, fileName.c_str()));
    } else if (LibPluginExists(name)) {
        // The message names the plug-in as the library has it.
        SetLastError(FillText(244, LibBaseName(LibPluginPath(name)).c_str()));
    } else if (!LibTestPlugin(sourcePath, testError)) {
        SetLastError(testError);
    } else {
        // Copied beside its place and renamed, so the library never holds half a plug-in.
        const std::string partial = LibEffectsFolder() + "." + fileName + ".part";
        std::error_code ec;
        fs::create_directories(LibEffectsFolder(), ec);
        if (!ec)
            fs::copy_file(sourcePath, partial, fs::copy_options::overwrite_existing, ec);
        if (!ec)
            fs::rename(partial, destination, ec);
        if (ec) {
            std::error_code ignored;
            fs::remove(partial, ignored);
            SetLastError(FillText(245, static_cast<unsigned>(ec.value())));
        } else {
            result = true;
        }
    }
    LogLeaveResult("LibImportPlugin", result);
    return result;
}

bool LibDeletePlugin(const std::string& name)
{
    LogEnter("LibDeletePlugin", "\"%s\"", name.c_str());
    const bool result = DeleteSound(LibEffectsFolder(), name + kPluginExtension, 246);
    LogLeaveResult("LibDeletePlugin", result);
    return result;
}

std::vector<std::string> LibListPlugins()
{
    std::vector<std::string> names;
    std::error_code ec;
    fs::directory_iterator entries(LibEffectsFolder(), ec);
    if (ec)
        return names;
    for (const auto& entry : entries) {
        const std::string fileName = entry.path().filename().string();
        if (!entry.is_regular_file(ec) || !IsPluginFileName(fileName))
            continue;
        std::string name = fileName.substr(0, fileName.size() - kPluginExtensionLength);
        name[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[0])));
        names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    return names;
}

std::string LibBackSoundPath(const std::string& name)
{
    return PathInFolder(LibBackSoundsFolder(), name);
}

bool LibBackSoundExists(const std::string& name)
{
    return ExistsInFolder(LibBackSoundsFolder(), name);
}

bool LibImportBackSound(const std::string& sourcePath)
{
    LogEnter("LibImportBackSound", "\"%s\"", sourcePath.c_str());
    const std::string name = LibSoundFileName(sourcePath);
    bool result = false;
    if (LibBackSoundExists(name))
        SetLastError(FillText(247, name.c_str()));
    else
        result = ImportSound(sourcePath, LibBackSoundsFolder() + name);
    LogLeaveResult("LibImportBackSound", result);
    return result;
}

bool LibDeleteBackSound(const std::string& name)
{
    LogEnter("LibDeleteBackSound", "\"%s\"", name.c_str());
    const bool result = DeleteSound(LibBackSoundsFolder(), name, 248);
    LogLeaveResult("LibDeleteBackSound", result);
    return result;
}

std::vector<std::string> LibListBackSounds()
{
    std::vector<std::string> names;
    std::error_code ec;
    fs::directory_iterator entries(LibBackSoundsFolder(), ec);
    if (ec)
        return names;
    for (const auto& entry : entries) {
        if (!entry.is_regular_file(ec))
            continue;
        const fs::path& path = entry.path();
        if (EqualsNoCase(path.extension().string(), ".wav"))
            names.push_back(path.filename().string());
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    return names;
}

std::string LibFunSoundPath(const std::string& relativePath)
{
    return PathInFolder(LibFunSoundsFolder(), relativePath);
}

bool LibFunSoundExists(const std::string& relativePath)
{
    return ExistsInFolder(LibFunSoundsFolder(), relativePath);
}

std::vector<std::string> LibListFunSounds()
{
    std::vector<std::string> names;
    std::error_code ec;
    const fs::path root(LibFunSoundsFolder());
    for (fs::recursive_directory_iterator entry(root, ec), end; !ec && entry != end; entry.increment(ec)) {
        if (!entry->is_regular_file(ec) || !EqualsNoCase(entry->path().extension().string(), ".wav"))
            continue;
        std::string relative = fs::relative(entry->path(), root, ec).string();
        std::replace(relative.begin(), relative.end(), '/', '\\');
        names.push_back(std::move(relative));
    }
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
            return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
        });
    });
    return names;
}

bool LibImportFunSound(const std::string& sourcePath, const std::string& group)
{
    LogEnter("LibImportFunSound", "\"%s\", \"%s\"", sourcePath.c_str(), group.c_str());
    std::string relative = group;
    if (!relative.empty() && relative.back() != '\\' && relative.back() != '/')
        relative += '\\';
    relative += LibSoundFileName(sourcePath);

    bool result = false;
    const auto inFolder = RelativeInFolder(LibFunSoundsFolder(), relative);
    if (!inFolder)
        SetLastError(FillText(250, GetText(140).c_str(), relative.c_str()));
    else if (LibFunSoundExists(relative))
        SetLastError(FillText(249, relative.c_str()));
    else
        result = ImportSound(sourcePath, LibFunSoundsFolder() + *inFolder);
    LogLeaveResult("LibImportFunSound", result);
    return result;
}

bool LibDeleteFunSound(const std::string& relativePath)
{
    LogEnter("LibDeleteFunSound", "\"%s\"", relativePath.c_str());
    const bool result = DeleteSound(LibFunSoundsFolder(), relativePath, 251);
    LogLeaveResult("LibDeleteFunSound", result);
    return result;
}

bool LibImportWave(const std::string& sourcePath, const std::string& destinationPath)
{
    LogEnter("LibImportWave", "\"%s\", \"%s\"", sourcePath.c_str(), destinationPath.c_str());
    Wave wave;
    const unsigned read = wave.ReadFromFile(sourcePath);
    if (read != kWaveSuccess)
        Raise(FillText(250, WaveErrorText(read).c_str(), sourcePath.c_str()));
    const unsigned converted = wave.ConvertToOneChanel16Bit();
    if (converted != 0)
        Raise(WaveConvertFailureText(wave.Format(), converted));
    StoreLibraryWave(wave, destinationPath);
    LogLeaveResult("LibImportWave", true);
    return true;
}

bool LibDeleteFile(const std::string& path, const std::string& kind)
{
    LogEnter("LibDeleteFile", "\"%s\", \"%s\"", path.c_str(), kind.c_str());
    std::error_code ec;
    // Only files: a group folder must never go this way.
    if (fs::is_directory(fs::symlink_status(path, ec)))
        Raise(FillText(242, kind.c_str(), path.c_str(), unsigned{EISDIR}));
    fs::permissions(path, fs::perms::owner_write, fs::perm_options::add, ec);
    if (ec)
        Raise(FillText(241, path.c_str(), static_cast<unsigned>(ec.value())));
    if (!fs::remove(path, ec))
        Raise(FillText(242, kind.c_str(), path.c_str(), static_cast<unsigned>(ec ? ec.value() : ENOENT)));
    LogLeaveResult("LibDeleteFile", true);
    return true;
}

std::string LibSoundFileName(const std::string& sourcePath)
{
    fs::path name = fs::path(sourcePath).filename();
    if (!EqualsNoCase(name.extension().string(), ".wav"))
        name.replace_extension(".wav");
    return name.string();
}

std::string LibBaseName(const std::string& path)
{
    const auto slash = path.find_last_of("/\\");
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const auto dot = name.find_last_of('.');
    if (dot != std::string::npos && dot > 0)
        name.resize(dot);
    return CapitalizeFirst(name);
}

std::string LibGetLastError()
{
    Library& library = State();
    const std::lock_guard lock(library.lastErrorLock);
    return library.lastError;
}

} // namespace larimo
