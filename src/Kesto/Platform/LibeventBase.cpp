// The thread's event base: creation, registration, release, fork, and the
// hooks that turn libevent's logging and fatal errors into traces and
// assertions.
#include "Platform/LibeventBase.h"

#include <Kesto/Core/System.h>
#include <Kesto/Debug/Trace.h>

#include <event2/event.h>
#include <event2/thread.h>

namespace Kesto {

__thread event_base* ev_base __attribute__((tls_model("initial-exec"))) = nullptr;
__thread bool mainThread __attribute__((tls_model("initial-exec"))) = false;

namespace {

// Process-wide set-up of libevent, done once by the first thread that makes
// a base: its own locking (bases are per thread, but libevent's globals are
// shared) and the log and fatal-error hooks.
struct LeInitializer {
  LeInitializer() {
    const int rc = evthread_use_pthreads();
    KESTO_ASSERT_H(Debug::kestoLibevent, rc == 0, "LeInitializer", "failed to set up libevent threading: {}", rc);
    event_set_fatal_callback(le_fatal_cb);
    event_set_log_callback(le_debug_cb);
  }
};

} // namespace

event_base* leCreateBase() {
  static LeInitializer initializer;
  event_config* config = event_config_new();
  event_config_require_features(config, EV_FEATURE_ET);
  // The environment does not choose the clock: the lag correction
  // (LibeventBase.h) assumes libevent's default, the coarse one.
  event_config_set_flag(config, EVENT_BASE_FLAG_IGNORE_ENV);
  event_base* base = event_base_new_with_config(config);
  KESTO_ASSERT(base != nullptr, "Kesto", "Failed to create event_base");
  event_config_free(config);
  event_base_priority_init(base, 2);
  return base;
}

void leRegisterBase(event_base* base) {
  KESTO_ASSERT(!ev_base || ev_base == base, "Kesto",
               "Tried to register a base:{} but a thread_local  base already exists: {}", DisplayPointer(base),
               DisplayPointer(ev_base));
  ev_base = base;
  mainThread = isMainThread();
}

void leInit() {
  if (!ev_base)
    leRegisterBase(leCreateBase());
}

bool leInitialized() noexcept { return ev_base != nullptr; }

void setMainThread() { mainThread = isMainThread(); }

void leFree() {
  if (ev_base) {
    event_base_free(ev_base);
    ev_base = nullptr;
  }
}

void leForkReinit() {
  if (ev_base)
    event_reinit(ev_base);
  else
    leRegisterBase(leCreateBase());
}

void eventPrioritySet(event* ev, Platform::EventPriority priority) {
  KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "Setting priority of {} to {}", DisplayPointer(ev), priority);
  const int rc = event_priority_set(ev, priority);
  KESTO_ASSERT(rc == 0, "Kesto", "Failed to set priority on {} to {} rc {}", DisplayPointer(ev), priority, rc);
}

void le_debug_cb(int severity, const char* message) {
  switch (severity) {
  case EVENT_LOG_DEBUG:
    KESTO_TRACE(Debug::kestoLibevent, 9, "Kesto", "{}", message);
    return;
  case EVENT_LOG_MSG:
    KESTO_TRACE(Debug::kestoLibevent, 5, "Kesto", "{}", message);
    return;
  case EVENT_LOG_WARN:
    KESTO_TRACE(Debug::kestoLibevent, 1, "Kesto", "{}", message);
    return;
  case EVENT_LOG_ERR:
    KESTO_TRACE(Debug::kestoLibevent, 0, "Kesto", "{}", message);
    return;
  default:
    KESTO_FAIL("Kesto", "invalid libevent severity:{} msg:{}", severity, message);
  }
}

void le_fatal_cb(int err) {
  const std::string text = fmt::format("libevent fatal error:{}", err);
  KESTO_FAIL("Kesto", "{}", text);
}

} // namespace Kesto
