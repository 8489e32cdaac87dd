// Helper of the diagnostics tests: one process per scenario, so that what
// the library does at load can be observed under a chosen environment.
//
//   debug_trace_child trace      one trace line of KestoUtil at level 0,
//                                the format flags on standard output
//   debug_trace_child dump       the control and handler tables on stdout
//   debug_trace_child hooks      whether the load steps installed the hooks
//   debug_trace_child throw-kesto | throw-std | throw-int | terminate
//                                ends through the terminate handler
#include <Kesto/Core/Backtrace.h>
#include <Kesto/Core/Hooks.h>
#include <Kesto/EventKesto.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>

namespace {

void traceOneLine() {
  // A fixed function name keeps the expected text simple.
  Kesto::fmtrace(Kesto::Debug::kestoUtil, 0, "child.cpp", "run", 42, "Child", "hello {}", 7);
}

} // namespace

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "trace";
  if (std::strcmp(mode, "trace") == 0) {
    Kesto::Platform::printAllTraceFormat();
    traceOneLine();
    return 0;
  }
  if (std::strcmp(mode, "dump") == 0) {
    Kesto::Platform::dumpKestoDebugMap();
    return 0;
  }
  if (std::strcmp(mode, "hooks") == 0) {
    std::printf("time=%d\n", Kesto::Impl::timeIndirectFn() == &Kesto::time ? 1 : 0);
    std::printf("presence=%d\n", int(platformLibPresenceFlag));
    return 0;
  }
  if (std::strcmp(mode, "throw-kesto") == 0)
    Kesto::RuntimeException::throwException("kesto failure");
  if (std::strcmp(mode, "throw-std") == 0)
    throw std::runtime_error("std failure");
  if (std::strcmp(mode, "throw-int") == 0)
    throw 42;
  if (std::strcmp(mode, "terminate") == 0)
    std::terminate();
  std::fprintf(stderr, "unknown mode %s\n", mode);
  return 2;
}
