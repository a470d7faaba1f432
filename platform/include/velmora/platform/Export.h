// Marks the platform names that the library's public headers hand to
// applications (the value type, log handles, the notification centre,
// keep-alive transactions), so they stay visible when the shared library is
// built with hidden visibility by default. Everything else in platform/ is
// internal to the library and its own programs.
#pragma once

#define VELMORA_EXPORT __attribute__((visibility("default")))
