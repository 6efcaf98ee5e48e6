#include "OrlinthBus/FileUri.h"

#include <gtest/gtest.h>

namespace orlinth::bus {
namespace {

/// Why it is none; "" if it is one.
std::string objectionTo(const std::string& uri) {
    try {
        static_cast<void>(pathOfFileUri(uri));
    } catch (const FileUriError& error) {
        return error.description();
    }
    return "";
}

TEST(FileUri, NamesAFileOfThisComputer) {
    EXPECT_EQ("/home/ada/film.mov", pathOfFileUri("file:///home/ada/film.mov"));
    EXPECT_EQ("/home/ada/film.mov", pathOfFileUri("file://localhost/home/ada/film.mov"));
    EXPECT_EQ("/a b/ä%", pathOfFileUri("file:///a%20b/%c3%A4%25"));
    EXPECT_EQ("/a#b?c", pathOfFileUri("file:///a#b?c"));
}

TEST(FileUri, WhatIsNoneSaysWhy) {
    EXPECT_EQ("'https://example.org/' is not the URI of a file, such as file:///home/ada/film.mov",
              objectionTo("https://example.org/"));
    EXPECT_EQ("'/home/ada' is not the URI of a file, such as file:///home/ada/film.mov", objectionTo("/home/ada"));
    EXPECT_EQ("'file://server/a' is on another computer", objectionTo("file://server/a"));
    EXPECT_EQ("'file://localhost.example/a' is on another computer", objectionTo("file://localhost.example/a"));
    for (const char* const odd : {"file:///%", "file:///%4", "file:///%zz", "file:///a%00b"}) {
        EXPECT_NE("", objectionTo(odd)) << odd;
    }
    EXPECT_NE("", objectionTo(""));
    EXPECT_NE("", objectionTo("file://"));
}

} // namespace
} // namespace orlinth::bus
