#include "Debug/TraceFile.h"
#include <Kesto/Debug/Loco.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

namespace Kesto::Debug::Impl {

namespace {

struct TraceFile {
  std::string name;
  std::ofstream stream;
};

TraceFile& traceFile() {
  static TraceFile* const file = new TraceFile;
  return *file;
}

} // namespace

void applyTraceFile() {
  Platform::Loco::Guard guard;
  TraceFile& file = traceFile();
  const char* path = std::getenv("TRACEFILE");
  if (path && file.name == path) {
    // Loading runs this twice; the second call must not truncate what the
    // first one opened.
    if (file.stream.is_open())
      return;
  } else {
    if (file.stream.is_open())
      file.stream.close();
    file.stream.clear();
    file.name.clear();
    if (!path)
      return;
  }
  file.name = path;
  file.stream.open(path, std::ios::out | std::ios::trunc);
  if (!file.stream.is_open()) {
    std::cerr << "Error opening TRACEFILE=" << path << "\nDefaulting to std::cerr for trace output\n";
    std::cerr.flush();
    // Forgotten, so that the next call tries again.
    file.name.clear();
    file.stream.clear();
  }
}

std::ostream& traceTarget() {
  TraceFile& file = traceFile();
  if (file.stream.is_open())
    return file.stream;
  return std::cerr;
}

bool traceFileOpen() {
  Platform::Loco::Guard guard;
  return traceFile().stream.is_open();
}

} // namespace Kesto::Debug::Impl
