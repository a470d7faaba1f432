// libzkv without a daemon: the value encoding, the change journal and the
// store file as loaded one after another (the byte and dictionary layouts
// that the daemon and other devices read, and what malformed input gives),
// and the transport failures a real bus cannot produce on demand. Everything
// that talks to a daemon is in the integration tests.
#include "zkv/ZKVEncoding.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>

#include "RedirectingIpc.h"
#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVJournal.h"
#include "zkv/ZKVRemotePreferencesSource.h"

namespace {

using velmora::Bytes;
using velmora::DispatchQueue;
using velmora::IpcErrorKind;
using velmora::IpcReply;
using velmora::LogLevel;
using velmora::makeArray;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using namespace velmora::testing;  // the shared fixtures of tests/support
using Source = ZKVRemotePreferencesSource;
using Groups = std::map<std::int64_t, std::vector<std::string>>;

PropertyList str(std::string text) { return PropertyList::string(std::move(text)); }
PropertyList integer(std::int64_t value) { return PropertyList::integer(value); }

// Compresses with zlib directly (windowBits chooses the wrapper), so that
// streams the library itself would never make can be fed to it.
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

TEST(ZKVGzip, CompressesOnlyWhatShrinksAndInflatesTheFirstWholeMember) {
  std::mt19937 rng(7);
  Bytes noise(4096);
  for (auto& byte : noise) byte = static_cast<std::uint8_t>(rng());
  for (const Bytes& input : {Bytes{}, Bytes(10, 'a'), noise}) EXPECT_FALSE(ZKVCopyGzippedDataForData(input));
  const Bytes zeros(64 * 1024, 0);  // several inflate chunks
  const std::optional<Bytes> gz = ZKVCopyGzippedDataForData(zeros);
  ASSERT_TRUE(gz);
  EXPECT_EQ(Bytes(gz->begin(), gz->begin() + 2), (Bytes{0x1f, 0x8b}));
  EXPECT_EQ(ZKVCopyUngzippedDataForData(*gz), zeros);

  const Bytes text(5000, 'x');
  const Bytes member = deflateWith(31, text);
  Bytes corrupt = member;
  corrupt[corrupt.size() - 5] ^= 0xff;  // the CRC
  std::vector<Bytes> refused = {{}, deflateWith(15, text), deflateWith(-15, text), corrupt};  // zlib, raw deflate
  for (std::size_t cut : {member.size() - 1, member.size() - 4, std::size_t{10}, std::size_t{1}}) {
    refused.emplace_back(member.begin(), member.begin() + static_cast<std::ptrdiff_t>(cut));
  }
  for (const Bytes& bytes : refused) EXPECT_FALSE(ZKVCopyUngzippedDataForData(bytes)) << bytes.size();
  // Trailing bytes are left alone; empty content is an empty buffer, not a failure.
  Bytes joined = member;
  joined.insert(joined.end(), {'j', 'u', 'n', 'k'});
  EXPECT_EQ(ZKVCopyUngzippedDataForData(joined), text);
  EXPECT_EQ(ZKVCopyUngzippedDataForData(deflateWith(31, {})), Bytes{});
}

TEST(ZKVSerialized, TwelveByteHeaderThenThePayloadInEitherEncoding) {
  const PropertyList value = makeDictionary({{"k", makeArray({PropertyList::string("s"), PropertyList::real(1.5)})}});
  for (std::int64_t ts : {std::int64_t{1}, std::int64_t{-7}, std::int64_t{0x0102030405060708},
                          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
    std::optional<Bytes> bytes = ZKVCopySerializedDataForPropertyListAndTimestamp(value, ts);
    ASSERT_TRUE(bytes);
    Bytes& b = *bytes;
    ASSERT_EQ(static_cast<std::ptrdiff_t>(b.size()), ZKVGetSerializedLengthForPropertyList(value));
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 4), (Bytes{0x01, 0, 0, 0}));
    std::int64_t le = 0;
    std::memcpy(&le, b.data() + 4, 8);  // little-endian host
    EXPECT_EQ(le, ts);
    b[1] = b[2] = b[3] = 0xee;  // reserved: the reader ignores them
    std::int64_t out = 0;
    EXPECT_EQ(ZKVCopyPropertyListAndTimestampFromData(b, &out), value);
    EXPECT_EQ(out, ts);
    // XML behind the same header reads the same.
    const std::string xml = velmora::encodeXmlPlist(value).value();
    b.insert(b.erase(b.begin() + 12, b.end()), xml.begin(), xml.end());
    EXPECT_EQ(ZKVCopyPropertyListAndTimestampFromData(b, &out), value);
  }
  for (const auto& [refused, ts] : {std::pair{PropertyList(), 5}, {integer(1), 0}, {makeArray({PropertyList()}), 5}}) {
    EXPECT_FALSE(ZKVCopySerializedDataForPropertyListAndTimestamp(refused, ts)) << refused.description();
  }
}

TEST(ZKVSerialized, MalformedAndOlderDictionaryForms) {
  auto legacy = [](PropertyList dictionary) { return velmora::encodeBinaryPlist(dictionary).value(); };
  auto form = [&](PropertyList ts) {
    return legacy(makeDictionary({{"timestamp", ts}, {"value", makeArray({PropertyList::boolean(true)})},
                                  {"extra", PropertyList::string("ignored")}}));
  };
  Bytes shortForm(18, 0);
  shortForm[0] = 0x01;
  shortForm[4] = 1;
  Bytes zeroTs = *ZKVCopySerializedDataForPropertyListAndTimestamp(integer(1), 5);
  std::fill(zeroTs.begin() + 4, zeroTs.begin() + 12, 0);
  Bytes damaged = *ZKVCopySerializedDataForPropertyListAndTimestamp(PropertyList::string("payload"), 5);
  damaged.back() ^= 0xff;  // trailer
  damaged[13] ^= 0xff;     // magic
  const std::string xml =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict><key>timestamp</key>"
      "<integer>3</integer><key>value</key><integer>1</integer></dict></plist>";
  struct Case {
    Bytes bytes;
    PropertyList value;                 // none: refused
    std::optional<std::int64_t> stamp;  // the timestamp left behind, when it matters (99: untouched)
  };
  const PropertyList yes = makeArray({PropertyList::boolean(true)});
  const Case cases[] = {{shortForm, {}, 99}, {{}, {}, 99}, {zeroTs, {}, 99}, {damaged, {}, 5},
                        {Bytes(xml.begin(), xml.end()), {}, 99}, {Bytes(19, 0x02), {}, 99},
                        {form(integer(-3)), yes, -3}, {form(PropertyList::real(12.0)), yes, 12},
                        {form(PropertyList::string("12")), {}, 99}, {form(integer(0)), {}, std::nullopt},
                        {form(PropertyList::real(12.5)), {}, std::nullopt},
                        {legacy(makeDictionary({{"timestamp", integer(3)}})), {}, 99},
                        {legacy(makeArray({integer(3)})), {}, 99}};
  for (const Case& c : cases) {
    std::int64_t out = 99;
    EXPECT_EQ(ZKVCopyPropertyListAndTimestampFromData(c.bytes, &out), c.value) << c.bytes.size();
    if (c.stamp) {
      EXPECT_EQ(out, *c.stamp) << c.bytes.size();
    }
  }
}

TEST(ZKVStorageRecord, BuildsReadsAndAdoptsRecords) {
  const PropertyList v = PropertyList::string("v");
  const PropertyList remote =
      PropertyList::data(*ZKVCopySerializedDataForPropertyListAndTimestamp(PropertyList::string("theirs"), 77));
  EXPECT_TRUE(ZKVCreateStorageForPropertyListAndTimestamp(PropertyList(), 3).isNone());
  EXPECT_TRUE(ZKVCreateStorageForPropertyListAndTimestamp(v, 0).isNone());
  EXPECT_EQ(ZKVCreateStorageForPropertyListAndTimestamp(v, 3), makeDictionary({{"timestamp", integer(3)}, {"value", v}}));
  const PropertyList withRemote = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(v, 3, remote);
  EXPECT_EQ(withRemote, makeDictionary({{"timestamp", integer(3)}, {"value", v}, {"remotevalue", remote}}));
  // A new value keeps the previous record's remote value, if it has one.
  EXPECT_TRUE(
      ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(v, 9, withRemote).find("remotevalue")->isSameObject(remote));
  EXPECT_EQ(ZKVCreateStorageForPropertyListAndTimestampKeepRemoteValue(v, 9, makeArray({remote})).count(), 2u);

  // The reader refuses a record without a whole, non-zero timestamp.
  std::int64_t ts = 0;
  auto withTs = [](PropertyList stamp) { return makeDictionary({{"timestamp", stamp}, {"value", integer(1)}}); };
  for (const PropertyList& bad : {withTs(PropertyList::real(12.5)), withTs(PropertyList::string("12")), withTs(integer(0)),
                                  withTs(PropertyList::boolean(true)), makeDictionary({{"timestamp", integer(4)}}),
                                  PropertyList(), makeArray({integer(4)})}) {
    EXPECT_EQ(ZKVGetPropertyListAndTimestampFromStorage(bad, &ts), nullptr) << bad.description();
  }
  EXPECT_NE(ZKVGetPropertyListAndTimestampFromStorage(withTs(PropertyList::real(12.0)), nullptr), nullptr);

  // Adopting the remote value: its value and timestamp, and the very buffer.
  const PropertyList adopted = ZKVCreateLocalStorageFromRemoteValueInStorage(withRemote);
  EXPECT_EQ(adopted, ZKVCreateStorageForPropertyListTimestampAndRemoteValue(PropertyList::string("theirs"), 77, remote));
  Bytes shortForm(18, 0);
  shortForm[0] = 0x01;
  for (const PropertyList& bad : {PropertyList::string("x"), PropertyList::data(shortForm), PropertyList()}) {
    const PropertyList record = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(v, 2, bad);
    EXPECT_TRUE(ZKVCreateLocalStorageFromRemoteValueInStorage(record).isNone()) << bad.description();
  }
}

TEST(ZKVJournal, QueriesCompareCountsStrictlyAndStartFromMinusOne) {
  const PlistDictionary store{{"journal", makeDictionary({{"a", journalEntry(5, 1)}, {"b", journalEntry(7, 2)}})}};
  const ZKVJournal j = ZKVJournal::withStore(store);
  EXPECT_EQ(j.changesSinceChangeCount(5), makeDictionary({{"b", integer(2)}}));
  EXPECT_TRUE(j.changesSinceChangeCount(7).isNone());
  EXPECT_EQ(j.changeSinceChangeCount(4, "a"), 1);
  EXPECT_EQ(j.changeSinceChangeCount(5, "a"), 0);
  // -1 is the floor, even when every count is lower.
  const PlistDictionary negative{{"journal", makeDictionary({{"a", journalEntry(-3, 1)}, {"b", journalEntry(-5, 2)}})}};
  EXPECT_EQ(ZKVJournal::withStore(negative).maximumChangeCount(), -1);
  // No journal, or one that is no dictionary, tells nothing.
  for (const ZKVJournal& none : {ZKVJournal(), ZKVJournal::withStore(makeDictionary({{"journal", PropertyList::string("junk")}})),
                                 ZKVJournal::withMutableStore(nullptr)}) {
    EXPECT_EQ(none.maximumChangeCount(), -1);
    EXPECT_TRUE(none.changesSinceChangeCount(-100).isNone());
    EXPECT_EQ(none.changeSinceChangeCount(-100, "a"), 0);
  }
  // A missing count reads 0; a missing change makes the whole listing throw.
  const ZKVJournal odd = ZKVJournal::withStore(makeDictionary({{"journal", makeDictionary({
      {"nochange", makeDictionary({{"count", integer(9)}})}, {"nocount", makeDictionary({{"change", integer(3)}})}})}}));
  EXPECT_EQ(odd.changeSinceChangeCount(-1, "nocount"), 3);
  EXPECT_EQ(odd.changeSinceChangeCount(1, "nochange"), 0);
  EXPECT_EQ(odd.maximumChangeCount(), 9);
  EXPECT_THROW(odd.changesSinceChangeCount(1), std::invalid_argument);
}

// The daemon's own tests write journals end to end; here, what they cannot
// show: copies taken before a write keep their journal, and an emptied one goes.
TEST(ZKVJournal, WritesReachTheStoreButNoEarlierSnapshot) {
  auto store = std::make_shared<PlistDictionary>(PlistDictionary{
      {"journal", makeDictionary({{"a", journalEntry(5, 1)}, {"b", journalEntry(7, 2)}})}, {"other", integer(1)}});
  const PropertyList snapshot = store->at("journal");
  ZKVJournal j = ZKVJournal::withMutableStore(store);
  j.addChange(5, "c", 10);
  j.addChange(0, "a", 11);  // code 0 forgets the key
  j.addChange(3, "b", 6);   // the last call wins, even with a lower count
  EXPECT_EQ(store->at("journal"), makeDictionary({{"b", journalEntry(6, 3)}, {"c", journalEntry(10, 5)}}));
  EXPECT_EQ(snapshot, makeDictionary({{"a", journalEntry(5, 1)}, {"b", journalEntry(7, 2)}}));
  EXPECT_FALSE(j.removeChangesUntilChangeCount(5));
  EXPECT_TRUE(j.removeChangesUntilChangeCount(10));
  EXPECT_FALSE(store->contains("journal"));  // an emptied journal goes, the rest stays
  EXPECT_TRUE(store->contains("other"));
  j.addChange(2, "n", 12);  // a journal that went is made again
  EXPECT_EQ(store->at("journal"), makeDictionary({{"n", journalEntry(12, 2)}}));
  store->insert_or_assign("journal", PropertyList::string("junk"));  // replaced by the first write
  j.addChange(4, "k", 1);
  EXPECT_EQ(store->at("journal"), makeDictionary({{"k", journalEntry(1, 4)}}));
  ZKVJournal detached;  // one of no store keeps its entries itself
  detached.addChange(1, "n", -4);
  EXPECT_EQ(detached.changesSinceChangeCount(-5), makeDictionary({{"n", integer(1)}}));
  EXPECT_TRUE(detached.removeChangesUntilChangeCount(-4));
  EXPECT_TRUE(detached.journal().isNone());
}

TEST(ZKVJournalDeathTest, WritingToAReadOnlyJournalIsFatal) {
  ZKVJournal j = ZKVJournal::withStore(PropertyList());
  EXPECT_DEATH(j.addChange(1, "k", 1), "Assertion failed: \\(!readonly\\), function -\\[ZKVJournal addChange");
  EXPECT_DEATH(j.removeChangesUntilChangeCount(1), "!readonly.*removeChangesUntilChangeCount:\\], .*line 121");
}

// The load of one store file after another: what changed elsewhere, the
// change counts and the initial synchronisation.
TEST(ZKVStoreFileLoad, SuccessiveLoads) {
  ScopedServices services;
  auto sink = services.captureLog();
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, makeArray({str("values")}), "f");
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  // Entries of the wrong type count as absent; a journal entry without a change code says nothing.
  const PropertyList noChange = makeDictionary({{"k", makeDictionary({{"count", integer(3)}})}});
  ZKVApplyStoreFileContents(state, makeDictionary({{"values", str("no")}, {"changecount", str("7")}, {"initialsync", str("x")},
                                                   {"journal", noChange}}), "f");
  EXPECT_EQ(state.cache, PlistDictionary{});
  EXPECT_EQ(state.storageChangeCount, 0);
  EXPECT_FALSE(state.externalChanges);
  // After a load that knew of no initial sync, a "versionid" reports one.
  const PlistDictionary ab{{"a", record(str("x"))}, {"b", record(str("y"))}};
  const PropertyList held = storeWith(ab, 3, {{"versionid", str("v")}});
  const PropertyList before = held;
  ZKVApplyStoreFileContents(state, held, "f");
  EXPECT_EQ(held, before);  // a decode the caller still holds is left alone
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}}));
  EXPECT_EQ(state.initialSyncChangeCount, 3);
  EXPECT_TRUE(state.isInitialSync);
  EXPECT_TRUE(sink->contains("Detecting initial sync from server"));
  state.externalChanges.reset();
  ZKVApplyStoreFileContents(state, storeWith(ab, 4, {{"initialsync", integer(3)}}), "f");
  EXPECT_FALSE(state.isInitialSync);
  EXPECT_FALSE(state.externalChanges);  // nothing differs
  // Without a journal's word, records are compared: a restamped one and a new key are changes, so is a vanished key.
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"), 9)}, {"c", record(str("z"))}}, 6), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}, {"c", integer(1)}}));
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  // Pending changes stop the comparison.
  ZKVApplyStoreFileContents(state, storeWith({{"d", record(str("new"))}}, 7), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}, {"c", integer(1)}}));
  state.externalChanges.reset();
  // After an eviction every key of the file counts.
  state.cache.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"e", record(str("e"))}}, 8), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"e", integer(1)}}));
  // Journal changes merge into pending ones; a count behind the journal's is logged.
  const PropertyList journal =
      makeDictionary({{"e", journalEntry(9, 2)}, {"f", journalEntry(11, 3)}, {"stale", journalEntry(8, 1)}});
  ZKVApplyStoreFileContents(state, storeWith({}, 9, {{"journal", journal}}), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"e", integer(2)}, {"f", integer(3)}}));
  EXPECT_EQ(sink->lines().back(),
            (velmora::CapturedLogLine{"com.vantrel.velmora", "Default", LogLevel::Default,
                                      "Incorrect NimbrelStore journal change count: 9 - should be at least 11"}));
}

// A transport on which every request fails with one kind; it counts its connections.
struct FailingIpcService final : velmora::IpcService {
  struct Connection final : velmora::IpcConnection {
    explicit Connection(IpcErrorKind kind) : kind(kind) {}
    const std::string& serviceName() const noexcept override { return name; }
    void setEventHandler(velmora::IpcEventHandler) override {}
    void resume() override {}
    void send(const velmora::IpcObject&) override {}
    void sendWithReply(const velmora::IpcObject&, std::shared_ptr<DispatchQueue>, velmora::IpcReplyHandler handler) override {
      handler(IpcReply::failure(kind, "detail"));
    }
    IpcReply sendAndWait(const velmora::IpcObject&) override { return IpcReply::failure(kind, "detail"); }
    void cancel() override {}
    void setCallTimeout(std::chrono::milliseconds) override {}
    const IpcErrorKind kind;
    const std::string name = "fake";
  };
  explicit FailingIpcService(IpcErrorKind kind) : kind(kind) {}
  std::shared_ptr<velmora::IpcConnection> connect(std::string, std::shared_ptr<DispatchQueue>) override {
    ++connections;
    return std::make_shared<Connection>(kind);
  }
  const IpcErrorKind kind;
  std::atomic<int> connections{0};
};

// Which failures earn the synchronous retry on a new connection, and the line
// each logs. An asynchronous request is never retried: any failure reaches
// its handler once, as EINVAL, with the same line.
TEST(ZKVClientTransport, EachFailureKindIsReadAsDocumented) {
  const char* noReply = "no reply sending message ping to ZKV server";
  const char* error = "error sending message ping to ZKV server";
  for (const auto& [kind, attempts, line] :
       {std::tuple{IpcErrorKind::Timeout, 1, noReply}, {IpcErrorKind::MalformedReply, 1, noReply},
        {IpcErrorKind::ConnectionInvalid, 2, error}, {IpcErrorKind::ConnectionInterrupted, 2, error},
        {IpcErrorKind::RemoteError, 2, error}, {IpcErrorKind::SendFailed, 2, error}}) {
    SCOPED_TRACE(std::string(velmora::ipcErrorKindName(kind)));
    ScopedServices services;
    auto log = services.captureLog();
    auto transport = std::make_shared<FailingIpcService>(kind);
    services.install(velmora::setIpcService, transport);
    auto client = ZKVClient::create(nullptr, "com.example.app", std::nullopt);
    EXPECT_TRUE(client->sendMessageWithNameUserInfo("ping", {}).isNone());
    EXPECT_EQ(transport->connections, attempts);
    EXPECT_TRUE(log->contains(line));
    log->clear();
    int failed = 0;
    client->sendMessageWithNameReplyHandler("ping", [&](const ZKVReply& reply) { failed += std::get<ZKVError>(reply).code == 22; });
    EXPECT_EQ(std::tuple(failed, transport->connections.load(), log->contains(line)), std::tuple(1, attempts, true));
    client->shutdown();
    client->queue()->sync([] {});
  }
}

// Changes in the journal, as another implementation may write it: grouped by
// reason and handed out once; a reason that is no integer is skipped, never
// read as 0 or rounded. Applications linked before release 8 are told an
// account switch (5) as a plain change (1); the flag is fixed once per
// process, so the old application runs in a fresh one.
TEST(ZKVExternalChanges, GroupedByReasonOnceWithAccountSwitchesPlainBeforeRelease8) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto heard = [](int release) {
    if (release != 0) velmora::setLinkedRelease(release);
    ScopedServices services;
    (void)services.captureLog();  // the skipped reasons are described at debug level
    const ScratchDirectory home("zkv-journal");
    services.install(velmora::setEnvironment, std::make_shared<ScratchHomeEnvironment>(home.path().string()));
    services.install(velmora::setSystemNotificationCenter, std::make_shared<SilentSystemNotificationCenter>());
    services.install(velmora::setIpcService, std::make_shared<RedirectingIpcService>(
        "", velmora::DbusIpcOptions{.busAddress = "unix:path=/nonexistent/velmora-test-bus"}));
    auto odd = [](PropertyList change) { return makeDictionary({{"count", integer(3)}, {"change", change}}); };
    const PlistDictionary journal{{"a", journalEntry(1, 5)}, {"b", journalEntry(2, 1)}, {"c", journalEntry(3, 2)},
                                  {"e", odd(str("x"))}, {"f", odd(PropertyList::real(2.5))}};
    EXPECT_TRUE(writePlistFile(storeFilePath(home.path(), "app").string(),
                               storeWith({}, 3, {{"journal", PropertyList::dictionary(journal)}})));
    auto source = Source::create("app", false);
    (void)source->synchronize();
    std::int64_t count = 0;
    std::optional<Groups> groups = source->copyExternalChangesWithChangeCount(&count);
    return std::tuple(groups, count, source->copyExternalChangesWithChangeCount(nullptr));
  };
  const std::optional<Groups> none;
  const auto old = std::tuple(std::optional<Groups>(Groups{{1, {"a", "b"}}, {2, {"c"}}}), std::int64_t{3}, none);
  EXPECT_EXIT(std::exit(heard(7) == old ? 0 : 1),
              ::testing::ExitedWithCode(0), "");
  // Run after the fresh process is started: the flag is fixed here from now on.
  EXPECT_EQ(heard(0), std::tuple(std::optional<Groups>(Groups{{1, {"b"}}, {2, {"c"}}, {5, {"a"}}}), std::int64_t{3}, none));
}

}  // namespace
