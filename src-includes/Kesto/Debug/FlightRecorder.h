// FlightRecorder: what the scheduler was doing when the process died.
//
// The history ring of every root already holds the last events of its
// thread; the recorder writes them out at the one moment no report can be
// asked for. Turned on for the process, it catches SIGSEGV, SIGBUS, SIGFPE,
// SIGILL and SIGABRT and wraps the terminate handler. On any of them it
// writes, to a descriptor opened in advance:
//
//   KestoFlightRecorder: signal 11 SIGSEGV code 1 address 0x0000000000000000 pid 4242 thread 4242 agent
//   KestoFlightRecorder: root main running task parser scheduler main priority normal for 1532us
//   KestoFlightRecorder: root main history 5 events, newest last
//   KestoFlightRecorder:   -1620us schedule N parser
//   KestoFlightRecorder:   -1540us run start N parser
//   KestoFlightRecorder: end
//
// one block per root of the faulting thread (running task, then the running
// task of each group under it, then the ring, oldest first, each event's age
// before the dump and the display text of its type). Everything on that path
// is async-signal-safe: no allocation, no fmt, no lock; numbers are written
// by hand into a static buffer and go out by write(2).
//
// Then the handler that the application had installed for the signal before
// the recorder is called, if any, the default action is restored and the
// signal raised again, so core dumps and exit statuses stay what they would
// have been. A second fatal signal while a dump is under way (the dump
// itself faulting, or another thread) goes straight to the default action:
// never a hang. The terminate path dumps and then calls the terminate
// handler that was in place, whose abort() is that second signal.
//
// The descriptor: standard error, or the file named by the environment
// variable KESTO_FLIGHT_RECORDER_FILE (opened for appending when the
// recorder is turned on; if it can't be opened, a trace line at level 0 of
// "KestoUtil" says so and standard error is used).
//
// Under AddressSanitizer, the sanitizer's own SEGV, SIGBUS and SIGFPE
// handlers are installed before main; the recorder chains to them, and they
// end the process with their own report and exit status 1. A process that
// wants the recorder's dump and the original signal in its status runs with
// ASAN_OPTIONS=handle_segv=0:handle_sigbus=0:handle_sigfpe=0.
//
// Thread: turning on and off from any thread, not concurrently with itself.
// Allocation: none after turning on.
// States: off (at load), on; off restores the handlers it replaced.
#pragma once

#include <Kesto/Common/Export.h>

namespace Kesto {

class KESTO_EXPORT FlightRecorder {
public:
  static constexpr const char* fileEnvironmentVariable = "KESTO_FLIGHT_RECORDER_FILE";

  // On: opens the descriptor and installs the handlers. Off: restores the
  // handlers found when it was turned on and closes a file it opened.
  static void enabledIs(bool enabled);
  static bool enabled() noexcept;
  // Where dumps go while on; -1 while off.
  static int descriptor() noexcept;

  // Writes the dump of the calling thread now, headed "request", for an
  // operator's command or a test. Nothing while off or while another dump
  // is under way.
  static void dumpNow() noexcept;

  FlightRecorder() = delete;
};

} // namespace Kesto
