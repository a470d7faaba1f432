// Decodes arbitrary bytes as an XML property list. Whatever decodes must
// write back to XML and to the binary form, and both must read back equal.
#include <cstddef>
#include <cstdint>
#include <span>

#include "FuzzSupport.h"
#include "velmora/platform/PlistCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const velmora::PropertyList value = velmora::decodeXmlPlist(std::span(data, size));
  if (value.isNone()) return 0;
  // XML cannot share subtrees, so plain (tree-walking) equality is linear here.
  const auto xml = velmora::encodeXmlPlist(value);
  fuzz::check(xml && velmora::decodeXmlPlist(std::span(reinterpret_cast<const std::uint8_t*>(xml->data()),
                                                       xml->size())) == value);
  const auto binary = velmora::encodeBinaryPlist(value);
  fuzz::check(binary && velmora::decodeBinaryPlist(*binary) == value);
  return 0;
}
