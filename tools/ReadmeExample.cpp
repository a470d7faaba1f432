// Counts its own runs in the application's store.
#include <zkv/NimbrelStore.h>

#include <cstdio>

int main() {
  // The application's own store. Its identifier is $ZKV_APPLICATION_ID,
  // else the executable's name; the file is ~/Library/Quellstore/<id>.plist.
  std::shared_ptr<NimbrelStore> store = NimbrelStore::defaultStore();

  // Changes that other processes make arrive on the main queue.
  store->addObserver([](const NimbrelChange& change) {
    for (const std::string& key : change.keys) std::printf("%s changed elsewhere\n", key.c_str());
  });

  const std::int64_t runs = store->getInteger("runs").value_or(0) + 1;
  if (NimbrelResult result = store->setInteger("runs", runs); !result) {
    std::fprintf(stderr, "%s\n", result.error().message.c_str());  // e.g. over a size limit
    return 1;
  }
  // A write stays in memory until it is handed to velmorad, which writes the file.
  if (!store->synchronize()) {
    std::fprintf(stderr, "velmorad could not be reached\n");
    return 1;
  }
  std::printf("run %lld\n", static_cast<long long>(runs));
  return 0;
}
