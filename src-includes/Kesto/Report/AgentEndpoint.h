// AgentEndpoint: the agent's introspection socket. One call starts it; an
// operator's command (kesto, or anything that speaks one line) then asks the
// running agent for its scheduler report, changes its trace levels or resets
// its statistics, without stopping it.
//
//   Ptr<AgentEndpoint> endpoint = AgentEndpoint::start(schedulerRootKesto(), {.name = "ingest"});
//   Platform::doEventLoop();
//
// The socket is a listening SOCK_STREAM unix socket on the abstract address
// "kesto-agent/<name>/<pid>" (agentEndpointAddress), made in the default
// network namespace by Util::socket, so that an agent started in another
// namespace is still found from the host. Everything it does is a task of
// the root at the priority of Options::priority (default low): accepting,
// reading a command, writing a short answer, waiting for a reset. A report
// is written by the show pipeline, whose task runs at normal like every
// report. Nothing here ever blocks the thread.
//
// Protocol: the client connects, writes ONE line ending in '\n' (it may
// then shut down its write side) and reads until end of file. The server
// writes the whole answer and closes.
//   show agent task scheduler [match REGEX] [json] [flat] [addresses]
//                             [no-history] [no-completed] [all]
//                      the text report (hierarchical unless flat) or the
//                      JSON report of a snapshot of the root, exactly as the
//                      show pipeline writes it
//   trace LEVELS         setupKestoDebug(LEVELS), answered by the debug map
//   trace clear LEVELS   clearKestoDebug(LEVELS), answered by the debug map
//   reset stats        resetStats() of the root; "stats reset" once it ended
//   help               the list of commands, one per line
// Anything else, and every refusal, is one line starting "error: ".
//
// Who may ask: an abstract socket has no file permissions, so every
// connection's peer is read with SO_PEERCRED. The agent's own effective user
// and root are served; anyone else gets "error: access refused for uid N",
// and the refusal is traced at level 1 of "KestoAgentEndpoint". A client
// that sends no whole line within idleTimeout seconds, a line longer than
// maxCommandLength bytes, or a client beyond maxClients at once gets one
// error line and is closed; the agent goes on. A client that takes nothing
// of a short answer for idleTimeout is dropped. A report is not timed: its
// reader may be a pager held still for minutes, and a report's task sleeps
// on the socket without costing the thread anything; a reader that never
// reads keeps its slot until it goes away or the endpoint stops.
//
// SIGPIPE. The show pipeline writes with plain write(), and a reader that
// goes away mid-report turns that write into SIGPIPE, which by default ends
// the process. The endpoint does NOT touch the process-wide disposition:
// while it runs (and while any report it started is still being written) it
// BLOCKS SIGPIPE IN THE MASK OF THE ROOT'S THREAD, so the write fails with
// EPIPE and the report ends quietly, and it consumes the pending signal
// with sigtimedwait after each report. The previous mask is restored when
// the last endpoint of the thread and its last report are gone. Side
// effects an application must know of: on that thread, while SIGPIPE is
// blocked, a write to a closed pipe or socket fails with EPIPE instead of
// ending the process; threads created from that thread meanwhile inherit
// the blocked mask. Other threads are not touched. The cost is one
// sigtimedwait per report: 0.2 us of CPU (2 us of wall time on a loaded
// machine) against some 1 ms of CPU for a report of 1000 tasks; see
// docs/Report/AgentEndpoint.md for the figures and the alternative.
//
// Owner: the application holds the Ptr; the endpoint holds its listener and
// client tasks, which point back to it by a plain pointer that stop()
// clears. A report under way belongs to the root's show set; it outlives
// stop() only until its socket, shut down by stop(), fails its next write.
// Thread: the root's thread only (start() checks it).
// States: running (after start) -> stopped (stop() or destruction); stop()
// is idempotent.
// Allocation: per connection (tasks, command buffer, answer), never on the
// scheduler's run path of other tasks.
// Failures: invalid options or a socket that cannot be made, bound or put
// to listen are RuntimeException from start(); everything a client does
// wrong is an error line to that client and a trace.
#pragma once

#include <Kesto/Common/Export.h>

#include <Kesto/Core/Ptr.h>
#include <Kesto/Core/String.h>
#include <Kesto/Core/Types.h>
#include <Kesto/Scheduler/TaskPriority.h>

#include <sys/types.h>

#include <string_view>
#include <vector>

namespace Kesto {

class TaskSchedulerRoot;

class KESTO_EXPORT AgentEndpoint : public RefCount<HTCnt> {
public:
  struct Options {
    // Required: non-empty, no '/', no NUL, at most maxNameLength bytes.
    String name{};
    // Of the listener and the client tasks.
    TaskPriority priority = TaskPriority::low;
    // Clients served at once; one more is refused with an error line. A
    // client counts from accept until its answer is written.
    U32 maxClients = 16;
    // Seconds a client has to send its line, and to take some of a short
    // answer that does not fit its socket at once.
    double idleTimeout = 5.0;
    // Longest command line, without its '\n'.
    U32 maxCommandLength = 4096;
  };

  // What the endpoint did so far, for tests and for the curious.
  struct Counters {
    U64 accepted = 0;       // connections taken on as clients
    U64 refusedAccess = 0;  // peers of another user
    U64 refusedBusy = 0;    // beyond maxClients
    U64 timedOut = 0;       // no whole line within idleTimeout
    U64 overlong = 0;       // line longer than maxCommandLength
    U64 commands = 0;       // lines answered (errors included)
    U64 reports = 0;        // reports started
    U64 stalled = 0;        // clients dropped for not reading a short answer
  };

  static constexpr U32 maxNameLength = 64;
  // The listen backlog: 50 clients connecting in one burst are all queued
  // until the listener's next run.
  static constexpr int listenBacklog = 128;

  // Binds and listens on agentEndpointAddress(options.name, getpid()) and
  // starts the listener task on `root`. Throws RuntimeException for invalid
  // options (empty name, '/', NUL or more than 64 bytes in the name,
  // critical priority, no clients, a time-out that is not positive and
  // finite, a command length of 0) and when the socket cannot be made,
  // bound (the address is taken) or put to listen.
  static Ptr<AgentEndpoint> start(Ptr<TaskSchedulerRoot> root, Options options);

  ~AgentEndpoint();
  AgentEndpoint(const AgentEndpoint&) = delete;
  AgentEndpoint& operator=(const AgentEndpoint&) = delete;

  // Closes the listening socket and every client; reports under way are
  // ended by shutting their sockets down. Idempotent.
  void stop();

  bool running() const noexcept { return listenFd_ >= 0; }
  // The abstract address, without its leading NUL.
  const String& address() const noexcept { return address_; }
  const Options& options() const noexcept { return options_; }
  // Clients being served now.
  U32 clientCount() const noexcept { return U32(clients_.size()); }
  const Counters& counters() const noexcept { return counters_; }

private:
  class Listener;
  class Client;
  class ClientTimer;
  friend class Listener;
  friend class Client;

  AgentEndpoint(Ptr<TaskSchedulerRoot> root, Options options);
  void accepted(int fd);
  void clientEnded(Client* client);

  Ptr<TaskSchedulerRoot> root_;
  Options options_;
  String address_;
  int listenFd_ = -1;
  Ptr<Listener> listener_;
  // In order of arrival, so that stop() treats them in a fixed order.
  std::vector<Ptr<Client>> clients_;
  Counters counters_;
  bool holdsSigpipeBlock_ = false;
};

// "kesto-agent/<name>/<pid>": the abstract address of the endpoint named
// `name` in process `pid`, without the leading NUL.
KESTO_EXPORT String agentEndpointAddress(const String& name, pid_t pid);

// Accepts exactly what agentEndpointAddress writes (a valid name, a pid in
// decimal without sign or leading zero, greater than 0), as it stands in
// /proc/net/unix behind the '@'; fills `name` and `pid` only on success.
KESTO_EXPORT bool parseAgentEndpointAddress(std::string_view address, String& name, pid_t& pid);

} // namespace Kesto
