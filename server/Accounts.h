// Accounts: the tokens devices present, and how the server recognises them.
// A token is 32 random bytes in unpadded base64url (43 characters); the
// server keeps only its SHA-256, so a copy of the database lets nobody in.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Storage.h"

namespace velmora::server {

// A fresh random token; failure when the system's random source fails.
// Pure apart from the random source; any thread; never blocks for long.
Result<std::string> generateToken();

// The lowercase hex SHA-256 of token, as stored. Pure; any thread.
std::string hashToken(std::string_view token);

// The token in an "authorization" metadata value "Bearer <token>" (the
// scheme's case ignored); nullopt when the value has another form or the
// token is empty. Pure; any thread.
std::optional<std::string_view> bearerToken(std::string_view authorization);

// Creates the account name with a fresh token and returns the token (shown
// once, never stored). Failure when the name is empty or taken, or the
// storage failed. Blocks on the storage.
Result<std::string> addAccount(Storage& storage, const std::string& name);

// Gives the account name a fresh token and returns it (shown once); the old
// one stops working for every call from now on, and the nodes end its open
// watches within about a second. Failure when there is no such account or
// the storage failed. Blocks on the storage.
Result<std::string> replaceToken(Storage& storage, const std::string& name);

// Replaces the account's token with one nobody is shown: its devices are
// shut out until it gets a token again. Failure as for replaceToken().
Result<Done> revokeToken(Storage& storage, const std::string& name);

}  // namespace velmora::server
