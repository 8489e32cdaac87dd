#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/Loco.h>
#include <Kesto/Debug/Trace.h>

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace Kesto::Ixo {

bool DebugControl::showDate_ = false;
bool DebugControl::showTime_ = false;
bool DebugControl::showPid_ = false;
bool DebugControl::showTid_ = false;
bool DebugControl::showHandleName_ = false;
bool DebugControl::showLevel_ = false;
bool DebugControl::showLineInfo_ = false;
bool DebugControl::showFuncName_ = false;

} // namespace Kesto::Ixo

namespace Kesto::Platform {

namespace {

using Ixo::DebugControl;

// The field words in the fixed order of a line's prefix.
struct Field {
  const char* word;
  bool* flag;
};
constexpr int fieldCount = 8;
const Field fields[fieldCount] = {
    {"date", &DebugControl::showDate_},         {"time", &DebugControl::showTime_},
    {"pid", &DebugControl::showPid_},           {"tid", &DebugControl::showTid_},
    {"handle", &DebugControl::showHandleName_}, {"level", &DebugControl::showLevel_},
    {"line-info", &DebugControl::showLineInfo_}, {"func-name", &DebugControl::showFuncName_},
};

} // namespace

void setTraceFormat(const char* format) {
  if (!format)
    format = std::getenv("TRACEFORMAT");
  if (!format)
    return;
  if (std::strcmp(format, "help") == 0) {
    std::fputs("Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:\n  date\n  time\n  pid\n  tid\n"
               "  handle\n  level\n  line-info\n  func-name\n",
               stderr);
    std::fflush(stderr);
    return;
  }
  // Parsed completely before anything is applied, so that an invalid text
  // leaves the format as it was.
  bool wanted[fieldCount] = {};
  std::string copy(format);
  char* state = nullptr;
  for (char* word = strtok_r(copy.data(), ",", &state); word; word = strtok_r(nullptr, ",", &state)) {
    int index = 0;
    while (index < fieldCount && std::strcmp(word, fields[index].word) != 0)
      ++index;
    if (index == fieldCount) {
      fmt::print(stderr, "{} is an invalid field in TRACEFORMAT\nSet TRACEFORMAT=help for more information\n",
                 word);
      std::fflush(stderr);
      return;
    }
    wanted[index] = true;
  }
  // Written under the guard, read by dumpDebugMsg on any thread without it:
  // relaxed atomic stores and loads, plain moves on x86-64, make that race a
  // defined one. A line being prefixed meanwhile may mix old and new flags.
  Loco::Guard guard;
  for (int index = 0; index < fieldCount; ++index)
    __atomic_store_n(fields[index].flag, wanted[index], __ATOMIC_RELAXED);
}

void clearTraceFormat() {
  Loco::Guard guard;
  for (const Field& field : fields)
    __atomic_store_n(field.flag, false, __ATOMIC_RELAXED);
}

void printAllTraceFormat() {
  bool shown[fieldCount];
  for (int index = 0; index < fieldCount; ++index)
    shown[index] = __atomic_load_n(fields[index].flag, __ATOMIC_RELAXED);
  fmt::print(stdout, "{} {} {} {} {} {} {} {}\n", shown[0], shown[1], shown[2], shown[3], shown[4], shown[5], shown[6],
             shown[7]);
  std::fflush(stdout);
}

} // namespace Kesto::Platform
