#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""report.py: makes one page of a run of the benchmarks, which needs nothing but itself.

  report.py collect FOLDER       FOLDER/run.json of FOLDER/WIDTH.jsonl, with the machine it ran on, and the page of it
  report.py page RUN.json OUT    the page of a run, and its charts as one picture beside it, with the ending .svg

A row's bar is what it costs in times of its floor: what the machine takes for the same without us. The line across is
the floor, a mark on the bar what the row is to stay under. A figure without a floor stands in a table. A line shows what
something costs with more and more entries.
"""

import datetime
import html
import json
import math
import os
import platform
import sys
from pathlib import Path

BAR, GAP, LABEL, WIDTH, RIGHT = 16, 8, 330, 420, 150
MOST = 2.0  # times the floor, at the chart's right end; longer bars are cut and say so
PLOT_WIDTH, PLOT_HEIGHT, PLOT_LEFT, PLOT_TOP, PLOT_BELOW = 270, 130, 60, 40, 30
PLOTS_IN_A_ROW = 2
STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #222 } .head { font-weight: 600 } .far { fill: #666 }
  .bar { fill: #3f51b5 } .over { fill: #b5533f } .floor { stroke: #222; stroke-dasharray: 3 3 } .aim { stroke: #b5533f }
  .line { stroke: #3f51b5; fill: none; stroke-width: 2 } .dot { fill: #3f51b5 } .axis { stroke: #999 }
  rect.back { fill: #fff }
  @media (prefers-color-scheme: dark) {
    rect.back { fill: #1e2129 } text { fill: #ddd } .far { fill: #999 } .bar, .dot { fill: #8c9eff }
    .line { stroke: #8c9eff } .over { fill: #ff8a65 } .floor { stroke: #ddd } .aim { stroke: #ff8a65 }
  }
"""


def readable(name):
  """A benchmark's name without what only Google Benchmark needs."""
  kept = [part for part in name.split("/") if part not in ("real_time", "manual_time") and
          not part.startswith(("min_time", "repeats", "iterations"))]
  return " ".join(kept).replace("threads:", "threads ").removeprefix("BM_")


def words(ns):
  for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
    if ns >= size:
      return f"{ns / size:.3g} {unit}"
  return f"{ns:.3g} ns"


def text(x, y, content, kind="", anchor="start"):
  return f'<text class="{kind}" x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}">{html.escape(content)}</text>'


class Picture:
  """A picture that grows downwards."""

  def __init__(self):
    self.parts, self.width, self.height = [], LABEL + WIDTH + RIGHT, 0

  def bars(self, title, rows):
    self.height += 28
    self.parts += [text(0, self.height, title, "head"),
                   text(0, self.height + 16, "times the floor (dashed), with the cost; a short line is the aim", "far")]
    self.height += 24
    top = self.height
    for program in dict.fromkeys(row["program"] for row in rows):
      self.height += 18
      self.parts.append(text(0, self.height, program, "head"))
      self.height += 8
      for row in rows:
        if row["program"] == program:
          self.bar(row)
    x = LABEL + WIDTH / MOST
    self.parts.append(f'<line class="floor" x1="{x}" x2="{x}" y1="{top}" y2="{self.height}"/>')

  def bar(self, row):
    y, ratio, aim = self.height, row["ns"] / row["floor_ns"], row["aim"]
    length = min(ratio, MOST) / MOST * WIDTH
    aim_at = min(aim, MOST) / MOST * WIDTH
    self.parts += [
        f'<g><title>{html.escape(row["row"])} beside {html.escape(row["floor"])}: {words(row["ns"])} and '
        f'{words(row["floor_ns"])}</title>', text(LABEL - 8, y + 12, readable(row["row"]), "", "end"),
        f'<rect class="{"over" if aim and ratio > aim else "bar"}" x="{LABEL}" y="{y}" width="{length:.1f}" '
        f'height="{BAR}"/>'
    ]
    if aim:
      x = LABEL + aim_at
      self.parts.append(f'<line class="aim" x1="{x:.1f}" x2="{x:.1f}" y1="{y - 2}" y2="{y + BAR + 2}" '
                        'stroke-width="2"/>')
    right = LABEL + max(length, aim_at, WIDTH / MOST) + 6
    self.parts.append(f'<text x="{right:.1f}" y="{y + 12}">{ratio:.2f}{" …" if ratio > MOST else ""} '
                      f'<tspan class="far">{words(row["ns"])}</tspan></text></g>')
    self.height += BAR + GAP

  def lines(self, title, rows):
    self.height += 28
    self.parts.append(text(0, self.height, title, "head"))
    for number, name in enumerate(dict.fromkeys(row["row"] for row in rows)):
      column = number % PLOTS_IN_A_ROW
      if column == 0:
        self.height += 8 if number == 0 else PLOT_TOP + PLOT_HEIGHT + PLOT_BELOW
      points = [(row["entries"], row["value"], row["unit"]) for row in rows if row["row"] == name]
      self.plot(column * (PLOT_LEFT + PLOT_WIDTH + 60), self.height, name, points)
    self.height += PLOT_TOP + PLOT_HEIGHT + PLOT_BELOW

  def plot(self, left, top, name, points):
    """Entries grow by powers of ten, what they cost evenly from nothing."""
    unit, most = points[0][2], max(value for _, value, _ in points) * 1.1 or 1
    first, last = math.log10(points[0][0]), math.log10(points[-1][0])
    left, top = left + PLOT_LEFT, top + PLOT_TOP
    bottom = top + PLOT_HEIGHT
    at = [(left + (math.log10(entries) - first) / ((last - first) or 1) * PLOT_WIDTH,
           bottom - value / most * PLOT_HEIGHT) for entries, value, _ in points]
    self.parts += [
        text(left, top - 14, f"{name}, {unit}", "head"),
        f'<line class="axis" x1="{left}" x2="{left + PLOT_WIDTH}" y1="{bottom}" y2="{bottom}"/>',
        '<polyline class="line" points="' + " ".join(f"{x:.1f},{y:.1f}" for x, y in at) + '"/>'
    ]
    for (x, y), (entries, value, _) in zip(at, points):
      self.parts += [
          f'<circle class="dot" cx="{x:.1f}" cy="{y:.1f}" r="3"><title>{entries} entries: {value:.4g} {unit}</title>'
          '</circle>', text(x, y - 8, f"{value:.3g}", "far", "middle"),
          text(x, bottom + 16, f"{entries:,}".replace(",000", "k"), "far", "middle")
      ]

  def svg(self):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height + 12}" '
            f'width="{self.width}" height="{self.height + 12}"><style>{STYLE}</style>'
            '<rect class="back" width="100%" height="100%"/>' + "\n".join(self.parts) + "</svg>\n")


def machine():
  """What the figures depend on, and nothing that names the machine."""
  model = next((line.split(":")[1].strip() for line in Path("/proc/cpuinfo").read_text().split("\n")
                if line.startswith("model name")), platform.machine())
  return {"cpu": model, "cores": os.cpu_count(), "kernel": f"Linux {platform.release()}",
          "date": datetime.date.today().isoformat()}


def collect(folder):
  widths = {path.stem: [json.loads(line) for line in path.read_text().split("\n") if line]
            for path in sorted(folder.glob("*.jsonl"), reverse=True)}  # x86_64 first
  if not any(widths.values()):
    raise SystemExit(f"report.py: {folder} has no run; `./dev bench --report` makes one")
  run = {"machine": machine(), "widths": widths}
  (folder / "run.json").write_text(json.dumps(run, indent=1, ensure_ascii=False) + "\n")


def table(rows):
  cells = [f'<tr><td>{html.escape(row["program"])}<td>{html.escape(readable(row["row"]))}'
           f'<td class="n">{row["value"]:.3g} {html.escape(row["unit"])}'
           f'<td class="n">{f"""{row["aim"]:.3g} {html.escape(row["unit"])}""" if row["aim"] else ""}' for row in rows]
  return f'<table><tr><th>program<th>figure<th>measured<th>to stay under{"".join(cells)}</table>'


def page(run, out):
  about = "{cpu}, {cores} cores, {kernel}, {date}".format(**run["machine"])
  whole, sections = Picture(), []
  for width, rows in run["widths"].items():
    ratios, plain, points = ([row for row in rows if row["kind"] == kind] for kind in ("ratio", "plain", "point"))
    sections.append(f"<h2>{html.escape(width)}</h2>")
    for wanted, draw, title in ((ratios, Picture.bars, f"{width}, beside the floor"),
                                (points, Picture.lines, f"{width}, with more and more entries")):
      if not wanted:
        continue
      picture = Picture()
      for one in (picture, whole):
        draw(one, title, wanted)
      sections.append(picture.svg())
    if plain:
      sections.append(table(plain))
  out.write_text('<!doctype html>\n<html lang="en"><meta charset="utf-8"><title>ks benchmarks</title>\n<style>'
                 'body { font: 14px system-ui, sans-serif; margin: 2em; color-scheme: light dark } td, th { text-align: left;'
                 " padding: 0 1em 0 0 } .n { text-align: right }</style>\n"
                 f"<h1>ks benchmarks</h1>\n<p>{html.escape(about)}\n" + "\n".join(sections) + "</html>\n")
  whole.height += 20
  whole.parts.append(text(0, whole.height, about, "far"))
  out.with_suffix(".svg").write_text(whole.svg())
  print(f"{out}: {about}")


def main():
  if len(sys.argv) == 3 and sys.argv[1] == "collect":
    folder = Path(sys.argv[2])
    collect(folder)
    page(json.loads((folder / "run.json").read_text()), folder / "report.html")
  elif len(sys.argv) == 4 and sys.argv[1] == "page":
    page(json.loads(Path(sys.argv[2]).read_text()), Path(sys.argv[3]))
  else:
    raise SystemExit(__doc__)


if __name__ == "__main__":
  main()
