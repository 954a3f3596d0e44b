#!/usr/bin/env python3
"""Turns sw_bench's JSON output into the comparison table of docs/performance.md.

    scripts/bench_table.py results.json

Benchmarks are named "<workload>/<implementation>"; the medians of the
repetitions are compared. A "batch" counter divides the time into the time per
operation; a "bytes" counter is shown as bytes instead of time. Workloads named
"mechanism_*" measure a part of a design on its own and get a table of their own,
and so do workloads that report timer lateness counters or hand-off counters
(microseconds); a workload measured in rounds may add the 99th percentile of its
median round and, per round, its figures over Asio's in the same round. A variant of the library (LIB_VARIANTS) gets a column and a ratio
of its own when some workload has it.
"""
import json
import platform
import re
import sys

PEERS = [("asio", "Asio"), ("libevent", "libevent"), ("mutex_cv", "mutex+condvar"),
         ("spdlog", "spdlog"), ("shared_ptr", "shared_ptr<vector>"), ("std", "C++ std")]
LATENESS = ["late_p50_us", "late_p99_us", "late_round_p99_us", "late_max_us", "drift_us",
            "p50_x_asio", "p99_x_asio"]
HANDOFF = ["handoff_p50_us", "handoff_p99_us", "handoff_round_p99_us", "handoff_max_us",
           "p99_x_asio"]
LIB = "lib"
LIB_VARIANTS = [("lib_epoll", "lib (epoll)")]
TO_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    with open(path) as f:
        data = json.load(f)
    rows = {}
    lateness = {}
    handoff = {}
    for b in data["benchmarks"]:
        if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
            continue
        if b.get("error_occurred"):
            print("error in %s: %s" % (b["name"], b.get("error_message")), file=sys.stderr)
            continue
        # Drop what Google Benchmark appends: /iterations:1, /real_time, /manual_time.
        name = re.sub(r"(/(iterations:\d+|threads:\d+|real_time|manual_time))+(_median)?$", "",
                      b.get("run_name", b["name"]))
        workload, _, impl = name.partition("/")
        if LATENESS[0] in b:
            lateness.setdefault(workload, {})[impl] = [b.get(c) for c in LATENESS]
            continue
        if HANDOFF[0] in b:
            handoff.setdefault(workload, {})[impl] = [b.get(c) for c in HANDOFF]
            continue
        if "bytes" in b:
            value, unit = b["bytes"], "B"
        else:
            value = b["real_time"] * TO_NS[b["time_unit"]] / b.get("batch", 1)
            unit = "ns"
        rows.setdefault(workload, {})[impl] = (value, unit)
    return data.get("context", {}), rows, lateness, handoff


def fmt(entry):
    if entry is None:
        return "-"
    value, unit = entry
    if unit == "B":
        return "%.0f B" % value
    if value >= 10000:
        return "%.1f us" % (value / 1000)
    return "%.1f ns" % value if value < 100 else "%.0f ns" % value


def machine(context):
    model = "unknown CPU"
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    model = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    return ("%s, %s CPUs, Linux %s, %s; load average before the run %s" %
            (model, context.get("num_cpus", "?"), platform.release(),
             context.get("date", "")[:10],
             ", ".join("%.2f" % x for x in context.get("load_avg", []))))


def spread_table(table, title, columns, forms):
    """Prints counters, each column in its own format; a column no row has is
    left out."""
    if not table:
        return
    rows = [(name, impl, values) for name, impls in table.items()
            for impl, values in impls.items()]
    kept = [i for i in range(len(columns)) if any(v[i] is not None for _, _, v in rows)]
    print()
    print("| %s | Implementation | %s |" % (title, " | ".join(columns[i] for i in kept)))
    print("|---|---" + "|---" * len(kept) + "|")
    for name, impl, values in rows:
        cells = [forms[i] % values[i] if values[i] is not None else "-" for i in kept]
        print("| %s | %s | %s |" % (name, impl, " | ".join(cells)))


def main():
    if len(sys.argv) != 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    context, rows, lateness, handoff = load(sys.argv[1])
    def present(candidates):
        return [(key, title) for key, title in candidates
                if any(key in impls for name, impls in rows.items()
                       if not name.startswith("mechanism_"))]
    used = present(PEERS)
    libs = [(LIB, "libSystemWrappers")] + present(LIB_VARIANTS)
    print("Machine: " + machine(context))
    print()
    ratios = ["ratio %s / best peer" % ("lib" if key == LIB else title) for key, title in libs]
    print("| Workload | " + " | ".join([t for _, t in libs + used] + ratios) + " |")
    print("|---" * (len(libs + used) + len(ratios) + 1) + "|")
    for name, impls in rows.items():
        if name.startswith("mechanism_"):
            continue
        best = min((impls[k][0] for k, _ in used if k in impls), default=0)
        cells = [fmt(impls.get(k)) for k, _ in libs + used]
        cells += ["%.2f" % (impls[k][0] / best) if k in impls and best > 0 else "-"
                  for k, _ in libs]
        print("| %s | %s |" % (name, " | ".join(cells)))
    mechanisms = [(n, i) for n, i in rows.items() if n.startswith("mechanism_")]
    if mechanisms:
        print()
        print("| Mechanism | Variant | Median |")
        print("|---|---|---|")
        for name, impls in mechanisms:
            for impl, entry in impls.items():
                print("| %s | %s | %s |" % (name[len("mechanism_"):], impl, fmt(entry)))
    timer_columns = ["lateness p50", "p99", "p99 of the median round", "max", "drift at the end",
                     "p50 / Asio's (median of rounds)", "p99 / Asio's (median of rounds)"]
    delay_columns = ["p50", "p99", "p99 of the median round", "max",
                     "p99 / Asio's (median of rounds)"]
    spread_table(lateness, "Timer", timer_columns, ["%.0f us"] * 5 + ["%.2f"] * 2)
    spread_table(handoff, "Hand-off", delay_columns, ["%.1f us"] * 4 + ["%.2f"])
    return 0


if __name__ == "__main__":
    sys.exit(main())
