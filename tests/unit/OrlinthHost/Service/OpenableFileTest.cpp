#include "OrlinthHost/Service/OpenableFile.h"

#include "fakes/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <string>

namespace orlinth::host {
namespace {

const platform::Path folder = "/home/ann/Downloads";

TEST(OpenableFile, APictureMayBeOpenedAndAProgramMayNot) {
    fakes::MemoryFileSystem files;
    for (const char* name :
         {"a.jpg", "thesis.pdf", "notes.txt", "no extension", "a.desktop.jpg", "song.mp3", "mz.txt"}) {
        files.put(folder / name, "content");
        EXPECT_TRUE(mayBeOpened(files, folder / name)) << name;
    }
    for (const char* name :
         {"a.desktop", "A.DESKTOP", "game.jar", "run.sh", "x.py", "setup.exe", "x.AppImage", "a.deb", "link.url",
          "b.desktop ", "macro.js", "x.service", "x.kdelnk", "a.udeb", "x.perl", "x.jsm"}) {
        files.put(folder / name, "content");
        EXPECT_FALSE(mayBeOpened(files, folder / name)) << name;
    }
}

TEST(OpenableFile, NoNameHidesWhatAFileBeginsWith) {
    fakes::MemoryFileSystem files;
    for (const std::string& beginning :
         {std::string("#!/bin/sh\n"),
          std::string("\x7F"
                      "ELF\x02\x01"),
          std::string("MZ\x90"), std::string("[Desktop Entry]\nExec=sh"), std::string("\n# a\n[Desktop Entry]\n"),
          std::string("\xEF\xBB\xBF#!/bin/sh"), std::string("!<arch>\ndebian-binary"),
          std::string("\xED\xAB\xEE\xDB\x03"), std::string("[KDE Desktop Entry]\nExec=sh"),
          std::string("[Desktop Action New]\nExec=sh")}) {
        files.put(folder / "a.jpg", beginning);
        EXPECT_FALSE(mayBeOpened(files, folder / "a.jpg")) << beginning;
    }
    files.put(folder / "a.jpg", "");
    EXPECT_TRUE(mayBeOpened(files, folder / "a.jpg"));
}

TEST(OpenableFile, WhatTheSystemMayExecuteMayNotBeOpened) {
    fakes::MemoryFileSystem files;
    files.put(folder / "a.jpg", "content");
    for (const std::uint32_t permissions : {0744U, 0654U, 0645U}) {
        files.setPermissions(folder / "a.jpg", permissions);
        EXPECT_FALSE(mayBeOpened(files, folder / "a.jpg")) << permissions;
    }
    files.setPermissions(folder / "a.jpg", 0644);
    EXPECT_TRUE(mayBeOpened(files, folder / "a.jpg"));
    EXPECT_FALSE(mayBeOpened(files, folder)) << "a folder";
    EXPECT_FALSE(mayBeOpened(files, folder / "gone.jpg"));
}

} // namespace
} // namespace orlinth::host
