// The order in which the library sets itself up at load.
//
//  1. checkIncompat, before anything else (constructor priority 101, the
//     lowest number used in the library).
//  2. Initialisation priority 60000: the library's seven handlers, in this
//     order, each by getDebugHandler. No control exists yet, so each starts
//     with levels 0. Each Ptr's destruction is registered with __cxa_atexit
//     by its dynamic initialisation.
//  3. Default priority, in one function so that the order does not depend
//     on the order in which files are linked: the standard streams (the
//     steps below may write to std::cerr before any other file's stream
//     initialiser has run), the terminate handler, the
//     core library's hooks, then the built-in trace defaults, TRACE,
//     the default trace format and TRACEFORMAT.
#include <Kesto/Core/Hooks.h>
#include "Debug/TerminateHandler.h"
#include <Kesto/Platform/Time.h>
#include <Kesto/Debug/Trace.h>

#include <ios>

namespace {

__attribute__((constructor(101))) void loadStepCheckIncompat() { Kesto::checkIncompat(); }

} // namespace

namespace Kesto::Debug {

Ptr<Platform::DebugHandler> kestoUtil __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("KestoUtil");
Ptr<Platform::DebugHandler> kestoTimerWheel __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("KestoTimerWheel");
Ptr<Platform::DebugHandler> taskScheduler __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("TaskScheduler");
Ptr<Platform::DebugHandler> kestoPlugin __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("KestoPlugin");
Ptr<Platform::DebugHandler> kestoLibevent __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("KestoLibevent");
Ptr<Platform::DebugHandler> kestoIntrusiveHashMap __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("KestoIntrusiveHashMap");
Ptr<Platform::DebugHandler> assertHandler __attribute__((init_priority(60000))) =
    Platform::getDebugHandler("Assert");

} // namespace Kesto::Debug

namespace {

void ignoreThreadSafePointerChange(bool) noexcept {}

void loadStepStandardStreams() {
  // Counted by the standard library: the streams are made by the first
  // instance and flushed when the last one goes at exit.
  static std::ios_base::Init standardStreams;
}

void loadStepTerminateHandler() { Kesto::Debug::Impl::installTerminateHandler(); }

// The core library reads the family's clock and hears of the switch to
// thread-safe pointers through these hooks.
void loadStepCoreHooks() {
  Kesto::Impl::timeIndirectFnIs(&Kesto::time);
  Kesto::Impl::threadSafePointerIsFnIs(&ignoreThreadSafePointerChange);
}

// Levels 0 and 1 of every Kesto* handler are on in every process; TRACE is
// applied as a second set, so it adds to these and cannot remove them.
void loadStepTraceDefaults() {
  Kesto::Platform::setupKestoDebug("Kesto*/01");
  Kesto::Platform::setupKestoDebug(nullptr);
  Kesto::Platform::setTraceFormat("date,time,tid,handle,level");
  Kesto::Platform::setTraceFormat(nullptr);
}

__attribute__((constructor)) void loadSequence() {
  loadStepStandardStreams();
  loadStepTerminateHandler();
  loadStepCoreHooks();
  loadStepTraceDefaults();
}

} // namespace
