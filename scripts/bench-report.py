#!/usr/bin/env python3
"""Writes bench/RESULTS.md (and bench/results.svg) from the JSON files that
scripts/bench.sh leaves in build/bench/json: for each hot path the peer's
time, BaseLib's, their ratio and the goal, and a chart of the ratios.

    bench-report.py JSON_DIR OUT_MD OUT_SVG
"""
import glob
import json
import math
import os
import platform
import sys
import time

# (what, BaseLib benchmark, peer benchmark, peer name, goal ratio)
ROWS = [
    ("tracked pair, 32 B, 100,000 live", "BM_vek_malloc_free/32", "BM_malloc_free/32", "malloc+free", 1.5),
    ("tracked pair, 1 KiB, 100,000 live", "BM_vek_malloc_free/1024", "BM_malloc_free/1024", "malloc+free", 1.5),
    ("tracked pair, 32 B, 2 threads", "BM_vek_malloc_free/32/real_time/threads:2",
     "BM_malloc_free/32/real_time/threads:2", "malloc+free", 2.0),
    ("tracked pair, 1 KiB, 2 threads", "BM_vek_malloc_free/1024/real_time/threads:2",
     "BM_malloc_free/1024/real_time/threads:2", "malloc+free", 2.0),
    ("tracked pair, 32 B, 8 threads", "BM_vek_malloc_free/32/real_time/threads:8",
     "BM_malloc_free/32/real_time/threads:8", "malloc+free", 3.0),
    ("tracked pair, 1 KiB, 8 threads", "BM_vek_malloc_free/1024/real_time/threads:8",
     "BM_malloc_free/1024/real_time/threads:8", "malloc+free", 3.0),
    ("tracked pair, 32 B, 8 threads", "BM_vek_malloc_free/32/real_time/threads:8",
     "BM_vek_malloc_free/32/real_time/threads:2", "BaseLib on 2 threads", 2.0),
    ("tracked pair, 1 KiB, 8 threads", "BM_vek_malloc_free/1024/real_time/threads:8",
     "BM_vek_malloc_free/1024/real_time/threads:2", "BaseLib on 2 threads", 2.0),
    ("tracked 32 B freed by another thread", "BM_vek_handoff/32/real_time/threads:2",
     "BM_malloc_handoff/32/real_time/threads:2", "malloc+free", 3.0),
    ("tracked 1 KiB freed by another thread", "BM_vek_handoff/1024/real_time/threads:2",
     "BM_malloc_handoff/1024/real_time/threads:2", "malloc+free", 3.0),
    ("VekStr to 1 MiB, 1-byte appends", "BM_vekstr_append/1/1048576", "BM_stdstring_append/1/1048576",
     "std::string", 1.0),
    ("VekStr to 1 MiB, 16-byte appends", "BM_vekstr_append/16/1048576", "BM_stdstring_append/16/1048576",
     "std::string", 1.0),
    ("VekStr_appdf \"%d %s %08x\"", "BM_vekstr_appdf", "BM_snprintf", "snprintf", 1.5),
    ("utf8_buf_to_wcs_str, 64 KiB ASCII", "BM_vek_utf8_to_wcs/0", "BM_iconv_utf8_to_utf16/0", "iconv", 0.125),
    ("utf8_buf_to_wcs_str, 64 KiB mixed", "BM_vek_utf8_to_wcs/1", "BM_iconv_utf8_to_utf16/1", "iconv", 0.33),
    ("wcs_buf_to_utf8_str, 64 KiB ASCII", "BM_vek_wcs_to_utf8/0", "BM_iconv_utf16_to_utf8/0", "iconv", 0.2),
    ("wcs_buf_to_utf8_str, 64 KiB mixed", "BM_vek_wcs_to_utf8/1", "BM_iconv_utf16_to_utf8/1", "iconv", 0.5),
    ("IniUtil_getFileStr, 4 KiB file", "BM_IniUtil_getFileStr", "BM_GKeyFile_getFileStr", "GKeyFile", 0.5),
    ("IniUtil_getFileStr, 4 KiB file", "BM_IniUtil_getFileStr", "BM_inih_getFileStr", "inih", 1.0),
    ("IniFile load, 1 MiB", "BM_IniFile_load", "BM_GKeyFile_load", "GKeyFile", 1.0),
    ("10,000 IniFile lookups", "BM_IniFile_lookup10k", "BM_GKeyFile_lookup10k", "GKeyFile", 3.0),
    # binary and network helpers, identifier tables
    ("IPv4 text parse", "BM_vek_inet_pton/4", "BM_inet_pton/4", "inet_pton", 1.0),
    ("IPv6 text parse", "BM_vek_inet_pton/6", "BM_inet_pton/6", "inet_pton", 1.0),
    ("StrId lookup among 100,000 names", "BM_StrId_find/1", "BM_unordered_map_find/1",
     "std::unordered_map<std::string,int>", 1.0),
    ("StrId lookup among 100,000 names, absent", "BM_StrId_find/0", "BM_unordered_map_find/0",
     "std::unordered_map<std::string,int>", 1.0),
    # the XML decoder
    ("XML decoding of a 10 MB document (events only)", "BM_XmlDec_events", "BM_expat_events", "expat", 1.0),
]

# Event-receive processors.
ROWS += [
    ("erp post from another thread -> handler runs, round trip", "BM_erp_roundtrip_vek/real_time",
     "BM_erp_roundtrip_eventfd/real_time", "eventfd + mutex queue", 1.5),
    # trace and monitors
    ("a disabled trace call", "BM_vek_trace_off", "BM_spdlog_debug_off", "spdlog SPDLOG_DEBUG, level off", 1.0),
    ("an enabled record to a file, synchronously", "BM_vek_trace_file", "BM_spdlog_file",
     "spdlog basic file sink", 1.2),
    ("file created -> event delivered", "BM_filemon_created/real_time", "BM_inotify_created/real_time",
     "inotify read directly", 1.5),
]

# Transports and the buffered stream (throughput >= 0.9x is time <= 1.11x).
ROWS += [
    ("TCP loopback, 64 KiB writes, 32 MiB", "BM_tcp_stream_vek/real_time", "BM_tcp_stream_raw/real_time",
     "send/recv", 1.11),
    ("TCP loopback, 64-byte request/response", "BM_tcp_rtt_vek/real_time", "BM_tcp_rtt_raw/real_time",
     "send/recv", 1.2),
    ("pseudo-terminal, 32-byte command/reply", "BM_pty_rtt_vek/real_time", "BM_pty_rtt_raw/real_time",
     "write/poll/read", 1.2),
    ("100 MB text by lines, BufStrm over FileStrm", "BM_lines_bufstrm", "BM_lines_fgets", "fgets", 1.0),
]

# Figures with a goal of their own and no peer: (what, benchmark, counter,
# goal, unit); the medians of the repetitions, as above.
ABS_ROWS = [
    ("cancel -> blocked descriptor read returns -5, median", "BM_cancel_read_vek/iterations:1/real_time",
     "median_us", 50.0, "µs"),
    ("cancel -> blocked descriptor read returns -5, p99", "BM_cancel_read_vek/iterations:1/real_time",
     "p99_us", 1000.0, "µs"),
    ("a disabled trace call", "BM_vek_trace_off", "cpu_time", 2.0, "ns"),
]

# Timers and the task server.
ROWS += [
    ("timer start + stop, 1,000,000 pending", "BM_vek_timer_start_stop", "BM_uv_timer_start_stop",
     "libuv", 0.5),
    ("100,000 timers made, due in 1 ms, run and freed", "BM_vek_timer_expiry/real_time", "BM_uv_timer_expiry/real_time",
     "libuv", 1.0),
    ("task post -> task runs, 4 workers", "BM_task_latency_vek/manual_time",
     "BM_task_latency_uv/manual_time", "libuv uv_queue_work", 1.0),
    ("task post -> task runs, 4 workers", "BM_task_latency_vek/manual_time",
     "BM_task_latency_std/manual_time", "std::thread pool", 1.0),
    ("10,000 tasks posted and run, 4 workers", "BM_task_burst_vek/real_time", "BM_task_burst_uv/real_time",
     "libuv uv_queue_work", 1.0),
    ("10,000 tasks posted and run, 4 workers", "BM_task_burst_vek/real_time", "BM_task_burst_std/real_time",
     "std::thread pool", 1.0),
]
ABS_ROWS += [
    ("timer lateness p99, 10,000 timers of 1-100 ms, no load", "BM_vek_timer_lateness/iterations:1/real_time",
     "p99_us", 2000.0, "µs"),
    ("libuv's timer lateness p99, the same timers, for reference", "BM_uv_timer_lateness/iterations:1/real_time",
     "p99_us", 2000.0, "µs"),
]

# Messages between processes (1 KiB throughput >= 0.7x is time <= 1.43x).
ROWS += [
    ("64-byte message round trip between two processes", "BM_pm_rtt/real_time", "BM_uds_rtt_raw/real_time",
     "raw Unix domain socket", 2.0),
    ("1 KiB messages one way, 10,000", "BM_pm_1k/real_time", "BM_uds_1k_raw/real_time",
     "raw Unix domain socket", 1.43),
    ("generic event sent, decoded in the other process, answered", "BM_pm_evt/real_time",
     "BM_uds_rtt_raw/real_time", "raw 64-byte round trip", 4.0),
]
# The modem channel (lexer throughput >= 0.3x memchr is time <= 3.33x).
ROWS += [
    ("modem transcript, 8 MiB: tokens (VekLex) vs line ends", "BM_lex_vek", "BM_lex_memchr", "memchr", 3.33),
    ("AtChan command/OK round trip, pseudo-terminal", "BM_atchan_rtt_vek/real_time", "BM_atchan_rtt_raw/real_time",
     "write/poll/read", 1.3),
]
ABS_ROWS += [
    ("VekLex on a modem transcript (500 MB/s = 2 ns/B)", "BM_lex_vek", "ns_per_byte", 2.0, "ns/B"),
    ("3-part UCS-2 SMS encoded and its parts decoded", "BM_sms_ucs2_3part", "us", 1000.0, "µs"),
]

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}

# vektool's whole-process rows, from build/bench/json/vektool.json
# (scripts/bench-vektool.sh): each command's wall time and peak resident
# memory against its peer's. Goal: the peer's time at most, and a peak that
# does not grow with the input (well under TOOL_PEAK_KB on 1 GiB).
TOOL_GOAL = 1.0
TOOL_PEAK_KB = 16384


def tool_rows(json_dir):
    path = os.path.join(json_dir, "vektool.json")
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return json.load(f).get("rows", [])


def kept_lines(out_md):
    """The table lines of the last report, by (path, peer), with their ratio:
    a row this run did not measure keeps them (bench.sh with a few benchmarks,
    bench-vektool.sh alone)."""
    kept = {}
    if os.path.exists(out_md):
        for line in open(out_md, encoding="utf-8"):
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if len(cells) == 7 and cells[4].endswith("×"):
                kept[(cells[0], cells[1])] = (line.rstrip("\n"), float(cells[4][:-1]))
    return kept


def tool_line(r):
    """The table line and the chart entry of one vektool row."""
    ratio = r["ours_s"] / r["peer_s"] if r["peer_s"] else None
    met = ratio is not None and ratio <= TOOL_GOAL and r["ours_kb"] <= TOOL_PEAK_KB
    line = "| %s | %s | %s s, %.1f MiB peak | %s s, %.1f MiB peak | %s | ≤ %g×, ≤ %d MiB peak | %s |" % (
        r["what"], r["peer"], r["peer_s"], r["peer_kb"] / 1024.0, r["ours_s"], r["ours_kb"] / 1024.0,
        "%.2f×" % ratio if ratio is not None else "–", TOOL_GOAL, TOOL_PEAK_KB // 1024, "yes" if met else "no")
    return line, ("%s vs %s" % (r["what"], r["peer"]), ratio, TOOL_GOAL)


def load_runs(json_dir):
    """The run of every benchmark found, by its name: the median of the
    repetitions, or the single run when there is no median."""
    out = {}
    for path in sorted(glob.glob(os.path.join(json_dir, "*.json"))):
        with open(path) as f:
            data = json.load(f)
        for b in data.get("benchmarks", []):
            name = b.get("run_name", b["name"])
            agg = b.get("aggregate_name")
            if agg not in (None, "median") or (agg is None and name in out):
                continue
            out[name] = b
    return out


def load_medians(json_dir):
    """Median time in ns of every benchmark found, by its name."""
    out = {}
    for name, b in load_runs(json_dir).items():
        field = "real_time" if "/real_time" in name or "/manual_time" in name else "cpu_time"
        out[name] = b[field] * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
    return out


def fmt_time(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= scale:
            return "%.3g %s" % (ns / scale, unit)
    return "%.3g ns" % ns


def write_svg(path, rows):
    """Horizontal bars of the ratios on a logarithmic axis, each with its goal."""
    lo, hi = 0.05, 32.0
    left, width, bar, gap, top = 290, 420, 16, 8, 40
    height = top + len(rows) * (bar + gap) + 40

    def x_of(r):
        r = min(max(r, lo), hi)
        return left + width * (math.log(r) - math.log(lo)) / (math.log(hi) - math.log(lo))

    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
           'font-family="sans-serif" font-size="11">' % (left + width + 70, height),
           '<rect width="100%" height="100%" fill="white"/>',
           '<text x="10" y="20" font-size="13">BaseLib time / peer time (log scale; '
           'green: goal met, red: missed, black tick: goal)</text>']
    for tick in (0.1, 0.25, 0.5, 1, 2, 4, 8, 16, 32):
        x = x_of(tick)
        out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="#ddd"/>'
                   % (x, top - 5, x, height - 30))
        out.append('<text x="%.1f" y="%d" text-anchor="middle">%g×</text>' % (x, height - 15, tick))
    for i, (label, ratio, goal) in enumerate(rows):
        y = top + i * (bar + gap)
        out.append('<text x="%d" y="%d" text-anchor="end">%s</text>'
                   % (left - 6, y + bar - 4, label.replace("&", "&amp;").replace("<", "&lt;")))
        if ratio is None:
            out.append('<text x="%d" y="%d" fill="#888">not measured</text>' % (left + 4, y + bar - 4))
            continue
        color = "#3a3" if ratio <= goal else "#c33"
        out.append('<rect x="%d" y="%d" width="%.1f" height="%d" fill="%s"/>'
                   % (left, y, max(x_of(ratio) - left, 1), bar, color))
        gx = x_of(goal)
        out.append('<line x1="%.1f" y1="%d" x2="%.1f" y2="%d" stroke="black" stroke-width="2"/>'
                   % (gx, y - 2, gx, y + bar + 2))
        out.append('<text x="%.1f" y="%d">%.2f×</text>' % (x_of(ratio) + 4, y + bar - 4, ratio))
    out.append("</svg>")
    with open(path, "w") as f:
        f.write("\n".join(out) + "\n")


def main():
    json_dir, out_md, out_svg = sys.argv[1:4]
    t = load_medians(json_dir)
    lines = ["# Benchmark results", "",
             "Written by `scripts/bench.sh` on %s (%s, %d cores), %s. Medians of the repetitions "
             "of one run; ratio = BaseLib / peer (lower is better)." %
             (platform.node() or "this machine", platform.machine(), os.cpu_count() or 0,
              time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime())), "",
             "| path | peer | peer time | BaseLib time | ratio | goal | met |",
             "|---|---|---|---|---|---|---|"]
    chart = []
    kept = kept_lines(out_md)
    reused = 0
    for what, ours, peer, peer_name, goal in ROWS:
        a, b = t.get(ours), t.get(peer)
        ratio = a / b if a is not None and b else None
        if ratio is None and (what, peer_name) in kept:
            line, ratio = kept[(what, peer_name)]
            lines.append(line)
            chart.append(("%s vs %s" % (what, peer_name), ratio, goal))
            reused += 1
            continue
        lines.append("| %s | %s | %s | %s | %s | ≤ %g× | %s |" % (
            what, peer_name, fmt_time(b) if b else "–", fmt_time(a) if a else "–",
            "%.2f×" % ratio if ratio is not None else "–", goal,
            "–" if ratio is None else ("yes" if ratio <= goal else "no")))
        chart.append(("%s vs %s" % (what, peer_name), ratio, goal))
    tools = tool_rows(json_dir)
    for r in tools:
        line, bar = tool_line(r)
        lines.append(line)
        chart.append(bar)
    if tools:
        lines += ["", "The vektool rows are whole processes on the input each names (scripts/bench-vektool.sh), "
                  "the best of its runs, output to /dev/null; peak = peak resident memory of the process."]
    if reused:
        lines += ["", "%d of the library's rows were not measured in this run and keep their last figures." % reused]
    counters = load_runs(json_dir)
    lines += ["", "| figure | value | goal | met |", "|---|---|---|---|"]
    for what, bench, counter, goal, unit in ABS_ROWS:
        v = counters.get(bench, {}).get(counter)
        lines.append("| %s | %s | ≤ %g %s | %s |" % (
            what, "%.3g %s" % (v, unit) if v is not None else "–", goal, unit,
            "–" if v is None else ("yes" if v <= goal else "no")))
    lines += ["", "![ratios](%s)" % os.path.basename(out_svg), ""]
    with open(out_md, "w") as f:
        f.write("\n".join(lines))
    write_svg(out_svg, chart)


if __name__ == "__main__":
    main()
