#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""report.py FOLDER: makes charts of a run of the benchmarks, for each width a FOLDER/WIDTH.svg of FOLDER/WIDTH.jsonl, and
of all together one page, FOLDER/report.html, that needs nothing but itself.

A row's bar is what it costs, in times of its floor: what the machine takes for the same without us. The line across is
the floor, a mark on the bar what the row is to stay under.
"""

import html
import json
import os
import platform
import sys
from pathlib import Path

BAR, GAP, LABEL, WIDTH, RIGHT = 16, 8, 330, 420, 150
MOST = 2.0  # times the floor, at the chart's right end; longer bars are cut and say so
STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #222 } .head { font-weight: 600 } .far { fill: #777 }
  .bar { fill: #3f51b5 } .over { fill: #b5533f } .floor { stroke: #222; stroke-dasharray: 3 3 } .aim { stroke: #b5533f }
  rect.back { fill: #fff }
  @media (prefers-color-scheme: dark) {
    rect.back { fill: #1e2129 } text { fill: #ddd } .far { fill: #999 } .bar { fill: #8c9eff } .over { fill: #ff8a65 }
    .floor { stroke: #ddd } .aim { stroke: #ff8a65 }
  }
"""


def readable(name):
  """A benchmark's name without what only Google Benchmark needs."""
  kept = [part for part in name.split("/") if part not in ("real_time", "manual_time") and
          not part.startswith(("min_time", "repeats", "iterations"))]
  return " ".join(kept).replace("threads:", "threads ")


def words(ns):
  for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
    if ns >= size:
      return f"{ns / size:.3g} {unit}"
  return f"{ns:.3g} ns"


def chart(title, rows):
  programs = list(dict.fromkeys(row["program"] for row in rows))
  lines, y = [], 40
  for program in programs:
    y += 14
    lines.append(f'<text class="head" x="0" y="{y}">{html.escape(program)}</text>')
    y += 10
    for row in (row for row in rows if row["program"] == program):
      ratio = row["ns"] / row["floor_ns"]
      length = min(ratio, MOST) / MOST * WIDTH
      over = row["aim"] and ratio > row["aim"]
      lines.append(f'<g><title>{html.escape(row["row"])} beside {html.escape(row["floor"])}: {words(row["ns"])} and '
                   f'{words(row["floor_ns"])}</title>')
      lines.append(f'<text x="{LABEL - 8}" y="{y + 12}" text-anchor="end">{html.escape(readable(row["row"]))}</text>')
      lines.append(f'<rect class="{"over" if over else "bar"}" x="{LABEL}" y="{y}" width="{length:.1f}" '
                   f'height="{BAR}"/>')
      if row["aim"]:
        x = LABEL + min(row["aim"], MOST) / MOST * WIDTH
        lines.append(f'<line class="aim" x1="{x:.1f}" x2="{x:.1f}" y1="{y - 2}" y2="{y + BAR + 2}" stroke-width="2"/>')
      right = max(length, min(row["aim"], MOST) / MOST * WIDTH, WIDTH / MOST)
      lines.append(f'<text x="{LABEL + right + 6:.1f}" y="{y + 12}">{ratio:.2f}'
                   f'{" …" if ratio > MOST else ""} <tspan class="far">{words(row["ns"])}</tspan></text></g>')
      y += BAR + GAP
  floor = LABEL + WIDTH / MOST
  lines.append(f'<line class="floor" x1="{floor}" x2="{floor}" y1="40" y2="{y}"/>')
  whole = LABEL + WIDTH + RIGHT
  return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {whole} {y + 8}" width="{whole}" height="{y + 8}">'
          f'<style>{STYLE}</style><rect class="back" width="100%" height="100%"/>'
          f'<text class="head" x="0" y="18">{html.escape(title)}</text>'
          f'<text class="far" x="0" y="34">times the floor (dashed), with the cost; a short line is the aim</text>'
          + "".join(lines) + "</svg>\n")


def machine():
  model = next((line.split(":")[1].strip() for line in Path("/proc/cpuinfo").read_text().split("\n")
                if line.startswith("model name")), platform.machine())
  return f"{model}, {os.cpu_count()} cores, Linux {platform.release()}"


def main():
  folder = Path(sys.argv[1])
  charts = []
  for path in sorted(folder.glob("*.jsonl")):
    rows = [json.loads(line) for line in path.read_text().split("\n") if line]
    svg = chart(f"{path.stem}: {machine()}", rows)
    path.with_suffix(".svg").write_text(svg)
    charts.append(svg)
  if not charts:
    raise SystemExit(f"report.py: {folder} has no run; `./dev bench --report` makes one")
  (folder / "report.html").write_text("<!doctype html><html lang=\"en\"><meta charset=\"utf-8\"><title>ks benchmarks"
                                      "</title><body style=\"margin: 2em; color-scheme: light dark\">"
                                      + "\n".join(charts) + "</body></html>\n")
  print(f"{folder}/report.html: {len(charts)} charts")


if __name__ == "__main__":
  main()
