// The daemon's store layer over real files in a scratch directory: the file
// and journal layout, durable writes and their failures, reloads, limits.
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
    return store.applyChanges(changes, ChangeOrigin::Client, limits);
  }
  // The write fails (EFBIG) with the store file untouched, whatever our privileges.
  static ApplyOutcome applyOverFileSizeLimit(Store& store, const PlistDictionary& changes) {
    struct rlimit saved{};
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 16;
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
    ApplyOutcome outcome = apply(store, changes);
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    return outcome;
  }
  PropertyList onDisk() const { return velmora::readPlistFile(path_.string()); }
  std::size_t countOnDisk(std::string_view part) const { return onDisk().find(part)->count(); }
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
// at and how; the owner's only, written only when something changed, and a
// request with one bad record changes nothing. A restarted daemon carries on.
TEST_F(StoreTest, TheFileHoldsValuesCountAndJournalAndChangesOnlyWhole) {
  Store store(path_);
  EXPECT_FALSE(apply(store, {{"ghost", kRemoval}}).written);  // nothing to remove: no file appears
  EXPECT_FALSE(fs::exists(path_));
  const ApplyOutcome first = apply(store, {{"a", record("1")}, {"b", record("2")}});
  ASSERT_TRUE(first.accepted && first.written) << first.error;
  EXPECT_EQ(first.changeCount, 1);
  EXPECT_EQ(apply(store, {{"a", kRemoval}}).changeCount, 2);
  const PropertyList layout = storeWith(
      {{"b", record("2")}}, 2,
      {{"journal", makeDictionary({{"a", journalEntry(2, kJournalChangedElsewhere)},
                                   {"b", journalEntry(1, kJournalChangedElsewhere)}})}});
  EXPECT_EQ(onDisk(), layout);
  for (const fs::path& path : {path_, path_.parent_path(), path_.parent_path().parent_path()}) {
    EXPECT_EQ(fs::status(path).permissions(), path == path_ ? fs::perms::owner_read | fs::perms::owner_write
                                                            : fs::perms::owner_all) << path;
  }

  // The same record again, an empty change set, one bad record among good
  // ones: the file stays as it is (every write renames a new one into place).
  const ino_t before = inode();
  for (const PlistDictionary& changes : {PlistDictionary{{"b", record("2")}}, PlistDictionary{}}) {
    const ApplyOutcome again = apply(store, changes);
    EXPECT_TRUE(again.accepted && !again.written && again.changeCount == 2);
  }
  for (const PropertyList& bad :
       {makeDictionary({{"value", PropertyList::string("x")}}), PropertyList::string("not a record"),
        makeDictionary({{"timestamp", PropertyList::integer(0)}, {"value", PropertyList::string("x")}})}) {
    const ApplyOutcome outcome = apply(store, {{"b", kRemoval}, {"c", record("3")}, {"z", bad}});
    EXPECT_FALSE(outcome.accepted || outcome.writeFailed || outcome.error.empty()) << bad.description();
  }
  EXPECT_EQ(inode(), before);
  EXPECT_EQ(directory(), std::set<std::string>{path_.filename().string()});  // no temporaries left

  Store reopened(path_);
  EXPECT_EQ(reopened.changeCount(), 2);
  EXPECT_EQ(apply(reopened, {{"c", record("3")}}).changeCount, 3);
}

// A write that fails (the disk full) leaves memory and file as they were,
// replaced, added and removed keys alike; the next write sweeps what a write
// cut off before its rename leaves.
TEST_F(StoreTest, AFailedWriteLeavesMemoryAndFileAsTheyWere) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}, {"c", record("3")}}).written);
  const PropertyList before = store.contents();
  const ApplyOutcome failed = applyOverFileSizeLimit(store, {{"a", record("9")}, {"b", record("2")}, {"c", kRemoval}});
  EXPECT_FALSE(failed.accepted);
  EXPECT_TRUE(failed.writeFailed);
  EXPECT_EQ(store.contents(), before);
  EXPECT_EQ(onDisk(), before);
  std::ofstream(path_.string() + ".Ab3xQ9") << "half";  // as a directory turned read-only would leave

  EXPECT_EQ(apply(store, {{"b", record("2")}}).changeCount, 2);  // the next count, not one further
  EXPECT_EQ(*store.contents().find("values")->find("a"), record("1"));
  EXPECT_EQ(directory(), std::set<std::string>{path_.filename().string()});
  EXPECT_EQ(store.fileReads(), 0u);  // memory itself, not a reload
}

// The store keeps its copy until another writer replaces the file (a new
// inode), rewrites it in place (another size) or removes it.
TEST_F(StoreTest, KeepsItsCopyUntilTheFileChangesBehindIt) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
  ASSERT_TRUE(apply(store, {{"b", record("2")}}).written);
  EXPECT_EQ(store.keyCount(), 2u);
  EXPECT_EQ(store.fileReads(), 0u);

  ASSERT_TRUE(velmora::testing::writePlistFile(path_.string(), storeWith({{"x", record("9")}}, 40)));
  EXPECT_EQ(store.changeCount(), 40);
  EXPECT_EQ(store.keyCount(), 1u);
  EXPECT_EQ(apply(store, {{"y", record("8")}}).changeCount, 41);  // builds on what is on disk now
  EXPECT_NE(onDisk().find("values")->find("x"), nullptr);
  EXPECT_EQ(store.fileReads(), 1u);

  const ino_t before = inode();
  {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    const velmora::Bytes bytes = *velmora::encodeBinaryPlist(storeWith({}, 77));
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  ASSERT_EQ(inode(), before);
  EXPECT_EQ(store.changeCount(), 77);
  EXPECT_EQ(store.fileReads(), 2u);

  fs::remove(path_);
  EXPECT_EQ(store.changeCount(), 0);
  EXPECT_EQ(store.keyCount(), 0u);
  EXPECT_EQ(store.fileReads(), 2u);
}

// With the replaced file kept, the old version stays readable under its
// second name until the caller takes it. What a writer killed between its
// temporary and the rename left, and a kept file a crash left, go on load;
// files that only look alike stay.
TEST_F(StoreTest, LeftoversOfKilledWritesGoOnLoad) {
  fs::path kept;
  {
    Store store(path_);
    store.setKeepReplacedFile(true);
    ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
    EXPECT_TRUE(store.takeReplacedFile().empty()) << "the first write replaced nothing";
    ASSERT_TRUE(apply(store, {{"a", record("2")}}).written);
    kept = store.takeReplacedFile();
    EXPECT_EQ(velmora::readPlistFile(kept.string()), storeWith({{"a", record("1")}}, 1, {{"journal", makeDictionary({{"a", journalEntry(1, kJournalChangedElsewhere)}})}}));
  }
  const fs::path dir = path_.parent_path();
  for (const char* name : {"com.example.app.plist.Ab3xQ9", "com.example.app.plist.zzzzzz"}) std::ofstream(dir / name) << "half";
  const std::set<std::string> alike = {"com.example.app.plist.corrupt-1700000000", "com.example.app.plist.Ab3xQ",
                                       "com.example.other.plist.Ab3xQ9"};
  for (const std::string& name : alike) std::ofstream(dir / name) << "keep";
  Store store(path_);
  EXPECT_EQ(store.keyCount(), 1u);
  std::set<std::string> left = alike;
  left.insert(path_.filename().string());
  EXPECT_EQ(directory(), left);
}

// Only a file read whole that does not decode is damaged, and only a few
// copies of such files are kept. One that cannot be read (an I/O error, a
// directory in its place) stays where it is with everything in it, and
// writes wait until it reads again. Parts of the wrong type read as absent.
TEST_F(StoreTest, OnlyADamagedFileIsSetAside) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"kept", record("1")}}).accepted);
  const fs::path real = path_.string() + ".real";
  fs::rename(path_, real);
  for (const bool eio : {true, false}) {
    if (eio) {
      fs::create_symlink("/proc/self/mem", path_);  // reading memory that is not mapped
    } else {
      fs::create_directory(path_);
    }
    Store fresh(path_);
    const ApplyOutcome outcome = apply(fresh, {{"new", record("2")}});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_TRUE(outcome.readFailed);
    EXPECT_TRUE(fs::is_symlink(path_) || fs::is_directory(path_));
    fs::remove(path_);
  }
  fs::rename(real, path_);
  EXPECT_EQ(apply(store, {{"new", record("2")}}).changeCount, 2);  // read again, nothing lost
  EXPECT_EQ(countOnDisk("values"), 2u);

  for (int i = 0; i < 5; ++i) {
    { std::ofstream(path_) << "bplist00 damaged " << i; }
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
  StoreLimits limits;
  limits.maxKeyCount = 2;
  limits.maxKeyNameLen = 4;
  limits.maxKeyDataLen = 250;
  limits.maxKeyDataSum = 250;
  Store store(path_);
  const std::string big(100, 'x');
  const ApplyOutcome outcome = apply(store,
                                     {{"long-name", record("1")},                // name too long
                                      {"a", record("1")},
                                      {"b", record(std::string(250, 'y'))},      // one value too large
                                      {"c", record(big)},
                                      {"d", record(big)}},                       // third key
                                     limits);
  ASSERT_TRUE(outcome.accepted);
  EXPECT_EQ(outcome.changeCount, 1);
  EXPECT_EQ(outcome.refusedKeys, (std::vector<std::string>{"b", "d", "long-name"}));
  EXPECT_EQ(countOnDisk("values"), 2u);
  EXPECT_EQ(countOnDisk("journal"), 2u);  // "a" and "c" only

  // Refused keys alone write nothing, however many and however long.
  const ino_t before = inode();
  for (int i = 0; i < 2000; ++i) {
    ASSERT_EQ(apply(store, {{std::string(1000, 'k') + std::to_string(i), record("v")}}, limits).refusedKeys.size(), 1u);
  }
  EXPECT_EQ(inode(), before);

  // The sum: a bigger "c" fits its own limit but not the sum; shrinking is fine.
  const ApplyOutcome sum = apply(store, {{"c", record(std::string(180, 'z'))}}, limits);
  EXPECT_EQ(sum.refusedKeys, std::vector<std::string>{"c"});
  EXPECT_EQ(sum.changeCount, 1);  // nothing stored: the count answered stays
  const ApplyOutcome shrink = apply(store, {{"c", record("small")}}, limits);
  EXPECT_TRUE(shrink.refusedKeys.empty());
  EXPECT_EQ(shrink.changeCount, 2);
  // A removal in the same request makes room for a new key.
  EXPECT_TRUE(apply(store, {{"a", kRemoval}, {"e", record("5")}}, limits).refusedKeys.empty());
  EXPECT_EQ(store.keyCount(), 2u);
}

// Journal entries stay until every registered client released them, and
// keys that come and go leave a bounded number of entries behind.
TEST_F(StoreTest, JournalEntriesGoOnceEveryClientReleasedThem) {
  Store store(path_);
  store.addClient(":1.1");
  store.addClient(":1.2");
  ASSERT_EQ(apply(store, {{"a", record("1")}}).changeCount, 1);
  ASSERT_EQ(apply(store, {{"b", record("2")}}).changeCount, 2);
  EXPECT_TRUE(store.releaseJournal(":1.1", 2));
  EXPECT_EQ(countOnDisk("journal"), 2u);  // :1.2 still holds both
  EXPECT_TRUE(store.releaseJournal(":1.2", 1));
  EXPECT_EQ(onDisk().find("journal")->find("a"), nullptr);
  // A release from a stranger and a smaller one change nothing.
  EXPECT_TRUE(store.releaseJournal(":1.9", 5));
  EXPECT_TRUE(store.releaseJournal(":1.1", 0));
  EXPECT_EQ(countOnDisk("journal"), 1u);
  EXPECT_TRUE(store.removeClient(":1.2"));  // the holder leaves: what the other released goes
  EXPECT_EQ(onDisk().find("journal"), nullptr);
  EXPECT_EQ(store.clientNames(), std::vector<std::string>{":1.1"});

  // A client that never releases holds a bounded number of entries of keys
  // that went; once nobody is registered, the old ones go.
  for (int i = 1; i < 400; ++i) {
    ASSERT_TRUE(apply(store, {{"gone" + std::to_string(i - 1), kRemoval}, {"gone" + std::to_string(i), record("x")}})
                    .accepted);
  }
  EXPECT_LE(countOnDisk("journal"), 3 + kMaxAbsentKeyEntries);
  EXPECT_GT(countOnDisk("journal"), kMaxAbsentKeyEntries / 2);
  EXPECT_TRUE(store.removeClient(":1.1"));
  EXPECT_LE(countOnDisk("journal"), static_cast<std::size_t>(kUnheldJournalWindow) + 2);
}

}  // namespace
