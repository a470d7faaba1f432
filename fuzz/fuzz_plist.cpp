// Decodes arbitrary bytes as a property list, either encoding (told apart by
// the "bplist00" magic, as every reader does). Whatever decodes must encode
// to the binary form, decode back to an equal value, and encode to the same
// bytes again; the single-entry read of a binary file must agree with the
// whole decode; an XML document must also write back to XML and read back
// equal.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
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
  const PropertyList value = velmora::decodePlist(bytes);
  // The single-entry read never crashes, and on a binary file that decodes
  // whole it finds exactly the entry the whole decode has.
  const PropertyList count = velmora::decodeBinaryPlistEntry(bytes, "changecount");
  if (value.isNone()) return 0;
  Seen seen;  // pairs already proved equal stay valid across the comparisons
  const bool binary = size >= 8 && std::equal(data, data + 8, "bplist00");
  const PropertyList* whole = value.find("changecount");
  fuzz::check(!binary || (whole == nullptr ? count.isNone() : same(*whole, count, seen)));
  const auto encoded = velmora::encodeBinaryPlist(value);
  fuzz::check(encoded.has_value() && same(value, velmora::decodeBinaryPlist(*encoded), seen));
  // Same structure, same sharing: the writer must reproduce its bytes.
  fuzz::check(velmora::encodeBinaryPlist(velmora::decodeBinaryPlist(*encoded)) == encoded);
  // XML cannot share subtrees, so plain (tree-walking) equality is linear here.
  const auto xml = binary ? std::nullopt : velmora::encodeXmlPlist(value);
  fuzz::check(binary || (xml && velmora::decodeXmlPlist(std::span(reinterpret_cast<const std::uint8_t*>(xml->data()),
                                                                  xml->size())) == value));
  return 0;
}
