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

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "velmora/platform/DbusValue.h"
#include "velmora/platform/Ipc.h"
#include "velmora/platform/PropertyList.h"

namespace {

using velmora::PropertyList;
using fuzz::check;

constexpr std::string_view kBasicTypes = "ybnqiuxtdsogh";

// Length of the one complete type that signature starts with.
std::size_t typeLength(std::string_view signature) {
  int open = 0;
  for (std::size_t at = signature.find_first_not_of('a');; ++at) {
    open += (signature[at] == '(' || signature[at] == '{') - (signature[at] == ')' || signature[at] == '}');
    if (open == 0) return at + 1;
  }
}

// What the rest of the input says, zeros once it runs out.
struct Program {
  std::span<const std::uint8_t> bytes;
  std::size_t at = 0;
  // Basic values left to append: large types repeated by counts read past
  // the end would otherwise build messages of millions of zeros.
  int budget = 4096;

  std::uint8_t byte() { return at < bytes.size() ? bytes[at++] : 0; }
  // A 2-byte length, capped by the bytes left (zeros past the end would only
  // make big messages of nothing), then that many bytes.
  std::string text() {
    std::string s(std::min<std::size_t>(byte() | (std::size_t{byte()} << 8), bytes.size() - at), '\0');
    for (char& c : s) c = static_cast<char>(byte());
    return s;
  }
  // A type's signature. Nesting has no bound of its own, so that the bus's
  // limits and the readers' get probed; each level costs a byte, and zeros
  // past the end make a basic type.
  std::string type() {
    const std::uint8_t tag = byte() % 19;
    if (tag < kBasicTypes.size()) return std::string(1, kBasicTypes[tag]);
    if (tag == 13) return "v";
    if (tag == 14) return "a" + type();
    if (tag == 15) {
      const std::string key(1, kBasicTypes[byte() % kBasicTypes.size()]);
      return "a{" + key + type() + "}";
    }
    if (tag == 17) return "a{sv}";
    if (tag == 18) return "ay";
    std::string members = "(";
    for (int count = byte() % 4 + 1; count > 0; --count) members += type();
    return members + ")";
  }
};

// Numbers are read little-endian into a 64-bit word whose first bytes sd-bus
// reads as the type's own width (b and h as an int): this host is little-endian.
int appendBasic(sd_bus_message* m, char code, Program& program) {
  if (program.budget-- <= 0) return -E2BIG;
  if (code == 's' || code == 'o' || code == 'g') {
    std::string text = code == 'g' ? program.type() : program.text();
    if (code == 'o') text = "/o";  // the readers take any path as text; its bytes are spent all the same
    // Only valid UTF-8 travels; keep what is, fold the rest to ASCII.
    if (code == 's' && !velmora::isValidUtf8(text)) for (char& c : text) c = static_cast<char>(c & 0x7f);
    return sd_bus_message_append_basic(m, code, text.c_str());
  }
  static const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  static constexpr int kWidths[] = {1, 1, 2, 2, 4, 4, 8, 8, 8, 0, 0, 0, 1};  // of kBasicTypes
  const int width = kWidths[kBasicTypes.find(code)];
  std::uint64_t number = 0;
  for (int i = 0; i < width; ++i) number |= std::uint64_t{program.byte()} << (8 * i);
  if (code == 'b') number &= 1;
  // A descriptor costs a byte, so no input asks for endless ones.
  if (code == 'h') number = static_cast<std::uint64_t>(devNull);
  return sd_bus_message_append_basic(m, code, &number);
}

int appendValue(sd_bus_message* m, const std::string& type, Program& program) {
  int r = 0;
  if (type == "ay") {
    const std::string bytes = program.text();
    return sd_bus_message_append_array(m, 'y', bytes.data(), bytes.size());
  } else if (type == "v") {
    const std::string inner = program.type();
    r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, inner.c_str());
    if (r >= 0) r = appendValue(m, inner, program);
  } else if (type[0] == 'a') {
    const std::string element = type.substr(1);
    r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, element.c_str());
    for (int n = program.byte(); r >= 0 && n > 0; --n) r = appendValue(m, element, program);
  } else if (type[0] == '(' || type[0] == '{') {  // a struct, or a dictionary entry: key and value
    const std::string members = type.substr(1, type.size() - 2);
    r = sd_bus_message_open_container(m, type[0] == '(' ? SD_BUS_TYPE_STRUCT : SD_BUS_TYPE_DICT_ENTRY,
                                      members.c_str());
    for (std::size_t at = 0, length = 0; r >= 0 && at < members.size(); at += length) {
      length = typeLength(std::string_view(members).substr(at));
      r = appendValue(m, members.substr(at, length), program);
    }
  } else {
    return appendBasic(m, type[0], program);
  }
  return r >= 0 ? sd_bus_message_close_container(m) : r;
}

using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

// Message creation wants a started bus; one over a socketpair nobody answers
// serves every input.
Message newMessage() {
  static sd_bus* const bus = [] {
    int fds[2];
    sd_bus* b = nullptr;
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0 && sd_bus_new(&b) >= 0 &&
          sd_bus_set_fd(b, fds[0], fds[0]) >= 0 && sd_bus_start(b) >= 0);
    return b;
  }();
  sd_bus_message* m = nullptr;
  check(sd_bus_message_new_method_call(bus, &m, "com.vantrel.fuzz", "/f", "com.vantrel.fuzz", "M") >= 0);
  return Message(m, sd_bus_message_unref);
}

// Seals m and moves the read position to its first argument; false when
// sd-bus refuses to seal it.
bool seal(sd_bus_message* m) {
  static std::uint64_t cookie = 0;
  if (sd_bus_message_seal(m, ++cookie, 0) < 0) return false;
  check(sd_bus_message_rewind(m, 1) >= 0);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Program program{std::span(data, size)};
  const Message built = newMessage();
  // The bus refuses what breaks its own rules (nesting, and a whole
  // signature over 255 characters, which sd-bus notices only when sealing):
  // no sender can send that.
  if (appendValue(built.get(), program.type(), program) < 0 || !seal(built.get())) return 0;

  const std::optional<PropertyList> dictionary = velmora::readDbusDictionary(built.get());
  check(sd_bus_message_rewind(built.get(), 1) >= 0);
  const std::optional<PropertyList> value = velmora::readDbusValue(built.get());
  // Both readers unwrap variants and map dictionaries with string-like keys alike.
  check(dictionary.has_value() == (value && value->isDictionary()) && (!dictionary || *dictionary == *value));
  if (const auto object = dictionary ? velmora::ipcObjectFromPropertyList(*dictionary) : std::nullopt) {
    const Message again = newMessage();
    check(velmora::appendIpcObject(again.get(), *object) >= 0 && seal(again.get()) &&
          velmora::readDbusDictionary(again.get()) == dictionary);
  }
  if (value) {
    const Message again = newMessage();
    // Refused (EINVAL) only by the variant check; else it must read back equal.
    const int r = velmora::appendDbusVariant(again.get(), *value);
    check(r == -EINVAL || (r >= 0 && seal(again.get()) && velmora::readDbusValue(again.get()) == value));
  }
  return 0;
}
