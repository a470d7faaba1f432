#include "zkv/ZKVEncoding.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <limits>
#include <random>

#include "velmora/platform/PlistCodec.h"

using velmora::Bytes;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PropertyList;

namespace {

// Compresses with zlib directly, so tests can build streams the library
// itself would refuse to produce (empty content, other wrappers).
Bytes deflateWith(int windowBits, const Bytes& input) {
  z_stream strm{};
  EXPECT_EQ(deflateInit2(&strm, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY), Z_OK);
  Bytes out(deflateBound(&strm, input.size()));
  strm.next_in = const_cast<Bytef*>(input.data());
  strm.avail_in = static_cast<uInt>(input.size());
  strm.next_out = out.data();
  strm.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&strm, Z_FINISH), Z_STREAM_END);
  out.resize(strm.total_out);
  deflateEnd(&strm);
  return out;
}

Bytes randomBytes(std::size_t n) {
  std::mt19937 rng(7);
  Bytes b(n);
  for (auto& c : b) c = static_cast<std::uint8_t>(rng());
  return b;
}

Bytes serialized(const PropertyList& v, std::int64_t ts) {
  auto bytes = ZKVCopySerializedDataForPropertyListAndTimestamp(v, ts);
  EXPECT_TRUE(bytes.has_value());
  return bytes.value_or(Bytes{});
}

Bytes legacy(PropertyList dict) { return velmora::encodeBinaryPlist(dict).value(); }

PropertyList readData(const Bytes& b, std::int64_t& ts) { return ZKVCopyPropertyListAndTimestampFromData(b, &ts); }

}  // namespace

TEST(ZKVGzip, RefusesOutputThatWouldNotShrink) {
  EXPECT_FALSE(ZKVCopyGzippedDataForData({}));
  EXPECT_FALSE(ZKVCopyGzippedDataForData(Bytes(10, 'a')));
  EXPECT_FALSE(ZKVCopyGzippedDataForData(randomBytes(4096)));
}

TEST(ZKVGzip, RoundTripsAcrossSeveralInflateChunks) {
  Bytes zeros(64 * 1024, 0);
  auto gz = ZKVCopyGzippedDataForData(zeros);
  ASSERT_TRUE(gz);
  EXPECT_LT(gz->size(), zeros.size());
  EXPECT_EQ((*gz)[0], 0x1f);
  EXPECT_EQ((*gz)[1], 0x8b);
  EXPECT_EQ(ZKVCopyUngzippedDataForData(*gz), zeros);
}

TEST(ZKVGzip, UngzipAcceptsOnlyCompleteGzipMembers) {
  Bytes text(5000, 'x');
  EXPECT_FALSE(ZKVCopyUngzippedDataForData({}));
  EXPECT_FALSE(ZKVCopyUngzippedDataForData(deflateWith(15, text)));   // zlib wrapper
  EXPECT_FALSE(ZKVCopyUngzippedDataForData(deflateWith(-15, text)));  // raw deflate
  Bytes gz = deflateWith(31, text);
  for (std::size_t cut : {gz.size() - 1, gz.size() - 4, std::size_t{10}, std::size_t{1}}) {
    EXPECT_FALSE(ZKVCopyUngzippedDataForData(std::span(gz).first(cut))) << cut;
  }
  Bytes corrupt = gz;
  corrupt[corrupt.size() - 5] ^= 0xff;  // CRC
  EXPECT_FALSE(ZKVCopyUngzippedDataForData(corrupt));
}

TEST(ZKVGzip, UngzipDecodesTheFirstMemberOnlyAndEmptyContent) {
  Bytes gz = deflateWith(31, Bytes(300, 'a'));
  Bytes second = deflateWith(31, Bytes(300, 'b'));
  Bytes joined = gz;
  joined.insert(joined.end(), second.begin(), second.end());
  joined.insert(joined.end(), {'j', 'u', 'n', 'k'});
  EXPECT_EQ(ZKVCopyUngzippedDataForData(joined), Bytes(300, 'a'));
  // Empty content is an empty buffer, not a failure.
  auto out = ZKVCopyUngzippedDataForData(deflateWith(31, {}));
  ASSERT_TRUE(out.has_value());
  EXPECT_TRUE(out->empty());
}

TEST(ZKVSerialized, RefusesNoValueOrNoTimestamp) {
  EXPECT_FALSE(ZKVCopySerializedDataForPropertyListAndTimestamp(PropertyList(), 5));
  EXPECT_FALSE(ZKVCopySerializedDataForPropertyListAndTimestamp(PropertyList::integer(1), 0));
  EXPECT_FALSE(ZKVCopySerializedDataForPropertyListAndTimestamp(makeArray({PropertyList()}), 5));
  EXPECT_EQ(ZKVGetSerializedLengthForPropertyList(PropertyList()), 0);
}

TEST(ZKVSerialized, WritesHeaderAndRoundTripsIgnoringReservedBytes) {
  PropertyList value = makeDictionary({{"k", makeArray({PropertyList::string("s"), PropertyList::real(1.5)})}});
  for (std::int64_t ts : {std::int64_t{1}, std::int64_t{-7}, std::int64_t{0x0102030405060708},
                          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    Bytes b = serialized(value, ts);
    ASSERT_EQ(static_cast<std::ptrdiff_t>(b.size()), ZKVGetSerializedLengthForPropertyList(value));
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 4), (Bytes{0x01, 0, 0, 0}));
    std::int64_t le;
    std::memcpy(&le, b.data() + 4, 8);  // little-endian host
    EXPECT_EQ(le, ts);
    b[1] = b[2] = b[3] = 0xee;  // reserved: the reader ignores them
    std::int64_t out = 0;
    EXPECT_EQ(readData(b, out), value);
    EXPECT_EQ(out, ts);
    EXPECT_EQ(ZKVCopyPropertyListAndTimestampFromData(b, nullptr), value);
    // The payload may be in either encoding: XML behind the same header reads the same.
    const std::string xml = velmora::encodeXmlPlist(value).value();
    b.insert(b.erase(b.begin() + 12, b.end()), xml.begin(), xml.end());
    EXPECT_EQ(readData(b, out), value);
  }
}

TEST(ZKVSerialized, MalformedInputLeavesOrSetsTimestampAsDocumented) {
  std::int64_t out = 99;
  Bytes shortForm(18, 0);
  shortForm[0] = 0x01;
  shortForm[4] = 1;
  EXPECT_TRUE(readData(shortForm, out).isNone());
  EXPECT_TRUE(readData({}, out).isNone());
  EXPECT_EQ(out, 99);

  Bytes zeroTs = serialized(PropertyList::integer(1), 5);
  std::fill(zeroTs.begin() + 4, zeroTs.begin() + 12, 0);
  EXPECT_TRUE(readData(zeroTs, out).isNone());
  EXPECT_EQ(out, 99);

  Bytes damaged = serialized(PropertyList::string("payload"), 5);
  damaged.back() ^= 0xff;  // trailer
  damaged[13] ^= 0xff;     // magic
  EXPECT_TRUE(readData(damaged, out).isNone());
  EXPECT_EQ(out, 5);

  std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>timestamp</key>"
      "<integer>3</integer><key>value</key><integer>1</integer></dict></plist>";
  out = 99;
  EXPECT_TRUE(readData(Bytes(xml.begin(), xml.end()), out).isNone());
  EXPECT_TRUE(readData(Bytes(19, 0x02), out).isNone());
  EXPECT_EQ(out, 99);
}

TEST(ZKVSerialized, ReadsLegacyDictionaryForm) {
  auto form = [](PropertyList ts) {
    return legacy(makeDictionary({{"timestamp", ts}, {"value", makeArray({PropertyList::boolean(true)})},
                                  {"extra", PropertyList::string("ignored")}}));
  };
  std::int64_t out = 0;
  EXPECT_EQ(readData(form(PropertyList::integer(-3)), out), makeArray({PropertyList::boolean(true)}));
  EXPECT_EQ(out, -3);
  EXPECT_FALSE(readData(form(PropertyList::real(12.0)), out).isNone());
  EXPECT_EQ(out, 12);

  out = 99;
  EXPECT_TRUE(readData(form(PropertyList::string("12")), out).isNone());
  EXPECT_EQ(out, 99);
  EXPECT_TRUE(readData(form(PropertyList::integer(0)), out).isNone());
  EXPECT_TRUE(readData(form(PropertyList::real(12.5)), out).isNone());
  EXPECT_TRUE(readData(legacy(makeDictionary({{"timestamp", PropertyList::integer(3)}})), out).isNone());
  EXPECT_TRUE(readData(legacy(makeArray({PropertyList::integer(3)})), out).isNone());
}

TEST(ZKVStorageRecord, CreateRefusesNoValueOrNoTimestampAndAddsRemoteValueOnlyWhenThereIsOne) {
  EXPECT_TRUE(ZKVCreateStorageForPropertyListAndTimestamp(PropertyList(), 3).isNone());
  EXPECT_TRUE(ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::integer(1), 0).isNone());
  EXPECT_TRUE(ZKVCreateStorageForPropertyListTimestampAndRemoteValue(PropertyList(), 3, PropertyList::data(Bytes{1}))
                  .isNone());
  PropertyList remote = PropertyList::data(serialized(PropertyList::integer(8), 4));
  PropertyList v = PropertyList::string("v");
  EXPECT_EQ(ZKVCreateStorageForPropertyListTimestampAndRemoteValue(v, 3, PropertyList()).count(), 2u);
  PropertyList withRemote = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(v, 3, remote);
  EXPECT_EQ(withRemote.count(), 3u);
  EXPECT_NE(withRemote, ZKVCreateStorageForPropertyListAndTimestamp(v, 3));

  PropertyList kept = ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(v, 9, withRemote);
  EXPECT_TRUE(kept.find("remotevalue")->isSameObject(remote));
  for (const PropertyList& previous :
       {ZKVCreateStorageForPropertyListAndTimestamp(v, 3), PropertyList(), makeArray({remote})}) {
    EXPECT_EQ(ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(v, 9, previous).count(), 2u);
  }
}

TEST(ZKVStorageRecord, ReaderBorrowsFromTheRecord) {
  PropertyList remote = PropertyList::data(Bytes{1, 2});
  PropertyList record = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(PropertyList::string(""), 1, remote);
  std::int64_t ts = 0;
  const PropertyList* outRemote = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(record, &ts, &outRemote);
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(value, record.find("value"));
  EXPECT_EQ(*value, PropertyList::string(""));
  EXPECT_EQ(ts, 1);
  EXPECT_EQ(outRemote, record.find("remotevalue"));

  PropertyList plain = ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::integer(5), -2);
  ASSERT_NE(ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(plain, &ts, &outRemote), nullptr);
  EXPECT_EQ(outRemote, nullptr);
  EXPECT_EQ(ts, -2);
}

TEST(ZKVStorageRecord, ReaderRefusesInvalidRecords) {
  auto withTs = [](PropertyList ts) { return makeDictionary({{"timestamp", ts}, {"value", PropertyList::integer(1)}}); };
  std::int64_t ts = 0;
  for (const PropertyList& bad : {withTs(PropertyList::real(12.5)), withTs(PropertyList::string("12")),
                                  withTs(PropertyList::integer(0)), withTs(PropertyList::boolean(true)),
                                  makeDictionary({{"timestamp", PropertyList::integer(4)}}), PropertyList(),
                                  makeArray({PropertyList::integer(4)})}) {
    EXPECT_EQ(ZKVGetPropertyListAndTimestampFromStorage(bad, &ts), nullptr) << bad.description();
  }
  EXPECT_NE(ZKVGetPropertyListAndTimestampFromStorage(withTs(PropertyList::real(12.0)), nullptr), nullptr);
}

TEST(ZKVStorageRecord, AdoptsARemoteValueLocally) {
  PropertyList v = PropertyList::integer(3);
  auto withRemote = [&](PropertyList remote) {
    return ZKVCreateStorageForPropertyListTimestampAndRemoteValue(v, 2, remote);
  };
  Bytes shortForm(18, 0);
  shortForm[0] = 0x01;
  EXPECT_TRUE(ZKVCreateLocalStorageFromRemoteValueInStorage(withRemote(PropertyList::string("x"))).isNone());
  EXPECT_TRUE(ZKVCreateLocalStorageFromRemoteValueInStorage(withRemote(PropertyList::data(shortForm))).isNone());
  EXPECT_TRUE(ZKVCreateLocalStorageFromRemoteValueInStorage(ZKVCreateStorageForPropertyListAndTimestamp(v, 2)).isNone());
  EXPECT_TRUE(ZKVCreateLocalStorageFromRemoteValueInStorage(PropertyList()).isNone());

  PropertyList remote = PropertyList::data(serialized(PropertyList::string("theirs"), 77));
  PropertyList adopted = ZKVCreateLocalStorageFromRemoteValueInStorage(withRemote(remote));
  EXPECT_EQ(adopted, ZKVCreateStorageForPropertyListTimestampAndRemoteValue(PropertyList::string("theirs"), 77, remote));
  EXPECT_TRUE(adopted.find("remotevalue")->isSameObject(remote));
}
