#include <Kesto/Core/HashMix.h>
#include <Kesto/Core/String.h>

#include <cstdlib>
#include <mutex>
#include <new>
#include <unordered_set>

namespace Kesto {

namespace {

[[noreturn]] void outOfMemory() { throw std::bad_alloc(); }

char* allocateChars(U32 capacity) {
  auto* p = static_cast<char*>(std::malloc(std::size_t(capacity) + 1));
  if (!p)
    outOfMemory();
  return p;
}

// The interning table. Texts are copied into chunks that are never freed, so
// a deduplicated String stays valid for the life of the process, across
// threads, and needs no count. The table is split into shards by hash so that
// threads naming their objects at once rarely meet on one mutex.
class DedupTable {
public:
  static DedupTable& instance() {
    // Never destroyed: strings deduplicated by static objects may be read
    // during process exit.
    static auto* table = new DedupTable;
    return *table;
  }

  std::string_view intern(std::string_view text) {
    const std::size_t h = hashBytes(text);
    Shard& shard = shards_[h % shardCount];
    std::lock_guard<std::mutex> guard(shard.mutex);
    auto it = shard.set.find(text);
    if (it != shard.set.end())
      return *it;
    std::string_view stored = shard.store(text);
    shard.set.insert(stored);
    return stored;
  }

  std::size_t size() {
    std::size_t n = 0;
    for (auto& shard : shards_) {
      std::lock_guard<std::mutex> guard(shard.mutex);
      n += shard.set.size();
    }
    return n;
  }

private:
  static std::size_t hashBytes(std::string_view text) noexcept {
    return Impl::HashMix::mix(Impl::HashMix::fnvOffset64, text.data(), static_cast<U32>(text.size()));
  }

  struct ViewHash {
    std::size_t operator()(std::string_view v) const noexcept { return hashBytes(v); }
  };

  struct Shard {
    static constexpr std::size_t chunkSize = 64 * 1024;

    std::string_view store(std::string_view text) {
      const std::size_t need = text.size() + 1;
      char* p;
      if (need > chunkSize / 4) {
        p = static_cast<char*>(std::malloc(need)); // large texts get their own block
        if (!p)
          outOfMemory();
      } else {
        if (need > left) {
          cursor = static_cast<char*>(std::malloc(chunkSize));
          if (!cursor)
            outOfMemory();
          left = chunkSize;
        }
        p = cursor;
        cursor += need;
        left -= need;
      }
      std::memcpy(p, text.data(), text.size());
      p[text.size()] = '\0';
      return {p, text.size()};
    }

    std::mutex mutex;
    std::unordered_set<std::string_view, ViewHash> set;
    char* cursor = nullptr;
    std::size_t left = 0;
  };

  static constexpr std::size_t shardCount = 16;
  Shard shards_[shardCount];
};

} // namespace

void String::freeHeap() noexcept {
  if (isOrdinary())
    std::free(ownedData());
}

void String::assign(std::string_view text) {
  const U32 n = static_cast<U32>(text.size());
  if (n <= shortCapacity) {
    // The text may live inside this very string (substr of self, say), so
    // copy it out before the old buffer goes.
    char tmp[shortCapacity + 1];
    std::memcpy(tmp, text.data(), n);
    freeHeap();
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
  if (total <= shortCapacity && isShort()) {
    std::memmove(bytes_ + n, text.data(), add);
    setShortSize(total);
    return *this;
  }
  if (!(isOrdinary() && heapCapacity() >= total)) {
    // Keep the source alive if it points into our own buffer.
    String keep(text);
    reserveOrdinary(std::max<U32>(total, n + n / 2));
    return addRight(keep.view());
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
  std::string_view stored = DedupTable::instance().intern(text);
  return fromInterned(stored.data(), static_cast<U32>(stored.size()));
}

std::size_t String::dedupTableSize() { return DedupTable::instance().size(); }

std::size_t String::hash() const noexcept {
  return Impl::HashMix::mix(Impl::HashMix::fnvOffset64, data(), size());
}

} // namespace Kesto

namespace ZuFmt::Detail {
fmt::format_context::iterator formatKestoString(const Kesto::String& s, fmt::format_context& ctx) {
  return std::copy(s.begin(), s.end(), ctx.out());
}
} // namespace ZuFmt::Detail
