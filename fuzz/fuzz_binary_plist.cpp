// Decodes arbitrary bytes as a binary property list. Whatever decodes must
// encode again, decode back to an equal value, and encode to the same bytes;
// the single-entry read must agree with the whole decode.
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <utility>

#include "velmora/platform/PlistCodec.h"

namespace {

using velmora::PropertyList;
using Seen = std::set<std::pair<const void*, const void*>>;

// Deep equality that compares each pair of containers once: a decoded value
// may share containers so heavily that walking it as a tree never ends.
bool same(const PropertyList& a, const PropertyList& b, Seen& seen) {
  if (a.type() != b.type()) return false;
  if (const auto* x = a.getArray()) {
    const auto* y = b.getArray();
    if (!seen.emplace(x, y).second) return true;
    if (x->size() != y->size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i)
      if (!same((*x)[i], (*y)[i], seen)) return false;
    return true;
  }
  if (const auto* x = a.getDictionary()) {
    const auto* y = b.getDictionary();
    if (!seen.emplace(x, y).second) return true;
    if (x->size() != y->size()) return false;
    for (auto i = x->begin(), j = y->begin(); i != x->end(); ++i, ++j)
      if (i->first != j->first || !same(i->second, j->second, seen)) return false;
    return true;
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const PropertyList value = velmora::decodeBinaryPlist(std::span(data, size));
  // A single entry read of the top dictionary: never a crash, and on a file
  // that decodes whole, exactly the entry the whole decode has.
  const PropertyList count = velmora::decodeBinaryPlistEntry(std::span(data, size), "changecount");
  if (!value.isNone()) {
    const PropertyList* whole = value.find("changecount");
    Seen seen;
    if (whole == nullptr ? !count.isNone() : !same(*whole, count, seen)) __builtin_trap();
  }
  if (value.isNone()) return 0;
  const auto encoded = velmora::encodeBinaryPlist(value);
  if (!encoded) __builtin_trap();
  const PropertyList again = velmora::decodeBinaryPlist(*encoded);
  Seen seen;
  if (!same(value, again, seen)) __builtin_trap();
  // Same structure, same sharing: the writer must reproduce its bytes.
  const auto reencoded = velmora::encodeBinaryPlist(again);
  if (!reencoded || *reencoded != *encoded) __builtin_trap();
  return 0;
}
