#!/usr/bin/env bash
# The summary table of `make bench`: each figure of ours beside the libevent
# figure (or CLOCK_MONOTONIC, for the clock) measured in the same process,
# the ratio and the target, from the median and the standard deviation of
# REPETITIONS runs (default 5). Needs only bash and awk, both in every Debian
# installation.
#
#   bench/summary.sh [build-dir]
set -euo pipefail

build=${1:-build}
reps=${REPETITIONS:-5}
bench=$build/bench
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

run() { # file benchmark filter
  local name=$1 exe=$2 filter=$3
  echo "running $exe --benchmark_filter='$filter' --benchmark_repetitions=$reps" >&2
  "$bench/$exe" --benchmark_filter="$filter" --benchmark_repetitions="$reps" \
    --benchmark_report_aggregates_only=true --benchmark_format=json >"$out/$name.json"
}

run root bench_root_bench '^BM_(RootChain|RootChainWatchdog|RootChainLatencyOn|BareChain)$'
run pass bench_scheduler_bench '^BM_SchedulerPass$'
run wheel bench_timerwheel_bench '^(StartStop|Rearm|Fire200ms)/'
run clock bench_clock_bench '^ClockRead/'

# Flattens Google Benchmark's JSON (one key per line) into
#   run_name <TAB> aggregate <TAB> field <TAB> value
# for the median and stddev aggregates, with counters among the fields.
# Lines before the JSON (a program's own output) are skipped.
cat "$out"/*.json | awk '
  /^[[:space:]]*\{[[:space:]]*$/ { depth++; if (depth == 2) { delete kv } ; next }
  /^[[:space:]]*\}/ {
    if (depth == 2 && (kv["aggregate_name"] == "median" || kv["aggregate_name"] == "stddev"))
      for (k in kv) if (k != "aggregate_name" && k != "run_name")
        printf "%s\t%s\t%s\t%s\n", kv["run_name"], kv["aggregate_name"], k, kv[k]
    depth--; next
  }
  depth == 2 && match($0, /"[^"]+": /) {
    key = substr($0, RSTART + 1, RLENGTH - 4)
    value = substr($0, RSTART + RLENGTH)
    sub(/,[[:space:]]*$/, "", value); gsub(/"/, "", value)
    kv[key] = value
  }
  /"benchmarks": \[/ { depth = 1 }
' >"$out/flat.tsv"

# One row: label, our run, our field, reference run (or -), its field,
# scale to ns, target kind (ratio or ns), target value.
awk -F'\t' -v reps="$reps" '
  function pick(run, agg, field,   k) {
    for (k in val) {
      split(k, p, SUBSEP)
      # The run itself, or one of its arguments ("StartStop/wheel/..."), not
      # another run whose name it begins ("BM_RootChainWatchdog").
      if ((p[1] == run || index(p[1], run "/") == 1) && p[2] == agg && p[3] == field) return val[k]
    }
    return ""
  }
  function row(label, ours, field, ref, rfield, scale, kind, target,   m, s, rm, rs, ratio, verdict, refText) {
    m = pick(ours, "median", field) * scale; s = pick(ours, "stddev", field) * scale
    refText = "-"; ratio = "-"
    if (ref != "-") {
      rm = pick(ref, "median", rfield) * scale; rs = pick(ref, "stddev", rfield) * scale
      refText = sprintf("%.1f +- %.1f", rm, rs)
      if (rm > 0) ratio = sprintf("%.2fx", m / rm)
    }
    if (kind == "ratio") verdict = (rm > 0 && m / rm <= target) ? "met" : "missed"
    else if (kind == "below") verdict = (rm > 0 && m < rm) ? "met" : "missed"
    else verdict = (m <= target) ? "met" : "missed"
    printf "%-44s %16s %18s %8s %10s %7s\n", label, sprintf("%.1f +- %.1f", m, s), refText, ratio,
      (kind == "ratio" ? "<= " target "x" : kind == "below" ? "< 1x" : "<= " target " ns"), verdict
  }
  { val[$1, $2, $3] = $4 }
  END {
    printf "\nSummary: ns, median +- standard deviation of %d runs; reference measured in the same process\n", reps
    printf "%-44s %16s %18s %8s %10s %7s\n", "figure", "ours", "reference", "ratio", "target", ""
    row("dispatch, one task run (libevent chain)", "BM_RootChain", "ns_per_run", "BM_BareChain", "ns_per_run", 1e9, "ratio", 1.25)
    row("dispatch, stall watchdog on (off)", "BM_RootChainWatchdog", "ns_per_run", "BM_RootChain", "ns_per_run", 1e9, "ratio", 1.02)
    row("dispatch, latency culprits on (off)", "BM_RootChainLatencyOn", "ns_per_run", "BM_RootChain", "ns_per_run", 1e9, "ratio", 1.02)
    row("scheduler pass, history on", "BM_SchedulerPass", "cpu_time", "-", "", 1, "ns", 100)
    row("wheel start+stop, 1e6 armed (libevent)", "StartStop/wheel", "cpu_time", "StartStop/libevent", "cpu_time", 1, "ns", 45)
    row("wheel re-arm, 1e6 armed (libevent)", "Rearm/wheel", "cpu_time", "Rearm/libevent", "cpu_time", 1, "ns", 150)
    row("firing 1e6 in 200 ms, CPU/timer (libevent)", "Fire200ms/wheel", "cpu_ns/fired", "Fire200ms/libevent", "cpu_ns/fired", 1, "ns", 350)
    row("clock reading (CLOCK_MONOTONIC)", "ClockRead/steady", "cpu_time", "ClockRead/monotonic", "cpu_time", 1, "below", 1)
    row("Kesto::time() (CLOCK_MONOTONIC)", "ClockRead/kestoTime", "cpu_time", "ClockRead/monotonic", "cpu_time", 1, "below", 1)
  }
' "$out/flat.tsv"
