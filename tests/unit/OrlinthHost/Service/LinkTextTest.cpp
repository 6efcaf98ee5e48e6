#include "OrlinthHost/Service/LinkText.h"

#include <gtest/gtest.h>

#include <string>

namespace orlinth::host {
namespace {

TEST(LinkText, KnowsTheHostOfOneAddressAndNothingElse) {
    const auto host = [](const std::string& text) { return hostOfLink(text).value_or("(none)"); };
    EXPECT_EQ("example.org", host("https://example.org"));
    EXPECT_EQ("example.org", host(" https://Example.ORG:8443/a%20b?c=d#e\n"));
    EXPECT_EQ("a-b.example", host("https://a-b.example?x@y"));
    EXPECT_EQ("192.168.1.7", host("https://192.168.1.7/"));
    for (const std::string& text : {
             std::string("http://example.org"),
             std::string("https://"),
             std::string("https:///path"),
             std::string("https://example.org https://other.example"),
             std::string("look at https://example.org"),
             std::string("https://example.org/a\nb"),
             std::string("https://bank.example@evil.example/"),
             std::string("https://ex\u0430mple.org"), // a Cyrillic letter
             std::string("https://example.org\\@evil.example"),
             std::string("https://example.org:port/"),
             std::string("https://example.org:123456/"),
             std::string("https://[2001:db8::1]/"),
             std::string("https://.example/"),
             std::string("https://-option/"),
             std::string("https://example.org/\x1b[31m"),
             std::string("javascript:alert(1)"),
             std::string("file:///etc/passwd"),
             std::string("https://") + std::string(61, 'a') + "/",
             std::string("https://example.org/") + std::string(2048, 'a'),
             std::string("https://example.org/\0x", 22),
             std::string(),
         }) {
        EXPECT_EQ("(none)", host(text)) << text;
    }
    EXPECT_EQ("https://example.org/a", addressOfLink(" https://example.org/a\n"));
}

} // namespace
} // namespace orlinth::host
