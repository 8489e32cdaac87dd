// Kesto::String against std::string: random sequences of construction,
// appends on either side, assignment, copies, moves, swaps, searches,
// substrings and deduplication, over texts that cross the short-form limit
// of 22 bytes. After every step both must hold the same text, and the
// String must keep its terminating NUL.
#include "FuzzInput.h"

#include <Kesto/Core/String.h>

#include <string>
#include <utility>

using Kesto::String;
using Kesto::U32;
using KestoFuzz::FuzzInput;

namespace {

void same(const String& s, const std::string& m) {
  KESTO_FUZZ_CHECK(s.size() == m.size());
  KESTO_FUZZ_CHECK(s.view() == m);
  KESTO_FUZZ_CHECK(s.data()[s.size()] == '\0');
  KESTO_FUZZ_CHECK(s.empty() == m.empty());
  KESTO_FUZZ_CHECK(s.hash() == String(std::string_view(m)).hash());
}

U32 modelFind(const std::string& m, std::string_view needle, U32 pos) {
  const std::size_t r = m.find(needle, pos);
  return r == std::string::npos ? String::npos : U32(r);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  String s[2];
  std::string m[2];
  while (!in.empty()) {
    const uint8_t op = in.byte();
    const unsigned i = op & 1;
    String& a = s[i];
    std::string& am = m[i];
    switch ((op >> 1) % 12) {
    case 0: {
      std::string_view t = in.text(64);
      a = String(t);
      am = std::string(t);
      break;
    }
    case 1: {
      std::string_view t = in.text(64);
      a.addRight(t);
      am.append(t);
      break;
    }
    case 2: {
      std::string_view t = in.text(64);
      a.addLeft(t);
      am.insert(0, t);
      break;
    }
    case 3:
      s[1 - i] = a;
      m[1 - i] = am;
      break;
    case 4:
      s[1 - i] = std::move(a);
      m[1 - i] = am;
      a = String(am); // a moved-from String is only assigned to
      break;
    case 5:
      s[0].swap(s[1]);
      std::swap(m[0], m[1]);
      break;
    case 6: {
      std::string_view needle = in.text(8);
      const U32 pos = in.byte();
      KESTO_FUZZ_CHECK(a.find(needle, pos) == modelFind(am, needle, pos));
      break;
    }
    case 7: {
      const char c = char(in.byte());
      const U32 pos = in.byte();
      const std::size_t f = am.find(c, pos);
      KESTO_FUZZ_CHECK(a.find(c, pos) == (f == std::string::npos ? String::npos : U32(f)));
      const std::size_t r = am.rfind(c);
      KESTO_FUZZ_CHECK(a.rfind(c) == (r == std::string::npos ? String::npos : U32(r)));
      break;
    }
    case 8: {
      const U32 pos = in.byte() % (am.size() + 1);
      const U32 count = in.byte();
      String sub = a.substr(pos, count);
      same(sub, am.substr(pos, count));
      break;
    }
    case 9:
      a = a.dedup();
      KESTO_FUZZ_CHECK(a.isDedup() || a.isShort());
      break;
    case 10:
      KESTO_FUZZ_CHECK((s[0] == s[1]) == (m[0] == m[1]));
      KESTO_FUZZ_CHECK(((s[0] <=> s[1]) < 0) == (m[0] < m[1]));
      KESTO_FUZZ_CHECK(a.startsWith(m[1 - i]) == am.starts_with(m[1 - i]));
      KESTO_FUZZ_CHECK(a.endsWith(m[1 - i]) == am.ends_with(m[1 - i]));
      break;
    case 11: {
      String b = a + in.text(32);
      same(b.substr(0, U32(am.size())), am);
      a.clear();
      am.clear();
      break;
    }
    }
    same(s[0], m[0]);
    same(s[1], m[1]);
  }
  return 0;
}
