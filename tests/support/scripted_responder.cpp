// velmora_scripted_responder: a stand-in for the daemon that owns a bus name
// and answers requests (a dictionary, to /com/vantrel/velmorad,
// com.vantrel.velmorad.Request) as a test tells it to.
//
//   velmora_scripted_responder --name NAME [options]
//     --timeline FILE      append one line per request on arrival, before it
//     --record FILE        is answered: "<ns> <message> <bundleIdentifier>" ("-"
//                          for a missing value; ns on the monotonic clock)
//     --record-plists DIR  also write each request to DIR/request-<n>.bplist
//                          (n counts from 1)
//     --on MESSAGE=BEHAVIOUR   requests whose "message" is MESSAGE get
//                          BEHAVIOUR (repeatable)
//     --default BEHAVIOUR  behaviour for other requests; without it the
//                          "message" names the behaviour, an unknown one "echo"
//     --post NAME[:COUNT]  (repeatable) no name is owned: emit the system
//                          notification NAME COUNT times (default 1), in
//                          order, flush and exit
//     --script FILE        a property-list file, read again at every request
//                          (write it whole), holding a dictionary: message
//                          name -> step, or -> array of steps, of which the
//                          n-th request with that name gets the n-th (the
//                          last one repeats). A scripted message is answered
//                          by its step, before --on and --default. Step keys,
//                          taken in this order: "exit" true (exit at once,
//                          without replying), "silent" true (no reply),
//                          "userinfo" V (reply {"userinfo": V}), "error" E
//                          (reply {"error": E}), "reply" D (reply D); else {}.
//   It prints "ready <unique name>" once it owns NAME, and exits when its bus
//   connection closes.
//
// Behaviours (request keys they read in brackets):
//   echo         reply {"reply": request}
//   error        reply {"error": [error] or {"domain": "scripted", "code": 1}}
//   userinfo     reply {"userinfo": [userinfo]} ({} when the request has none)
//   dbus-error   a bus error reply com.vantrel.velmorad.Error.Scripted
//   silent       no reply at all
//   delay        echo after [delayMs] (or the "userinfo"'s) milliseconds (200)
//   odd          a reply that is no dictionary: [shape] "u" (a uint32), "none"
//                (no arguments) or "dict-int-keys" (a{is})
#include <chrono>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "ScratchEnvironment.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"

namespace {

using velmora::PropertyList;

// The options, set by parse().
std::string gName, gScript, gRecordPlists, gDefaultBehaviour;
std::vector<std::string> gTimelines;
std::map<std::string, std::string> gOn;
std::vector<std::pair<std::string, long>> gPosts;
sd_bus* gBus = nullptr;
long gReceived = 0;
std::map<std::string, long> gSeen;  // requests so far, by "message"

[[noreturn]] void die(const std::string& what, int r) {
  std::fprintf(stderr, "velmora_scripted_responder: %s: %s\n", what.c_str(), std::strerror(r < 0 ? -r : r));
  std::exit(2);
}

std::string stringOf(const PropertyList& request, const char* key, const char* fallback) {
  const PropertyList* v = request.find(key);
  return v != nullptr && v->isString() ? *v->getString() : std::string(fallback);
}

std::int64_t integerOf(const PropertyList* request, const char* key, std::int64_t fallback) {
  const PropertyList* v = request != nullptr ? request->find(key) : nullptr;
  std::int64_t out = 0;
  return v != nullptr && v->getInt64(out) ? out : fallback;
}

PropertyList entry(const char* key, const PropertyList* value) {
  return value != nullptr ? velmora::makeDictionary({{key, *value}}) : PropertyList::dictionary({});
}

int replyWith(sd_bus_message* call, const PropertyList& dictionary) {
  auto object = velmora::ipcObjectFromPropertyList(dictionary);
  if (!object) return sd_bus_reply_method_errorf(call, "com.vantrel.velmorad.Error.Unsendable", "unsendable reply");
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(call, &reply);
  if (r >= 0) r = velmora::appendIpcObject(reply, *object);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

PropertyList echoOf(const PropertyList& request) { return entry("reply", &request); }

// Replies that are no dictionary, for the client's tolerant reading.
int oddReply(sd_bus_message* call, const std::string& shape) {
  sd_bus_message* m = nullptr;
  int r = sd_bus_message_new_method_return(call, &m);
  if (r >= 0 && shape == "u") r = sd_bus_message_append(m, "u", 7u);
  if (r >= 0 && shape == "dict-int-keys") r = sd_bus_message_append(m, "a{is}", 2, 1, "one", 2, "two");
  if (r >= 0) r = sd_bus_send(nullptr, m, nullptr);
  sd_bus_message_unref(m);
  return r;
}

using Delayed = std::pair<sd_bus_message*, PropertyList>;  // the call (a reference) and its reply

int replyLater(sd_event_source*, std::uint64_t, void* userdata) {
  auto* delayed = static_cast<Delayed*>(userdata);
  replyWith(delayed->first, delayed->second);
  sd_bus_message_unref(delayed->first);
  delete delayed;
  return 0;
}

// Answers the request as the behaviour name says; the send's result.
int behave(const std::string& name, sd_bus_message* call, const PropertyList& req) {
  if (name == "silent") return 0;
  if (name == "userinfo") return replyWith(call, entry("userinfo", req.find("userinfo")));
  if (name == "odd") return oddReply(call, stringOf(req, "shape", ""));
  if (name == "dbus-error") return sd_bus_reply_method_errorf(call, "com.vantrel.velmorad.Error.Scripted", "scripted");
  if (name == "error") {
    const PropertyList* e = req.find("error");
    const PropertyList fallback =
        velmora::makeDictionary({{"domain", PropertyList::string("scripted")}, {"code", PropertyList::integer(1)}});
    return replyWith(call, entry("error", e != nullptr && e->isDictionary() ? e : &fallback));
  }
  if (name == "delay") {
    const std::int64_t ms = integerOf(&req, "delayMs", integerOf(req.find("userinfo"), "delayMs", 200));
    return sd_event_add_time_relative(sd_bus_get_event(gBus), nullptr, CLOCK_MONOTONIC,
                                      static_cast<std::uint64_t>(ms) * 1000u, 0, replyLater,
                                      new Delayed(sd_bus_message_ref(call), echoOf(req)));
  }
  if (name == "unsolicited") {  // echo, then a signal the requester alone gets
    int r = replyWith(call, echoOf(req));
    sd_bus_message* signal = nullptr;
    if (r >= 0) r = sd_bus_message_new_signal(gBus, &signal, "/com/vantrel/velmorad", "com.vantrel.velmorad", "Unsolicited");
    if (r >= 0) r = sd_bus_message_append(signal, "a{sv}", 1, "note", "s", "unsolicited");
    if (r >= 0) r = sd_bus_send_to(gBus, signal, sd_bus_message_get_sender(call), nullptr);
    sd_bus_message_unref(signal);
    return r;
  }
  return replyWith(call, echoOf(req));  // "echo", and any name not above
}

void record(const std::string& message, const PropertyList& request) {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();  // the monotonic clock, as the tests read it
  const std::string line = std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()) + " " +
                           (message.empty() ? "-" : message) + " " + stringOf(request, "bundleIdentifier", "-");
  for (const std::string& path : gTimelines) std::ofstream(path, std::ios::app) << line + "\n";
  const std::string plist = gRecordPlists + "/request-" + std::to_string(++gReceived) + ".bplist";
  if (!gRecordPlists.empty()) velmora::testing::writePlistFile(plist, request);
}

// Answers the request by the script's step for its message, if there is
// one, and returns the send's result; nullopt when there is none.
std::optional<int> runScript(sd_bus_message* call, const std::string& message, long occurrence) {
  const PropertyList script = gScript.empty() ? PropertyList() : velmora::readPlistFile(gScript);
  const PropertyList* step = script.find(message);
  const velmora::PlistArray* steps = step != nullptr ? step->getArray() : nullptr;
  if (steps != nullptr && !steps->empty()) step = &(*steps)[std::min<std::size_t>(occurrence, steps->size() - 1)];
  if (step == nullptr || !step->isDictionary()) return std::nullopt;
  auto truthy = [&](const char* key) { return step->find(key) != nullptr && step->find(key)->booleanValue(); };
  if (truthy("exit")) std::_Exit(0);
  if (truthy("silent")) return 0;
  for (const char* key : {"userinfo", "error"}) {
    if (step->find(key) != nullptr) return replyWith(call, entry(key, step->find(key)));
  }
  const PropertyList* reply = step->find("reply");
  return replyWith(call, reply != nullptr && reply->isDictionary() ? *reply : PropertyList::dictionary({}));
}

int onRequest(sd_bus_message* call, void*, sd_bus_error*) {
  if (!sd_bus_message_is_method_call(call, "com.vantrel.velmorad", "Request")) return 0;  // "unknown method"
  PropertyList request = velmora::readDbusDictionary(call).value_or(PropertyList());
  std::string message = stringOf(request, "message", "");
  record(message, request);
  std::string name = gDefaultBehaviour.empty() ? message : gDefaultBehaviour;
  if (auto mapped = gOn.find(message); mapped != gOn.end()) name = mapped->second;
  const std::optional<int> scripted = runScript(call, message, gSeen[message]++);
  const int r = scripted ? *scripted : behave(name, call, request);
  if (r < 0) std::fprintf(stderr, "velmora_scripted_responder: %s failed: %s\n", name.c_str(), std::strerror(-r));
  return 1;
}

void parse(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) die("missing value for " + arg, EINVAL);
    const std::string value = argv[++i];
    const auto split = arg == "--on" ? value.find('=') : value.rfind(':');
    if (arg == "--name") gName = value;
    else if (arg == "--timeline" || arg == "--record") gTimelines.push_back(value);
    else if (arg == "--record-plists") gRecordPlists = value;
    else if (arg == "--default") gDefaultBehaviour = value;
    else if (arg == "--script") gScript = value;
    else if (arg == "--post" && split == std::string::npos) gPosts.emplace_back(value, 1);
    else if (arg == "--post") gPosts.emplace_back(value.substr(0, split), std::stol(value.substr(split + 1)));
    else if (arg == "--on" && split != std::string::npos) gOn[value.substr(0, split)] = value.substr(split + 1);
    else die("bad argument " + arg + " " + value, EINVAL);
  }
}

}  // namespace

int main(int argc, char** argv) {
  parse(argc, argv);
  // An activated responder is told its bus by the starter variable.
  if (const char* starter = std::getenv("DBUS_STARTER_ADDRESS")) ::setenv("DBUS_SESSION_BUS_ADDRESS", starter, 1);
  int r = sd_bus_open_user(&gBus);
  if (r < 0) die("open the bus", r);
  for (const auto& [name, count] : gPosts) {
    for (long i = 0; i < count; ++i) {
      r = sd_bus_emit_signal(gBus, "/com/vantrel/Notify", "com.vantrel.Notify", "Posted", "s", name.c_str());
      if (r < 0) die("emit Posted", r);
    }
  }
  if (!gPosts.empty()) return sd_bus_flush_close_unref(gBus), 0;
  sd_event* event = nullptr;
  if ((r = sd_event_default(&event)) < 0 || (r = sd_bus_attach_event(gBus, event, 0)) < 0) die("sd-event", r);
  sd_bus_set_exit_on_disconnect(gBus, 1);  // how an activated responder ends
  if ((r = sd_bus_add_object(gBus, nullptr, "/com/vantrel/velmorad", onRequest, nullptr)) < 0) die("add object", r);
  if ((r = sd_bus_request_name(gBus, gName.c_str(), 0)) < 0) die("own the name", r);
  const char* unique = nullptr;
  sd_bus_get_unique_name(gBus, &unique);
  std::printf("ready %s\n", unique != nullptr ? unique : "");
  std::fflush(stdout);
  return sd_event_loop(event) < 0 ? 1 : 0;
}
