// Definitions shared by every public libzkv header.
#pragma once

// Marks a declaration as part of the library's exported interface, so it stays
// visible when the library is built with hidden visibility by default.
#define ZKV_EXPORT __attribute__((visibility("default")))
