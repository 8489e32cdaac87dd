// Kesto::String: the family's string value.
//
// Three forms share one 24-byte layout:
//  - short: up to 22 bytes held in place, no allocation at all;
//  - deduplicated: a pointer into the process-wide interning table, whose
//    entries are never freed, so copies are plain 24-byte copies;
//  - ordinary: an owned heap buffer, copied on copy.
// Names of tasks, schedulers and handlers are deduplicated once when they are
// made, so that the run path copies them without allocating. Every form keeps
// a terminating NUL, so data() can go to C interfaces. Sizes are 32 bits.
//
// Modifying a string (addRight, addLeft, assignment) gives a short or an
// ordinary string; the interned text is never written. A String object is
// for one thread at a time; deduplicated texts may be shared by all.
//
// Layout: bytes 0..22 hold the short text (and its NUL); for the heap forms
// bytes 0..7 are the pointer, 8..11 the size, 12..15 the capacity. Byte 23 is
// the tag: the short size in its low 5 bits, the form in its top 2 bits.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/Types.h>

#include <fmt/format.h>

#include <compare>
#include <cstddef>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Kesto {

class KESTO_CORE_EXPORT String {
public:
  using size_type = U32;
  static constexpr U32 npos = ~U32(0);
  static constexpr U32 shortCapacity = 22;

  enum class Form : U8 { shortForm = 0, ordinaryForm = 1, dedupForm = 2 };

  String() noexcept { setShortSize(0); }
  String(const char* text) : String(text ? std::string_view(text) : std::string_view()) {}
  String(const char* text, U32 size) : String(std::string_view(text, size)) {}
  String(std::string_view text) { initFrom(text); }
  String(const std::string& text) : String(std::string_view(text)) {}
  String(std::nullptr_t) = delete;

  // Copying a short or deduplicated string is a 24-byte copy; only the
  // ordinary form allocates.
  String(const String& other) {
    if (other.form() == Form::ordinaryForm) [[unlikely]]
      initFrom(other.view());
    else
      std::memcpy(bytes_, other.bytes_, sizeof bytes_);
  }
  String(String&& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.setShortSize(0);
  }
  ~String() { freeHeap(); }

  String& operator=(const String& other) {
    if (this != &other) {
      if (other.form() == Form::ordinaryForm) {
        assign(other.view());
      } else {
        freeHeap();
        std::memcpy(bytes_, other.bytes_, sizeof bytes_);
      }
    }
    return *this;
  }
  String& operator=(String&& other) noexcept {
    if (this != &other) {
      freeHeap();
      std::memcpy(bytes_, other.bytes_, sizeof bytes_);
      other.setShortSize(0);
    }
    return *this;
  }
  String& operator=(std::string_view text) {
    assign(text);
    return *this;
  }
  String& operator=(const char* text) { return *this = std::string_view(text ? text : ""); }

  // --- observers ---------------------------------------------------------
  U32 size() const noexcept { return isShort() ? tag() & sizeMask : heapSize(); }
  U32 length() const noexcept { return size(); }
  bool empty() const noexcept { return size() == 0; }
  const char* data() const noexcept { return isShort() ? bytes_ : heapData(); }
  const char* c_str() const noexcept { return data(); }
  std::string_view view() const noexcept { return {data(), size()}; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }
  char operator[](U32 i) const noexcept { return data()[i]; }
  const char* begin() const noexcept { return data(); }
  const char* end() const noexcept { return data() + size(); }

  Form form() const noexcept { return static_cast<Form>(tag() >> formShift); }
  bool isShort() const noexcept { return form() == Form::shortForm; }
  bool isDedup() const noexcept { return form() == Form::dedupForm; }
  bool isOrdinary() const noexcept { return form() == Form::ordinaryForm; }
  // True when a copy of this value can never allocate: the short and the
  // deduplicated forms.
  bool copyIsFree() const noexcept { return !isOrdinary(); }

  // --- deduplication -----------------------------------------------------
  // A copy whose copies never allocate. A short text stays short (it is
  // already free to copy); a longer one is interned in the process-wide table
  // once and shared from then on. Thread-safe; finding a text that is
  // already interned takes no lock and allocates nothing. The table only
  // grows, so deduplicate names (a bounded set), not arbitrary data.
  String dedup() const;
  static String dedup(std::string_view text);
  // Number of distinct texts interned so far, for tests and statistics.
  static std::size_t dedupTableSize();

  // --- search and parts --------------------------------------------------
  U32 find(std::string_view needle, U32 pos = 0) const noexcept;
  U32 find(char c, U32 pos = 0) const noexcept;
  U32 rfind(char c, U32 pos = npos) const noexcept;
  String substr(U32 pos, U32 count = npos) const;
  bool startsWith(std::string_view prefix) const noexcept { return view().starts_with(prefix); }
  bool endsWith(std::string_view suffix) const noexcept { return view().ends_with(suffix); }

  int compare(std::string_view other) const noexcept {
    int c = view().compare(other);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
  }

  // --- modification (the result is short or ordinary) ---------------------
  String& addRight(std::string_view text);
  String& addLeft(std::string_view text);
  String& operator+=(std::string_view text) { return addRight(text); }
  String& operator+=(char c) { return addRight(std::string_view(&c, 1)); }
  void clear() noexcept {
    freeHeap();
    setShortSize(0);
  }
  // Empties the string but keeps the heap buffer of the ordinary form, so
  // that a buffer filled and drained over and over (a report's output
  // between writes) is allocated once, not once per fill. The other forms
  // have no buffer of their own and become the empty short string.
  void clearKeepingCapacity() noexcept {
    if (!isOrdinary()) {
      setShortSize(0);
      return;
    }
    ownedData()[0] = '\0';
    setHeap(heapData(), 0, heapCapacity(), Form::ordinaryForm);
  }
  // Bytes the string can hold without allocating.
  U32 capacity() const noexcept { return isOrdinary() ? heapCapacity() : isShort() ? shortCapacity : size(); }

  friend bool operator==(const String& a, const String& b) noexcept {
    // Two deduplicated strings are equal exactly when they share storage.
    if (a.isDedup() && b.isDedup())
      return a.heapData() == b.heapData();
    return a.view() == b.view();
  }
  friend bool operator==(const String& a, std::string_view b) noexcept { return a.view() == b; }
  friend bool operator==(const String& a, const char* b) noexcept {
    return a.view() == std::string_view(b ? b : "");
  }
  friend std::strong_ordering operator<=>(const String& a, const String& b) noexcept {
    return a.view() <=> b.view();
  }
  friend std::strong_ordering operator<=>(const String& a, std::string_view b) noexcept {
    return a.view() <=> b;
  }

  friend String operator+(const String& a, std::string_view b) {
    String r(a);
    r.addRight(b);
    return r;
  }

  // The same value for equal texts whatever their forms.
  std::size_t hash() const noexcept;

  void swap(String& other) noexcept {
    char tmp[sizeof bytes_];
    std::memcpy(tmp, bytes_, sizeof bytes_);
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    std::memcpy(other.bytes_, tmp, sizeof bytes_);
  }
  friend void swap(String& a, String& b) noexcept { a.swap(b); }

private:
  static constexpr U8 sizeMask = 0x1f;
  static constexpr int formShift = 6;
  static constexpr int tagIndex = 23;

  U8 tag() const noexcept { return static_cast<U8>(bytes_[tagIndex]); }
  void setTag(U8 t) noexcept { bytes_[tagIndex] = static_cast<char>(t); }
  void setShortSize(U32 n) noexcept {
    bytes_[n] = '\0';
    setTag(static_cast<U8>(n));
  }
  const char* heapData() const noexcept {
    const char* p;
    std::memcpy(&p, bytes_, sizeof p);
    return p;
  }
  char* ownedData() const noexcept { return const_cast<char*>(heapData()); }
  U32 heapSize() const noexcept {
    U32 n;
    std::memcpy(&n, bytes_ + 8, sizeof n);
    return n;
  }
  U32 heapCapacity() const noexcept {
    U32 n;
    std::memcpy(&n, bytes_ + 12, sizeof n);
    return n;
  }
  void setHeap(const char* p, U32 size, U32 capacity, Form f) noexcept {
    std::memcpy(bytes_, &p, sizeof p);
    std::memcpy(bytes_ + 8, &size, sizeof size);
    std::memcpy(bytes_ + 12, &capacity, sizeof capacity);
    setTag(static_cast<U8>(static_cast<U8>(f) << formShift));
  }
  // Frees the buffer of the ordinary form; inline, because the other forms,
  // the common case on hot paths, have nothing to free.
  void freeHeap() noexcept {
    if (isOrdinary()) [[unlikely]]
      freeOrdinary();
  }
  void freeOrdinary() noexcept;
  // Fills a string under construction: reads nothing of the current bytes.
  void initFrom(std::string_view text);
  void assign(std::string_view text);
  void reserveOrdinary(U32 capacity);
  static String fromInterned(const char* p, U32 size) noexcept;

  alignas(8) char bytes_[24];
};

static_assert(sizeof(String) == 24, "String must stay three words");
static_assert(String::shortCapacity + 1 < 24, "the short text and its NUL must leave the tag byte free");

// The name under which callers ask for the deduplicated form
// (StringCommon::dedup); it is the same class.
using StringCommon = String;

inline std::ostream& operator<<(std::ostream& os, const String& s) {
  return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

} // namespace Kesto

template <>
struct std::hash<Kesto::String> {
  std::size_t operator()(const Kesto::String& s) const noexcept { return s.hash(); }
};

namespace Kesto {
// Boost containers find this by argument-dependent lookup.
inline std::size_t hash_value(const String& s) noexcept { return s.hash(); }
} // namespace Kesto

namespace ZuFmt::Detail {
// Writes a String's text to a format output; the formatter below uses it, so
// that every "{}" of a String formats alike.
KESTO_CORE_EXPORT fmt::format_context::iterator formatKestoString(const Kesto::String& s, fmt::format_context& ctx);
} // namespace ZuFmt::Detail

template <>
struct fmt::formatter<Kesto::String> : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::String& s, fmt::format_context& ctx) const {
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), ctx);
  }
};
