// The daemon's store layer over real files in a scratch directory: the file
// and journal layout, durable writes and their failures, limits.
#include "Store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "ScratchEnvironment.h"
#include "StoreFixtures.h"

namespace {

namespace fs = std::filesystem;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using velmora::testing::journalEntry;
using velmora::testing::record;
using velmora::testing::storeWith;
using namespace velmorad;

const PropertyList kRemoval = PropertyList::dictionary({});

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Memory-backed where there is one: these tests write hundreds of times.
    std::string pattern = std::string(fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp") + "/velmorad-store-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    root_ = pattern;
    // Two levels that do not exist yet, as ~/Library/Quellstore on a new account.
    path_ = root_ / "Library" / "Quellstore" / "com.example.app.plist";
  }
  void TearDown() override { fs::remove_all(root_); }

  static ApplyOutcome apply(Store& store, const PlistDictionary& changes, const StoreLimits& limits = {}) {
    return store.applyChanges(changes, limits);
  }
  PropertyList onDisk() const { return velmora::readPlistFile(path_.string()); }
  std::size_t entries(std::string_view part) const { return onDisk().find(part)->count(); }
  ino_t inode() const {
    struct stat info{};
    return ::stat(path_.c_str(), &info) == 0 ? info.st_ino : 0;
  }
  std::set<std::string> directory() const {
    std::set<std::string> names;
    for (const auto& item : fs::directory_iterator(path_.parent_path())) names.insert(item.path().filename().string());
    return names;
  }

  fs::path root_;
  fs::path path_;
};

// The file: values, the change count and per key the count it last changed
// at and how; the owner's only and written only when something changed.
// A write that fails (the disk full) leaves memory and file as they were,
// replaced, added and removed keys alike.
TEST_F(StoreTest, TheFileHoldsValuesCountAndJournalAndChangesOnlyWhole) {
  Store store(path_);
  EXPECT_FALSE(apply(store, {{"ghost", kRemoval}}).written);  // nothing to remove: no file appears
  EXPECT_FALSE(apply(store, {{"a", record("1")}, {"b", PropertyList::integer(2)}}).accepted);  // b: no record
  EXPECT_FALSE(fs::exists(path_));
  const ApplyOutcome first = apply(store, {{"a", record("1")}, {"b", record("2")}, {"c", record("3")}});
  ASSERT_TRUE(first.accepted && first.written && first.changeCount == 1) << first.error;
  EXPECT_EQ(apply(store, {{"a", kRemoval}}).changeCount, 2);
  const PropertyList layout = storeWith({{"b", record("2")}, {"c", record("3")}}, 2,
                                        {{"journal", makeDictionary({{"a", journalEntry(2, kJournalChangedElsewhere)},
                                                                     {"b", journalEntry(1, kJournalChangedElsewhere)},
                                                                     {"c", journalEntry(1, kJournalChangedElsewhere)}})}});
  EXPECT_EQ(onDisk(), layout);
  for (const fs::path& path : {path_, path_.parent_path(), path_.parent_path().parent_path()}) {
    EXPECT_EQ(fs::status(path).permissions(),
              path == path_ ? fs::perms::owner_read | fs::perms::owner_write : fs::perms::owner_all);
  }
  const ino_t before = inode();  // every write renames a new file into place
  for (const PlistDictionary& same : {PlistDictionary{{"b", record("2")}}, PlistDictionary{}}) {
    EXPECT_FALSE(apply(store, same).written);
  }
  EXPECT_EQ(inode(), before);

  struct rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct rlimit tight = saved;
  tight.rlim_cur = 16;  // the write fails (EFBIG), whatever our privileges
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const ApplyOutcome failed = apply(store, {{"b", record("9")}, {"d", record("4")}, {"c", kRemoval}});
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previous);
  EXPECT_TRUE(failed.writeFailed && !failed.accepted);
  EXPECT_EQ(store.contents(), layout);
  EXPECT_EQ(onDisk(), layout);
  // What a writer cut off before its rename left goes with the next write
  // (or load); files that only look alike stay.
  for (const char* name : {"Xy1234", "zzzzzz", "corrupt-1700000000", "Ab3xQ"}) std::ofstream(path_.string() + "." + name);
  std::ofstream(path_.parent_path() / "com.example.other.plist.Ab3xQ9");
  EXPECT_EQ(apply(store, {{"d", record("4")}}).changeCount, 3);  // the next count, not one further
  EXPECT_EQ(directory(), (std::set<std::string>{"com.example.app.plist", "com.example.app.plist.corrupt-1700000000",
                                                "com.example.app.plist.Ab3xQ", "com.example.other.plist.Ab3xQ9"}));
  EXPECT_EQ(store.fileReads(), 0u);  // memory put back, not a reload

  // Removing a key the server knows notes it for the server; setting it
  // again takes the note back.
  const PropertyList synced = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(PropertyList::string("s"), 5,
                                                                                     PropertyList::data({1}));
  ASSERT_TRUE(velmora::testing::writePlistFile(path_.string(), storeWith({{"s", synced}}, 7)));
  Store known(path_);
  EXPECT_TRUE(apply(known, {{"s", kRemoval}}).written);
  EXPECT_NE(onDisk().find("syncstate"), nullptr);
  EXPECT_EQ(apply(known, {{"s", record("again")}}).changeCount, 9);
  EXPECT_EQ(onDisk().find("syncstate"), nullptr);
}

// Only a file read whole that does not decode is damaged, and only a few
// copies of such files are kept. One that cannot be read (an I/O error, a
// directory in its place) stays where it is with everything in it, and
// writes wait until it reads again. Parts of the wrong type read as absent.
TEST_F(StoreTest, OnlyADamagedFileIsSetAside) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"kept", record("1")}}).accepted);
  fs::rename(path_, path_.string() + ".real");
  for (const bool eio : {true, false}) {
    if (eio) fs::create_symlink("/proc/self/mem", path_);  // reading memory that is not mapped
    if (!eio) fs::create_directory(path_);
    Store fresh(path_);
    const ApplyOutcome outcome = apply(fresh, {{"new", record("2")}});
    EXPECT_TRUE(outcome.readFailed && !outcome.accepted);
    EXPECT_TRUE(fs::is_symlink(path_) || fs::is_directory(path_));
    fs::remove(path_);
  }
  fs::rename(path_.string() + ".real", path_);
  EXPECT_EQ(apply(store, {{"new", record("2")}}).changeCount, 2);  // read again, nothing lost
  EXPECT_EQ(entries("values"), 2u);

  for (int i = 0; i < 5; ++i) {
    std::ofstream(path_) << "bplist00 damaged " << i;
    Store damaged(path_);
    EXPECT_EQ(damaged.keyCount(), 0u);
    EXPECT_EQ(apply(damaged, {{"a", record("1")}}).changeCount, 1);
  }
  std::size_t asides = 0;
  for (const std::string& name : directory()) {
    if (!name.starts_with("com.example.app.plist.corrupt-")) continue;
    ++asides;
    EXPECT_TRUE(velmora::testing::readFile((path_.parent_path() / name).string())->starts_with("bplist00 damaged "));
  }
  EXPECT_EQ(asides, kKeptCorruptCopies);

  ASSERT_TRUE(velmora::testing::writePlistFile(
      path_.string(), makeDictionary({{"values", velmora::makeArray({PropertyList::integer(1)})},
                                      {"changecount", PropertyList::integer(-4)},
                                      {"journal", PropertyList::string("x")}})));
  Store odd(path_);
  EXPECT_EQ(odd.changeCount(), 0);
  EXPECT_EQ(odd.keyCount(), 0u);
  EXPECT_EQ(apply(odd, {{"a", record("1")}}).changeCount, 1);
}

TEST_F(StoreTest, KeysOverALimitAreRefusedWithoutATraceOnDisk) {
  const StoreLimits limits{2, 4, 250, 250};  // keys, name length, value size, size sum
  Store store(path_);
  const std::string big(100, 'x');
  const ApplyOutcome outcome = apply(store,
                                     {{"long-name", record("1")},               // name too long
                                      {"a", record("1")},
                                      {"b", record(std::string(250, 'y'))},     // one value too large
                                      {"c", record(big)},
                                      {"d", record(big)}},                      // third key
                                     limits);
  EXPECT_EQ(outcome.changeCount, 1);
  EXPECT_EQ(outcome.refusedKeys, (std::vector<std::string>{"b", "d", "long-name"}));
  EXPECT_EQ(entries("values"), 2u);
  EXPECT_EQ(entries("journal"), 2u);  // "a" and "c" only

  // Refused keys alone write nothing, however many and however long.
  const ino_t before = inode();
  for (int i = 0; i < 2000; ++i) {
    ASSERT_EQ(apply(store, {{std::string(1000, 'k') + std::to_string(i), record("v")}}, limits).refusedKeys.size(), 1u);
  }
  EXPECT_EQ(inode(), before);

  // The sum: a bigger "c" fits its own limit but not the sum (the count
  // answered stays); shrinking is fine; a removal makes room for a new key.
  const ApplyOutcome sum = apply(store, {{"c", record(std::string(180, 'z'))}}, limits);
  EXPECT_EQ(sum.refusedKeys, std::vector<std::string>{"c"});
  EXPECT_EQ(sum.changeCount, 1);
  EXPECT_EQ(apply(store, {{"c", record("small")}}, limits).changeCount, 2);
  EXPECT_TRUE(apply(store, {{"a", kRemoval}, {"e", record("5")}}, limits).refusedKeys.empty());
  EXPECT_EQ(store.keyCount(), 2u);
}

// A client that never releases holds a bounded number of journal entries
// of keys that went; once nobody is registered, the old ones go. (Release
// by every client is the daemon tests' newcomer case.)
TEST_F(StoreTest, JournalEntriesOfKeysThatWentAreBounded) {
  Store store(path_);
  store.addClient(":1.1");
  EXPECT_TRUE(store.releaseJournal(":1.9", 5));  // a stranger's release changes nothing
  for (int i = 1; i < 400; ++i) {
    ASSERT_TRUE(apply(store, {{"gone" + std::to_string(i - 1), kRemoval}, {"gone" + std::to_string(i), record("x")}})
                    .accepted);
  }
  EXPECT_LE(entries("journal"), 3 + kMaxAbsentKeyEntries);
  EXPECT_GT(entries("journal"), kMaxAbsentKeyEntries / 2);
  EXPECT_TRUE(store.removeClient(":1.1"));
  EXPECT_LE(entries("journal"), static_cast<std::size_t>(kUnheldJournalWindow) + 2);
}

}  // namespace
