// Costs of the trace facility: a call site whose level is off (the price
// every trace line of the library pays in production), a line that is on and
// written to a trace file, and the duration text used in messages.
//
// Each benchmark checks what it measured: a disabled site must not evaluate
// its arguments, an enabled one must have written exactly one line per
// iteration.
#include <Kesto/EventKesto.h>

#include <benchmark/benchmark.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

int sideEffect(int& evaluations, int value) {
  ++evaluations;
  return value;
}

void BM_TraceDisabledPtr(benchmark::State& state) {
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = Kesto::Platform::getDebugHandler("BenchDisabled");
  int evaluations = 0;
  int i = 0;
  for (auto _ : state) {
    // The mask must be read again on every pass, as a real site does after
    // other code ran in between.
    benchmark::ClobberMemory();
    KESTO_TRACE(handler, 5, "Bench", "value {}", sideEffect(evaluations, ++i));
  }
  if (evaluations != 0)
    state.SkipWithError("a disabled trace evaluated its arguments");
}
BENCHMARK(BM_TraceDisabledPtr);

void BM_TraceDisabledReference(benchmark::State& state) {
  Kesto::Ptr<Kesto::Platform::DebugHandler> owner = Kesto::Platform::getDebugHandler("BenchDisabledRef");
  const Kesto::Platform::DebugHandler& handler = *owner;
  int evaluations = 0;
  int i = 0;
  for (auto _ : state) {
    benchmark::ClobberMemory();
    KESTO_TRACE(handler, 5, "Bench", "value {}", sideEffect(evaluations, ++i));
  }
  if (evaluations != 0)
    state.SkipWithError("a disabled trace evaluated its arguments");
}
BENCHMARK(BM_TraceDisabledReference);

std::size_t countLines(const std::string& path) {
  std::ifstream in(path);
  std::size_t lines = 0;
  for (std::string line; std::getline(in, line);)
    ++lines;
  return lines;
}

void BM_TraceEnabledToFile(benchmark::State& state) {
  char path[] = "/tmp/kesto-trace-bench-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) {
    state.SkipWithError("no temporary file");
    return;
  }
  ::close(fd);
  setenv("TRACEFILE", path, 1);
  Kesto::Platform::setupKestoDebug("");
  Kesto::Ptr<Kesto::Platform::DebugHandler> handler = Kesto::Platform::getDebugHandler("BenchEnabled");
  handler->enabledIs(5, true);
  int i = 0;
  for (auto _ : state)
    KESTO_TRACE(handler, 5, "Bench", "value {} of {}", ++i, "the run");
  unsetenv("TRACEFILE");
  Kesto::Platform::setupKestoDebug("");
  if (countLines(path) != static_cast<std::size_t>(state.iterations()))
    state.SkipWithError("the trace file does not hold one line per iteration");
  ::unlink(path);
}
BENCHMARK(BM_TraceEnabledToFile);

void BM_DurationToString(benchmark::State& state) {
  std::chrono::nanoseconds value(1234567);
  for (auto _ : state) {
    Kesto::String text = Kesto::durationToString(value);
    benchmark::DoNotOptimize(text);
  }
  if (Kesto::durationToString(value) != Kesto::String("1ms"))
    state.SkipWithError("unexpected duration text");
}
BENCHMARK(BM_DurationToString);

} // namespace

BENCHMARK_MAIN();
