#include <Kesto/Util/Sensitive.h>

#include <Kesto/Debug/Trace.h>

#include <cstring>
#include <ostream>
#include <string.h>
#include <utility>

namespace Kesto {

namespace {

// Wipes before it frees. explicit_bzero, unlike memset, is not dropped by the
// optimiser although nothing reads the bytes afterwards.
struct WipingDelete {
  unsigned int size;
  void operator()(unsigned char* buffer) const noexcept {
    explicit_bzero(buffer, size);
    delete[] buffer;
  }
};

// A piece to copy: bytes, or none at all.
void checkPiece(const unsigned char* data, unsigned int size) {
  KESTO_ASSERT(data || size == 0, "Kesto::Sensitive", "null data of {} bytes", size);
}

// The size of the joined buffer; a sum that does not fit in 32 bits would
// allocate less than the pieces then copied into it.
unsigned int joinedSize(const unsigned char* first, unsigned int firstSize, const unsigned char* second,
                        unsigned int secondSize) {
  checkPiece(first, firstSize);
  checkPiece(second, secondSize);
  KESTO_ASSERT(secondSize <= ~0u - firstSize, "Kesto::Sensitive", "pieces of {} and {} bytes exceed 32 bits",
               firstSize, secondSize);
  return firstSize + secondSize;
}

} // namespace

std::shared_ptr<unsigned char> Sensitive::allocate(unsigned int size) {
  if (size == 0)
    return {};
  unsigned char* buffer = new unsigned char[size]();
  // Should the control block not be had, this constructor hands the buffer
  // to the deleter before it rethrows, so it is wiped and freed all the same.
  return std::shared_ptr<unsigned char>(buffer, WipingDelete{size});
}

Sensitive::Sensitive(const unsigned char* data, unsigned int size)
    : size_((checkPiece(data, size), size)), data_(allocate(size)) {
  if (size)
    std::memcpy(data_.get(), data, size);
}

Sensitive::Sensitive(const unsigned char* first, unsigned int firstSize, const unsigned char* second,
                     unsigned int secondSize)
    : size_(joinedSize(first, firstSize, second, secondSize)), data_(allocate(size_)) {
  if (firstSize)
    std::memcpy(data_.get(), first, firstSize);
  if (secondSize)
    std::memcpy(data_.get() + firstSize, second, secondSize);
}

Sensitive::Sensitive(Sensitive&& other) noexcept
    : size_(std::exchange(other.size_, 0)), data_(std::move(other.data_)) {}

Sensitive& Sensitive::operator=(Sensitive&& other) noexcept {
  if (this != &other) {
    data_ = std::move(other.data_);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

std::ostream& operator<<(std::ostream& os, const Sensitive& s) {
  return os << fmt::format("sensitive({},{})", fmt::ptr(s.data()), s.size());
}

} // namespace Kesto
