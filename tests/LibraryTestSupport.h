// SPDX-License-Identifier: GPL-3.0-or-later
// A sound library of a test's own: an empty program folder with the library's folders, a
// folder beside it for the files a test imports, and a snapshot of what the library holds.
#pragma once

#include "WaveTestFiles.h"
#include "modb.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

namespace larimo::test {

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        StartEnglishTexts();
        LibInit(m_root.Path());
        std::filesystem::create_directories(LibBackSoundsFolder());
        std::filesystem::create_directories(LibFunSoundsFolder());
    }
    std::map<std::string, std::uintmax_t> Snapshot() const { return FolderSnapshot(m_root.Path()); }

    ScratchFolder m_root;
    ScratchFolder m_sources;
};

} // namespace larimo::test
