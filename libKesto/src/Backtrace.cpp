#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/System.h>

#include <execinfo.h>

#include <atomic>
#include <cstdlib>
#include <memory>

namespace Kesto {

namespace {
std::atomic<int> verbosityLevel{1};

// backtrace_symbols gives "file(mangled+0xoff) [0xaddr]"; demangle the symbol.
String prettySymbol(const char* raw) {
  std::string_view text(raw);
  auto open = text.find('(');
  auto plus = text.find('+', open == std::string_view::npos ? 0 : open);
  if (open == std::string_view::npos || plus == std::string_view::npos || plus == open + 1)
    return String(text);
  std::string mangled(text.substr(open + 1, plus - open - 1));
  String result(text.substr(0, open + 1));
  result.addRight(typeName(mangled.c_str()).view());
  result.addRight(text.substr(plus));
  return result;
}
} // namespace

Backtrace::Backtrace(bool doCapture) noexcept {
  if (doCapture)
    capture();
}

void Backtrace::capture() noexcept { frameCount_ = ::backtrace(frames_, maxFrames); }

String Backtrace::pretty() const { return prettyFrames(frames_, frameCount_); }

String Backtrace::prettyFrames(void* const* frames, int count) {
  String out;
  if (count <= 0)
    return out;
  std::unique_ptr<char*, decltype(&std::free)> symbols(::backtrace_symbols(frames, count), &std::free);
  for (int i = 0; i < count; ++i) {
    if (i)
      out.addRight("\n");
    out.addRight(fmt::format("#{} {} ", i, frames[i]));
    if (symbols)
      out.addRight(prettySymbol(symbols.get()[i]).view());
  }
  return out;
}

int Backtrace::verbosity() noexcept { return verbosityLevel.load(std::memory_order_relaxed); }
void Backtrace::verbosityIs(int level) noexcept { verbosityLevel.store(level, std::memory_order_relaxed); }

} // namespace Kesto
