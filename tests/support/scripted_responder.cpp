// velmora_scripted_responder: a stand-in for the daemon that owns a bus name
// and answers requests as a test tells it to.
//
// Protocol
//   velmora_scripted_responder --name NAME [options]
//     --path P, --interface I, --member M
//                          where requests arrive (default: the daemon's
//                          /com/vantrel/velmorad, com.vantrel.velmorad,
//                          Request); the one argument is read as a dictionary.
//     --record FILE        append one line per request received:
//                          "path=… interface=… member=… destination=…
//                          signature=… expect_reply=0|1 auto_start=0|1
//                          body=<PropertyList description>"
//     --record-plists DIR  also write each request, as received, to
//                          DIR/request-<n>.bplist (n counts from 1)
//     --on MESSAGE=BEHAVIOUR
//                          requests whose "message" value is MESSAGE get
//                          BEHAVIOUR (repeatable)
//     --default BEHAVIOUR  behaviour for other requests; without it the
//                          request's "message" value itself names the
//                          behaviour, and an unknown or missing one is "echo"
//     --exit-after N       exit once N requests have been handled
//     --post NAME[:COUNT]  (repeatable) no name is owned: emit the system
//                          notification NAME COUNT times (default 1), the
//                          --post arguments in order, flush and exit
//     --script FILE        a property-list file, read again at every request
//                          (write it whole, e.g. by renaming a temporary
//                          file), holding a dictionary: message name -> step,
//                          or -> array of steps, of which the n-th request
//                          with that name gets the n-th (the last one
//                          repeats). A request whose "message" has a step is
//                          answered by the step, before --on and --default;
//                          others as without the script. Step keys, all
//                          optional, taken in this order:
//                            "writeFile" (string path) + "fileContents"
//                                      (any value, {} when absent): written
//                                      as a binary property list (via a
//                                      temporary file and a rename) before
//                                      anything else happens
//                            "exit" true:   exit at once, without replying
//                            "silent" true: no reply at all
//                            "userinfo" V:  reply {"userinfo": V}
//                            "error" E:     reply {"error": E}
//                            "reply" D:     reply the dictionary D as it is
//                          and with none of the last five, reply {}.
//     --timeline FILE      append one line per request on arrival, before
//                          it is answered: "<CLOCK_MONOTONIC nanoseconds>
//                          <message> <bundleIdentifier> <storeIdentifier>"
//                          ("-" for a missing value), in one write
//   It prints "ready <unique name>" on standard output once it owns NAME,
//   and exits when its bus connection closes.
//
// Behaviours (request keys they read in brackets):
//   echo         reply {"reply": request}
//   error        reply {"error": [error] or {"domain": "scripted", "code": 1}}
//   both         reply {"reply": request, "error": …as above}
//   neither      reply {}
//   value        reply [reply] (a dictionary) as the reply dictionary
//   userinfo     reply {"userinfo": [userinfo]} ({} when the request has none)
//   dbus-error   a bus error reply named [errorName]
//                (com.vantrel.velmorad.Error.Scripted) with [errorMessage]
//   silent       no reply at all
//   delay        echo after [delayMs] (or the "userinfo"'s) milliseconds (200)
//   exit         exit at once without replying, dropping the connection
//   odd          a reply of an unusual shape named by [shape]: see oddReply()
//   unsolicited  echo, then a signal Unsolicited({"note": "unsolicited"}) sent
//                to the requester alone
//   post         echo, then emit the system notification [name] [count] times
// A new behaviour is one more entry in behaviours().
#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PlistCodec.h"
#include "velmora/platform/PropertyList.h"

namespace {

using velmora::PropertyList;

struct Options {
  std::string name;
  std::string path = "/com/vantrel/velmorad";
  std::string interface = "com.vantrel.velmorad";
  std::string member = "Request";
  std::string record;
  std::string recordPlists;
  std::map<std::string, std::string> on;
  std::string defaultBehaviour;
  long exitAfter = -1;
  std::vector<std::pair<std::string, long>> posts;
  std::string script;
  std::string timeline;
};

struct Delayed {
  std::uint64_t dueMicros;
  sd_bus_message* call;  // owned reference
  PropertyList reply;
};

struct Responder {
  Options options;
  sd_bus* bus = nullptr;
  long handled = 0;
  long received = 0;
  std::vector<Delayed> delayed;
  std::map<std::string, long> seen;  // requests so far, by "message"
};

[[noreturn]] void die(const char* what, int r) {
  std::fprintf(stderr, "velmora_scripted_responder: %s: %s\n", what, std::strerror(r < 0 ? -r : r));
  std::exit(2);
}

std::uint64_t nowMicros() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
}

std::string stringOf(const PropertyList& request, const char* key, const char* fallback) {
  const PropertyList* v = request.find(key);
  return v != nullptr && v->isString() ? *v->getString() : std::string(fallback);
}

std::int64_t integerOf(const PropertyList& request, const char* key, std::int64_t fallback) {
  const PropertyList* v = request.find(key);
  std::int64_t out = 0;
  return v != nullptr && v->getInt64(out) ? out : fallback;
}

int replyWith(sd_bus_message* call, const PropertyList& dictionary) {
  auto object = velmora::ipcObjectFromPropertyList(dictionary);
  if (!object) {
    return sd_bus_reply_method_errorf(call, "com.vantrel.velmorad.Error.Unsendable",
                                      "the reply cannot travel on the bus");
  }
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(call, &reply);
  if (r >= 0) r = velmora::appendIpcObject(reply, *object);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r;
}

PropertyList echoOf(const PropertyList& request) { return velmora::makeDictionary({{"reply", request}}); }

PropertyList errorOf(const PropertyList& request) {
  const PropertyList* e = request.find("error");
  if (e != nullptr && e->isDictionary()) return *e;
  return velmora::makeDictionary({{"domain", PropertyList::string("scripted")}, {"code", PropertyList::integer(1)}});
}

void emitPosted(sd_bus* bus, const std::string& name, long count) {
  for (long i = 0; i < count; ++i) {
    int r = sd_bus_emit_signal(bus, "/com/vantrel/Notify", "com.vantrel.Notify", "Posted", "s", name.c_str());
    if (r < 0) die("emit Posted", r);
  }
  sd_bus_flush(bus);
}

// Unusual reply shapes, for the client's tolerant reading.
int oddReply(sd_bus_message* call, const std::string& shape) {
  sd_bus_message* m = nullptr;
  int r = sd_bus_message_new_method_return(call, &m);
  if (r < 0) return r;
  if (shape == "u") {
    r = sd_bus_message_append(m, "u", 7u);
  } else if (shape == "none") {
    // no arguments at all
  } else if (shape == "dict-int-keys") {
    r = sd_bus_message_append(m, "a{is}", 2, 1, "one", 2, "two");
  } else if (shape == "variant-dict") {
    r = sd_bus_message_append(m, "v", "a{sv}", 1, "k", "s", "v");
  } else if (shape == "dict-su") {
    r = sd_bus_message_append(m, "a{su}", 2, "a", 1u, "b", 4000000000u);
  } else if (shape == "extra-args") {
    r = sd_bus_message_append(m, "a{sv}s", 1, "k", "b", 1, "trailing");
  } else if (shape == "wide") {
    int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    r = sd_bus_message_append(
        m, "a{sv}", 15,
        "y", "y", static_cast<std::uint8_t>(200),
        "n", "n", static_cast<std::int16_t>(-5),
        "q", "q", static_cast<std::uint16_t>(65000),
        "i", "i", static_cast<std::int32_t>(-7),
        "u", "u", static_cast<std::uint32_t>(4000000000u),
        "t-small", "t", static_cast<std::uint64_t>(5),
        "t-big", "t", UINT64_MAX,
        "o", "o", "/a/b",
        "g", "g", "a{sv}",
        "h", "h", devnull,
        "struct", "(is)", 5, "x",
        "dict-o", "a{ov}", 1, "/p", "i", 3,
        "nested-variant", "v", "v", "x", static_cast<std::int64_t>(9),
        "array-of-arrays", "aai", 2, 2, 1, 2, 1, 3,
        "fds", "ah", 1, devnull);
    ::close(devnull);
  } else {
    r = sd_bus_message_append(m, "a{sv}", 1, "unknown-shape", "s", shape.c_str());
  }
  if (r >= 0) r = sd_bus_send(nullptr, m, nullptr);
  sd_bus_message_unref(m);
  return r;
}

using Behaviour = std::function<int(Responder&, sd_bus_message*, const PropertyList&)>;

const std::map<std::string, Behaviour>& behaviours() {
  static const std::map<std::string, Behaviour> table = {
      {"echo", [](Responder&, sd_bus_message* call, const PropertyList& req) { return replyWith(call, echoOf(req)); }},
      {"error",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         return replyWith(call, velmora::makeDictionary({{"error", errorOf(req)}}));
       }},
      {"both",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         return replyWith(call, velmora::makeDictionary({{"reply", req}, {"error", errorOf(req)}}));
       }},
      {"neither",
       [](Responder&, sd_bus_message* call, const PropertyList&) {
         return replyWith(call, PropertyList::dictionary({}));
       }},
      {"value",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         const PropertyList* v = req.find("reply");
         return replyWith(call, v != nullptr && v->isDictionary() ? *v : PropertyList::dictionary({}));
       }},
      {"userinfo",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         const PropertyList* v = req.find("userinfo");
         return replyWith(call, v != nullptr ? velmora::makeDictionary({{"userinfo", *v}})
                                             : PropertyList::dictionary({}));
       }},
      {"dbus-error",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         std::string name = stringOf(req, "errorName", "com.vantrel.velmorad.Error.Scripted");
         std::string text = stringOf(req, "errorMessage", "scripted error");
         return sd_bus_reply_method_errorf(call, name.c_str(), "%s", text.c_str());
       }},
      {"silent", [](Responder&, sd_bus_message*, const PropertyList&) { return 0; }},
      {"delay",
       [](Responder& self, sd_bus_message* call, const PropertyList& req) {
         const PropertyList* info = req.find("userinfo");
         const std::int64_t ms = integerOf(req, "delayMs", info != nullptr ? integerOf(*info, "delayMs", 200) : 200);
         std::uint64_t delay = static_cast<std::uint64_t>(ms) * 1000u;
         self.delayed.push_back({nowMicros() + delay, sd_bus_message_ref(call), echoOf(req)});
         return 0;
       }},
      {"exit", [](Responder&, sd_bus_message*, const PropertyList&) -> int { std::_Exit(0); }},
      {"odd",
       [](Responder&, sd_bus_message* call, const PropertyList& req) {
         return oddReply(call, stringOf(req, "shape", ""));
       }},
      {"unsolicited",
       [](Responder& self, sd_bus_message* call, const PropertyList& req) {
         int r = replyWith(call, echoOf(req));
         if (r < 0) return r;
         sd_bus_message* signal = nullptr;
         r = sd_bus_message_new_signal(self.bus, &signal, self.options.path.c_str(), self.options.interface.c_str(),
                                       "Unsolicited");
         if (r >= 0) r = sd_bus_message_append(signal, "a{sv}", 1, "note", "s", "unsolicited");
         if (r >= 0) r = sd_bus_send_to(self.bus, signal, sd_bus_message_get_sender(call), nullptr);
         sd_bus_message_unref(signal);
         return r;
       }},
      {"post",
       [](Responder& self, sd_bus_message* call, const PropertyList& req) {
         int r = replyWith(call, echoOf(req));
         emitPosted(self.bus, stringOf(req, "name", "com.vantrel.test"), static_cast<long>(integerOf(req, "count", 1)));
         return r;
       }},
  };
  return table;
}

// The description with each line break and the indentation after it
// folded into one space.
std::string oneLine(const std::string& text) {
  std::string out;
  bool folding = false;
  for (char c : text) {
    if (c == '\n') {
      folding = true;
      continue;
    }
    if (folding && (c == ' ' || c == '\t')) continue;
    if (folding) out += ' ';
    folding = false;
    out += c;
  }
  return out;
}

void record(Responder& self, sd_bus_message* call, const PropertyList& request) {
  ++self.received;
  if (!self.options.record.empty()) {
    const char* signature = sd_bus_message_get_signature(call, 1);
    std::ofstream out(self.options.record, std::ios::app);
    out << "path=" << (sd_bus_message_get_path(call) ? sd_bus_message_get_path(call) : "")
        << " interface=" << (sd_bus_message_get_interface(call) ? sd_bus_message_get_interface(call) : "")
        << " member=" << (sd_bus_message_get_member(call) ? sd_bus_message_get_member(call) : "")
        << " destination=" << (sd_bus_message_get_destination(call) ? sd_bus_message_get_destination(call) : "")
        << " signature=" << (signature ? signature : "")
        << " expect_reply=" << sd_bus_message_get_expect_reply(call)
        << " auto_start=" << sd_bus_message_get_auto_start(call)
        << " body=" << oneLine(request.description()) << "\n";
  }
  if (!self.options.recordPlists.empty()) {
    auto bytes = velmora::encodeBinaryPlist(request);
    std::ofstream out(self.options.recordPlists + "/request-" + std::to_string(self.received) + ".bplist",
                      std::ios::binary);
    if (bytes) out.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
  }
}

void noteArrival(const Responder& self, const std::string& message, const PropertyList& request) {
  if (self.options.timeline.empty()) return;
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const std::string line = std::to_string(static_cast<long long>(ts.tv_sec) * 1'000'000'000LL + ts.tv_nsec) + " " +
                           (message.empty() ? "-" : message) + " " + stringOf(request, "bundleIdentifier", "-") +
                           " " + stringOf(request, "storeIdentifier", "-") + "\n";
  int fd = ::open(self.options.timeline.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) die("open the timeline", errno);
  if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) die("write the timeline", errno);
  ::close(fd);
}

bool truthy(const PropertyList* value) { return value != nullptr && value->booleanValue(); }

void writePlistAtomically(const std::string& path, const PropertyList& value) {
  auto bytes = velmora::encodeBinaryPlist(value);
  if (!bytes) die(("encode " + path).c_str(), EINVAL);
  const std::string temporary = path + ".responder-tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes->data()), static_cast<std::streamsize>(bytes->size()));
    if (!out) die(("write " + temporary).c_str(), EIO);
  }
  if (std::rename(temporary.c_str(), path.c_str()) != 0) die(("rename to " + path).c_str(), errno);
}

// Answers the request by the script's step for its message, if there is
// one: returns true then, with the send's result in *result.
bool runScript(Responder& self, sd_bus_message* call, const std::string& message, long occurrence, int* result) {
  if (self.options.script.empty()) return false;
  const PropertyList script = velmora::readPlistFile(self.options.script);
  const PropertyList* step = script.find(message);
  if (step == nullptr) return false;
  if (const velmora::PlistArray* steps = step->getArray()) {
    if (steps->empty()) return false;
    step = &(*steps)[std::min(static_cast<std::size_t>(occurrence), steps->size() - 1)];
  }
  if (!step->isDictionary()) return false;
  if (const PropertyList* path = step->find("writeFile"); path != nullptr && path->isString()) {
    const PropertyList* contents = step->find("fileContents");
    writePlistAtomically(*path->getString(), contents != nullptr ? *contents : PropertyList::dictionary({}));
  }
  if (truthy(step->find("exit"))) std::_Exit(0);
  if (truthy(step->find("silent"))) {
    *result = 0;
  } else if (const PropertyList* userInfo = step->find("userinfo")) {
    *result = replyWith(call, velmora::makeDictionary({{"userinfo", *userInfo}}));
  } else if (const PropertyList* error = step->find("error")) {
    *result = replyWith(call, velmora::makeDictionary({{"error", *error}}));
  } else if (const PropertyList* reply = step->find("reply"); reply != nullptr && reply->isDictionary()) {
    *result = replyWith(call, *reply);
  } else {
    *result = replyWith(call, PropertyList::dictionary({}));
  }
  return true;
}

int onRequest(sd_bus_message* call, void* userdata, sd_bus_error*) {
  auto& self = *static_cast<Responder*>(userdata);
  if (!sd_bus_message_is_method_call(call, self.options.interface.c_str(), self.options.member.c_str())) {
    return 0;  // the bus library answers "unknown method"
  }
  PropertyList request = velmora::readDbusDictionary(call).value_or(PropertyList());
  record(self, call, request);
  std::string message = stringOf(request, "message", "");
  noteArrival(self, message, request);
  const long occurrence = self.seen[message]++;
  std::string name = "script";
  int r = 0;
  if (!runScript(self, call, message, occurrence, &r)) {
    name = self.options.defaultBehaviour.empty() ? message : self.options.defaultBehaviour;
    if (auto mapped = self.options.on.find(message); mapped != self.options.on.end()) name = mapped->second;
    auto behaviour = behaviours().find(name);
    if (behaviour == behaviours().end()) behaviour = behaviours().find("echo");
    r = behaviour->second(self, call, request);
  }
  if (r < 0) std::fprintf(stderr, "velmora_scripted_responder: %s failed: %s\n", name.c_str(), std::strerror(-r));
  ++self.handled;
  if (self.options.exitAfter >= 0 && self.handled >= self.options.exitAfter) {
    sd_bus_flush(self.bus);
    std::exit(0);
  }
  return 1;
}

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) die(("missing value for " + arg).c_str(), EINVAL);
      return argv[++i];
    };
    if (arg == "--name") o.name = next();
    else if (arg == "--path") o.path = next();
    else if (arg == "--interface") o.interface = next();
    else if (arg == "--member") o.member = next();
    else if (arg == "--record") o.record = next();
    else if (arg == "--record-plists") o.recordPlists = next();
    else if (arg == "--default") o.defaultBehaviour = next();
    else if (arg == "--exit-after") o.exitAfter = std::stol(next());
    else if (arg == "--script") o.script = next();
    else if (arg == "--timeline") o.timeline = next();
    else if (arg == "--post") {
      std::string entry = next();
      auto colon = entry.rfind(':');
      if (colon == std::string::npos) o.posts.emplace_back(entry, 1);
      else o.posts.emplace_back(entry.substr(0, colon), std::stol(entry.substr(colon + 1)));
    }
    else if (arg == "--on") {
      std::string pair = next();
      auto eq = pair.find('=');
      if (eq == std::string::npos) die("--on wants MESSAGE=BEHAVIOUR", EINVAL);
      o.on[pair.substr(0, eq)] = pair.substr(eq + 1);
    } else {
      die(("unknown argument " + arg).c_str(), EINVAL);
    }
  }
  return o;
}

sd_bus* openBus() {
  // An activated responder is told its bus by the starter variable.
  const char* address = std::getenv("DBUS_STARTER_ADDRESS");
  if (address == nullptr) address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  sd_bus* bus = nullptr;
  int r = 0;
  if (address == nullptr) {
    r = sd_bus_open_user(&bus);
  } else {
    r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address);
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_start(bus);
  }
  if (r < 0) die("open the bus", r);
  return bus;
}

}  // namespace

int main(int argc, char** argv) {
  Responder self;
  self.options = parse(argc, argv);
  self.bus = openBus();
  if (!self.options.posts.empty()) {
    for (const auto& [name, count] : self.options.posts) emitPosted(self.bus, name, count);
    sd_bus_flush_close_unref(self.bus);
    return 0;
  }
  if (self.options.name.empty()) die("--name is required", EINVAL);
  int r = sd_bus_add_object(self.bus, nullptr, self.options.path.c_str(), onRequest, &self);
  if (r < 0) die("add the object", r);
  r = sd_bus_request_name(self.bus, self.options.name.c_str(), 0);
  if (r < 0) die("own the name", r);
  const char* unique = nullptr;
  sd_bus_get_unique_name(self.bus, &unique);
  std::printf("ready %s\n", unique != nullptr ? unique : "");
  std::fflush(stdout);

  // Runs until the bus goes away: that is how an activated responder ends.
  for (;;) {
    r = sd_bus_process(self.bus, nullptr);
    if (r < 0) break;
    if (r > 0) continue;
    std::uint64_t now = nowMicros();
    std::uint64_t wait = UINT64_MAX;
    for (auto it = self.delayed.begin(); it != self.delayed.end();) {
      if (it->dueMicros <= now) {
        replyWith(it->call, it->reply);
        sd_bus_message_unref(it->call);
        it = self.delayed.erase(it);
      } else {
        wait = std::min(wait, it->dueMicros - now);
        ++it;
      }
    }
    r = sd_bus_wait(self.bus, wait);
    if (r < 0 && r != -EINTR) break;
  }
  for (Delayed& d : self.delayed) sd_bus_message_unref(d.call);
  sd_bus_close_unref(self.bus);
  return 0;
}
