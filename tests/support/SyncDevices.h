// Devices of one user on one machine, and the sync server between them, for
// the sync tests and the propagation benchmark: a real velmora-server on
// loopback, and per device a scratch home, a private bus and a real
// velmorad on it. LibraryOn points this process's libzkv at one device.
//
// Header-only (it needs the test library for the child processes and buses).
// Start everything from the main thread: children get a parent-death signal
// tied to the thread that started them. Nothing here is thread-safe.
#pragma once

#include <signal.h>
#include <systemd/sd-bus.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PrivateBus.h"
#include "ScratchEnvironment.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/SystemNotifications.h"
#include "zkv/ZKVEncoding.h"

#ifndef VELMORA_BINARY_DIR
#error "VELMORA_BINARY_DIR must name the build directory (daemon/velmorad, server/velmora-server)"
#endif

namespace velmora::testing {

// Whole seconds since 2001-01-01 UTC, now: a storage record's timestamp.
inline std::int64_t recordTimestampNow() {
  return static_cast<std::int64_t>(std::time(nullptr)) - static_cast<std::int64_t>(velmora::kAbsoluteTimeIntervalSince1970);
}

// The value stored under key in a store file's contents, or none.
inline PropertyList storedValue(const PropertyList& contents, const std::string& key) {
  const PropertyList* values = contents.find("values");
  const PropertyList* record = values != nullptr ? values->find(key) : nullptr;
  std::int64_t timestamp = 0;
  const PropertyList* value = record ? ZKVGetPropertyListAndTimestampFromStorage(*record, &timestamp) : nullptr;
  return value != nullptr ? *value : PropertyList();
}

// velmora-server serving on loopback, over SQLite or PostgreSQL.
class SyncServer {
 public:
  static std::string path() { return VELMORA_BINARY_DIR "/server/velmora-server"; }

  // storage: {"--sqlite", PATH} or {"--postgres", CONNINFO}; extra: more
  // options of "serve" (limits).
  explicit SyncServer(std::vector<std::string> storage, std::vector<std::string> extra = {})
      : storage_(std::move(storage)), extra_(std::move(extra)) {}
  ~SyncServer() { stop(); }

  // Starts serving and waits (up to 15 s) for "listening on". The first
  // start picks a free port; later ones reuse it, so devices find the
  // server where it was. False when it did not come up.
  bool start() {
    std::vector<std::string> argv = {path(), "serve", "--listen", "127.0.0.1:" + std::to_string(port_)};
    argv.insert(argv.end(), storage_.begin(), storage_.end());
    argv.insert(argv.end(), extra_.begin(), extra_.end());
    process_ = ChildProcess::start(argv);
    const std::string line = process_ ? process_->readLine(std::chrono::seconds(15)).value_or("") : "";
    const std::string prefix = "listening on 127.0.0.1:";
    if (line.starts_with(prefix)) port_ = std::stoi(line.substr(prefix.size()));
    return line.starts_with(prefix);
  }
  // Stops it (SIGTERM, then SIGKILL after 10 s). Idempotent.
  void stop() { ChildProcess::stop(process_); }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // A new account's token; empty when none came. Blocks for the tool.
  std::string addAccount(const std::string& name) {
    std::vector<std::string> argv = {path(), "account", "add", name};
    argv.insert(argv.end(), storage_.begin(), storage_.end());
    std::unique_ptr<ChildProcess> tool = ChildProcess::start(argv);
    const std::optional<std::string> token = tool ? tool->readLine(std::chrono::seconds(15)) : std::nullopt;
    if (tool) tool->waitForExit(std::chrono::seconds(10));
    return token.value_or("");
  }

 private:
  const std::vector<std::string> storage_;
  const std::vector<std::string> extra_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

// One device: a scratch home, a bus and a velmorad on it.
class SyncDevice {
 public:
  static constexpr const char* kService = "com.vantrel.velmorad-sim";

  // Starts the bus and the daemon; ok() tells whether both came up.
  explicit SyncDevice(const std::string& name) : home_("velmora-device-" + name), bus_(BusDaemon::start()) {
    if (bus_ && sd_bus_new(&client_) >= 0 && sd_bus_set_address(client_, bus_->address().c_str()) >= 0 &&
        sd_bus_set_bus_client(client_, 1) >= 0 && sd_bus_start(client_) >= 0) {
      startDaemon();
    }
  }
  ~SyncDevice() {
    stopDaemon();
    sd_bus_flush_close_unref(client_);
  }

  bool ok() const { return bus_ != nullptr && daemon_ != nullptr; }
  const std::string& busAddress() const { return bus_->address(); }
  std::string home() const { return home_.path().string(); }
  // What a process on this device has in its environment.
  std::vector<std::string> environment() const {
    return {"HOME=" + home(), "XDG_CONFIG_HOME=" + home() + "/.config", "DBUS_SESSION_BUS_ADDRESS=" + busAddress()};
  }

  // Starts velmorad and waits (up to 20 s) for it to own its name.
  bool startDaemon() {
    daemon_ = ChildProcess::start({VELMORA_BINARY_DIR "/daemon/velmorad", "--address", bus_->address()},
                                  environment());
    if (daemon_ && waitUntil([&] { return daemonOwnsName(); }, std::chrono::seconds(20))) return true;
    daemon_.reset();
    return false;
  }
  void stopDaemon() { ChildProcess::stop(daemon_); }

  // Sends one request to this device's daemon and waits for the reply
  // dictionary; none when no reply came.
  PropertyList request(const std::string& message, PropertyList userInfo = {},
                       std::optional<std::string> bundle = std::nullopt) {
    PlistDictionary body{{"message", PropertyList::string(message)}};
    if (!userInfo.isNone()) body.emplace("userinfo", std::move(userInfo));
    if (bundle) body.emplace("bundleIdentifier", PropertyList::string(*bundle));
    const std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(PropertyList::dictionary(body));
    velmora::DbusIpcService transport({.busAddress = busAddress(), .callTimeout = std::chrono::seconds(30)});
    auto connection = transport.connect(kService, velmora::DispatchQueue::createSerial("device-requests"));
    connection->resume();
    return object ? connection->sendAndWait(*object).dictionary : PropertyList();
  }

  // Logs this daemon into server's account; the reply.
  PropertyList login(const SyncServer& server, const std::string& token) {
    return request("accountLogin", makeDictionary({{"server", PropertyList::string(server.url())},
                                                   {"token", PropertyList::string(token)}}));
  }

  // Hands values of app's store to the daemon as a client's "synchronize"
  // does, each stamped with timestamp (none removes the key); true when the
  // daemon took them.
  bool write(const std::string& app, const PlistDictionary& values, std::int64_t timestamp) {
    PlistDictionary changes;
    for (const auto& [key, value] : values) {
      changes.emplace(key, value.isNone() ? PropertyList::dictionary({})
                                          : ZKVCreateStorageForPropertyListAndTimestamp(value, timestamp));
    }
    const PropertyList info =
        makeDictionary({{"changes", PropertyList::dictionary(changes)}, {"changecount", PropertyList::integer(0)}});
    return request("synchronize", info, app).find("userinfo") != nullptr;
  }

  // "trackSynchronizeRemote": true on success, false on an error reply.
  bool trackSynchronize() { return request("trackSynchronizeRemote").find("error") == nullptr; }

  // The store file of app as it is on disk now (none when absent).
  PropertyList storeFile(const std::string& app) const {
    return velmora::readPlistFile((home_.path() / "Library/Quellstore" / (app + ".plist")).string());
  }

 private:
  bool daemonOwnsName() {
    sd_bus_creds* creds = nullptr;  // with an empty mask, only whether the name has an owner is asked
    const bool owned = sd_bus_get_name_creds(client_, kService, 0, &creds) >= 0;
    sd_bus_creds_unref(creds);
    return owned;
  }

  ScratchDirectory home_;
  std::unique_ptr<BusDaemon> bus_;
  std::unique_ptr<ChildProcess> daemon_;
  sd_bus* client_ = nullptr;
};

// While it lives, this process's libzkv is an application on device: its
// home, its bus for requests and change notifications.
class LibraryOn : ScopedServices {
 public:
  explicit LibraryOn(const SyncDevice& device) {
    install(velmora::setEnvironment, std::make_shared<ScratchHomeEnvironment>(device.home()));
    install(velmora::setIpcService,
            std::make_shared<velmora::DbusIpcService>(velmora::DbusIpcOptions{.busAddress = device.busAddress()}));
    install(velmora::setSystemNotificationCenter,
            std::make_shared<velmora::DbusSystemNotificationCenter>(device.busAddress()));
  }
};

}  // namespace velmora::testing
