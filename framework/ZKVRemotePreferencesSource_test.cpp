// Without a daemon: the store file's layout read one load after another, and
// the transport failures a real bus cannot produce on demand. Everything that
// talks to a daemon is in the integration tests.
#include "zkv/ZKVRemotePreferencesSource.h"

#include <gtest/gtest.h>

#include <future>
#include <map>

#include "ScratchEnvironment.h"
#include "StoreFixtures.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/Log.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVClient.h"
#include "zkv/ZKVEncoding.h"

namespace {

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
PropertyList integer(std::int64_t v) { return PropertyList::integer(v); }

// The load of one store file after another: what changed elsewhere, the
// change counts and the initial synchronisation.
TEST(ZKVStoreFileLoad, SuccessiveLoads) {
  ScopedServices services;
  auto sink = services.captureLog();
  ZKVStoreLoadState state;
  ZKVApplyStoreFileContents(state, makeArray({str("values")}), "f");
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  // Entries of the wrong type count as absent; a journal entry without a change code says nothing.
  ZKVApplyStoreFileContents(state, makeDictionary({{"values", str("no")}, {"changecount", str("7")}, {"initialsync", str("x")},
                                                   {"journal", makeDictionary({{"k", makeDictionary({{"count", integer(3)}})}})}}),
                            "f");
  EXPECT_EQ(state.cache, PlistDictionary{});
  EXPECT_EQ(state.storageChangeCount, 0);
  EXPECT_FALSE(state.externalChanges);
  // After a load that knew of no initial sync, a "versionid" reports one.
  const PropertyList held = storeWith({{"a", record(str("x"))}, {"b", record(str("y"))}}, 3, {{"versionid", str("v")}});
  const PropertyList before = held;
  ZKVApplyStoreFileContents(state, held, "f");
  EXPECT_EQ(held, before);  // a decode the caller still holds is left alone
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}}));
  EXPECT_EQ(state.initialSyncChangeCount, 3);
  EXPECT_TRUE(state.isInitialSync);
  EXPECT_TRUE(sink->contains("Detecting initial sync from server"));
  state.externalChanges.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"))}, {"b", record(str("y"))}}, 4, {{"initialsync", integer(3)}}), "f");
  EXPECT_FALSE(state.isInitialSync);
  EXPECT_FALSE(state.externalChanges);  // nothing differs
  // Without a journal's word, records are compared: a restamped one and a new key are changes, so is a vanished key.
  ZKVApplyStoreFileContents(state, storeWith({{"a", record(str("x"), 9)}, {"c", record(str("z"))}}, 6), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}, {"c", integer(1)}}));
  EXPECT_EQ(state.initialSyncChangeCount, -1);
  ZKVApplyStoreFileContents(state, storeWith({{"d", record(str("new"))}}, 7), "f");  // pending changes stop the comparison
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"a", integer(1)}, {"b", integer(1)}, {"c", integer(1)}}));
  state.externalChanges.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"d", record(str("changed"))}}, 7), "f");
  EXPECT_FALSE(state.externalChanges);  // same count: nothing compared
  // After an eviction every key of the file counts.
  state.cache.reset();
  ZKVApplyStoreFileContents(state, storeWith({{"e", record(str("e"))}}, 8), "f");
  EXPECT_EQ(state.externalChanges, (PlistDictionary{{"e", integer(1)}}));
  // Journal changes merge into pending ones; a count behind the journal's is logged.
  ZKVApplyStoreFileContents(state, storeWith({}, 9, {{"journal", makeDictionary({{"e", journalEntry(9, 2)}, {"f", journalEntry(11, 3)},
                                                                                  {"stale", journalEntry(8, 1)}})}}), "f");
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
    void sendWithReply(const velmora::IpcObject& request, std::shared_ptr<DispatchQueue> queue,
                       velmora::IpcReplyHandler handler) override {
      (queue ? *queue : DispatchQueue::main()).async([handler, reply = sendAndWait(request)] { handler(reply); });
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

// Which failures earn the synchronous retry on a new connection, the line
// each logs, and that an asynchronous handler hears of any of them as EINVAL, once.
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
    auto replies = std::make_shared<std::vector<ZKVReply>>();
    client->sendMessageWithNameReplyHandler("ping", [replies](const ZKVReply& r) { replies->push_back(r); });
    std::promise<void> drained;
    DispatchQueue::main().async([&] { drained.set_value(); });
    drained.get_future().wait();
    ASSERT_EQ(replies->size(), 1u);
    ASSERT_TRUE(std::holds_alternative<ZKVError>(replies->at(0)));
    EXPECT_EQ(std::get<ZKVError>(replies->at(0)).code, 22);
    client->shutdown();
    client->queue()->sync([] {});
  }
}

// Applications linked before release 8 are told an account switch as a plain
// change. The flag is fixed once per process, so this runs in a fresh one.
TEST(SourceLinkedReleaseTest, ApplicationsBeforeRelease8AreToldAccountSwitchesAsChanges) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto oldApplication = [] {
    velmora::setLinkedRelease(7);
    const ScratchDirectory home("zkv-release7");
    velmora::setEnvironment(std::make_shared<ScratchHomeEnvironment>(home.path().string()));
    velmora::setSystemNotificationCenter(std::make_shared<SilentSystemNotificationCenter>());
    const PlistDictionary journal{{"a", journalEntry(1, 5)}, {"b", journalEntry(2, 1)}, {"c", journalEntry(3, 2)}};
    const bool written = writePlistFile(storeFilePath(home.path(), "old").string(),
                                        storeWith({}, 3, {{"journal", PropertyList::dictionary(journal)}}));
    auto source = Source::create("old", false);
    (void)source->synchronize();
    return written && source->copyExternalChangesWithChangeCount(nullptr) == Groups{{1, {"a", "b"}}, {2, {"c"}}};
  };
  EXPECT_EXIT(std::exit(oldApplication() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
