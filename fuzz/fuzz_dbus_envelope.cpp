// Builds a bus message from arbitrary bytes and reads its argument the way
// the daemon and the transport read a request or reply envelope.
//
// The bytes are a small program rather than the wire form: sd-bus checks a
// received message before anyone reads it, so the readers only ever meet
// well-formed messages, and what matters is every shape a sender could put
// together. The input is one type followed by a value of it:
//
//   type  := tag byte, tag % 19:
//            0-12  basic y b n q i u x t d s o g h
//            13    v            (its value: a type, then a value of it)
//            14    a TYPE       (value: count byte, then the elements)
//            15    a{K TYPE}    (K: next byte % 13 picks a basic type;
//                                value: count byte, then key/value pairs)
//            16    (TYPE...)    (next byte % 4 + 1 members)
//            17    a{sv}        (shorthand for the envelope shape)
//            18    ay           (value: 2-byte little-endian length, at
//                                most the bytes left, then the bytes; any
//                                array of y reads so)
//   basic values: y b 1 byte; n q 2; i u 4; x t d 8 (little-endian);
//   s o: 2-byte length (at most the bytes left) then bytes (s made valid
//   UTF-8, o made a valid path);
//   g: a type, whose signature is the value; h: 1 byte, ignored (the value
//   is /dev/null).
//
// Running out of bytes reads as zeros, so every input builds something
// finite; past 4096 basic values the message counts as refused. scripts/fuzz-seeds writes real envelopes in this form.
//
// Checks: readDbusDictionary() and readDbusValue() agree on the argument;
// whatever passes the IPC check writes into a new message and reads back
// equal; whatever readDbusValue() returns goes back into a variant and
// reads back equal, unless the variant check refuses it.
#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PropertyList.h"

namespace {

using velmora::PropertyList;

constexpr std::string_view kBasicTypes = "ybnqiuxtdsogh";
// Deeper than the bus allows, so that its limits and the readers' get probed.
constexpr int kMaxTypeDepth = 80;

struct Type {
  char code = 'y';  // a basic type, 'v', 'a', 'e' (dictionary array) or 'r' (struct)
  std::vector<Type> members;  // 'a': element; 'e': key, value; 'r': the members
  std::string signature;      // made once: appending asks for it at every level
};

Type makeType(char code, std::vector<Type> members = {}) {
  Type type{code, std::move(members), {}};
  switch (code) {
    case 'a':
      type.signature = "a" + type.members[0].signature;
      break;
    case 'e':
      type.signature = "a{" + type.members[0].signature + type.members[1].signature + "}";
      break;
    case 'r':
      type.signature = "(";
      for (const Type& member : type.members) type.signature += member.signature;
      type.signature += ")";
      break;
    default:
      type.signature = std::string(1, code);
  }
  return type;
}

const std::string& signature(const Type& type) { return type.signature; }

// What the rest of the input says, zeros once it runs out.
class Program {
 public:
  explicit Program(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  std::uint8_t byte() { return at_ < bytes_.size() ? bytes_[at_++] : 0; }
  // Takes one basic value from the budget; false once it is spent. Large
  // types repeated by counts read past the end would otherwise build
  // messages of millions of zeros.
  bool spend() { return budget_-- > 0; }
  void read(void* out, std::size_t size) {
    auto* p = static_cast<std::uint8_t*>(out);
    for (std::size_t i = 0; i < size; ++i) p[i] = byte();
  }
  // A 2-byte length, capped by the bytes left: zeros past the end would only
  // make big messages of nothing.
  std::size_t length() {
    const std::size_t wanted = byte() | (std::size_t{byte()} << 8);
    return std::min(wanted, bytes_.size() - std::min(at_, bytes_.size()));
  }
  std::string text() {
    std::string s(length(), '\0');
    read(s.data(), s.size());
    return s;
  }

  Type type(int depth) {
    const std::uint8_t tag = byte() % 19;
    if (depth > kMaxTypeDepth) return makeType('y');
    if (tag < kBasicTypes.size()) return makeType(kBasicTypes[tag]);
    switch (tag) {
      case 13:
        return makeType('v');
      case 14:
        return makeType('a', {type(depth + 1)});
      case 15: {
        Type key = makeType(kBasicTypes[byte() % kBasicTypes.size()]);
        return makeType('e', {key, type(depth + 2)});
      }
      case 16: {
        std::vector<Type> members;
        const int count = byte() % 4 + 1;
        for (int i = 0; i < count; ++i) members.push_back(type(depth + 1));
        return makeType('r', std::move(members));
      }
      case 17:
        return makeType('e', {makeType('s'), makeType('v')});
      default:
        return makeType('a', {makeType('y')});
    }
  }

 private:
  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
  int budget_ = 4096;  // basic values left to append
};

int devNull() {
  static const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  return fd;
}

// An object path from arbitrary text: "/" and segments of [A-Za-z0-9_].
std::string objectPath(const std::string& text) {
  static constexpr std::string_view kChars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_/";
  std::string path = "/";
  for (unsigned char c : text) {
    const char next = kChars[c % kChars.size()];
    if (next == '/' && path.back() == '/') continue;
    path += next;
  }
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

int appendValue(sd_bus_message* m, const Type& type, Program& program, int depth);

int appendBasic(sd_bus_message* m, char code, Program& program, int depth) {
  union {
    std::uint8_t y;
    int b;
    std::uint16_t q;
    std::uint32_t u;
    std::uint64_t t;
    double d;
  } value{};
  if (!program.spend()) return -E2BIG;
  switch (code) {
    case 'y':
      program.read(&value.y, 1);
      return sd_bus_message_append_basic(m, code, &value.y);
    case 'b':
      value.b = program.byte() & 1;
      return sd_bus_message_append_basic(m, code, &value.b);
    case 'n':
    case 'q':
      program.read(&value.q, 2);
      return sd_bus_message_append_basic(m, code, &value.q);
    case 'i':
    case 'u':
      program.read(&value.u, 4);
      return sd_bus_message_append_basic(m, code, &value.u);
    case 'x':
    case 't':
      program.read(&value.t, 8);
      return sd_bus_message_append_basic(m, code, &value.t);
    case 'd':
      program.read(&value.d, 8);
      return sd_bus_message_append_basic(m, code, &value.d);
    case 's': {
      std::string s = program.text();
      // Only valid UTF-8 travels; keep what is, fold the rest to ASCII.
      if (!velmora::isValidUtf8(s)) {
        for (char& c : s) c = static_cast<char>(c & 0x7f);
      }
      return sd_bus_message_append_basic(m, code, s.c_str());
    }
    case 'o':
      return sd_bus_message_append_basic(m, code, objectPath(program.text()).c_str());
    case 'g':
      return sd_bus_message_append_basic(m, code, signature(program.type(depth)).c_str());
    case 'h': {
      (void)program.byte();  // costs a byte, so no input asks for endless descriptors
      const int fd = devNull();
      return sd_bus_message_append_basic(m, code, &fd);
    }
    default:
      return -EINVAL;
  }
}

int appendValue(sd_bus_message* m, const Type& type, Program& program, int depth) {
  int r = 0;
  switch (type.code) {
    case 'v': {
      const Type inner = program.type(depth + 1);
      r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, signature(inner).c_str());
      if (r >= 0) r = appendValue(m, inner, program, depth + 1);
      break;
    }
    case 'a': {
      if (type.members[0].code == 'y') {
        std::vector<std::uint8_t> bytes(program.length());
        program.read(bytes.data(), bytes.size());
        return sd_bus_message_append_array(m, 'y', bytes.data(), bytes.size());
      }
      r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, signature(type.members[0]).c_str());
      for (int n = program.byte(); r >= 0 && n > 0; --n) r = appendValue(m, type.members[0], program, depth + 1);
      break;
    }
    case 'e': {
      const std::string entry = signature(type.members[0]) + signature(type.members[1]);
      r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, ("{" + entry + "}").c_str());
      for (int n = program.byte(); r >= 0 && n > 0; --n) {
        r = sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, entry.c_str());
        if (r >= 0) r = appendBasic(m, type.members[0].code, program, depth + 2);
        if (r >= 0) r = appendValue(m, type.members[1], program, depth + 2);
        if (r >= 0) r = sd_bus_message_close_container(m);
      }
      break;
    }
    case 'r': {
      const std::string& whole = signature(type);
      r = sd_bus_message_open_container(m, SD_BUS_TYPE_STRUCT, whole.substr(1, whole.size() - 2).c_str());
      for (const Type& member : type.members) {
        if (r >= 0) r = appendValue(m, member, program, depth + 1);
      }
      break;
    }
    default:
      return appendBasic(m, type.code, program, depth);
  }
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

// Message creation wants a started bus; one over a socketpair nobody answers
// serves every input.
sd_bus* bus() {
  static sd_bus* const instance = [] {
    int fds[2];
    sd_bus* b = nullptr;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0 || sd_bus_new(&b) < 0 ||
        sd_bus_set_fd(b, fds[0], fds[0]) < 0 || sd_bus_start(b) < 0) {
      __builtin_trap();
    }
    return b;
  }();
  return instance;
}

struct Message {
  Message() {
    if (sd_bus_message_new_method_call(bus(), &m, "com.vantrel.fuzz", "/f", "com.vantrel.fuzz", "M") < 0) {
      __builtin_trap();
    }
  }
  ~Message() { sd_bus_message_unref(m); }
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  // Seals the message and moves the read position to its first argument;
  // false when sd-bus refuses to seal it.
  bool trySeal() {
    static std::uint64_t cookie = 0;
    if (sd_bus_message_seal(m, ++cookie, 0) < 0) return false;
    if (sd_bus_message_rewind(m, 1) < 0) __builtin_trap();
    return true;
  }
  void seal() {
    if (!trySeal()) __builtin_trap();
  }
  void rewind() {
    if (sd_bus_message_rewind(m, 1) < 0) __builtin_trap();
  }

  sd_bus_message* m = nullptr;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Program program(std::span(data, size));
  Message built;
  const Type top = program.type(0);
  // The bus refuses what breaks its own rules (nesting, and a whole
  // signature over 255 characters, which sd-bus notices only when sealing):
  // no sender can send that.
  if (appendValue(built.m, top, program, 0) < 0 || !built.trySeal()) return 0;

  const std::optional<PropertyList> dictionary = velmora::readDbusDictionary(built.m);
  built.rewind();
  const std::optional<PropertyList> value = velmora::readDbusValue(built.m);
  if (dictionary && !dictionary->isDictionary()) __builtin_trap();
  // Both readers unwrap variants and map dictionaries with string-like keys alike.
  if (dictionary.has_value() != (value && value->isDictionary())) __builtin_trap();
  if (dictionary && *dictionary != *value) __builtin_trap();

  if (dictionary) {
    if (const std::optional<velmora::IpcObject> object = velmora::ipcObjectFromPropertyList(*dictionary)) {
      Message again;
      if (velmora::appendIpcObject(again.m, *object) < 0) __builtin_trap();
      again.seal();
      const std::optional<PropertyList> back = velmora::readDbusDictionary(again.m);
      if (!back || *back != *dictionary) __builtin_trap();
    }
  }
  if (value) {
    Message again;
    const int r = velmora::appendDbusVariant(again.m, *value);
    if (r < 0 && r != -EINVAL) __builtin_trap();
    if (r >= 0) {
      again.seal();
      const std::optional<PropertyList> back = velmora::readDbusValue(again.m);
      if (!back || *back != *value) __builtin_trap();
    }
  }
  return 0;
}
