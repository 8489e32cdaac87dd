#include <Kesto/Core/String.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>

namespace Kesto {

namespace {

[[noreturn]] void outOfMemory() { throw std::bad_alloc(); }

char* allocateChars(U32 capacity) {
  auto* p = static_cast<char*>(std::malloc(std::size_t(capacity) + 1));
  if (!p)
    outOfMemory();
  return p;
}

// A fast byte hash for the interning table and String::hash: sixteen bytes
// a step, each step one 64x64->128 multiplication whose halves are folded
// together, so that every input bit reaches every output bit within a step or
// two. Names are not chosen by an adversary, so speed comes first. It is
// private to this file; the family's stable hash, the one that may be stored
// or compared across processes, is Impl::HashMix.
inline U64 fold(U64 a, U64 b) noexcept {
  const unsigned __int128 r = static_cast<unsigned __int128>(a) * b;
  return static_cast<U64>(r) ^ static_cast<U64>(r >> 64);
}

inline U64 load64(const char* p) noexcept {
  U64 w;
  std::memcpy(&w, p, 8);
  return w;
}

U64 fastHash(const char* p, std::size_t n) noexcept {
  constexpr U64 k0 = 0x9e3779b97f4a7c15ull, k1 = 0xbf58476d1ce4e5b9ull, k2 = 0x94d049bb133111ebull;
  U64 acc = k0 ^ U64(n);
  std::size_t left = n;
  while (left > 16) {
    acc = fold(load64(p) ^ k1, load64(p + 8) ^ acc);
    p += 16;
    left -= 16;
  }
  // The last 1 to 16 bytes, as two words that may overlap (the length is
  // already in the state, so the overlap is no ambiguity).
  U64 a = 0, b = 0;
  if (left >= 8) {
    a = load64(p);
    b = load64(p + left - 8);
  } else if (left > 0) {
    std::memcpy(&a, p, left);
  }
  acc = fold(a ^ k1, b ^ acc);
  return fold(acc ^ k2, U64(n) ^ k0);
}

// One interned text. Its hash is kept beside it, so that probing compares
// hashes before bytes and a deduplicated String hashes without reading its
// text.
struct InternedEntry {
  U64 hash;
  U32 size;
  char text[4]; // really size + 1 bytes

  static const InternedEntry* of(const char* text) noexcept {
    return reinterpret_cast<const InternedEntry*>(text - offsetof(InternedEntry, text));
  }
};

// The interning table. Texts are copied into chunks that are never freed, so
// a deduplicated String stays valid for the life of the process, across
// threads, and needs no count.
//
// Finding a text that is already there takes no lock: the table is an open
// addressing array of atomic entry pointers, written only under the mutex and
// published with release stores after the entry is complete. A table that
// grows is replaced by a larger copy; the old array is kept (never freed), so
// that a reader still probing it stays safe, and at worst misses an entry
// added since, which sends it to the locked path where it finds it.
class DedupTable {
public:
  static DedupTable& instance() {
    // Never destroyed: strings deduplicated by static objects may be read
    // during process exit.
    static auto* table = new DedupTable;
    return *table;
  }

  // Returns the stored copy of `text` (NUL-terminated, never freed).
  const char* intern(std::string_view text) {
    const U64 h = fastHash(text.data(), text.size());
    if (const Entry* e = lookup(table_.load(std::memory_order_acquire), h, text)) [[likely]]
      return e->text;
    std::lock_guard<std::mutex> guard(mutex_);
    Table* t = table_.load(std::memory_order_relaxed);
    if (const Entry* e = lookup(t, h, text))
      return e->text;
    if ((count_ + 1) * 2 > t->mask + 1)
      t = grow(t);
    const Entry* e = makeEntry(h, text);
    insert(t, e);
    ++count_;
    return e->text;
  }

  std::size_t size() {
    std::lock_guard<std::mutex> guard(mutex_);
    return count_;
  }

private:
  using Entry = InternedEntry;

  struct Table {
    Table* retired; // the table this one replaced, kept for late readers
    std::size_t mask;
    std::atomic<const Entry*> slots[1]; // really mask + 1
  };

  static constexpr std::size_t initialSlots = 1024;
  static constexpr std::size_t chunkSize = 64 * 1024;

  DedupTable() : table_(newTable(initialSlots)) {}

  static const Entry* lookup(const Table* t, U64 h, std::string_view text) noexcept {
    for (std::size_t i = h & t->mask;; i = (i + 1) & t->mask) {
      const Entry* e = t->slots[i].load(std::memory_order_acquire);
      if (!e)
        return nullptr;
      if (e->hash == h && e->size == text.size() && std::memcmp(e->text, text.data(), text.size()) == 0)
        return e;
    }
  }

  static void insert(Table* t, const Entry* e) noexcept {
    std::size_t i = e->hash & t->mask;
    while (t->slots[i].load(std::memory_order_relaxed))
      i = (i + 1) & t->mask;
    t->slots[i].store(e, std::memory_order_release);
  }

  static Table* newTable(std::size_t slots) {
    const std::size_t bytes = sizeof(Table) + (slots - 1) * sizeof(std::atomic<const Entry*>);
    void* memory = std::calloc(1, bytes);
    if (!memory)
      outOfMemory();
    auto* t = static_cast<Table*>(memory);
    t->retired = nullptr;
    t->mask = slots - 1;
    for (std::size_t i = 0; i < slots; ++i)
      new (&t->slots[i]) std::atomic<const Entry*>(nullptr);
    return t;
  }

  Table* grow(Table* old) {
    Table* t = newTable((old->mask + 1) * 2);
    t->retired = old;
    for (std::size_t i = 0; i <= old->mask; ++i)
      if (const Entry* e = old->slots[i].load(std::memory_order_relaxed))
        insert(t, e);
    table_.store(t, std::memory_order_release);
    return t; // `old` stays, linked from `t`: readers may still be probing it
  }

  const Entry* makeEntry(U64 h, std::string_view text) {
    const std::size_t need = (offsetof(Entry, text) + text.size() + 1 + 7) & ~std::size_t(7);
    void* memory;
    if (need > chunkSize / 4) {
      memory = std::malloc(need); // large texts get their own block
      if (!memory)
        outOfMemory();
    } else {
      if (need > left_) {
        cursor_ = static_cast<char*>(std::malloc(chunkSize));
        if (!cursor_)
          outOfMemory();
        left_ = chunkSize;
      }
      memory = cursor_;
      cursor_ += need;
      left_ -= need;
    }
    auto* e = static_cast<Entry*>(memory);
    e->hash = h;
    e->size = static_cast<U32>(text.size());
    // The text runs past the declared array, into the rest of the block.
    char* stored = static_cast<char*>(memory) + offsetof(Entry, text);
    std::memcpy(stored, text.data(), text.size());
    stored[text.size()] = '\0';
    return e;
  }

  std::atomic<Table*> table_;
  std::mutex mutex_;
  std::size_t count_ = 0;
  char* cursor_ = nullptr;
  std::size_t left_ = 0;
};

} // namespace

void String::freeOrdinary() noexcept { std::free(ownedData()); }

void String::initFrom(std::string_view text) {
  const U32 n = static_cast<U32>(text.size());
  if (n <= shortCapacity) {
    if (n) // an empty view may carry a null pointer, which memcpy must not get
      std::memcpy(bytes_, text.data(), n);
    setShortSize(n);
    return;
  }
  char* p = allocateChars(n);
  std::memcpy(p, text.data(), n);
  p[n] = '\0';
  setHeap(p, n, n, Form::ordinaryForm);
}

void String::assign(std::string_view text) {
  const U32 n = static_cast<U32>(text.size());
  if (n <= shortCapacity) {
    // The text may live inside this very string (substr of self, say), so
    // copy it out before the old buffer goes.
    char tmp[shortCapacity + 1];
    if (n)
      std::memcpy(tmp, text.data(), n);
    freeHeap();
    if (n)
      std::memcpy(bytes_, tmp, n);
    setShortSize(n);
    return;
  }
  if (isOrdinary() && heapCapacity() >= n && !(text.data() >= heapData() && text.data() < heapData() + heapSize())) {
    char* p = ownedData();
    std::memcpy(p, text.data(), n);
    p[n] = '\0';
    setHeap(p, n, heapCapacity(), Form::ordinaryForm);
    return;
  }
  char* p = allocateChars(n);
  std::memcpy(p, text.data(), n);
  p[n] = '\0';
  freeHeap();
  setHeap(p, n, n, Form::ordinaryForm);
}

void String::reserveOrdinary(U32 capacity) {
  // Turns any form into an ordinary string with room for `capacity` bytes.
  if (isOrdinary() && heapCapacity() >= capacity)
    return;
  const U32 n = size();
  char* p = allocateChars(capacity);
  std::memcpy(p, data(), n);
  p[n] = '\0';
  freeHeap();
  setHeap(p, n, capacity, Form::ordinaryForm);
}

String& String::addRight(std::string_view text) {
  const U32 n = size();
  const U32 add = static_cast<U32>(text.size());
  const U32 total = n + add;
  if (add == 0)
    return *this;
  if (total <= shortCapacity && isShort()) {
    std::memmove(bytes_ + n, text.data(), add);
    setShortSize(total);
    return *this;
  }
  if (!(isOrdinary() && heapCapacity() >= total)) {
    const char* own = data();
    if (text.data() >= own && text.data() < own + n + 1) {
      // The text is part of this string: keep it alive across the move.
      String keep(text);
      reserveOrdinary(std::max<U32>(total, n + n / 2));
      return addRight(keep.view());
    }
    reserveOrdinary(std::max<U32>(total, n + n / 2));
  }
  char* p = ownedData();
  std::memmove(p + n, text.data(), add);
  p[total] = '\0';
  setHeap(p, total, heapCapacity(), Form::ordinaryForm);
  return *this;
}

String& String::addLeft(std::string_view text) {
  String joined(text);
  joined.addRight(view());
  *this = std::move(joined);
  return *this;
}

U32 String::find(std::string_view needle, U32 pos) const noexcept {
  auto r = view().find(needle, pos);
  return r == std::string_view::npos ? npos : static_cast<U32>(r);
}

U32 String::find(char c, U32 pos) const noexcept {
  auto r = view().find(c, pos);
  return r == std::string_view::npos ? npos : static_cast<U32>(r);
}

U32 String::rfind(char c, U32 pos) const noexcept {
  auto r = view().rfind(c, pos == npos ? std::string_view::npos : pos);
  return r == std::string_view::npos ? npos : static_cast<U32>(r);
}

String String::substr(U32 pos, U32 count) const {
  const U32 n = size();
  if (pos >= n)
    return String();
  return String(view().substr(pos, count));
}

String String::fromInterned(const char* p, U32 size) noexcept {
  String s;
  s.setHeap(p, size, size, Form::dedupForm);
  return s;
}

String String::dedup() const {
  if (!isOrdinary())
    return *this;
  return dedup(view());
}

String String::dedup(std::string_view text) {
  if (text.size() <= shortCapacity)
    return String(text);
  return fromInterned(DedupTable::instance().intern(text), static_cast<U32>(text.size()));
}

std::size_t String::dedupTableSize() { return DedupTable::instance().size(); }

std::size_t String::hash() const noexcept {
  if (isDedup())
    return InternedEntry::of(heapData())->hash;
  return fastHash(data(), size());
}

} // namespace Kesto

namespace ZuFmt::Detail {
fmt::format_context::iterator formatKestoString(const Kesto::String& s, fmt::format_context& ctx) {
  return std::copy(s.begin(), s.end(), ctx.out());
}
} // namespace ZuFmt::Detail
