// The daemon's store layer over real files in a scratch directory.
#include "Store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "velmora/platform/PlistCodec.h"
#include "zkv/ZKVEncoding.h"

namespace {

namespace fs = std::filesystem;
using velmora::makeDictionary;
using velmora::PlistDictionary;
using velmora::PropertyList;
using velmorad::ApplyOutcome;
using velmorad::ChangeOrigin;
using velmorad::Store;
using velmorad::StoreLimits;

PropertyList record(const std::string& text, std::int64_t timestamp = 1000) {
  return ZKVCreateStorageForPropertyListAndTimestamp(PropertyList::string(text), timestamp);
}

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

  ApplyOutcome apply(Store& store, PlistDictionary changes, const StoreLimits& limits = {}) {
    return store.applyChanges(changes, ChangeOrigin::Client, limits);
  }
  // The write fails (EFBIG) with the store file untouched, whatever our
  // privileges.
  ApplyOutcome applyOverFileSizeLimit(Store& store, PlistDictionary changes) {
    struct rlimit saved{};
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 16;
    const auto previous = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
    ApplyOutcome outcome = apply(store, std::move(changes));
    ::setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, previous);
    return outcome;
  }
  PropertyList onDisk() const { return velmora::readPlistFile(path_.string()); }
  static std::int64_t integerAt(const PropertyList& dict, std::initializer_list<std::string_view> keys) {
    const PropertyList* at = &dict;
    for (std::string_view key : keys) {
      at = at->find(key);
      if (at == nullptr) return -99;
    }
    std::int64_t value = -99;
    (void)at->getInt64(value);
    return value;
  }
  ino_t inode() const {
    struct stat info{};
    return ::stat(path_.c_str(), &info) == 0 ? info.st_ino : 0;
  }

  fs::path root_;
  fs::path path_;
};

TEST_F(StoreTest, SetAndRemoveCountJournalAndPersist) {
  Store store(path_);
  ApplyOutcome first = apply(store, {{"a", record("1")}, {"b", record("2")}});
  ASSERT_TRUE(first.accepted) << first.error;
  EXPECT_TRUE(first.written);
  EXPECT_EQ(first.changeCount, 1);

  PropertyList file = onDisk();
  EXPECT_EQ(integerAt(file, {"changecount"}), 1);
  EXPECT_EQ(*file.find("values")->find("a"), record("1"));
  EXPECT_EQ(integerAt(file, {"journal", "a", "count"}), 1);
  EXPECT_EQ(integerAt(file, {"journal", "a", "change"}), velmorad::kJournalChangedElsewhere);

  ApplyOutcome second = apply(store, {{"a", kRemoval}});
  ASSERT_TRUE(second.accepted);
  EXPECT_EQ(second.changeCount, 2);
  file = onDisk();
  EXPECT_EQ(file.find("values")->find("a"), nullptr);
  EXPECT_NE(file.find("values")->find("b"), nullptr);
  EXPECT_EQ(integerAt(file, {"journal", "a", "count"}), 2);
  EXPECT_EQ(integerAt(file, {"journal", "b", "count"}), 1);

  // A fresh store over the same file (a restarted daemon) carries on.
  Store reopened(path_);
  EXPECT_EQ(reopened.changeCount(), 2);
  EXPECT_EQ(reopened.keyCount(), 1u);
  EXPECT_EQ(apply(reopened, {{"c", record("3")}}).changeCount, 3);
}

TEST_F(StoreTest, NothingChangedWritesNothing) {
  Store store(path_);
  // Removing an absent key on a new store: no file appears.
  ApplyOutcome none = apply(store, {{"ghost", kRemoval}});
  ASSERT_TRUE(none.accepted);
  EXPECT_FALSE(none.written);
  EXPECT_EQ(none.changeCount, 0);
  EXPECT_FALSE(fs::exists(path_));

  ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
  const ino_t before = inode();
  // The same record again, and an empty change set: same count, file untouched.
  for (const PlistDictionary& changes : {PlistDictionary{{"a", record("1")}}, PlistDictionary{}}) {
    ApplyOutcome again = apply(store, changes);
    ASSERT_TRUE(again.accepted);
    EXPECT_FALSE(again.written);
    EXPECT_EQ(again.changeCount, 1);
  }
  EXPECT_EQ(inode(), before);  // every write renames a new file into place
}

TEST_F(StoreTest, NewRecordKeepsThePreviousRemoteValue) {
  const PropertyList remote = PropertyList::data(velmora::Bytes{1, 2, 3});
  const PropertyList withRemote = ZKVCreateStorageForPropertyListTimestampAndRemoteValue(
      PropertyList::string("old"), 500, remote);
  ASSERT_TRUE(velmorad::writeFileAtomically(
      path_, *velmora::encodeBinaryPlist(makeDictionary(
                 {{"values", makeDictionary({{"k", withRemote}})}, {"changecount", PropertyList::integer(7)}}))));
  Store store(path_);
  ApplyOutcome outcome = apply(store, {{"k", record("new", 600)}});
  ASSERT_TRUE(outcome.accepted);
  EXPECT_EQ(outcome.changeCount, 8);
  const PropertyList stored = *onDisk().find("values")->find("k");
  std::int64_t timestamp = 0;
  const PropertyList* remoteValue = nullptr;
  const PropertyList* value = ZKVGetPropertyListAndTimestampAndRemoteValueFromStorage(stored, &timestamp, &remoteValue);
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(*value, PropertyList::string("new"));
  EXPECT_EQ(timestamp, 600);
  ASSERT_NE(remoteValue, nullptr);
  EXPECT_EQ(*remoteValue, remote);
}

TEST_F(StoreTest, OneBadRecordRefusesTheWholeRequest) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}}).accepted);
  const PropertyList before = onDisk();
  for (const PropertyList& bad :
       {makeDictionary({{"value", PropertyList::string("x")}}),            // no timestamp
        makeDictionary({{"timestamp", PropertyList::integer(0)}, {"value", PropertyList::string("x")}}),
        PropertyList::string("not a record"), PropertyList::integer(3)}) {
    ApplyOutcome outcome = apply(store, {{"a", kRemoval}, {"b", record("2")}, {"z", bad}});
    EXPECT_FALSE(outcome.accepted) << bad.description();
    EXPECT_FALSE(outcome.writeFailed);
    EXPECT_FALSE(outcome.error.empty());
  }
  EXPECT_EQ(onDisk(), before);
  EXPECT_EQ(store.changeCount(), 1);
  EXPECT_EQ(store.keyCount(), 1u);
}

TEST_F(StoreTest, WriteIsPrivateAndLeavesNoTemporaryFiles) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
  ASSERT_TRUE(apply(store, {{"a", record("2")}}).written);
  struct stat info{};
  ASSERT_EQ(::stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(path_.parent_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  ASSERT_EQ(::stat(path_.parent_path().parent_path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  int entries = 0;
  for (const auto& item : fs::directory_iterator(path_.parent_path())) {
    ++entries;
    EXPECT_EQ(item.path(), path_);
  }
  EXPECT_EQ(entries, 1);
  EXPECT_EQ(integerAt(onDisk(), {"changecount"}), 2);
}

TEST_F(StoreTest, WriteFailureLeavesMemoryAndFileAsTheyWere) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}, {"c", record("3")}}).written);
  const PropertyList before = store.contents();
  // A replaced, an added and a removed key: each is put back in memory.
  const ApplyOutcome failed = applyOverFileSizeLimit(store, {{"a", record("9")}, {"b", record("2")}, {"c", kRemoval}});
  EXPECT_FALSE(failed.accepted);
  EXPECT_TRUE(failed.writeFailed);
  EXPECT_EQ(store.contents(), before);
  EXPECT_EQ(onDisk(), before);
  EXPECT_EQ(store.fileReads(), 0u);  // memory itself, not a reload
  // The next attempt succeeds at the next count, not one further.
  EXPECT_EQ(apply(store, {{"b", record("2")}}).changeCount, 2);
  EXPECT_EQ(*store.contents().find("values")->find("a"), record("1"));
}

TEST_F(StoreTest, ATemporaryAFailedWriteLeftGoesWithTheNextWrite) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
  const ApplyOutcome failed = applyOverFileSizeLimit(store, {{"b", record("2")}});
  EXPECT_TRUE(failed.writeFailed);
  // As a write cut off between its temporary and the rename (the directory
  // turned read-only) leaves one, which it cannot remove either.
  const fs::path left = path_.parent_path() / "com.example.app.plist.Ab3xQ9";
  std::ofstream(left) << "half";

  EXPECT_EQ(apply(store, {{"b", record("2")}}).changeCount, 2);
  EXPECT_FALSE(fs::exists(left));
  EXPECT_EQ(store.fileReads(), 0u);  // the write swept, not a reload
}

TEST_F(StoreTest, KeepsItsCopyUntilTheFileChangesBehindIt) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
  // Its own writes and every later use go without reading the file.
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(store.changeCount(), 1);
    EXPECT_EQ(store.keyCount(), 1u);
  }
  ASSERT_TRUE(apply(store, {{"b", record("2")}}).written);
  EXPECT_EQ(store.keyCount(), 2u);
  EXPECT_EQ(store.fileReads(), 0u);

  // Another writer renames a new file into place (a new inode).
  ASSERT_TRUE(velmorad::writeFileAtomically(
      path_, *velmora::encodeBinaryPlist(makeDictionary(
                 {{"values", makeDictionary({{"x", record("9")}})}, {"changecount", PropertyList::integer(40)}}))));
  EXPECT_EQ(store.changeCount(), 40);
  EXPECT_EQ(store.keyCount(), 1u);
  EXPECT_EQ(store.fileReads(), 1u);
  EXPECT_EQ(store.changeCount(), 40);
  EXPECT_EQ(store.fileReads(), 1u);
  // The next change builds on what is on disk now.
  ApplyOutcome next = apply(store, {{"y", record("8")}});
  EXPECT_EQ(next.changeCount, 41);
  EXPECT_NE(onDisk().find("values")->find("x"), nullptr);
  EXPECT_EQ(store.fileReads(), 1u);

  // Rewritten in place: same inode, other size.
  const ino_t before = inode();
  {
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    const velmora::Bytes bytes = *velmora::encodeBinaryPlist(makeDictionary(
        {{"values", PropertyList::dictionary({})}, {"changecount", PropertyList::integer(77)}}));
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  }
  ASSERT_EQ(inode(), before);
  EXPECT_EQ(store.changeCount(), 77);
  EXPECT_EQ(store.keyCount(), 0u);
  EXPECT_EQ(store.fileReads(), 2u);

  // Removed: the store is empty again, and stays so without reading.
  fs::remove(path_);
  EXPECT_EQ(store.changeCount(), 0);
  EXPECT_EQ(store.keyCount(), 0u);
  EXPECT_EQ(store.fileReads(), 2u);
}

// With the replaced file kept, the old version stays readable under its
// second name until the caller takes it; one a crash left is swept on load.
TEST_F(StoreTest, AKeptReplacedFileIsTheOldVersionAndASweptLeftover) {
  fs::path kept;
  {
    Store store(path_);
    store.setKeepReplacedFile(true);
    ASSERT_TRUE(apply(store, {{"a", record("1")}}).written);
    EXPECT_TRUE(store.takeReplacedFile().empty()) << "the first write replaced nothing";
    ASSERT_TRUE(apply(store, {{"a", record("2")}}).written);
    kept = store.takeReplacedFile();
    ASSERT_FALSE(kept.empty());
    EXPECT_NE(velmora::readPlistFile(kept.string()).find("values")->find("a"), nullptr);
    EXPECT_EQ(integerAt(onDisk(), {"changecount"}), 2);
    EXPECT_EQ(integerAt(velmora::readPlistFile(kept.string()), {"changecount"}), 1);
  }
  ASSERT_TRUE(fs::exists(kept));
  Store again(path_);  // as after a crash before the unlink
  EXPECT_EQ(again.keyCount(), 1u);
  EXPECT_FALSE(fs::exists(kept));
}

TEST_F(StoreTest, UnfinishedWritesOfAKilledDaemonAreRemovedOnLoad) {
  {
    Store first(path_);
    ASSERT_TRUE(apply(first, {{"a", record("1")}}).written);
  }
  // What a daemon killed between mkstemp and rename leaves, beside files
  // that only look alike.
  const fs::path dir = path_.parent_path();
  for (const char* name : {"com.example.app.plist.Ab3xQ9", "com.example.app.plist.zzzzzz"}) {
    std::ofstream(dir / name) << "half";
  }
  const std::vector<std::string> kept = {"com.example.app.plist.corrupt-1700000000", "com.example.app.plist.Ab3xQ",
                                         "com.example.other.plist.Ab3xQ9", "com.example.app.plist"};
  for (const std::string& name : kept) {
    if (name != "com.example.app.plist") std::ofstream(dir / name) << "keep";
  }
  Store store(path_);
  EXPECT_EQ(store.keyCount(), 1u);
  std::set<std::string> left;
  for (const auto& item : fs::directory_iterator(dir)) left.insert(item.path().filename().string());
  EXPECT_EQ(left, std::set<std::string>(kept.begin(), kept.end()));
}

// Only a file read whole that does not decode is damaged; one that cannot
// be read (an I/O error, a directory in its place) stays where it is with
// everything in it, and writes wait until it reads again.
TEST_F(StoreTest, OnlyADamagedFileIsSetAsideAndOnlyAFewCopiesAreKept) {
  Store store(path_);
  ASSERT_TRUE(apply(store, {{"kept", record("1")}}).accepted);
  // Reads that fail for other reasons than damage: an I/O error (a link to
  // memory that is not mapped) and a directory in the file's place.
  const fs::path real = path_.string() + ".real";
  fs::rename(path_, real);
  for (const char* kind : {"eio", "directory"}) {
    SCOPED_TRACE(kind);
    if (kind == std::string("eio")) {
      fs::create_symlink("/proc/self/mem", path_);
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
  EXPECT_EQ(onDisk().find("values")->count(), 2u);

  auto asides = [&] {
    std::vector<std::string> texts;
    for (const auto& item : fs::directory_iterator(path_.parent_path())) {
      if (!item.path().filename().string().starts_with("com.example.app.plist.corrupt-")) continue;
      std::ifstream in(item.path());
      texts.emplace_back((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    return texts;
  };
  EXPECT_TRUE(asides().empty());
  fs::remove(path_);
  for (int i = 0; i < 5; ++i) {
    { std::ofstream(path_) << "bplist00 damaged " << i; }
    Store damaged(path_);
    EXPECT_EQ(damaged.keyCount(), 0u);
    EXPECT_EQ(apply(damaged, {{"a", record("1")}}).changeCount, 1);
  }
  const std::vector<std::string> kept = asides();
  EXPECT_EQ(kept.size(), velmorad::kKeptCorruptCopies);
  for (const std::string& text : kept) EXPECT_TRUE(text.starts_with("bplist00 damaged ")) << text;
  EXPECT_EQ(integerAt(onDisk(), {"changecount"}), 1);
}

TEST_F(StoreTest, DamagedPartsReadAsAbsent) {
  // A dictionary whose parts have the wrong types: values as an array,
  // a negative count, a journal that is a string.
  ASSERT_TRUE(velmorad::writeFileAtomically(
      path_, *velmora::encodeBinaryPlist(makeDictionary({{"values", velmora::makeArray({PropertyList::integer(1)})},
                                                         {"changecount", PropertyList::integer(-4)},
                                                         {"journal", PropertyList::string("x")}}))));
  Store store(path_);
  EXPECT_EQ(store.changeCount(), 0);
  EXPECT_EQ(store.keyCount(), 0u);
  ApplyOutcome outcome = apply(store, {{"a", record("1")}});
  EXPECT_EQ(outcome.changeCount, 1);
  EXPECT_EQ(integerAt(onDisk(), {"journal", "a", "count"}), 1);
}

TEST_F(StoreTest, KeysOverALimitAreRefusedWithoutATraceOnDisk) {
  StoreLimits limits;
  limits.maxKeyCount = 2;
  limits.maxKeyNameLen = 4;
  limits.maxKeyDataLen = 250;
  limits.maxKeyDataSum = 250;
  Store store(path_);
  const std::string big(100, 'x');
  ApplyOutcome outcome = apply(store,
                               {{"long-name", record("1")},                       // name too long
                                {"a", record("1")},
                                {"b", record(std::string(250, 'y'))},             // one value too large
                                {"c", record(big)},
                                {"d", record(big)}},                              // third key
                               limits);
  ASSERT_TRUE(outcome.accepted);
  EXPECT_EQ(outcome.changeCount, 1);
  EXPECT_EQ(outcome.refusedKeys, (std::vector<std::string>{"b", "d", "long-name"}));
  const PropertyList file = onDisk();
  EXPECT_EQ(integerAt(file, {"changecount"}), 1);
  EXPECT_EQ(file.find("values")->count(), 2u);
  EXPECT_EQ(file.find("journal")->count(), 2u);  // "a" and "c" only
  EXPECT_EQ(integerAt(file, {"journal", "a", "count"}), 1);

  // Refused keys alone write nothing, however many and however long.
  const ino_t before = inode();
  for (int i = 0; i < 2000; ++i) {
    const ApplyOutcome refused = apply(store, {{std::string(1000, 'k') + std::to_string(i), record("v")}}, limits);
    ASSERT_EQ(refused.refusedKeys.size(), 1u);
  }
  EXPECT_EQ(inode(), before);

  // The sum: a bigger "c" fits its own limit but not the sum; shrinking is fine.
  ApplyOutcome sum = apply(store, {{"c", record(std::string(180, 'z'))}}, limits);
  EXPECT_EQ(sum.refusedKeys, std::vector<std::string>{"c"});
  EXPECT_EQ(sum.changeCount, 1);  // nothing stored: the count answered stays
  EXPECT_EQ(integerAt(onDisk(), {"changecount"}), 1);
  ApplyOutcome shrink = apply(store, {{"c", record("small")}}, limits);
  EXPECT_TRUE(shrink.refusedKeys.empty());
  EXPECT_EQ(shrink.changeCount, 2);

  // A removal in the same request makes room for a new key.
  ApplyOutcome swap = apply(store, {{"a", kRemoval}, {"e", record("5")}}, limits);
  EXPECT_TRUE(swap.refusedKeys.empty());
  EXPECT_EQ(store.keyCount(), 2u);
}

TEST_F(StoreTest, JournalEntriesGoOnceEveryClientReleasedThem) {
  Store store(path_);
  store.addClient(":1.1");
  store.addClient(":1.2");
  ASSERT_EQ(apply(store, {{"a", record("1")}}).changeCount, 1);
  ASSERT_EQ(apply(store, {{"b", record("2")}}).changeCount, 2);

  EXPECT_TRUE(store.releaseJournal(":1.1", 2));
  EXPECT_NE(onDisk().find("journal"), nullptr);  // :1.2 still holds both
  EXPECT_TRUE(store.releaseJournal(":1.2", 1));
  EXPECT_EQ(onDisk().find("journal")->find("a"), nullptr);
  EXPECT_NE(onDisk().find("journal")->find("b"), nullptr);
  // A release from a stranger and a smaller one change nothing.
  EXPECT_TRUE(store.releaseJournal(":1.9", 5));
  EXPECT_TRUE(store.releaseJournal(":1.1", 0));
  EXPECT_NE(onDisk().find("journal")->find("b"), nullptr);
  // The holder leaves: what the other released goes.
  EXPECT_TRUE(store.removeClient(":1.2"));
  EXPECT_EQ(onDisk().find("journal"), nullptr);
  EXPECT_EQ(store.clientNames(), std::vector<std::string>{":1.1"});
  EXPECT_EQ(integerAt(onDisk(), {"changecount"}), 2);

  // Keys that come and go: a client that never releases holds at most a
  // bounded number of their entries, and once nobody is registered the
  // old ones go.
  for (int i = 1; i < 400; ++i) {
    ASSERT_TRUE(apply(store, {{"gone" + std::to_string(i - 1), kRemoval}, {"gone" + std::to_string(i), record("x")}})
                    .accepted);
  }
  const std::size_t held = onDisk().find("journal")->count();
  EXPECT_LE(held, 3 + velmorad::kMaxAbsentKeyEntries);
  EXPECT_GT(held, velmorad::kMaxAbsentKeyEntries / 2);
  EXPECT_TRUE(store.removeClient(":1.1"));
  EXPECT_LE(onDisk().find("journal")->count(), static_cast<std::size_t>(velmorad::kUnheldJournalWindow) + 2);
}

}  // namespace
