// Decodes arbitrary bytes as a binary property list. Whatever decodes must
// encode again, decode back to an equal value, and encode to the same bytes;
// the single-entry read must agree with the whole decode.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <set>
#include <span>
#include <utility>

#include "FuzzSupport.h"
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
    return !seen.emplace(x, y).second ||
           std::equal(x->begin(), x->end(), y->begin(), y->end(),
                      [&](const auto& i, const auto& j) { return same(i, j, seen); });
  }
  if (const auto* x = a.getDictionary()) {
    const auto* y = b.getDictionary();
    return !seen.emplace(x, y).second ||
           std::equal(x->begin(), x->end(), y->begin(), y->end(), [&](const auto& i, const auto& j) {
             return i.first == j.first && same(i.second, j.second, seen);
           });
  }
  return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const PropertyList value = velmora::decodeBinaryPlist(bytes);
  // The single-entry read never crashes, and on a file that decodes whole it
  // finds exactly the entry the whole decode has.
  const PropertyList count = velmora::decodeBinaryPlistEntry(bytes, "changecount");
  if (value.isNone()) return 0;
  Seen seen;  // pairs already proved equal stay valid across the comparisons
  const PropertyList* whole = value.find("changecount");
  fuzz::check(whole == nullptr ? count.isNone() : same(*whole, count, seen));
  const auto encoded = velmora::encodeBinaryPlist(value);
  fuzz::check(encoded.has_value() && same(value, velmora::decodeBinaryPlist(*encoded), seen));
  // Same structure, same sharing: the writer must reproduce its bytes.
  const auto reencoded = velmora::encodeBinaryPlist(velmora::decodeBinaryPlist(*encoded));
  fuzz::check(reencoded && *reencoded == *encoded);
  return 0;
}
