// XML property lists. The reader drives libxml2's SAX interface and builds
// the value directly on an explicit stack (no DOM, no recursion of our own);
// the writer is a plain recursive printer.
#include <libxml/parser.h>
#include <libxml/parserInternals.h>

#include <array>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>
#include <vector>

#include "velmora/platform/PlistCodec.h"

namespace velmora {

namespace {

// ---------------------------------------------------------------------------
// Calendar arithmetic on the proleptic Gregorian calendar, in 64 bits, so
// dates far outside the range of time_t or 32-bit years convert exactly.

constexpr std::int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01.
constexpr std::int64_t kDaysTo2001 = 11323;
// Years have at most this many digits either way, which keeps every date's
// seconds well inside 64 bits; reader and writer agree on the range.
constexpr std::size_t kMaxYearDigits = 11;
constexpr std::int64_t kMaxYear = 99'999'999'999;
// Beyond this no date is within kMaxYear; checked first so the arithmetic
// below cannot overflow.
constexpr double kDateLimit = 4611686018427387904.0;  // 2^62

std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) noexcept {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

void civilFromDays(std::int64_t z, std::int64_t& y, unsigned& m, unsigned& d) noexcept {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2);
}

unsigned daysInMonth(std::int64_t y, unsigned m) noexcept {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (m != 2) return kDays[m - 1];
  const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return leap ? 29 : 28;
}

bool isXmlSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trim(std::string_view s) noexcept {
  while (!s.empty() && isXmlSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isXmlSpace(s.back())) s.remove_suffix(1);
  return s;
}

bool readDigits(std::string_view& s, std::size_t count, unsigned& out) noexcept {
  if (s.size() < count) return false;
  out = 0;
  for (std::size_t i = 0; i < count; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + static_cast<unsigned>(s[i] - '0');
  }
  s.remove_prefix(count);
  return true;
}

// "YYYY[-MM[-DD[THH[:MM[:SS]]]]]Z", UTC. Years may carry a minus sign or more
// than four digits (what the writer emits outside 0000-9999).
bool parseDate(std::string_view s, double& out) noexcept {
  s = trim(s);
  const bool negative = !s.empty() && s.front() == '-';
  if (negative) s.remove_prefix(1);
  std::size_t yearDigits = 0;
  while (yearDigits < s.size() && s[yearDigits] >= '0' && s[yearDigits] <= '9') ++yearDigits;
  if (yearDigits < 4 || yearDigits > kMaxYearDigits) return false;
  std::int64_t year = 0;
  for (std::size_t i = 0; i < yearDigits; ++i) year = year * 10 + (s[i] - '0');
  if (negative) year = -year;
  s.remove_prefix(yearDigits);
  unsigned month = 1, day = 1, hour = 0, minute = 0, second = 0;
  struct Field {
    char separator;
    unsigned* value;
  };
  const Field fields[] = {{'-', &month}, {'-', &day}, {'T', &hour}, {':', &minute}, {':', &second}};
  for (const Field& f : fields) {
    if (s.empty() || s.front() != f.separator) break;
    s.remove_prefix(1);
    if (!readDigits(s, 2, *f.value)) return false;
  }
  if (s != "Z") return false;
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 || minute > 59 ||
      second > 59)
    return false;
  const std::int64_t days = daysFromCivil(year, month, day) - kDaysTo2001;
  out = static_cast<double>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second);
  return true;
}

bool parseInteger(std::string_view s, PropertyList& out) noexcept {
  s = trim(s);
  bool negative = false;
  if (!s.empty() && (s.front() == '-' || s.front() == '+')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  int base = 10;
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16;
    s.remove_prefix(2);
  }
  if (s.empty() || s.front() == '-' || s.front() == '+') return false;
  std::uint64_t magnitude = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), magnitude, base);
  if (ec != std::errc() || end != s.data() + s.size()) return false;
  if (!negative) {
    out = PropertyList::unsignedInteger(magnitude);
    return true;
  }
  constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;
  if (magnitude > kMinMagnitude) return false;
  out = PropertyList::integer(static_cast<std::int64_t>(0 - magnitude));
  return true;
}

// Decimal or scientific notation, "nan", "inf", "-inf" and so on, in any
// locale. Values beyond the double range saturate to infinity or zero.
bool parseReal(std::string_view s, double& out) noexcept {
  s = trim(s);
  if (!s.empty() && s.front() == '+') {
    s.remove_prefix(1);
    if (!s.empty() && s.front() == '-') return false;
  }
  if (s.empty()) return false;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), out);
  if (end != s.data() + s.size()) return false;
  if (ec == std::errc::result_out_of_range) {
    const std::size_t e = s.find_first_of("eE");
    const bool tiny = e != std::string_view::npos && e + 1 < s.size() && s[e + 1] == '-';
    const double magnitude = tiny ? 0.0 : HUGE_VAL;
    out = s.front() == '-' ? -magnitude : magnitude;
    return true;
  }
  return ec == std::errc();
}

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Base64 with any XML whitespace in between; padding optional.
bool decodeBase64(std::string_view s, Bytes& out) {
  static const auto kTable = [] {
    std::array<std::int8_t, 256> t{};
    t.fill(-1);
    for (int i = 0; i < 64; ++i) t[static_cast<unsigned char>(kBase64Alphabet[i])] = static_cast<std::int8_t>(i);
    return t;
  }();
  out.clear();
  out.reserve(s.size() / 4 * 3 + 3);
  std::uint32_t acc = 0;
  unsigned bits = 0;
  std::size_t sextets = 0;
  bool padding = false;
  for (char ch : s) {
    if (isXmlSpace(ch)) continue;
    if (ch == '=') {
      padding = true;
      continue;
    }
    const std::int8_t v = kTable[static_cast<unsigned char>(ch)];
    if (v < 0 || padding) return false;
    acc = (acc << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    ++sextets;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<std::uint8_t>(acc >> bits));
    }
  }
  return sextets % 4 != 1;
}

// ---------------------------------------------------------------------------
// Reader

enum class Element : std::uint8_t { Plist, Array, Dict, Key, String, Data, Date, Integer, Real, True, False };

bool elementNamed(const xmlChar* name, Element& out) noexcept {
  static constexpr std::pair<std::string_view, Element> kNames[] = {
      {"plist", Element::Plist}, {"array", Element::Array},     {"dict", Element::Dict},
      {"key", Element::Key},     {"string", Element::String},   {"data", Element::Data},
      {"date", Element::Date},   {"integer", Element::Integer}, {"real", Element::Real},
      {"true", Element::True},   {"false", Element::False},
  };
  const std::string_view n(reinterpret_cast<const char*>(name));
  for (const auto& [text, element] : kNames) {
    if (n == text) {
      out = element;
      return true;
    }
  }
  return false;
}

// Some libxml2 errors (failed character-encoding conversion, for one) bypass
// the parser context and go to the calling thread's generic handlers. This
// silences those for one parse and then puts back what was there; the
// handlers are per thread, so other threads are unaffected.
class QuietErrors {
 public:
  QuietErrors()
      : generic_(xmlGenericError),
        genericContext_(xmlGenericErrorContext),
        structured_(xmlStructuredError),
        structuredContext_(xmlStructuredErrorContext) {
    xmlSetGenericErrorFunc(nullptr, &ignoreMessage);
    xmlSetStructuredErrorFunc(nullptr, &ignoreError);
  }
  ~QuietErrors() {
    xmlSetGenericErrorFunc(genericContext_, generic_);
    xmlSetStructuredErrorFunc(structuredContext_, structured_);
  }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;

  static void ignoreMessage(void*, const char*, ...) {}
  static void ignoreError(void*, xmlErrorPtr) {}

 private:
  xmlGenericErrorFunc generic_;
  void* genericContext_;
  xmlStructuredErrorFunc structured_;
  void* structuredContext_;
};

class XmlReader {
 public:
  PropertyList parse(std::span<const std::uint8_t> bytes) {
    static std::once_flag once;
    std::call_once(once, [] { xmlInitParser(); });
    if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return {};
    const QuietErrors quiet;
    ctxt_ = xmlCreateMemoryParserCtxt(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
    if (ctxt_ == nullptr) return {};
    // Our own handlers only: errors go nowhere (per parser, so no global
    // state is touched), no tree is built, no DTD or entity is ever loaded.
    xmlSAXHandler* sax = ctxt_->sax;
    std::memset(sax, 0, sizeof *sax);
    sax->initialized = XML_SAX2_MAGIC;
    sax->startElementNs = &XmlReader::onStart;
    sax->endElementNs = &XmlReader::onEnd;
    sax->characters = &XmlReader::onText;
    sax->ignorableWhitespace = &XmlReader::onText;
    sax->cdataBlock = &XmlReader::onText;
    sax->reference = &XmlReader::onReference;
    sax->entityDecl = &XmlReader::onEntityDecl;
    sax->warning = &QuietErrors::ignoreMessage;
    sax->error = &QuietErrors::ignoreMessage;
    sax->fatalError = &QuietErrors::ignoreMessage;
    sax->serror = &QuietErrors::ignoreError;
    ctxt_->userData = this;
    // HUGE lifts libxml2's own nesting limit (256) below ours; the element
    // handler enforces PropertyList::kMaxDepth and stops the parser there.
    xmlCtxtUseOptions(ctxt_, XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
    xmlParseDocument(ctxt_);
    const bool ok = ctxt_->wellFormed && !failed_ && done_;
    // libxml2 keeps entity declarations in a document of its own even in
    // SAX mode; the context does not free it.
    if (ctxt_->myDoc != nullptr) xmlFreeDoc(ctxt_->myDoc);
    xmlFreeParserCtxt(ctxt_);
    ctxt_ = nullptr;
    return ok ? std::move(result_) : PropertyList();
  }

 private:
  struct Frame {
    explicit Frame(Element e) : element(e) {}
    Element element;
    bool hasKey = false;  // Dict: key awaits its value; Plist: value is set
    PlistArray array;
    PlistDictionary dict;
    std::string key;
    PropertyList value;   // Plist only
  };

  static XmlReader& self(void* ctx) { return *static_cast<XmlReader*>(ctx); }

  void fail() {
    if (!failed_) {
      failed_ = true;
      xmlStopParser(ctxt_);
    }
  }

  static void onStart(void* ctx, const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri, int, const xmlChar**,
                      int, int, const xmlChar**) {
    XmlReader& r = self(ctx);
    if (r.failed_) return;
    Element element;
    if (r.inLeaf_ || prefix != nullptr || uri != nullptr || !elementNamed(localname, element)) return r.fail();
    r.guarded([&] { r.start(element); });
  }

  // Exceptions must not unwind through libxml2: out of memory fails the parse.
  template <typename F>
  void guarded(F f) {
    try {
      f();
    } catch (const std::bad_alloc&) {
      fail();
    }
  }

  void start(Element element) {
    Frame* parent = stack_.empty() ? nullptr : &stack_.back();
    if (element == Element::Plist) {
      if (parent != nullptr || done_) return fail();
      stack_.emplace_back(Element::Plist);
      return;
    }
    if (element == Element::Key) {
      if (parent == nullptr || parent->element != Element::Dict || parent->hasKey) return fail();
    } else if (parent == nullptr) {
      if (done_) return fail();  // a bare value as the root, once
    } else if (parent->element == Element::Plist) {
      if (parent->hasKey) return fail();
    } else if (parent->element == Element::Dict && !parent->hasKey) {
      return fail();
    }
    if (containers_ > PropertyList::kMaxDepth) return fail();
    if (element == Element::Array || element == Element::Dict) {
      ++containers_;
      stack_.emplace_back(element);
      return;
    }
    inLeaf_ = true;
    leaf_ = element;
    text_.clear();
  }

  static void onEnd(void* ctx, const xmlChar*, const xmlChar*, const xmlChar*) {
    XmlReader& r = self(ctx);
    if (!r.failed_) r.guarded([&] { r.end(); });
  }

  void end() {
    if (inLeaf_) {
      inLeaf_ = false;
      if (leaf_ == Element::Key) {
        if (!isValidUtf8(text_)) return fail();
        stack_.back().key = std::move(text_);
        stack_.back().hasKey = true;
        return;
      }
      PropertyList value = leafValue();
      if (value.isNone()) return fail();
      return add(std::move(value));
    }
    if (stack_.empty()) return fail();
    Frame frame = std::move(stack_.back());
    stack_.pop_back();
    switch (frame.element) {
      case Element::Plist:
        if (!frame.hasKey) return fail();
        result_ = std::move(frame.value);
        done_ = true;
        return;
      case Element::Array:
        --containers_;
        return add(PropertyList::array(std::move(frame.array)));
      case Element::Dict:
        --containers_;
        if (frame.hasKey) return fail();  // a key without a value
        return add(PropertyList::dictionary(std::move(frame.dict)));
      default:
        return fail();
    }
  }

  void add(PropertyList value) {
    if (stack_.empty()) {
      result_ = std::move(value);
      done_ = true;
      return;
    }
    Frame& parent = stack_.back();
    switch (parent.element) {
      case Element::Plist:
        parent.value = std::move(value);
        parent.hasKey = true;
        return;
      case Element::Array: parent.array.push_back(std::move(value)); return;
      case Element::Dict:
        // A repeated key replaces the earlier value.
        parent.dict.insert_or_assign(std::move(parent.key), std::move(value));
        parent.hasKey = false;
        return;
      default: return fail();
    }
  }

  PropertyList leafValue() {
    switch (leaf_) {
      case Element::String:
        if (!isValidUtf8(text_)) return {};
        return PropertyList::string(std::move(text_));
      case Element::Data: {
        Bytes bytes;
        if (!decodeBase64(text_, bytes)) return {};
        return PropertyList::data(std::move(bytes));
      }
      case Element::Date: {
        double seconds;
        if (!parseDate(text_, seconds)) return {};
        return PropertyList::date(seconds);
      }
      case Element::Integer: {
        PropertyList value;
        if (!parseInteger(text_, value)) return {};
        return value;
      }
      case Element::Real: {
        double d;
        if (!parseReal(text_, d)) return {};
        return PropertyList::real(d);
      }
      case Element::True:
      case Element::False:
        if (!trim(text_).empty()) return {};
        return PropertyList::boolean(leaf_ == Element::True);
      default: return {};
    }
  }

  static void onText(void* ctx, const xmlChar* ch, int len) {
    XmlReader& r = self(ctx);
    if (r.failed_) return;
    const std::string_view text(reinterpret_cast<const char*>(ch), static_cast<std::size_t>(len));
    if (r.inLeaf_) {
      r.guarded([&] { r.text_.append(text); });
    } else if (!trim(text).empty()) {
      r.fail();  // text directly inside a container
    }
  }

  // Only the predefined entities exist; anything else would be dropped
  // silently by libxml2, so refuse it.
  static void onReference(void* ctx, const xmlChar*) { self(ctx).fail(); }

  // No declared entity is ever used, so no expansion can blow up.
  static void onEntityDecl(void* ctx, const xmlChar*, int, const xmlChar*, const xmlChar*, xmlChar*) {
    self(ctx).fail();
  }

  xmlParserCtxtPtr ctxt_ = nullptr;
  std::vector<Frame> stack_;
  int containers_ = 0;  // arrays and dictionaries open on the stack
  bool inLeaf_ = false;
  Element leaf_ = Element::String;
  std::string text_;
  PropertyList result_;
  bool done_ = false;
  bool failed_ = false;
};

// ---------------------------------------------------------------------------
// Writer

constexpr std::string_view kXmlPrologue =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist>\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kXmlEpilogue = "</plist>\n";
constexpr std::size_t kBase64LineLength = 76;

class XmlWriter {
 public:
  bool write(const PropertyList& v, int depth) {
    if (depth > PropertyList::kMaxDepth) return false;
    indent(depth);
    switch (v.type()) {
      case PlistType::None: return false;
      case PlistType::Boolean: out_ += v.booleanValue() ? "<true/>\n" : "<false/>\n"; return true;
      case PlistType::Integer: {
        char buf[24];
        auto r = v.isUnsignedInteger() ? std::to_chars(buf, buf + sizeof buf, v.unsignedValue())
                                       : std::to_chars(buf, buf + sizeof buf, v.integerBits());
        element("integer", std::string_view(buf, static_cast<std::size_t>(r.ptr - buf)));
        return true;
      }
      case PlistType::Real: real(v.realValue()); return true;
      case PlistType::Date: return date(v.dateValue());
      case PlistType::String:
        out_ += "<string>";
        if (!escaped(*v.getString())) return false;
        out_ += "</string>\n";
        return true;
      case PlistType::Data: data(*v.getData(), depth); return true;
      case PlistType::Array: {
        const PlistArray& a = *v.getArray();
        if (a.empty()) {
          out_ += "<array/>\n";
          return true;
        }
        out_ += "<array>\n";
        for (const PropertyList& item : a)
          if (!write(item, depth + 1)) return false;
        indent(depth);
        out_ += "</array>\n";
        return true;
      }
      case PlistType::Dictionary: {
        const PlistDictionary& d = *v.getDictionary();
        if (d.empty()) {
          out_ += "<dict/>\n";
          return true;
        }
        out_ += "<dict>\n";
        for (const auto& [key, item] : d) {
          indent(depth + 1);
          out_ += "<key>";
          if (!escaped(key)) return false;
          out_ += "</key>\n";
          if (!write(item, depth + 1)) return false;
        }
        indent(depth);
        out_ += "</dict>\n";
        return true;
      }
    }
    return false;
  }

  std::string& text() { return out_; }

 private:
  void indent(int depth) { out_.append(static_cast<std::size_t>(depth), '\t'); }

  void element(std::string_view name, std::string_view content) {
    out_ += '<';
    out_ += name;
    out_ += '>';
    out_ += content;
    out_ += "</";
    out_ += name;
    out_ += ">\n";
  }

  void real(double d) {
    if (std::isnan(d)) return element("real", "nan");
    if (std::isinf(d)) return element("real", d > 0 ? "inf" : "-inf");
    char buf[32];
    auto r = std::to_chars(buf, buf + sizeof buf, d);  // shortest text that reads back exactly
    element("real", std::string_view(buf, static_cast<std::size_t>(r.ptr - buf)));
  }

  bool date(double secondsSince2001) {
    if (!(std::fabs(secondsSince2001) < kDateLimit)) return false;
    const auto total = static_cast<std::int64_t>(std::floor(secondsSince2001)) + kDaysTo2001 * kSecondsPerDay;
    std::int64_t days = total / kSecondsPerDay;
    std::int64_t rest = total % kSecondsPerDay;
    if (rest < 0) {
      rest += kSecondsPerDay;
      --days;
    }
    std::int64_t year;
    unsigned month, day;
    civilFromDays(days, year, month, day);
    if (year > kMaxYear || year < -kMaxYear) return false;
    char buf[48];
    const int n = std::snprintf(buf, sizeof buf, "%s%04lld-%02u-%02uT%02u:%02u:%02uZ", year < 0 ? "-" : "",
                                static_cast<long long>(year < 0 ? -year : year), month, day,
                                static_cast<unsigned>(rest / 3600), static_cast<unsigned>(rest / 60 % 60),
                                static_cast<unsigned>(rest % 60));
    element("date", std::string_view(buf, static_cast<std::size_t>(n)));
    return true;
  }

  void data(const Bytes& bytes, int depth) {
    if (bytes.empty()) {
      out_ += "<data></data>\n";
      return;
    }
    out_ += "<data>\n";
    std::string line;
    line.reserve(kBase64LineLength);
    auto flush = [&] {
      indent(depth);
      out_ += line;
      out_ += '\n';
      line.clear();
    };
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
      const std::uint32_t v = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
      line += kBase64Alphabet[v >> 18];
      line += kBase64Alphabet[(v >> 12) & 63];
      line += kBase64Alphabet[(v >> 6) & 63];
      line += kBase64Alphabet[v & 63];
      if (line.size() >= kBase64LineLength) flush();
    }
    if (i < bytes.size()) {
      const bool two = i + 1 < bytes.size();
      const std::uint32_t v = (std::uint32_t{bytes[i]} << 16) | (two ? std::uint32_t{bytes[i + 1]} << 8 : 0);
      line += kBase64Alphabet[v >> 18];
      line += kBase64Alphabet[(v >> 12) & 63];
      line += two ? kBase64Alphabet[(v >> 6) & 63] : '=';
      line += '=';
    }
    if (!line.empty()) flush();
    indent(depth);
    out_ += "</data>\n";
  }

  // Appends s with markup escaped. False for text XML 1.0 cannot carry:
  // invalid UTF-8, control characters other than tab, newline and carriage
  // return, and U+FFFE / U+FFFF.
  bool escaped(std::string_view s) {
    if (!isValidUtf8(s)) return false;
    for (std::size_t i = 0; i < s.size(); ++i) {
      const auto c = static_cast<unsigned char>(s[i]);
      switch (c) {
        case '&': out_ += "&amp;"; break;
        case '<': out_ += "&lt;"; break;
        case '>': out_ += "&gt;"; break;
        case '\r': out_ += "&#13;"; break;  // a raw CR would read back as LF
        case '\t':
        case '\n': out_ += static_cast<char>(c); break;
        default:
          if (c < 0x20) return false;
          if (c == 0xEF && i + 2 < s.size() && static_cast<unsigned char>(s[i + 1]) == 0xBF &&
              (static_cast<unsigned char>(s[i + 2]) & 0xFE) == 0xBE)
            return false;
          out_ += static_cast<char>(c);
      }
    }
    return true;
  }

  std::string out_;
};

}  // namespace

std::optional<std::string> encodeXmlPlist(const PropertyList& value) {
  XmlWriter writer;
  writer.text() += kXmlPrologue;
  if (!writer.write(value, 0)) return std::nullopt;
  writer.text() += kXmlEpilogue;
  return std::move(writer.text());
}

PropertyList decodeXmlPlist(std::span<const std::uint8_t> bytes) {
  try {
    return XmlReader().parse(bytes);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace velmora
