// URLs: what parses, what the parts are, resolving (the examples of RFC 3986 section 5.4), appending.
#include <gtest/gtest.h>

#include <string>

#include "platform/Exception.h"
#include "platform/URL.h"

namespace {

using platform::URL;

std::string absolute(const std::optional<URL>& url) { return url ? url->absoluteString() : "absent"; }

TEST(URL, PartsOfAWholeURL) {
  const auto url = URL::URLWithString("HTTPS://user:pw@Api.Example.com:8443/a%20b/c?x=1&y=%20#part");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->absoluteString(), "HTTPS://user:pw@Api.Example.com:8443/a%20b/c?x=1&y=%20#part");
  EXPECT_EQ(url->description(), url->absoluteString());
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "Api.Example.com");
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/a b/c");
  EXPECT_EQ(url->query(), "x=1&y=%20");
  EXPECT_FALSE(url->isFileURL());
}

TEST(URL, PartsThatAreNotThere) {
  const auto url = URL::URLWithString("https://host.example");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->port(), std::nullopt);
  EXPECT_EQ(url->path(), "");
  EXPECT_EQ(url->query(), std::nullopt);
  EXPECT_EQ(URL::URLWithString("https://host.example/a?")->query(), "");
  EXPECT_EQ(URL::URLWithString("https://host.example:/")->port(), std::nullopt);
  EXPECT_EQ(URL::URLWithString("https:///a")->host(), "");
}

TEST(URL, ARelativeReferenceHasNoScheme) {
  for (const char* text : {"", "a", "/a/b", "?q", "#f", "./a:b", "//host/path", "a/b:c"}) {
    const auto url = URL::URLWithString(text);
    ASSERT_TRUE(url) << text;
    EXPECT_EQ(url->scheme(), std::nullopt) << text;
  }
  EXPECT_EQ(URL::URLWithString("//host/path")->host(), "host");
  EXPECT_EQ(URL::URLWithString("/a")->host(), std::nullopt);
}

TEST(URL, EveryFormOfHost) {
  for (const char* host : {"h", "127.0.0.1", "xn--bcher-kva.example", "a_b", "a-.b~", "%41bc", "!$&'()*+,;=", "256.1.1.1"})
    EXPECT_EQ(URL::URLWithString("https://" + std::string(host) + "/")->host(), host);
  for (const char* host : {"::", "::1", "1::", "1:2:3:4:5:6:7:8", "1::8", "fe80::1:2", "::ffff:192.0.2.1", "1:2:3:4:5:6:192.0.2.1",
                           "1:2:3:4:5:6:7::", "::2:3:4:5:6:7:8", "v1.host", "vF.a:b"}) {
    const auto url = URL::URLWithString("https://[" + std::string(host) + "]:443/");
    ASSERT_TRUE(url) << host;
    EXPECT_EQ(url->host(), host);
    EXPECT_EQ(url->port(), 443);
  }
}

TEST(URL, TextThatIsNoURL) {
  for (const std::string& text :
       {std::string("a b"), std::string("https://host/ "), std::string(" https://host/"), std::string("https://host/\n"),
        std::string("https://host/\t"), std::string("https://host/\x7f"), std::string("https://host/\0", 14),
        std::string("https://host/\"x\""), std::string("https://host/<x>"), std::string("https://host/a\\b"),
        std::string("https://host/`"), std::string("https://host/{x}"), std::string("https://host/a|b"),
        std::string("https://host/a^b"), std::string("https://host/\xC3\xA9"), std::string("https://h\xC3\xB6st/")})
    EXPECT_EQ(absolute(URL::URLWithString(text)), "absent") << text;
}

TEST(URL, ABadPercentEscapeIsNoURL) {
  for (const char* text : {"https://host/%", "https://host/%4", "https://host/%zz", "https://host/%4g", "https://host/?%",
                           "https://host/#%0", "https://ho%st/", "https://u%@host/"})
    EXPECT_EQ(absolute(URL::URLWithString(text)), "absent") << text;
}

TEST(URL, ABadPortIsNoURL) {
  for (const char* text : {"https://host:65536/", "https://host:99999999999999999999/", "https://host:-1/", "https://host:4a/",
                           "https://host:+1/", "https://host:1:2/", "https://[::1]x/", "https://[::1]1/"})
    EXPECT_EQ(absolute(URL::URLWithString(text)), "absent") << text;
  EXPECT_EQ(URL::URLWithString("https://host:65535/")->port(), 65535);
  EXPECT_EQ(URL::URLWithString("https://host:0000000443/")->port(), 443);
}

TEST(URL, ABadSchemeOrAuthorityIsNoURL) {
  for (const char* text : {":a",
                           "1a:b",
                           "a_b:c",
                           "%41:b",
                           "https://a@b@c/",
                           "https://[::1/",
                           "https://::1]/",
                           "https://[]/",
                           "https://[1::2::3]/",
                           "https://[1:2:3:4:5:6:7]/",
                           "https://[1:2:3:4:5:6:7:8:9]/",
                           "https://[12345::]/",
                           "https://[g::]/",
                           "https://[1:2:3:4:5:6:7:8::]/",
                           "https://[::1.2.3]/",
                           "https://[::1.2.3.256]/",
                           "https://[::1.2.3.04]/",
                           "https://[fe80::1%25eth0]/",
                           "https://[v.a]/",
                           "https://[v1.]/",
                           "https://[v1]/",
                           "https://[:1::]/",
                           "https://[1:]/",
                           "https://host/[x]",
                           "https://host/?[x]",
                           "https://host/##"})
    EXPECT_EQ(absolute(URL::URLWithString(text)), "absent") << text;
}

TEST(URL, ThePathIsDecodedWhateverTheBytes) { EXPECT_EQ(URL::URLWithString("/%00%ff%2F+")->path(), std::string("/\0\xff/+", 5)); }

TEST(URL, TheLastPathComponent) {
  EXPECT_EQ(URL::URLWithString("https://h/a/b%20c")->lastPathComponent(), "b c");
  EXPECT_EQ(URL::URLWithString("https://h/a/b/")->lastPathComponent(), "b");
  EXPECT_EQ(URL::URLWithString("https://h/a/b//?q#f")->lastPathComponent(), "b");
  EXPECT_EQ(URL::URLWithString("https://h/")->lastPathComponent(), "/");
  EXPECT_EQ(URL::URLWithString("https://h")->lastPathComponent(), "");
  EXPECT_EQ(URL::URLWithString("name")->lastPathComponent(), "name");
}

TEST(URL, AFileURLHoldsAnyPath) {
  const URL url = URL::fileURLWithPath("/tmp/a b/ü?#%;:@[x]\n");
  EXPECT_EQ(url.absoluteString(), "file:///tmp/a%20b/%C3%BC%3F%23%25;:@%5Bx%5D%0A");
  EXPECT_EQ(url.path(), "/tmp/a b/ü?#%;:@[x]\n");
  EXPECT_TRUE(url.isFileURL());
  EXPECT_EQ(url.host(), "");
  EXPECT_EQ(URL::fileURLWithPath("//x").path(), "//x");
  EXPECT_EQ(URL::fileURLWithPath("/").absoluteString(), "file:///");
}

TEST(URL, AFileURLNeedsAnAbsolutePath) {
  EXPECT_THROW(URL::fileURLWithPath("relative"), platform::Exception);
  EXPECT_THROW(URL::fileURLWithPath(""), platform::Exception);
}

TEST(URL, AppendingAComponent) {
  const auto appended = [](const char* base, std::string_view component) {
    return URL::URLWithString(base)->URLByAppendingPathComponent(component).absoluteString();
  };
  EXPECT_EQ(appended("https://h/a", "b"), "https://h/a/b");
  EXPECT_EQ(appended("https://h/a/", "b"), "https://h/a/b");
  EXPECT_EQ(appended("https://h/a/", "/b"), "https://h/a/b");
  EXPECT_EQ(appended("https://h", "b"), "https://h/b");
  EXPECT_EQ(appended("https://h/a?q=1#f", "b c"), "https://h/a/b%20c?q=1#f");
  EXPECT_EQ(appended("https://h/a", "50%?#ü"), "https://h/a/50%25%3F%23%C3%BC");
  EXPECT_EQ(appended("https://h/a", "b/c"), "https://h/a/b/c");
  EXPECT_EQ(appended("https://h/a", ""), "https://h/a/");
  EXPECT_EQ(appended("https://h/a", "x:y"), "https://h/a/x:y");
  EXPECT_EQ(appended("", "x:y"), "x%3Ay") << "not a scheme";
  EXPECT_EQ(appended("", "//host"), "host") << "not an authority";
  EXPECT_EQ(appended("https://h/a", std::string_view("a\0b", 3)), "https://h/a/a%00b");
  EXPECT_EQ(URL::fileURLWithPath("/a b").URLByAppendingPathComponent("c d.gif").path(), "/a b/c d.gif");
}

TEST(URL, EqualityIsThatOfTheTexts) {
  EXPECT_EQ(URL::URLWithString("https://h/"), URL::URLWithString("https://h/"));
  EXPECT_NE(URL::URLWithString("https://h/"), URL::URLWithString("https://h"));
}

TEST(URL, ResolvingTheNormalExamplesOfRFC3986) {
  const URL base = *URL::URLWithString("http://a/b/c/d;p?q");
  const std::pair<const char*, const char*> examples[] = {
      {"g:h", "g:h"},
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q#s"},
      {"g#s", "http://a/b/c/g#s"},
      {"g?y#s", "http://a/b/c/g?y#s"},
      {";x", "http://a/b/c/;x"},
      {"g;x", "http://a/b/c/g;x"},
      {"g;x?y#s", "http://a/b/c/g;x?y#s"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"./", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../", "http://a/b/"},
      {"../g", "http://a/b/g"},
      {"../..", "http://a/"},
      {"../../", "http://a/"},
      {"../../g", "http://a/g"},
  };
  for (const auto& [reference, expected] : examples) EXPECT_EQ(absolute(base.URLByResolving(reference)), expected) << reference;
}

TEST(URL, ResolvingTheAbnormalExamplesOfRFC3986) {
  const URL base = *URL::URLWithString("http://a/b/c/d;p?q");
  const std::pair<const char*, const char*> examples[] = {
      {"../../../g", "http://a/g"},
      {"../../../../g", "http://a/g"},
      {"/./g", "http://a/g"},
      {"/../g", "http://a/g"},
      {"g.", "http://a/b/c/g."},
      {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."},
      {"..g", "http://a/b/c/..g"},
      {"./../g", "http://a/b/g"},
      {"./g/.", "http://a/b/c/g/"},
      {"g/./h", "http://a/b/c/g/h"},
      {"g/../h", "http://a/b/c/h"},
      {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/./x", "http://a/b/c/g?y/./x"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      {"g#s/./x", "http://a/b/c/g#s/./x"},
      {"g#s/../x", "http://a/b/c/g#s/../x"},
      {"http:g", "http:g"},
  };
  for (const auto& [reference, expected] : examples) EXPECT_EQ(absolute(base.URLByResolving(reference)), expected) << reference;
}

TEST(URL, ResolvingAgainstABaseWithoutAPath) {
  const URL base = *URL::URLWithString("https://host.example?q");
  EXPECT_EQ(absolute(base.URLByResolving("g")), "https://host.example/g");
  EXPECT_EQ(absolute(base.URLByResolving("")), "https://host.example?q");
  EXPECT_EQ(absolute(base.URLByResolving("..")), "https://host.example/");
}

TEST(URL, ResolvingNeverTurnsAPathIntoAnAuthorityOrAScheme) {
  EXPECT_EQ(absolute(URL::URLWithString("a:/b")->URLByResolving("/.//evil.example/x")), "a:/.//evil.example/x");
  EXPECT_EQ(absolute(URL::URLWithString("/b/")->URLByResolving("/x/..//evil.example")), "/.//evil.example");
  EXPECT_EQ(absolute(URL::URLWithString("a/b")->URLByResolving("../x:y")), "./x:y");
  EXPECT_EQ(absolute(URL::URLWithString("https://h/a")->URLByResolving("/..//evil.example/")), "https://h//evil.example/");
}

TEST(URL, ResolvingTextThatIsNoReferenceGivesNone) {
  const URL base = *URL::URLWithString("https://host.example/");
  for (const char* reference : {"a b", "https://ho st/", "%", "http://host:x/", "\xC3\xA9"})
    EXPECT_EQ(absolute(base.URLByResolving(reference)), "absent") << reference;
}

// Nothing here may take more than time in proportion to the length; with a quadratic step these would run for hours.
TEST(URL, LongHostileTextIsNoTrouble) {
  const std::size_t length = 200'000;
  std::string dots = "https://h";
  std::string climbs;
  for (std::size_t i = 0; i < length; ++i) {
    dots += "/a";
    climbs += "../";
  }
  const auto url = URL::URLWithString(dots);
  ASSERT_TRUE(url);
  EXPECT_EQ(absolute(url->URLByResolving(climbs)), "https://h/");
  EXPECT_EQ(absolute(URL::URLWithString("https://[" + std::string(length, ':') + "]/")), "absent");
  EXPECT_EQ(absolute(URL::URLWithString("https://" + std::string(length, '@') + "/")), "absent");
  EXPECT_EQ(absolute(URL::URLWithString("https://h:" + std::string(length, '9') + "/")), "absent");
  EXPECT_EQ(URL::URLWithString(std::string(length, '/'))->lastPathComponent(), "/");
}

}  // namespace
