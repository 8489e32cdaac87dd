#include <Kesto/Core/Hooks.h>

#include <atomic>
#include <ctime>

namespace Kesto::Impl {

namespace {

double monotonicSeconds() noexcept {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

void ignoreThreadSafePointers(bool) noexcept {}

std::atomic<TimeFn> timeFn{&monotonicSeconds};
std::atomic<ThreadSafePointerFn> threadSafePointerFn{&ignoreThreadSafePointers};

} // namespace

void timeIndirectFnIs(TimeFn fn) noexcept { timeFn.store(fn ? fn : &monotonicSeconds, std::memory_order_release); }
TimeFn timeIndirectFn() noexcept { return timeFn.load(std::memory_order_acquire); }
double timeIndirect() noexcept { return timeIndirectFn()(); }

void threadSafePointerIsFnIs(ThreadSafePointerFn fn) noexcept {
  threadSafePointerFn.store(fn ? fn : &ignoreThreadSafePointers, std::memory_order_release);
}
ThreadSafePointerFn threadSafePointerIsFn() noexcept { return threadSafePointerFn.load(std::memory_order_acquire); }

} // namespace Kesto::Impl
