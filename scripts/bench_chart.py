#!/usr/bin/env python3
"""Draws docs/performance.svg from sw_bench's JSON output.

    scripts/bench_chart.py results.json performance.svg

One bar per workload: the library's time over the best peer's, on a log
scale, so that 1 is parity, bars to the left are where the library leads and
bars to the right are where it trails. A bar is coloured by what sets the
cost: the design (a mechanism row of the run prices that part of the design
on its own) or the code. Where the library also ran with its reactor on epoll,
a second, hatched bar shows that variant. The timer workloads add their p50
and p99 over Asio's (for the pacing rounds, the median of the per-round
ratios). Needs matplotlib (Debian: python3-matplotlib).
"""
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402  (after the backend is chosen)

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_table import LATENESS, HANDOFF, LIB, PEERS, load  # noqa: E402

# Workloads whose gap the design fixes, with the mechanism row that prices it.
DESIGN = {
    "post_1_producer": "events are heap objects in list nodes, 5 per pass",
    "post_2_producers": "events are heap objects in list nodes, 5 per pass",
    "memory_per_event": "events are heap objects in list nodes, 5 per pass",
    "reactor_wakeup": "select() woken through loopback TCP",
    "trace_file": "the trace file flushes every line",
    "trace_callback": "every trace line is stamped",
}
EPOLL = "lib_epoll"
COLOURS = {"design": "#4c72b0", "code": "#dd8452"}


def ratios(rows, lateness, handoff):
    """(label, lib ratio, epoll ratio or None, kind) per workload, in run order."""
    peers = [key for key, _ in PEERS]
    out = []
    for name, impls in rows.items():
        if name.startswith("mechanism_") or LIB not in impls:
            continue
        best = min((impls[k][0] for k in peers if k in impls), default=None)
        if not best:
            continue
        epoll = impls[EPOLL][0] / best if EPOLL in impls else None
        out.append((name, impls[LIB][0] / best, epoll, "design" if name in DESIGN else "code"))
    for table, columns, figures in ((lateness, LATENESS, ("p50", "p99")),
                                    (handoff, HANDOFF, ("p50", "p99"))):
        for name, impls in table.items():
            if "asio" not in impls or LIB not in impls:
                continue
            for figure in figures:
                label = "%s %s" % (name, figure)
                # Measured in rounds against Asio: the median of the per-round
                # ratios, which a stall in one round does not move.
                paired = "%s_x_asio" % figure
                k = columns.index(paired) if paired in columns else None
                if k is not None and impls[LIB][k] is not None:
                    epoll = impls[EPOLL][k] if EPOLL in impls else None
                    out.append((label, impls[LIB][k], epoll, "code"))
                    continue
                i = next(j for j, c in enumerate(columns) if c.endswith("_%s_us" % figure))
                asio = impls["asio"][i]
                if not asio:
                    continue
                epoll = impls[EPOLL][i] / asio if EPOLL in impls else None
                out.append((label, impls[LIB][i] / asio, epoll, "code"))
    return out


def draw(bars, path, machine):
    height = 0.35 * len(bars) + 1.9
    fig, ax = plt.subplots(figsize=(8.5, height))
    y = list(range(len(bars)))[::-1]
    for pos, (name, lib, epoll, kind) in zip(y, bars):
        # Each bar runs from parity to the ratio: leftwards where the library
        # leads, rightwards where it trails.
        pairs = [(lib, pos + 0.2, {}), (epoll, pos - 0.2, {"hatch": "///"})]
        if epoll is None:
            pairs = [(lib, pos, {})]
        for ratio, at, style in pairs:
            ax.barh(at, ratio - 1.0, left=1.0, height=0.7 / len(pairs), color=COLOURS[kind],
                    edgecolor="white", **style)
            ax.text(ratio * (1.06 if ratio >= 1 else 1 / 1.06), at, "%.2f" % ratio,
                    va="center", ha="left" if ratio >= 1 else "right", fontsize=6)
    ax.set_xscale("log")
    ax.axvline(1.0, color="black", linewidth=0.8)
    ax.set_yticks(y)
    ax.set_yticklabels([name for name, _, _, _ in bars], fontsize=8)
    low = min(min(b[1], b[2] or b[1]) for b in bars)
    high = max(max(b[1], b[2] or b[1]) for b in bars)
    ax.set_xlim(min(0.1, low / 1.5), max(10, high * 1.5))
    ax.set_xlabel("library / best peer (log scale; left of 1: the library leads)")
    fig.suptitle("libSystemWrappers against the best peer, per workload", fontsize=10)
    handles = [plt.Rectangle((0, 0), 1, 1, color=COLOURS["design"]),
               plt.Rectangle((0, 0), 1, 1, color=COLOURS["code"]),
               plt.Rectangle((0, 0), 1, 1, facecolor="grey", hatch="///", edgecolor="white")]
    ax.legend(handles, ["cost set by the design (priced by a mechanism row)",
                        "cost set by the code", "reactor on epoll"],
              fontsize=7, loc="lower center", bbox_to_anchor=(0.5, 1.0), ncol=3, frameon=False)
    ax.grid(axis="x", which="both", linewidth=0.3, alpha=0.5)
    fig.text(0.01, 0.005, machine, fontsize=6, color="grey")
    fig.tight_layout(rect=(0, 0.02, 1, 1))
    fig.savefig(path, format="svg", metadata={"Date": None})


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    from bench_table import machine
    context, rows, lateness, handoff = load(sys.argv[1])
    bars = ratios(rows, lateness, handoff)
    if not bars:
        print("no workload with both the library and a peer in %s" % sys.argv[1],
              file=sys.stderr)
        return 1
    draw(bars, sys.argv[2], machine(context))
    print("chart: %s" % sys.argv[2])
    return 0


if __name__ == "__main__":
    sys.exit(main())
