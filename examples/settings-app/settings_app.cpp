// settings-app: a small application that keeps its settings in Velmora.
//
//   settings-app set KEY VALUE       stores a text setting and hands it to the daemon
//   settings-app get KEY             prints a setting
//   settings-app list                prints every setting, one "KEY = VALUE" a line
//   settings-app watch KEY [SECONDS] waits (default 30 s) until another process
//                                    changes KEY, then prints its new value
//
// Every process of the application gets the same store from
// NimbrelStore::defaultStore(): the one of the application's identifier
// (ZKV_APPLICATION_ID, else the Flatpak id, else the executable's name). The
// per-user daemon velmorad, started by D-Bus on the first request, writes it
// to ~/Library/Quellstore/<identifier>.plist and tells the other processes.
//
// Threads: main() runs on the main thread; observers run on the library's
// main-queue thread and only hand the news to main() through a mutex.
#include <zkv/NimbrelStore.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: settings-app set KEY VALUE\n"
               "       settings-app get KEY\n"
               "       settings-app list\n"
               "       settings-app watch KEY [SECONDS]\n");
  return 2;
}

// Text settings print as they are, anything else as the library describes it.
std::string show(const velmora::PropertyList& value) {
  if (const std::string* text = value.getString()) return *text;
  return value.description();
}

int set(NimbrelStore& settings, const std::string& key, std::string value) {
  NimbrelResult result = settings.setString(key, std::move(value));
  if (!result) {
    std::fprintf(stderr, "settings-app: %s\n", result.error().message.c_str());
    return 1;
  }
  // The write is in this process only until the daemon has it.
  if (!settings.synchronize()) {
    std::fprintf(stderr, "settings-app: the settings daemon did not answer\n");
    return 1;
  }
  return 0;
}

int get(NimbrelStore& settings, const std::string& key) {
  std::optional<velmora::PropertyList> value = settings.getObject(key);
  if (!value) {
    std::fprintf(stderr, "settings-app: %s is not set\n", key.c_str());
    return 1;
  }
  std::printf("%s\n", show(*value).c_str());
  return 0;
}

int list(NimbrelStore& settings) {
  for (const auto& [key, value] : settings.dictionaryRepresentation()) {
    std::printf("%s = %s\n", key.c_str(), show(value).c_str());
  }
  return 0;
}

// What the observer tells main(); shared, so that a call still running on
// the main-queue thread after removeObserver() finds it alive.
struct Watch {
  std::mutex mutex;
  std::condition_variable changed;  // with mutex
  bool seen = false;                // guarded by mutex
};

int watch(NimbrelStore& settings, const std::string& key, std::chrono::seconds patience) {
  auto state = std::make_shared<Watch>();
  NimbrelObserverToken token = settings.addObserver([state, key](const NimbrelChange& change) {
    if (std::find(change.keys.begin(), change.keys.end(), key) == change.keys.end()) return;
    std::lock_guard lock(state->mutex);
    state->seen = true;
    state->changed.notify_all();
  });
  // Reading loads the store, so a change from now on is one from elsewhere.
  std::optional<velmora::PropertyList> before = settings.getObject(key);
  std::printf("watching %s (now %s)\n", key.c_str(), before ? show(*before).c_str() : "unset");
  std::fflush(stdout);

  bool seen;
  {
    std::unique_lock lock(state->mutex);
    seen = state->changed.wait_for(lock, patience, [&] { return state->seen; });
  }
  settings.removeObserver(token);
  if (!seen) {
    std::fprintf(stderr, "settings-app: %s did not change within %llds\n", key.c_str(),
                 static_cast<long long>(patience.count()));
    return 1;
  }
  std::optional<velmora::PropertyList> after = settings.getObject(key);
  std::printf("%s changed to %s\n", key.c_str(), after ? show(*after).c_str() : "unset");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string command = argv[1];
  std::shared_ptr<NimbrelStore> settings = NimbrelStore::defaultStore();

  if (command == "set" && argc == 4) return set(*settings, argv[2], argv[3]);
  if (command == "get" && argc == 3) return get(*settings, argv[2]);
  if (command == "list" && argc == 2) return list(*settings);
  if (command == "watch" && (argc == 3 || argc == 4)) {
    const long seconds = argc == 4 ? std::strtol(argv[3], nullptr, 10) : 30;
    if (seconds <= 0) return usage();
    return watch(*settings, argv[2], std::chrono::seconds(seconds));
  }
  return usage();
}
