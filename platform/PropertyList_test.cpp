#include "velmora/platform/PropertyList.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

// A chain of `levels` arrays that each hold the level below twice: a tree of
// 2^levels leaves sharing one payload per level.
PropertyList doublingChain(int levels, PropertyList leaf) {
  PropertyList v = std::move(leaf);
  for (int i = 0; i < levels; ++i) v = PropertyList::array({v, v});
  return v;
}

TEST(PropertyList, ValidityOfSharedSubtreesIsCheckedOnce) {
  // As a tree this is 2^80 leaves; the check must not walk it that way.
  EXPECT_TRUE(doublingChain(80, PropertyList::integer(1)).isValidForBinaryFormat());
  EXPECT_FALSE(doublingChain(80, PropertyList::string("\xff")).isValidForBinaryFormat());
  EXPECT_FALSE(doublingChain(80, makeArray({PropertyList()})).isValidForBinaryFormat());
}

TEST(PropertyList, SharedSubtreeDepthCountsOnEveryPath) {
  // `deep` is fine where it is first met, one level down, but a second path
  // reaches it past the depth limit.
  PropertyList deep = PropertyList::integer(0);
  for (int i = 0; i < PropertyList::kMaxDepth - 1; ++i) deep = PropertyList::array({deep});
  EXPECT_TRUE(makeArray({deep}).isValidForBinaryFormat());
  EXPECT_TRUE(makeArray({deep, makeArray({PropertyList::integer(1)})}).isValidForBinaryFormat());
  EXPECT_FALSE(makeArray({deep, makeArray({deep})}).isValidForBinaryFormat());
  EXPECT_FALSE(makeDictionary({{"a", deep}, {"b", makeDictionary({{"c", deep}})}}).isValidForBinaryFormat());
}

TEST(PropertyList, ValidityChecksKeys) {
  EXPECT_TRUE(makeDictionary({{std::string("k\0", 2), PropertyList::boolean(true)}}).isValidForBinaryFormat());
  EXPECT_FALSE(makeDictionary({{"\xc0\x80", PropertyList::boolean(true)}}).isValidForBinaryFormat());
}

}  // namespace
}  // namespace velmora
