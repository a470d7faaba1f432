// The account's server address and identity: plaintext only to a real
// loopback address, and an account named by its token without revealing it.
#include "AccountConfig.h"

#include <gtest/gtest.h>

namespace {

using velmorad::AccountConfig;
using velmorad::parseServerUrl;

TEST(AccountConfig, ServerUrlsAndAccountIdentifiers) {
  std::string error;
  EXPECT_EQ(parseServerUrl("http://127.0.0.1:4000/", &error)->target, "127.0.0.1:4000");
  // A name that only looks like loopback gets TLS or nothing: the token must
  // not travel in plaintext to it.
  const std::pair<const char*, bool> tls[] = {{"http://127.0.0.1:4000/", false}, {"localhost:4000", false},
                                              {"http://[::1]:4000", false},     {"sync.example.org:443", true},
                                              {"https://127.0.0.1:4000", true}, {"127.evil.example:443", true}};
  for (const auto& [url, secure] : tls) EXPECT_EQ(parseServerUrl(url, &error)->tls, secure) << url;
  for (const char* bad : {"ftp://h:1", "h", "h:", ":1", "http://h:1/path", "h:12x", "http://127.evil.example:443",
                          "http://sync.example.org:80"}) {
    EXPECT_FALSE(parseServerUrl(bad, &error)) << bad;
  }
  const AccountConfig a{"http://h:1", "secret-token", "dev"};
  EXPECT_EQ(a.accountIdentifier(), (AccountConfig{"https://elsewhere:2", "secret-token", "dev2"}.accountIdentifier()));
  EXPECT_NE(a.accountIdentifier(), (AccountConfig{"http://h:1", "other-token", "dev"}.accountIdentifier()));
  EXPECT_EQ(a.accountIdentifier().find("secret"), std::string::npos);
  EXPECT_EQ(AccountConfig{}.accountIdentifier(), "");
  EXPECT_NE(velmorad::newDeviceIdentifier(), velmorad::newDeviceIdentifier());
}

}  // namespace
