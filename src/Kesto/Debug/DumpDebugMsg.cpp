#include <Kesto/Core/System.h>
#include "Debug/TraceFile.h"
#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <sstream>

namespace Kesto::Platform {

namespace {

// A format flag, set under the Loco by setTraceFormat and read here without
// it (see TraceFormat.cpp).
bool flag(const bool& f) noexcept { return __atomic_load_n(&f, __ATOMIC_RELAXED); }

const char* baseName(const char* path) noexcept {
  const char* slash = std::strrchr(path, '/');
  return slash ? slash + 1 : path;
}

} // namespace

void dumpDebugMsg(const std::string_view& text, unsigned short level, const DebugHandler& handler,
                  const char* file, const char* function, int line) noexcept {
  using Ixo::DebugControl;
  // The prefix is built without the lock; only the write is under it, so
  // lines of two threads never interleave.
  std::ostringstream prefix;
  timeval now;
  gettimeofday(&now, nullptr);
  tm local;
  const bool haveLocal = localtime_r(&now.tv_sec, &local) != nullptr;
  char buffer[64];
  if (flag(DebugControl::showDate_) && haveLocal) {
    if (std::strftime(buffer, sizeof buffer, "%Y-%m-%d ", &local))
      prefix << buffer;
  }
  if (flag(DebugControl::showTime_) && haveLocal) {
    if (std::strftime(buffer, sizeof buffer, "%H:%M:%S", &local))
      prefix << buffer;
    prefix << '.' << now.tv_usec << ' ';
  }
  if (flag(DebugControl::showPid_))
    prefix << getpid() << ' ';
  if (flag(DebugControl::showTid_))
    prefix << Kesto::gettid() << ' ';
  if (flag(DebugControl::showHandleName_))
    prefix << handler.name << ' ';
  if (flag(DebugControl::showLevel_))
    prefix << level << ' ';
  if (flag(DebugControl::showLineInfo_)) {
    // A missing argument fails the stream: the rest of the prefix is lost,
    // the text is still written.
    if (file)
      prefix << baseName(file) << ':' << line << ' ';
    else
      prefix.setstate(std::ios::badbit);
  }
  if (flag(DebugControl::showFuncName_)) {
    if (function)
      prefix << function << ' ';
    else
      prefix.setstate(std::ios::badbit);
  }
  const std::string head = prefix.str();

  Loco::Guard guard;
  std::ostream& target = Debug::Impl::traceTarget();
  target << head << text << '\n';
  target.flush();
}

} // namespace Kesto::Platform
