// Kesto::Sensitive: bytes that must not outlive their use nor reach a log
// (keys, passwords, tokens).
//
// Provides: one heap buffer, shared by all copies of a Sensitive and wiped
//   with zeros by the last of them before it is freed; equality of buffers,
//   never of bytes; a printed form that shows the buffer's address and size
//   and nothing of the content, on a stream and through fmt alike, so a trace
//   or report that names a Sensitive cannot leak it.
// Owner: the copies together (std::shared_ptr); the deleter holds the size
//   and wipes, so the wipe happens whichever copy goes last.
// Thread: copies may live on different threads (the count is atomic); one
//   object is not to be used by two threads at once.
// Allocation: one new[] of the size plus the shared pointer's control block
//   per built object; copies and moves allocate nothing.
// Failure policy: a failed allocation throws std::bad_alloc; if the control
//   block cannot be had, the buffer is wiped and freed before the exception
//   goes on. Null data of a non-zero size, and two pieces whose sizes add
//   up beyond 32 bits, are programming errors and assert before anything is
//   allocated.
#pragma once

#include <Kesto/Common/Export.h>

#include <fmt/format.h>

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>

namespace Kesto {

class KESTO_EXPORT Sensitive {
public:
  // A zero-filled buffer of `size` bytes with the wiping deleter; null for 0.
  static std::shared_ptr<unsigned char> allocate(unsigned int size);

  Sensitive() noexcept = default;
  Sensitive(const unsigned char* data, unsigned int size);
  // One buffer of the two pieces, `first` before `second`; an empty piece
  // (size 0) may be null.
  Sensitive(const unsigned char* first, unsigned int firstSize, const unsigned char* second,
            unsigned int secondSize);

  Sensitive(const Sensitive&) = default;
  Sensitive& operator=(const Sensitive&) = default;
  // The source is left empty: size 0 and no buffer, so that no second owner
  // keeps the bytes alive unnoticed.
  Sensitive(Sensitive&& other) noexcept;
  Sensitive& operator=(Sensitive&& other) noexcept;
  ~Sensitive() = default;

  std::uint32_t size() const noexcept { return size_; }
  const unsigned char* data() const noexcept { return data_.get(); }
  unsigned char* data() noexcept { return data_.get(); }

  // The same buffer, not the same bytes: comparing the content would take
  // time that depends on it, and equal secrets built apart are not one.
  friend bool operator==(const Sensitive& a, const Sensitive& b) noexcept { return a.data_ == b.data_; }
  friend bool operator!=(const Sensitive& a, const Sensitive& b) noexcept { return !(a == b); }

private:
  std::uint32_t size_ = 0;
  std::shared_ptr<unsigned char> data_;
};

// "sensitive(0x55d0c8e0a2b0,16)": the buffer's address as fmt writes a
// pointer ("0x0" when there is none) and the size.
KESTO_EXPORT std::ostream& operator<<(std::ostream& os, const Sensitive& s);

} // namespace Kesto

template <>
struct fmt::formatter<Kesto::Sensitive> : fmt::formatter<fmt::string_view> {
  auto format(const Kesto::Sensitive& s, fmt::format_context& ctx) const {
    const std::string text = fmt::format("sensitive({},{})", fmt::ptr(s.data()), s.size());
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(text), ctx);
  }
};
