// Reads a fuzzer's input as a stream of small decisions: a byte, a number,
// a run of bytes. Past the end everything reads as zero or empty, so a
// target never needs to check the length before it asks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace KestoFuzz {

class FuzzInput {
public:
  FuzzInput(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const noexcept { return size_ == 0; }

  uint8_t byte() noexcept {
    if (size_ == 0)
      return 0;
    --size_;
    return *data_++;
  }

  template <typename T>
  T number() noexcept {
    T v{};
    const std::size_t n = size_ < sizeof v ? size_ : sizeof v;
    std::memcpy(&v, data_, n);
    data_ += n;
    size_ -= n;
    return v;
  }

  // Up to `max` bytes: a length byte, then that many bytes.
  std::string_view text(std::size_t max = 255) noexcept {
    std::size_t n = byte();
    n = n > max ? max : n;
    n = n > size_ ? size_ : n;
    std::string_view v(reinterpret_cast<const char*>(data_), n);
    data_ += n;
    size_ -= n;
    return v;
  }

  // Everything left.
  std::string_view rest() noexcept {
    std::string_view v(reinterpret_cast<const char*>(data_), size_);
    data_ += size_;
    size_ = 0;
    return v;
  }

private:
  const uint8_t* data_;
  std::size_t size_;
};

// Stops the run with a finding when a model and the code disagree.
[[noreturn]] inline void mismatch(const char* what) {
  __builtin_printf("model mismatch: %s\n", what);
  __builtin_trap();
}

#define KESTO_FUZZ_CHECK(cond)                                                                                \
  do {                                                                                                        \
    if (!(cond))                                                                                              \
      ::KestoFuzz::mismatch(#cond);                                                                           \
  } while (0)

} // namespace KestoFuzz
