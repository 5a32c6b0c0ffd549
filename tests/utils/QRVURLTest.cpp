#include "utils/QRVURL.h"

#include <gtest/gtest.h>

namespace quorvix {
namespace {

// The reference resolution examples of RFC 3986 section 5.4 (normal and abnormal).
TEST(QRVURLTest, ResolvesTheExamplesOfRFC3986) {
  auto base = QRVURL::parse("http://a/b/c/d;p?q");
  ASSERT_TRUE(base);
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
  for (auto [ref, expected] : examples) {
    auto resolved = base->resolve(ref);
    ASSERT_TRUE(resolved) << ref;
    EXPECT_EQ(resolved->toString(), expected) << ref;
  }
}

TEST(QRVURLTest, RefusesWhatIsNotAURL) {
  for (const char* bad :
       {"http://a b/", "http://h:99999/", "http://h:8x/", "1http://h/", "http://[::1/",
        "http://h/\n", "//tf:ttf://att." /* a host with a colon, found by fuzzing */,
        "http://h/\xc3\xa9", "http://h/{x}"}) {
    EXPECT_FALSE(QRVURL::parse(bad)) << bad;
  }
}

TEST(QRVURLTest, DefaultPorts) {
  const std::pair<const char*, bool> cases[] = {
      {"https://h/", true},   {"https://h:443/", true}, {"https://h:8443/", false},
      {"HTTP://h:80/", true}, {"ws://h:80/", true},     {"wss://h:443/", true},
      {"wss://h:80/", false}, {"ftp://h:21/", false},   {"ftp://h/", true},
  };
  for (auto [url, expected] : cases)
    EXPECT_EQ(QRVURL::parse(url)->usesDefaultPort(), expected) << url;
}

}  // namespace
}  // namespace quorvix
