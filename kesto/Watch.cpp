#include "Watch.h"

#include "AgentClient.h"
#include "Usage.h"

#include <fmt/chrono.h>

#include <signal.h>
#include <time.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <ctime>

namespace Kesto::Cmd {

namespace {

constexpr const char* hideCursor = "\x1b[?25l";
constexpr const char* showCursor = "\x1b[?25h";
constexpr const char* homeAndClear = "\x1b[H\x1b[2J";

constexpr std::array<int, 3> stopSignals{SIGINT, SIGTERM, SIGHUP};

void requestStop(int) { stopRequested = 1; }

// The handlers that turn a stop signal into stopRequested for the life of
// the loop, without SA_RESTART so that a wait or a read under way returns
// at once; the previous dispositions come back at the end.
class StopSignals {
public:
  StopSignals() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < stopSignals.size(); ++i)
      ::sigaction(stopSignals[i], &action, &previous_[i]);
  }
  ~StopSignals() {
    for (std::size_t i = 0; i < stopSignals.size(); ++i)
      ::sigaction(stopSignals[i], &previous_[i], nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

private:
  std::array<struct sigaction, stopSignals.size()> previous_{};
};

// Hides the cursor of a terminal for its lifetime, on every way out.
class HiddenCursor {
public:
  HiddenCursor(std::FILE* out, bool terminal) : out_(out), terminal_(terminal) {
    if (terminal_) {
      std::fputs(hideCursor, out_);
      std::fflush(out_);
    }
  }
  ~HiddenCursor() {
    if (terminal_) {
      std::fputs(showCursor, out_);
      std::fflush(out_);
    }
  }
  HiddenCursor(const HiddenCursor&) = delete;
  HiddenCursor& operator=(const HiddenCursor&) = delete;

private:
  std::FILE* out_;
  bool terminal_;
};

timespec plusSeconds(timespec t, double seconds) {
  const double whole = std::floor(seconds);
  t.tv_sec += time_t(whole);
  t.tv_nsec += long((seconds - whole) * 1e9);
  if (t.tv_nsec >= 1000000000L) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

bool before(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// Waits until `deadline` on the monotonic clock; false if a stop signal
// came first.
bool waitUntil(const timespec& deadline) {
  for (;;) {
    if (stopRequested)
      return false;
    const int result = ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
    if (result == 0)
      return !stopRequested;
    if (result != EINTR)
      return !stopRequested; // cannot wait: go on at once rather than spin on an error
  }
}

} // namespace

int watchAgent(const AgentEntry& agent, const WatchSettings& settings, std::FILE* out, bool terminal) {
  stopRequested = 0;
  StopSignals signals;
  HiddenCursor cursor(out, terminal);
  timespec next{};
  ::clock_gettime(CLOCK_MONOTONIC, &next);
  try {
    for (unsigned long long shown = 0; !settings.count || shown < *settings.count;) {
      if (shown != 0) {
        next = plusSeconds(next, settings.interval);
        timespec now{};
        ::clock_gettime(CLOCK_MONOTONIC, &now);
        if (before(next, now))
          next = now; // the last answer took longer than an interval
        if (!waitUntil(next))
          break;
      }
      const std::string report = askAgent(agent, settings.command);
      ++shown;
      const std::string header =
          fmt::format("kesto watch: {}, every {} s, report {} at {:%Y-%m-%d %H:%M:%S}\n", agentLabel(agent),
                      settings.interval, shown, fmt::localtime(std::time(nullptr)));
      // One write per report: the terminal never shows a half-drawn screen
      // for longer than the terminal takes to draw it.
      std::string frame;
      if (terminal)
        frame = homeAndClear;
      else if (shown > 1)
        frame = "\n";
      frame += header;
      frame += report;
      std::fwrite(frame.data(), 1, frame.size(), out);
      std::fflush(out);
    }
  } catch (const Interrupted&) {
    // A stop signal during a request: the report is dropped, the loop ends.
  }
  return exitSuccess;
}

} // namespace Kesto::Cmd
