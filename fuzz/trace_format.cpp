// TRACEFORMAT field lists against a model, and the prefix of the line that
// each format gives.
//
// A step applies a text made of field words, near misses, empty items and
// raw bytes, then writes one trace line with a random level, handler name,
// file, function and line number. The eight flags must be those of the
// model: `help` and any unknown word leave them as they were, otherwise the
// words present are on and all others off. The line, caught from the
// standard error stream, must hold exactly the enabled fields in their fixed
// order: the date and time by their shape, everything else by value, and a
// null file or function must cut the prefix at that field.
#include "FuzzInput.h"

#include <Kesto/Core/System.h>
#include <Kesto/Debug/DebugControl.h>
#include <Kesto/Debug/DebugHandler.h>
#include <Kesto/Debug/Trace.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>

using KestoFuzz::FuzzInput;
using Kesto::Ixo::DebugControl;
namespace Platform = Kesto::Platform;

namespace {

constexpr std::array<const char*, 8> fieldWords = {"date", "time", "pid", "tid", "handle", "level", "line-info",
                                                   "func-name"};

std::array<bool, 8> currentFlags() {
  return {DebugControl::showDate_,       DebugControl::showTime_,  DebugControl::showPid_,
          DebugControl::showTid_,        DebugControl::showHandleName_, DebugControl::showLevel_,
          DebugControl::showLineInfo_,   DebugControl::showFuncName_};
}

// The model of setTraceFormat.
void applyModel(std::array<bool, 8>& flags, std::string_view text) {
  if (text == "help")
    return;
  std::array<bool, 8> wanted{};
  std::size_t position = 0;
  while (position <= text.size()) {
    std::size_t comma = text.find(',', position);
    if (comma == std::string_view::npos)
      comma = text.size();
    const std::string_view word = text.substr(position, comma - position);
    position = comma + 1;
    if (word.empty())
      continue;
    std::size_t index = 0;
    while (index < fieldWords.size() && word != fieldWords[index])
      ++index;
    if (index == fieldWords.size())
      return;
    wanted[index] = true;
  }
  flags = wanted;
}

std::string formatText(FuzzInput& in) {
  static constexpr std::array<const char*, 16> pieces = {
      "date", "time", "pid", "tid", "handle", "level", "line-info", "func-name",
      "help", "",     "Date", "line", "func-name ", "-", "levels", " time"};
  if (in.byte() % 8 == 0) {
    std::string raw(in.text(64));
    raw.erase(std::remove(raw.begin(), raw.end(), '\0'), raw.end());
    return raw;
  }
  std::string text;
  const unsigned count = in.byte() % 10;
  for (unsigned i = 0; i < count; ++i) {
    const uint8_t choice = in.byte();
    text += pieces[choice % pieces.size()];
    if (i + 1 < count || (choice & 0x80))
      text += (choice & 0x40) ? ",," : ",";
  }
  return text;
}

bool digits(std::string_view s) {
  if (s.empty())
    return false;
  for (char c : s)
    if (!std::isdigit(static_cast<unsigned char>(c)))
      return false;
  return true;
}

// Takes `expected` from the front of `line`.
bool take(std::string_view& line, std::string_view expected) {
  if (line.substr(0, expected.size()) != expected)
    return false;
  line.remove_prefix(expected.size());
  return true;
}

void checkLine(std::string_view line, const std::array<bool, 8>& flags, std::string_view handlerName,
               unsigned short level, const char* file, const char* function, int lineNumber,
               std::string_view text) {
  KESTO_FUZZ_CHECK(!line.empty() && line.back() == '\n');
  line.remove_suffix(1);
  if (flags[0]) { // "YYYY-MM-DD "
    KESTO_FUZZ_CHECK(line.size() >= 11 && digits(line.substr(0, 4)) && line[4] == '-' &&
                     digits(line.substr(5, 2)) && line[7] == '-' && digits(line.substr(8, 2)) && line[10] == ' ');
    line.remove_prefix(11);
  }
  if (flags[1]) { // "HH:MM:SS.<microseconds, unpadded> "
    KESTO_FUZZ_CHECK(line.size() >= 9 && digits(line.substr(0, 2)) && line[2] == ':' &&
                     digits(line.substr(3, 2)) && line[5] == ':' && digits(line.substr(6, 2)) && line[8] == '.');
    line.remove_prefix(9);
    const std::size_t blank = line.find(' ');
    KESTO_FUZZ_CHECK(blank != std::string_view::npos && digits(line.substr(0, blank)));
    KESTO_FUZZ_CHECK(blank == 1 || line[0] != '0');
    line.remove_prefix(blank + 1);
  }
  if (flags[2])
    KESTO_FUZZ_CHECK(take(line, std::to_string(getpid()) + " "));
  if (flags[3])
    KESTO_FUZZ_CHECK(take(line, std::to_string(Kesto::gettid()) + " "));
  if (flags[4])
    KESTO_FUZZ_CHECK(take(line, std::string(handlerName) + " "));
  if (flags[5])
    KESTO_FUZZ_CHECK(take(line, std::to_string(level) + " "));
  bool cut = false;
  if (flags[6]) {
    if (!file) {
      cut = true;
    } else {
      const char* slash = std::strrchr(file, '/');
      KESTO_FUZZ_CHECK(take(line, std::string(slash ? slash + 1 : file) + ":" + std::to_string(lineNumber) + " "));
    }
  }
  if (flags[7] && !cut) {
    if (function)
      KESTO_FUZZ_CHECK(take(line, std::string(function) + " "));
  }
  KESTO_FUZZ_CHECK(line == text);
}

Kesto::Ptr<Platform::DebugHandler>& handler() {
  static Kesto::Ptr<Platform::DebugHandler> h = Platform::getDebugHandler(Kesto::String("FuzzFormat"));
  return h;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Lines go to std::cerr, which the target redirects into a string.
  unsetenv("TRACEFILE");
  Platform::setupKestoDebug("");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  // Every run starts from the default the library sets at load.
  Platform::setTraceFormat("date,time,tid,handle,level");
  std::array<bool, 8> model = {true, true, false, true, true, true, false, false};
  KESTO_FUZZ_CHECK(currentFlags() == model);

  std::ostringstream caught;
  std::streambuf* const saved = std::cerr.rdbuf(caught.rdbuf());
  unsigned steps = 0;
  while (!in.empty() && steps++ < 32) {
    if (in.byte() % 8 == 0) {
      Platform::clearTraceFormat();
      model = {};
    } else {
      const std::string text = formatText(in);
      Platform::setTraceFormat(text.c_str());
      applyModel(model, text);
    }
    KESTO_FUZZ_CHECK(currentFlags() == model);

    const unsigned short level = in.number<unsigned short>();
    const uint8_t choice = in.byte();
    std::string fileText(in.text(32));
    fileText.erase(std::remove(fileText.begin(), fileText.end(), '\0'), fileText.end());
    std::string functionText(in.text(16));
    functionText.erase(std::remove(functionText.begin(), functionText.end(), '\0'), functionText.end());
    const int lineNumber = in.number<int>();
    const std::string text(in.text(32));
    const char* file = (choice & 1) ? nullptr : fileText.c_str();
    const char* function = (choice & 2) ? nullptr : functionText.c_str();
    caught.str(std::string());
    caught.clear();
    Platform::dumpDebugMsg(text, level, *handler(), file, function, lineNumber);
    checkLine(caught.str(), model, handler()->name.view(), level, file, function, lineNumber, text);
  }
  std::cerr.rdbuf(saved);
  return 0;
}
