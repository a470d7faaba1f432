// Accounts (see Accounts.h).
#include "Accounts.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>

namespace velmora::server {

Result<std::string> generateToken() {
  std::array<unsigned char, 32> bytes{};
  if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
    return Result<std::string>::failure("the random source failed");
  }
  static constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string token;
  std::uint32_t bits = 0;
  int count = 0;
  for (unsigned char byte : bytes) {
    bits = (bits << 8) | byte;
    count += 8;
    while (count >= 6) {
      count -= 6;
      token.push_back(kAlphabet[(bits >> count) & 0x3f]);
    }
  }
  if (count > 0) token.push_back(kAlphabet[(bits << (6 - count)) & 0x3f]);
  return token;
}

std::string hashToken(std::string_view token) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(token.data(), token.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(length * 2);
  for (unsigned int i = 0; i < length; ++i) {
    hex.push_back(kHex[digest[i] >> 4]);
    hex.push_back(kHex[digest[i] & 0xf]);
  }
  return hex;
}

std::optional<std::string_view> bearerToken(std::string_view authorization) {
  constexpr std::string_view kScheme = "bearer ";
  if (authorization.size() <= kScheme.size()) return std::nullopt;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    const char c = authorization[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) != kScheme[i]) return std::nullopt;
  }
  std::string_view token = authorization.substr(kScheme.size());
  if (token.find_first_of(" \t") != std::string_view::npos) return std::nullopt;
  return token;
}

Result<std::string> addAccount(Storage& storage, const std::string& name) {
  if (name.empty()) return Result<std::string>::failure("the account name is empty");
  Result<std::string> token = generateToken();
  if (!token) return token;
  Result<Account> account = storage.addAccount(name, hashToken(token.value()));
  if (!account) return Result<std::string>::failure(account.error());
  return token;
}

Result<std::string> replaceToken(Storage& storage, const std::string& name) {
  Result<std::string> token = generateToken();
  if (!token) return token;
  Result<Done> replaced = storage.replaceTokenHash(name, hashToken(token.value()));
  if (!replaced) return Result<std::string>::failure(replaced.error());
  return token;
}

Result<Done> revokeToken(Storage& storage, const std::string& name) {
  Result<std::string> discarded = replaceToken(storage, name);
  if (!discarded) return Result<Done>::failure(discarded.error());
  return Done{};
}

}  // namespace velmora::server
