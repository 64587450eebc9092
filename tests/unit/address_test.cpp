#include <algorithm>
#include <iterator>
#include <sstream>

#include "download/address_policy.h"
#include "download/address_template.h"
#include "tests/unit/expect_failure.h"

namespace {

// The words of a text.
Texts words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

TEST(AddressPolicy, AcceptsHttpsToOtherHostsOnly) {
  for (const std::string& address : words(R"(
           https://bundles.example.com/b.tar.gz https://Bundles.Example/ HTTPS://bundles.example/
           https://user:pw@bundles.example:8443/a?b#c https://128.0.0.1/ https://10.0.0.1/ https://1127.0.0.1/
           https://127.0.0.1.example.com/ https://127.0.0/ https://012.0.0.1/ https://0127.0.0.1/
           https://localhost.example/ https://notlocalhost/ https://x/http://localhost/)")) {
    EXPECT_FALSE(isAddressNotAllowed(address)) << address;
  }
  EXPECT_TRUE(isAddressNotAllowed(""));
  for (const std::string& address : words(R"(
           http://bundles.example.com/ ftp://bundles.example.com/ file:///etc/passwd httpsx://bundles.example/
           https://localhost/ https://LocalHost:8443/ https://LOCALHOST.localdomain/x https://u@localhost/
           https://%6cocalhost/ https://127.0.0.1/ https://127.255.255.255:1/ https: https:///127.0.0.1/b
           https://:8443/x https://u@/x bundles.example.com /b.tar.gz //bundles.example/ https//x.example/)")) {
    EXPECT_TRUE(isAddressNotAllowed(address)) << address;
  }
}

TEST(AddressPolicy, LoopbackLiteralsAndLetters) {
  for (const std::string& host : words("127.0.0.1 127.1.22.333 127.999.999.999"))
    EXPECT_TRUE(isLoopbackIPv4(host)) << host;
  EXPECT_FALSE(isLoopbackIPv4("") || isLoopbackIPv4("127.0.0.1\n"));
  for (const std::string& host : words("127 127.0.0 127.0.0.1. .127.0.0.1 127.0.0.1234 126.0.0.1 1.127.0.0 "
                                       "127a0b0c1 127.0.0.1.2 127..0.1")) {
    EXPECT_FALSE(isLoopbackIPv4(host)) << host;
  }
  for (int c = -300; c < 300; ++c) EXPECT_EQ(toLowerAscii(c), c >= 65 && c <= 90 ? c + 32 : c);
}

TEST(AddressTemplate, ExpandsTwoValuesAndNothingElse) {
  const auto expand = [](const std::string& text) {
    return zelo::expandAddressTemplate(text, "1%s", "p%20q");
  };
  const std::pair<const char*, const char*> rows[] = {{"https://x/?v=%s&p=%s", "https://x/?v=1%s&p=p%20q"},
                                                      {"https://x/%s", "https://x/1%s"},
                                                      {"%%%s%%s%s%%", "%1%s%sp%20q%"},
                                                      {"", ""}};
  for (const auto& [addressTemplate, address] : rows) EXPECT_EQ(expand(addressTemplate), address);
  for (const char* refused : {"%s%s%s", "%d", "%", "x%", "%s%n", "% s", "%1$s", "%S", "%5s", "%%%"})
    EXPECT_EQ(failureOf([&] { (void)expand(refused); }), "invalid metadata url template") << refused;
}

TEST(AddressTemplate, CutsTheAddress) {
  for (const std::size_t length : {198U, 199U, 200U, 5000U}) {
    const std::string text(length, 'a');
    EXPECT_EQ(zelo::expandAddressTemplate(text, "", "").size(), std::min<std::size_t>(length, 199));
    EXPECT_EQ(zelo::expandAddressTemplate("%s", text, "").size(), std::min<std::size_t>(length, 199));
  }
}

}  // namespace
