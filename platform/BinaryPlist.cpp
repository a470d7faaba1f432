// Binary property lists (bplist00): a header, the objects, a table of object
// offsets and a 32-byte trailer. Objects refer to each other by index into the
// offset table, so a file is a graph, not a tree: the reader memoises every
// decoded object, refuses cycles and overlapping objects, and bounds depth, so
// that no input can make it hang, recurse without limit or read out of bounds.
#include <algorithm>
#include <bit>
#include <cstring>
#include <forward_list>
#include <functional>
#include <limits>
#include <new>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "velmora/platform/PlistCodec.h"

namespace velmora {

namespace {

constexpr std::uint8_t kMagic[8] = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
constexpr std::size_t kHeaderSize = sizeof kMagic;
constexpr std::size_t kTrailerSize = 32;

// Object markers (high nibble is the type, low nibble a size or count).
constexpr std::uint8_t kMarkerFalse = 0x08;
constexpr std::uint8_t kMarkerTrue = 0x09;
constexpr std::uint8_t kMarkerInt = 0x10;
constexpr std::uint8_t kMarkerReal32 = 0x22;
constexpr std::uint8_t kMarkerReal64 = 0x23;
constexpr std::uint8_t kMarkerDate = 0x33;
constexpr std::uint8_t kMarkerData = 0x40;
constexpr std::uint8_t kMarkerAscii = 0x50;
constexpr std::uint8_t kMarkerUtf16 = 0x60;
constexpr std::uint8_t kMarkerArray = 0xA0;
constexpr std::uint8_t kMarkerDict = 0xD0;
// A low nibble of 0xF means the count follows as an integer object.
constexpr unsigned kExtendedCount = 0xF;

// Smallest number of bytes (1-8) that holds v.
unsigned bytesFor(std::uint64_t v) noexcept {
  unsigned n = 1;
  while (n < 8 && (v >> (8 * n)) != 0) ++n;
  return n;
}

inline std::uint64_t readBigEndian(const std::uint8_t* p, unsigned n) noexcept {
  switch (n) {
    case 1: return p[0];
    case 2: return (std::uint64_t{p[0]} << 8) | p[1];
    case 3: return (std::uint64_t{p[0]} << 16) | (std::uint64_t{p[1]} << 8) | p[2];
    case 4: {
      std::uint32_t v;
      std::memcpy(&v, p, 4);
      return __builtin_bswap32(v);
    }
    case 8: {
      std::uint64_t v;
      std::memcpy(&v, p, 8);
      return __builtin_bswap64(v);
    }
    default: {
      std::uint64_t v = 0;
      for (unsigned i = 0; i < n; ++i) v = (v << 8) | p[i];
      return v;
    }
  }
}

inline std::uint8_t* putBigEndian(std::uint8_t* p, std::uint64_t v, unsigned n) noexcept {
  for (unsigned i = n; i-- > 0;) {
    p[i] = static_cast<std::uint8_t>(v);
    v >>= 8;
  }
  return p + n;
}

bool isAscii(const std::uint8_t* p, std::size_t n) noexcept {
  constexpr std::uint64_t kHighBits = 0x8080808080808080ull;
  if (n < 8) {
    for (std::size_t i = 0; i < n; ++i)
      if (p[i] & 0x80) return false;
    return true;
  }
  // Sixteen bytes a step in vector registers where the target has them.
  using Block = std::uint64_t __attribute__((vector_size(16)));
  Block any = {0, 0};
  std::size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    Block b;
    std::memcpy(&b, p + i, 16);
    any |= b;
  }
  std::uint64_t tail[2] = {0, 0};
  std::memcpy(tail, p + n - 8, 8);  // the rest, overlapping bytes already seen
  if (i + 8 <= n) std::memcpy(tail + 1, p + i, 8);
  return ((any[0] | any[1] | tail[0] | tail[1]) & kHighBits) == 0;
}

// ---------------------------------------------------------------------------
// Reader

// What the reader remembers of a decoded string, data or container: where the
// value now lives (inside its parent, which outlives the decode) and its height.
struct Memo {
  const PropertyList* value;
  std::uint16_t height;
};

// The reader's per-object tables, kept per thread between calls so that a
// decode allocates little beyond the value itself.
struct ReaderScratch {
  std::vector<std::uint64_t> offsets;
  std::vector<std::uint32_t> slots;
  std::vector<Memo> memo;
};

// Tables larger than this are released after use rather than kept.
constexpr std::size_t kScratchKept = std::size_t{1} << 15;

class BinaryReader {
 public:
  BinaryReader(std::span<const std::uint8_t> bytes, ReaderScratch& scratch)
      : data_(bytes.data()),
        size_(bytes.size()),
        offsets_(scratch.offsets),
        slots_(scratch.slots),
        memo_(scratch.memo) {}

  ~BinaryReader() {
    memo_.clear();
    if (offsets_.capacity() > kScratchKept) offsets_ = {};
    if (slots_.capacity() > kScratchKept) slots_ = {};
    if (memo_.capacity() > kScratchKept) memo_ = {};
  }

  PropertyList run() {
    PropertyList result;
    unsigned height = 0;
    if (!readTrailer() || !decode(top_, 0, height, result)) return {};
    return result;
  }

  // The top dictionary's value for key, decoding nothing else; none when
  // the key is absent or anything on the way is malformed.
  PropertyList runEntry(std::string_view wanted) {
    if (!readTrailer()) return {};
    const Location at = locate(top_);
    if ((data_[at.offset] & 0xF0) != kMarkerDict) return {};
    std::size_t pos = at.offset;
    std::uint64_t n = 0;
    if (!readCount(pos, at.limit, n) || n > (at.limit - pos) / (2 * std::uint64_t{refSize_})) return {};
    const std::uint8_t* refs = data_ + pos;
    // Of repeated keys the last wins, as in a full decode.
    for (std::uint64_t i = n; i-- > 0;) {
      std::string_view key;
      if (!keyAt(refAt(refs, i), key)) return {};
      if (key != wanted) continue;
      PropertyList value;
      unsigned height = 0;
      if (!decode(refAt(refs + n * refSize_, i), 1, height, value)) return {};
      return value;
    }
    return {};
  }

 private:
  // Slot states for objects that carry a payload (strings, data, containers).
  static constexpr std::uint32_t kUnseen = 0;
  static constexpr std::uint32_t kBusy = std::numeric_limits<std::uint32_t>::max();
  // An ASCII string already checked as a key (and not decoded as a value).
  static constexpr std::uint32_t kCheckedKey = kBusy - 1;

  // Where one object lives: [offset, limit) is the room up to the next object.
  struct Location {
    std::uint64_t slot;
    std::size_t offset;
    std::size_t limit;
  };

  bool readTrailer() {
    if (size_ < kHeaderSize + 2 + kTrailerSize) return false;
    if (std::memcmp(data_, kMagic, kHeaderSize) != 0) return false;
    const std::uint8_t* t = data_ + size_ - kTrailerSize;
    offsetSize_ = t[6];
    refSize_ = t[7];
    count_ = readBigEndian(t + 8, 8);
    top_ = readBigEndian(t + 16, 8);
    const std::uint64_t tableOffset = readBigEndian(t + 24, 8);
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return false;
    // Slots hold indices as 32-bit values below the markers.
    if (count_ == 0 || count_ >= kCheckedKey || top_ >= count_) return false;
    const std::size_t tableEnd = size_ - kTrailerSize;
    if (tableOffset <= kHeaderSize || tableOffset > tableEnd) return false;
    if ((tableEnd - tableOffset) / offsetSize_ < count_) return false;
    objectsEnd_ = static_cast<std::size_t>(tableOffset);

    // Writers emit objects in index order, so the table normally ascends and
    // each object's room ends where the next begins. Anything else is mapped
    // through a sorted copy; equal offsets share one slot so the object there
    // is decoded once whatever index reaches it.
    offsets_.resize(static_cast<std::size_t>(count_) + 1);
    bool ascending = true;
    switch (offsetSize_) {
      case 1: ascending = readOffsets<1>(); break;
      case 2: ascending = readOffsets<2>(); break;
      case 3: ascending = readOffsets<3>(); break;
      case 4: ascending = readOffsets<4>(); break;
      default: ascending = readOffsets<0>(); break;
    }
    if (offsets_[count_] == 0) return false;  // an offset out of range
    offsets_[count_] = objectsEnd_;           // the end of the last object's room
    if (!ascending) buildOrder();
    slots_.assign(static_cast<std::size_t>(count_), kUnseen);
    // Keys are copied into each dictionary that uses them; this caps the
    // copying a small file of many references to one long key can cause.
    keyBudget_ = std::uint64_t{64} * size_ + (std::uint64_t{64} << 20);
    return true;
  }

  // Reads the offset table into offsets_ (fixed width W, or offsetSize_ when
  // W is 0). Returns whether it ascends; leaves offsets_[count_] zero when an
  // offset falls outside the object area.
  template <unsigned W>
  bool readOffsets() noexcept {
    const std::uint8_t* table = data_ + objectsEnd_;
    const unsigned width = W ? W : offsetSize_;
    std::uint64_t previous = 0;
    bool ascending = true;
    bool inside = true;
    for (std::size_t i = 0; i < count_; ++i) {
      const std::uint64_t offset = readBigEndian(table + i * width, width);
      inside &= offset >= kHeaderSize && offset < objectsEnd_;
      ascending &= offset > previous;
      offsets_[i] = previous = offset;
    }
    offsets_[count_] = inside;
    return ascending;
  }

  void buildOrder() {
    std::vector<std::pair<std::uint64_t, std::uint32_t>> order(static_cast<std::size_t>(count_));
    for (std::uint32_t i = 0; i < count_; ++i) order[i] = {offsets_[i], i};
    std::sort(order.begin(), order.end());
    canonical_.resize(order.size());
    limits_.resize(order.size());
    for (std::size_t i = 0; i < order.size();) {
      std::size_t j = i;
      while (j < order.size() && order[j].first == order[i].first) ++j;
      const std::uint32_t canon = order[i].second;
      for (std::size_t k = i; k < j; ++k) canonical_[order[k].second] = canon;
      limits_[canon] = j < order.size() ? static_cast<std::size_t>(order[j].first) : objectsEnd_;
      i = j;
    }
  }

  std::uint64_t refAt(const std::uint8_t* refs, std::uint64_t i) const noexcept {
    return readBigEndian(refs + i * refSize_, refSize_);
  }

  // Precondition: index < count_.
  Location locate(std::uint64_t index) const noexcept {
    const auto i = static_cast<std::size_t>(index);
    if (canonical_.empty()) {
      return {i, static_cast<std::size_t>(offsets_[i]), static_cast<std::size_t>(offsets_[i + 1])};
    }
    const std::uint32_t canon = canonical_[i];
    return {canon, static_cast<std::size_t>(offsets_[canon]), limits_[canon]};
  }

  // Reads the count in a marker's low nibble, or the integer that follows it.
  // On success pos is just past the count.
  bool readCount(std::size_t& pos, std::size_t limit, std::uint64_t& count) const noexcept {
    const unsigned low = data_[pos] & 0xF;
    ++pos;
    if (low != kExtendedCount) {
      count = low;
      return true;
    }
    if (pos >= limit) return false;
    const std::uint8_t marker = data_[pos];
    if ((marker & 0xF0) != kMarkerInt || (marker & 0xF) > 3) return false;
    const unsigned n = 1u << (marker & 0xF);
    if (limit - pos - 1 < n) return false;
    count = readBigEndian(data_ + pos + 1, n);
    pos += 1 + n;
    return true;
  }

  // Decodes object `index`, found at nesting depth `depth`, into `out`, which
  // must be where the value stays for the rest of the decode (shared objects
  // are later copied from there). height receives the number of container
  // levels below it. False on any fault; the whole decode then stops.
  bool decode(std::uint64_t index, int depth, unsigned& height, PropertyList& out) {
    height = 0;
    if (index >= count_ || depth > PropertyList::kMaxDepth) return false;
    const Location at = locate(index);
    const std::uint8_t marker = data_[at.offset];
    const std::size_t room = at.limit - at.offset - 1;  // bytes after the marker
    const std::uint8_t* p = data_ + at.offset + 1;
    switch (marker >> 4) {
      case 0x0:
        if (marker != kMarkerFalse && marker != kMarkerTrue) return false;
        out = PropertyList::boolean(marker == kMarkerTrue);
        return true;
      case 0x1: {
        const unsigned log = marker & 0xF;
        if (log > 4 || room < (1u << log)) return false;
        if (log < 3) {
          out = PropertyList::integer(static_cast<std::int64_t>(readBigEndian(p, 1u << log)));
        } else if (log == 3) {
          out = PropertyList::integer(static_cast<std::int64_t>(readBigEndian(p, 8)));
        } else {
          // 128-bit: only values that fit 64 bits, signed or unsigned.
          const std::uint64_t high = readBigEndian(p, 8);
          const std::uint64_t low = readBigEndian(p + 8, 8);
          if (high == 0) {
            out = PropertyList::unsignedInteger(low);
          } else if (high == ~std::uint64_t{0} && static_cast<std::int64_t>(low) < 0) {
            out = PropertyList::integer(static_cast<std::int64_t>(low));
          } else {
            return false;
          }
        }
        return true;
      }
      case 0x2:
        if (marker == kMarkerReal32 && room >= 4) {
          out = PropertyList::real(std::bit_cast<float>(static_cast<std::uint32_t>(readBigEndian(p, 4))));
          return true;
        }
        if (marker == kMarkerReal64 && room >= 8) {
          out = PropertyList::real(std::bit_cast<double>(readBigEndian(p, 8)));
          return true;
        }
        return false;
      case 0x3:
        if (marker != kMarkerDate || room < 8) return false;
        out = PropertyList::date(std::bit_cast<double>(readBigEndian(p, 8)));
        return true;
      case 0x4:
      case 0x5:
      case 0x6:
      case 0xA:
      case 0xD:
        break;
      default:
        return false;
    }

    const std::uint32_t state = slots_[at.slot];
    if (state == kBusy) return false;  // a cycle
    if (state != kUnseen && state != kCheckedKey) {
      const Memo& m = memo_[state - 1];
      if (depth + static_cast<int>(m.height) > PropertyList::kMaxDepth) return false;
      height = m.height;
      out = *m.value;
      return true;
    }

    std::size_t pos = at.offset;
    std::uint64_t n = 0;
    if (!readCount(pos, at.limit, n)) return false;
    const std::size_t avail = at.limit - pos;
    const std::uint8_t* body = data_ + pos;
    switch (marker >> 4) {
      case 0x4:
        if (n > avail) return false;
        out = PropertyList::data(Bytes(body, body + n));
        break;
      case 0x5:
        if (n > avail || !isAscii(body, n)) return false;
        out = PropertyList::string(std::string(reinterpret_cast<const char*>(body), n));
        break;
      case 0x6:
        if (n > avail / 2 || !utf16String(body, n, out)) return false;
        break;
      case 0xA:
        if (n > avail / refSize_) return false;
        slots_[at.slot] = kBusy;
        if (!decodeArray(body, n, depth, height, out)) return false;
        break;
      case 0xD:
        if (n > avail / refSize_ / 2) return false;
        slots_[at.slot] = kBusy;
        if (!decodeDictionary(body, n, depth, height, out)) return false;
        break;
    }
    memo_.push_back({&out, static_cast<std::uint16_t>(height)});
    slots_[at.slot] = static_cast<std::uint32_t>(memo_.size());
    return true;
  }

  bool decodeArray(const std::uint8_t* refs, std::uint64_t n, int depth, unsigned& height, PropertyList& out) {
    PlistArray items;
    items.reserve(static_cast<std::size_t>(n));  // exact: items never move once decoded
    unsigned h = 0;
    for (std::uint64_t i = 0; i < n; ++i) {
      unsigned childHeight;
      if (!decode(refAt(refs, i), depth + 1, childHeight, items.emplace_back())) return false;
      h = std::max(h, childHeight + 1);
    }
    height = h;
    out = PropertyList::array(std::move(items));
    return true;
  }

  bool decodeDictionary(const std::uint8_t* refs, std::uint64_t n, int depth, unsigned& height,
                        PropertyList& out) {
    const std::uint8_t* valueRefs = refs + n * refSize_;
    PlistDictionary dict;
    unsigned h = 0;
    // Last entry first: a repeated key then keeps its last value without any
    // value being overwritten (the memo may point at it), and the ascending
    // keys writers emit still insert in constant time, at the front.
    for (std::uint64_t i = n; i-- > 0;) {
      std::string_view key;
      if (!keyAt(refAt(refs, i), key)) return false;
      if (key.size() > keyBudget_) return false;
      keyBudget_ -= key.size();
      const std::size_t before = dict.size();
      auto it = dict.emplace_hint(dict.begin(), std::piecewise_construct, std::forward_as_tuple(key),
                                  std::forward_as_tuple());
      if (dict.size() == before) continue;  // superseded by a later entry
      unsigned childHeight;
      if (!decode(refAt(valueRefs, i), depth + 1, childHeight, it->second)) return false;
      h = std::max(h, childHeight + 1);
    }
    height = h;
    out = PropertyList::dictionary(std::move(dict));
    return true;
  }

  // A dictionary key: a view of the ASCII bytes in place, or of the decoded
  // UTF-16 string, which is memoised like any other.
  bool keyAt(std::uint64_t index, std::string_view& key) {
    if (index >= count_) return false;
    const Location at = locate(index);
    const std::uint8_t marker = data_[at.offset];
    std::uint32_t& state = slots_[at.slot];
    if ((marker & 0xF0) == kMarkerAscii) {
      std::size_t pos = at.offset;
      std::uint64_t n = 0;
      if (!readCount(pos, at.limit, n) || n > at.limit - pos) return false;
      const bool checked = state != kUnseen;  // as a key before, or decoded as a string
      if (!checked) {
        if (!isAscii(data_ + pos, n)) return false;
        state = kCheckedKey;
      }
      key = std::string_view(reinterpret_cast<const char*>(data_ + pos), n);
      return true;
    }
    if ((marker & 0xF0) != kMarkerUtf16) return false;
    const PropertyList* s;
    if (state != kUnseen && state != kBusy && state != kCheckedKey) {
      s = memo_[state - 1].value;
    } else {
      unsigned height;
      PropertyList& home = keys_.emplace_front();
      if (!decode(index, 0, height, home)) return false;
      s = &home;
    }
    key = *s->getString();
    return true;
  }

  static bool utf16String(const std::uint8_t* p, std::uint64_t units, PropertyList& result) {
    std::string out;
    out.reserve(static_cast<std::size_t>(units) * 3);
    for (std::uint64_t i = 0; i < units; ++i) {
      std::uint32_t c = (std::uint32_t{p[2 * i]} << 8) | p[2 * i + 1];
      if (c >= 0xD800 && c <= 0xDFFF) {
        if (c >= 0xDC00 || i + 1 == units) return false;
        const std::uint32_t low = (std::uint32_t{p[2 * i + 2]} << 8) | p[2 * i + 3];
        if (low < 0xDC00 || low > 0xDFFF) return false;
        c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        ++i;
      }
      if (c < 0x80) {
        out.push_back(static_cast<char>(c));
      } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      }
    }
    result = PropertyList::string(std::move(out));
    return true;
  }

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t objectsEnd_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  std::uint64_t keyBudget_ = 0;
  // Only when the offset table does not ascend: index -> slot, slot -> limit.
  std::vector<std::uint32_t> canonical_;
  std::vector<std::size_t> limits_;
  // Every object's offset, and the end of the object area after the last.
  std::vector<std::uint64_t>& offsets_;
  // Per slot: kUnseen, kCheckedKey, kBusy while a container is being decoded,
  // or 1 + its position in memo_.
  std::vector<std::uint32_t>& slots_;
  std::vector<Memo>& memo_;
  // Homes for UTF-16 keys decoded only as keys.
  std::forward_list<PropertyList> keys_;
};

// ---------------------------------------------------------------------------
// Writer

class BinaryWriter {
 public:
  // Collects the objects to write, de-duplicated, and checks the value the
  // way isValidForBinaryFormat does. False when the value cannot be written.
  bool flatten(const PropertyList& top) {
    unsigned height = 0;
    return visit(top, 0, height) != kFailed;
  }

  // Appends the flattened objects; returns the number of bytes appended.
  std::size_t write(Bytes& out) const {
    // The smallest sizes readers accept: references wide enough to count
    // every object, offsets wide enough for the table's own offset.
    const std::uint64_t count = objects_.size();
    const unsigned refSize = bytesFor(count);
    std::uint64_t objectBytes = 0;
    for (const Object& o : objects_) objectBytes += sizeOf(o, refSize);
    const std::uint64_t tableOffset = kHeaderSize + objectBytes;
    const unsigned offsetSize = bytesFor(tableOffset);
    const std::size_t total = static_cast<std::size_t>(tableOffset + count * offsetSize + kTrailerSize);

    const std::size_t base = out.size();
    out.resize(base + total);
    std::uint8_t* const start = out.data() + base;
    std::uint8_t* p = start;
    std::memcpy(p, kMagic, kHeaderSize);
    p += kHeaderSize;
    std::uint8_t* table = start + tableOffset;
    for (const Object& o : objects_) {
      table = putBigEndian(table, static_cast<std::uint64_t>(p - start), offsetSize);
      p = writeObject(p, o, refSize);
    }
    std::memset(table, 0, 6);
    table[6] = static_cast<std::uint8_t>(offsetSize);
    table[7] = static_cast<std::uint8_t>(refSize);
    table = putBigEndian(table + 8, count, 8);
    table = putBigEndian(table, 0, 8);  // the top object is always first
    putBigEndian(table, tableOffset, 8);
    return total;
  }

 private:
  enum class Kind : std::uint8_t { False, True, Int, UInt, Real, Date, String, Data, Array, Dict };

  struct Object {
    const void* ptr;     // string bytes, or the Bytes / PlistArray / PlistDictionary
    std::uint64_t bits;  // scalars: the value's bits; strings: byte length
    std::uint64_t aux;   // containers: first ref in refs_; non-ASCII strings: UTF-16 units
    std::uint16_t height;
    Kind kind;
    bool ascii;
  };

  static constexpr std::uint32_t kFailed = std::numeric_limits<std::uint32_t>::max();
  static constexpr std::uint16_t kVisiting = std::numeric_limits<std::uint16_t>::max();

  static std::size_t countHeaderSize(std::uint64_t n) noexcept {
    if (n < kExtendedCount) return 1;
    return 2 + (std::size_t{1} << std::bit_width(bytesFor(n) - 1));
  }

  static std::uint8_t* putCountHeader(std::uint8_t* p, std::uint8_t marker, std::uint64_t n) noexcept {
    if (n < kExtendedCount) {
      *p++ = static_cast<std::uint8_t>(marker | n);
      return p;
    }
    *p++ = static_cast<std::uint8_t>(marker | kExtendedCount);
    const unsigned log = static_cast<unsigned>(std::bit_width(bytesFor(n) - 1));
    *p++ = static_cast<std::uint8_t>(kMarkerInt | log);
    return putBigEndian(p, n, 1u << log);
  }

  static unsigned intBytes(std::uint64_t bits) noexcept {
    // Non-negative values by size; negatives (high bit set) always take 8.
    if (bits < (1u << 8)) return 1;
    if (bits < (1u << 16)) return 2;
    if (bits < (std::uint64_t{1} << 32)) return 4;
    return 8;
  }

  std::size_t sizeOf(const Object& o, unsigned refSize) const noexcept {
    switch (o.kind) {
      case Kind::False:
      case Kind::True: return 1;
      case Kind::Int: return 1 + intBytes(o.bits);
      case Kind::UInt: return 17;
      case Kind::Real:
      case Kind::Date: return 9;
      case Kind::String:
        return o.ascii ? countHeaderSize(o.bits) + o.bits : countHeaderSize(o.aux) + 2 * o.aux;
      case Kind::Data: return countHeaderSize(o.bits) + o.bits;
      case Kind::Array: return countHeaderSize(o.bits) + o.bits * refSize;
      case Kind::Dict: return countHeaderSize(o.bits) + 2 * o.bits * refSize;
    }
    return 0;
  }

  std::uint8_t* writeObject(std::uint8_t* p, const Object& o, unsigned refSize) const noexcept {
    switch (o.kind) {
      case Kind::False: *p++ = kMarkerFalse; return p;
      case Kind::True: *p++ = kMarkerTrue; return p;
      case Kind::Int: {
        const unsigned n = intBytes(o.bits);
        *p++ = static_cast<std::uint8_t>(kMarkerInt | std::bit_width(n - 1));
        return putBigEndian(p, o.bits, n);
      }
      case Kind::UInt:
        // 128-bit form with a zero high half: the only way to say "unsigned".
        *p++ = kMarkerInt | 4;
        p = putBigEndian(p, 0, 8);
        return putBigEndian(p, o.bits, 8);
      case Kind::Real:
        *p++ = kMarkerReal64;
        return putBigEndian(p, o.bits, 8);
      case Kind::Date:
        *p++ = kMarkerDate;
        return putBigEndian(p, o.bits, 8);
      case Kind::String: {
        const auto* s = static_cast<const std::uint8_t*>(o.ptr);
        if (o.ascii) {
          p = putCountHeader(p, kMarkerAscii, o.bits);
          if (o.bits) std::memcpy(p, s, o.bits);
          return p + o.bits;
        }
        p = putCountHeader(p, kMarkerUtf16, o.aux);
        return putUtf16(p, s, s + o.bits);
      }
      case Kind::Data: {
        const Bytes& d = *static_cast<const Bytes*>(o.ptr);
        p = putCountHeader(p, kMarkerData, d.size());
        if (!d.empty()) std::memcpy(p, d.data(), d.size());
        return p + d.size();
      }
      case Kind::Array:
      case Kind::Dict: {
        const std::uint64_t refs = o.kind == Kind::Array ? o.bits : 2 * o.bits;
        p = putCountHeader(p, o.kind == Kind::Array ? kMarkerArray : kMarkerDict, o.bits);
        const std::uint32_t* r = refs_.data() + o.aux;
        if (refSize == 1) {
          for (std::uint64_t i = 0; i < refs; ++i) *p++ = static_cast<std::uint8_t>(r[i]);
        } else {
          for (std::uint64_t i = 0; i < refs; ++i) p = putBigEndian(p, r[i], refSize);
        }
        return p;
      }
    }
    return p;
  }

  // Converts valid UTF-8 to big-endian UTF-16.
  static std::uint8_t* putUtf16(std::uint8_t* p, const std::uint8_t* s, const std::uint8_t* end) noexcept {
    while (s < end) {
      std::uint32_t c = *s;
      if (c < 0x80) {
        ++s;
      } else if (c < 0xE0) {
        c = ((c & 0x1F) << 6) | (s[1] & 0x3F);
        s += 2;
      } else if (c < 0xF0) {
        c = ((c & 0x0F) << 12) | ((s[1] & 0x3F) << 6) | (s[2] & 0x3F);
        s += 3;
      } else {
        c = ((c & 0x07) << 18) | ((s[1] & 0x3F) << 12) | ((s[2] & 0x3F) << 6) | (s[3] & 0x3F);
        s += 4;
        c -= 0x10000;
        const std::uint32_t high = 0xD800 + (c >> 10);
        *p++ = static_cast<std::uint8_t>(high >> 8);
        *p++ = static_cast<std::uint8_t>(high);
        c = 0xDC00 + (c & 0x3FF);
      }
      *p++ = static_cast<std::uint8_t>(c >> 8);
      *p++ = static_cast<std::uint8_t>(c);
    }
    return p;
  }

  // --- de-duplication: open addressing over object indices ----------------

  static std::uint64_t mix(std::uint64_t x) noexcept {
    x ^= x >> 30;
    x *= 0xbf58476d1ce4e5b9ull;
    x ^= x >> 27;
    x *= 0x94d049bb133111ebull;
    return x ^ (x >> 31);
  }

  // Finds the object that `same` accepts, or the empty slot where it belongs.
  // Slots hold 1 + object index.
  template <typename Same>
  std::uint32_t* probe(std::uint64_t hash, Same same) noexcept {
    if ((objects_.size() + 1) * 2 > table_.size()) grow();
    const std::size_t mask = table_.size() - 1;
    const auto shortHash = static_cast<std::uint32_t>(hash);
    for (std::size_t i = static_cast<std::size_t>(hash) & mask;; i = (i + 1) & mask) {
      std::uint32_t& slot = table_[i].index;
      if (slot == 0) {
        table_[i].hash = shortHash;
        return &slot;
      }
      if (table_[i].hash == shortHash && same(objects_[slot - 1])) return &slot;
    }
  }

  std::uint32_t* probeIdentity(Kind kind, const void* ptr) noexcept {
    return probe(mix(reinterpret_cast<std::uintptr_t>(ptr)),
                 [&](const Object& o) { return o.kind == kind && o.ptr == ptr; });
  }

  void grow() {
    std::vector<Entry> old = std::move(table_);
    table_.assign(std::max<std::size_t>(64, old.size() * 2), Entry{});
    const std::size_t mask = table_.size() - 1;
    for (const Entry& e : old) {
      if (e.index == 0) continue;
      std::size_t i = e.hash & mask;
      while (table_[i].index != 0) i = (i + 1) & mask;
      table_[i] = e;
    }
  }

  std::uint32_t add(std::uint32_t* slot, Object o) {
    if (objects_.size() >= kFailed - 1) return kFailed;  // references are 32-bit here
    objects_.push_back(o);
    *slot = static_cast<std::uint32_t>(objects_.size());
    return *slot - 1;
  }

  std::uint32_t scalar(Kind kind, std::uint64_t bits) {
    std::uint32_t* slot = probe(mix(bits ^ (std::uint64_t{static_cast<std::uint8_t>(kind)} << 59)),
                                [&](const Object& o) { return o.kind == kind && o.bits == bits; });
    if (*slot) return *slot - 1;
    return add(slot, Object{nullptr, bits, 0, 0, kind, false});
  }

  std::uint32_t string(std::string_view s) {
    const std::uint64_t hash = std::hash<std::string_view>{}(s);
    std::uint32_t* slot = probe(hash, [&](const Object& o) {
      return o.kind == Kind::String && o.bits == s.size() && std::memcmp(o.ptr, s.data(), s.size()) == 0;
    });
    if (*slot) return *slot - 1;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(s.data());
    Object o{s.data(), s.size(), 0, 0, Kind::String, isAscii(bytes, s.size())};
    if (!o.ascii) {
      if (!isValidUtf8(s)) return kFailed;
      // One unit per character, two for the four-byte ones.
      std::uint64_t units = 0;
      for (unsigned char c : s) units += (c & 0xC0) != 0x80 ? (c >= 0xF0 ? 2 : 1) : 0;
      o.aux = units;
    }
    return add(slot, o);
  }

  std::uint32_t visit(const PropertyList& v, int depth, unsigned& height) {
    height = 0;
    if (depth > PropertyList::kMaxDepth) return kFailed;
    switch (v.type()) {
      case PlistType::None: return kFailed;
      case PlistType::Boolean: return scalar(v.booleanValue() ? Kind::True : Kind::False, 0);
      case PlistType::Integer:
        return scalar(v.isUnsignedInteger() ? Kind::UInt : Kind::Int, static_cast<std::uint64_t>(v.integerBits()));
      case PlistType::Real: return scalar(Kind::Real, std::bit_cast<std::uint64_t>(v.realValue()));
      case PlistType::Date: return scalar(Kind::Date, std::bit_cast<std::uint64_t>(v.dateValue()));
      case PlistType::String: return string(*v.getString());
      case PlistType::Data: {
        const Bytes* d = v.getData();
        std::uint32_t* slot = probeIdentity(Kind::Data, d);
        if (*slot) return *slot - 1;
        return add(slot, Object{d, d->size(), 0, 0, Kind::Data, false});
      }
      case PlistType::Array: return container(v.getArray(), Kind::Array, depth, height);
      case PlistType::Dictionary: return container(v.getDictionary(), Kind::Dict, depth, height);
    }
    return kFailed;
  }

  // Arrays and dictionaries shared by several parents are written once; the
  // depth check then uses the height recorded on the first visit.
  template <typename C>
  std::uint32_t container(const C* c, Kind kind, int depth, unsigned& height) {
    std::uint32_t* slot = probeIdentity(kind, c);
    if (*slot) {
      const Object& o = objects_[*slot - 1];
      if (o.height == kVisiting || depth + o.height > PropertyList::kMaxDepth) return kFailed;
      height = o.height;
      return *slot - 1;
    }
    const std::uint64_t n = c->size();
    const std::size_t first = refs_.size();
    const std::uint32_t self = add(slot, Object{c, n, first, kVisiting, kind, false});
    if (self == kFailed) return kFailed;
    refs_.resize(first + (kind == Kind::Dict ? 2 * n : n));
    unsigned h = 0;
    std::size_t i = first;
    if constexpr (std::is_same_v<C, PlistArray>) {
      for (const PropertyList& item : *c) {
        unsigned childHeight;
        const std::uint32_t ref = visit(item, depth + 1, childHeight);
        if (ref == kFailed) return kFailed;
        refs_[i++] = ref;
        h = std::max(h, childHeight + 1);
      }
    } else {
      for (const auto& entry : *c) {
        const std::uint32_t ref = string(entry.first);
        if (ref == kFailed) return kFailed;
        refs_[i++] = ref;
      }
      for (const auto& entry : *c) {
        unsigned childHeight;
        const std::uint32_t ref = visit(entry.second, depth + 1, childHeight);
        if (ref == kFailed) return kFailed;
        refs_[i++] = ref;
        h = std::max(h, childHeight + 1);
      }
    }
    objects_[self].height = static_cast<std::uint16_t>(h);
    height = h;
    return self;
  }

  struct Entry {
    std::uint32_t hash = 0;
    std::uint32_t index = 0;
  };

  std::vector<Object> objects_;
  std::vector<std::uint32_t> refs_;
  std::vector<Entry> table_;
};

}  // namespace

std::size_t appendBinaryPlist(const PropertyList& value, Bytes& out) {
  BinaryWriter writer;
  if (!writer.flatten(value)) return 0;
  return writer.write(out);
}

std::optional<Bytes> encodeBinaryPlist(const PropertyList& value) {
  Bytes out;
  if (appendBinaryPlist(value, out) == 0) return std::nullopt;
  return out;
}

PropertyList decodeBinaryPlist(std::span<const std::uint8_t> bytes) {
  thread_local ReaderScratch scratch;
  try {
    return BinaryReader(bytes, scratch).run();
  } catch (const std::bad_alloc&) {
    return {};  // a (valid or forged) count too large for memory
  }
}

PropertyList decodeBinaryPlistEntry(std::span<const std::uint8_t> bytes, std::string_view key) {
  thread_local ReaderScratch scratch;
  try {
    return BinaryReader(bytes, scratch).runEntry(key);
  } catch (const std::bad_alloc&) {
    return {};
  }
}

}  // namespace velmora
