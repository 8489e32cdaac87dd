// An output stream that collects its text in a Kesto::String.
//
// For code that formats through operator<< (types that only have a stream
// inserter) and wants the result as the family's string. The text is kept in
// a small put area and moved into the String when it fills up or when the
// text is asked for; str() and view() may be called at any time and the
// stream can go on being written after them. One object is for one thread at
// a time, like any stream.
#pragma once

#include <Kesto/Core/Export.h>

#include <Kesto/Core/String.h>

#include <ostream>
#include <streambuf>
#include <string_view>

namespace Kesto {

namespace Detail {

class KESTO_CORE_EXPORT StringStreamBuf : public std::streambuf {
public:
  StringStreamBuf() noexcept { setp(buffer_, buffer_ + sizeof buffer_); }
  StringStreamBuf(const StringStreamBuf&) = delete;
  StringStreamBuf& operator=(const StringStreamBuf&) = delete;

  // The text written so far (flushes the put area into it first).
  const String& text() {
    flushPutArea();
    return text_;
  }
  String take() {
    flushPutArea();
    String out(std::move(text_));
    text_.clear();
    return out;
  }
  void textIs(const String& text) {
    setp(buffer_, buffer_ + sizeof buffer_);
    text_ = text;
  }

protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  int sync() override {
    flushPutArea();
    return 0;
  }

private:
  void flushPutArea() {
    if (pptr() != pbase()) {
      text_.addRight(std::string_view(pbase(), static_cast<std::size_t>(pptr() - pbase())));
      setp(buffer_, buffer_ + sizeof buffer_);
    }
  }

  String text_;
  char buffer_[128];
};

// Holds the buffer so that it is built before the std::ostream base that
// points at it.
struct KESTO_CORE_EXPORT StringStreamBufHolder {
  StringStreamBuf buf_;
};

} // namespace Detail

class KESTO_CORE_EXPORT OStringStream : private Detail::StringStreamBufHolder, public std::ostream {
public:
  OStringStream() : std::ostream(&buf_) {}
  explicit OStringStream(const String& initial) : std::ostream(&buf_) { buf_.textIs(initial); }

  // A copy of the text written so far.
  String str() { return buf_.text(); }
  // The text written so far, valid until the next write.
  std::string_view view() { return buf_.text().view(); }
  // Moves the text out; the stream is empty afterwards.
  String take() { return buf_.take(); }
  // Replaces the text.
  void str(const String& text) { buf_.textIs(text); }
};

} // namespace Kesto
