// Five repetitions of a benchmark, reported as aggregates only (mean,
// median, standard deviation, coefficient of variation) and their minimum:
// on a shared machine the fastest of several runs is the figure that
// reflects the code rather than its neighbours, and the spread says how far
// to trust it. For benchmark programs only (it needs Google Benchmark).
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

namespace KestoSupport {

inline double minimum(const std::vector<double>& v) {
  double m = v.empty() ? 0.0 : v[0];
  for (double x : v)
    m = x < m ? x : m;
  return m;
}

// BENCHMARK(...)->Apply(KestoSupport::repeated)
inline void repeated(benchmark::internal::Benchmark* b) {
  b->Repetitions(5)->ComputeStatistics("min", minimum)->ReportAggregatesOnly(true);
}

} // namespace KestoSupport
