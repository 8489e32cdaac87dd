#include <Kesto/Core/OStringStream.h>

namespace Kesto::Detail {

StringStreamBuf::int_type StringStreamBuf::overflow(int_type c) {
  flushPutArea();
  if (traits_type::eq_int_type(c, traits_type::eof()))
    return traits_type::not_eof(c);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize StringStreamBuf::xsputn(const char* s, std::streamsize n) {
  if (n <= epptr() - pptr()) {
    traits_type::copy(pptr(), s, static_cast<std::size_t>(n));
    pbump(static_cast<int>(n));
    return n;
  }
  // Longer than what is left of the put area: append directly.
  flushPutArea();
  text_.addRight(std::string_view(s, static_cast<std::size_t>(n)));
  return n;
}

} // namespace Kesto::Detail
