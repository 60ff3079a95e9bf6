// SPDX-FileCopyrightText: 2026 The ks developers
// SPDX-License-Identifier: Apache-2.0

// The timeline as a page. Everything that comes from outside is data to it: the page holds it as JSON, in which nothing
// can end the script element, and shows it as text. It fetches nothing, and says so to the browser.
#include "output.h"
#include "timeline.h"

namespace ksctl {
namespace {

constexpr char kHead[] = R"html(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy"
  content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'">
<meta name="referrer" content="no-referrer">
<title>Exchanges with the keystore</title>
<style>
:root {
  color-scheme: light dark;
  --ground: #ffffff; --panel: #f4f5f7; --ink: #1c2330; --faint: #667085; --line: #d9dde3; --stripe: #f9fafb;
  --answered: #2f6fde; --failed: #c8322b; --open: #8a6d1a; --on-bar: #ffffff; --normal: #667085; --alert: #d9730d;
  --chosen: #111827;
}
@media (prefers-color-scheme: dark) {
  :root {
    --ground: #14171c; --panel: #1d2229; --ink: #e6e9ee; --faint: #9aa4b2; --line: #323a45; --stripe: #181c22;
    --answered: #5b93f5; --failed: #f0706a; --open: #d5b04a; --on-bar: #0c1018; --normal: #b6beca; --alert: #ffa040;
    --chosen: #ffffff;
  }
}
* { box-sizing: border-box; }
html, body { height: 100%; }
body {
  margin: 0; display: flex; flex-direction: column; background: var(--ground); color: var(--ink);
  font: 14px/1.45 system-ui, "Segoe UI", "DejaVu Sans", sans-serif;
}
header { display: flex; flex-wrap: wrap; gap: 6px 20px; align-items: baseline; padding: 12px 16px; }
h1 { font-size: 17px; margin: 0; }
header .faint { color: var(--faint); }
.tools { margin-left: auto; display: flex; gap: 6px; }
button {
  font: inherit; color: inherit; background: var(--panel); border: 1px solid var(--line); border-radius: 6px;
  padding: 3px 10px; cursor: pointer;
}
button:hover { border-color: var(--faint); }
.legend { display: flex; flex-wrap: wrap; gap: 4px 18px; padding: 0 16px 8px; color: var(--faint); font-size: 13px; }
.legend i { display: inline-block; width: 14px; height: 10px; border-radius: 3px; margin-right: 6px; }
.legend i.dot { width: 8px; height: 8px; border-radius: 50%; }
#view { border-block: 1px solid var(--line); overflow-y: auto; max-height: 58vh; flex: 0 1 auto; }
canvas { display: block; width: 100%; cursor: grab; touch-action: none; }
canvas:active { cursor: grabbing; }
canvas:focus-visible, button:focus-visible { outline: 2px solid var(--answered); outline-offset: -2px; }
#chosen { padding: 12px 16px; overflow-y: auto; flex: 1 1 160px; }
#chosen h2 { font-size: 15px; margin: 0 0 2px; }
#chosen p { margin: 0 0 8px; color: var(--faint); }
table { border-collapse: collapse; font-variant-numeric: tabular-nums; }
th { text-align: left; font-weight: 600; color: var(--faint); }
th, td { padding: 2px 18px 2px 0; vertical-align: top; white-space: nowrap; }
td:last-child { white-space: normal; overflow-wrap: anywhere; }
td.number { text-align: right; }
kbd { border: 1px solid var(--line); border-radius: 4px; padding: 0 5px; font-size: 12px; background: var(--panel); }
</style>
</head>
<body>
<header>
  <h1>Exchanges with the keystore</h1>
  <span class="faint" id="about"></span>
  <span class="tools">
    <button id="closer" title="Closer (+)">+</button>
    <button id="wider" title="Wider (-)">&minus;</button>
    <button id="all" title="All (0)">All</button>
  </span>
</header>
<div class="legend">
  <span><i style="background:var(--answered)"></i>answered</span>
  <span><i style="background:var(--failed)"></i>failed</span>
  <span><i style="background:var(--open)"></i>under way</span>
  <span><i class="dot" style="background:var(--normal)"></i>report</span>
  <span><i class="dot" style="background:var(--alert)"></i>alert</span>
  <span><kbd>wheel</kbd> <kbd>+</kbd> <kbd>-</kbd> zoom &nbsp; <kbd>drag</kbd> <kbd>&larr;</kbd> <kbd>&rarr;</kbd> move
    &nbsp; <kbd>n</kbd> <kbd>p</kbd> next, previous &nbsp; <kbd>z</kbd> zoom to it &nbsp; <kbd>0</kbd> all</span>
</div>
<div id="view"><canvas id="canvas" tabindex="0" role="img"
  aria-label="Timeline of exchanges. Keys: plus and minus zoom, arrows move, n and p choose, z zooms to the chosen one, 0 shows all."></canvas></div>
<section id="chosen" aria-live="polite"></section>
<script type="application/json" id="data">)html";

constexpr char kTail[] = R"html(</script>
<script>
'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const canvas = document.getElementById('canvas'), pen = canvas.getContext('2d');
const chosenPanel = document.getElementById('chosen');
const kAxis = 30, kLane = 38, kBar = 18, kGutter = 230;

// A lane is a thread of a process.
const lanes = [], exchanges = [], dots = [];
for (const process of data.processes) {
  const byThread = new Map();
  const laneOf = thread => {
    if (!byThread.has(thread)) {
      byThread.set(thread, lanes.length);
      lanes.push({ program: process.program, pid: process.pid, thread, running: process.running });
    }
    return byThread.get(thread);
  };
  for (const e of process.exchanges) exchanges.push({ ...e, process, lane: laneOf(e.thread) });
  for (const r of process.reports) dots.push({ ...r, process, lane: laneOf(r.thread) });
}
exchanges.sort((a, b) => a.at_ns - b.at_ns);
const end = Math.max(1, ...exchanges.map(e => e.at_ns + e.for_ns), ...dots.map(d => d.at_ns));
let from = 0, span = end, chosen = null, width = 0;

function fit() { from = -0.02 * end; span = 1.04 * end; }
const style = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
const x = ns => kGutter + (ns - from) / span * (width - kGutter);
const colourOf = e => style(e.outcome === 'answered' ? '--answered' : e.outcome === 'under way' ? '--open' : '--failed');
const colourOfLevel = level => style(level === 'alert' ? '--alert' : '--normal');

function words(ns) {
  const size = Math.abs(ns);
  if (size < 1e3) return ns.toFixed(0) + ' ns';
  if (size < 1e6) return (ns / 1e3).toFixed(size < 1e4 ? 1 : 0) + ' \u00b5s';
  if (size < 1e9) return (ns / 1e6).toFixed(size < 1e7 ? 2 : 1) + ' ms';
  return (ns / 1e9).toFixed(size < 1e10 ? 2 : 1) + ' s';
}

function cut(text, room) {
  if (pen.measureText(text).width <= room) return text;
  while (text.length > 1 && pen.measureText(text + '\u2026').width > room) text = text.slice(0, -1);
  return text + '\u2026';
}

function axis(height) {
  const about = span / Math.max(1, (width - kGutter) / 110);
  const power = 10 ** Math.floor(Math.log10(about));
  const step = [1, 2, 5, 10].map(n => n * power).find(n => n >= about);
  pen.font = '12px system-ui, sans-serif';
  pen.textAlign = 'left';
  pen.fillStyle = style('--faint');
  pen.strokeStyle = style('--line');
  pen.lineWidth = 1;
  pen.beginPath();
  for (let at = Math.ceil(from / step) * step; at <= from + span; at += step) {
    const column = Math.round(x(at)) + 0.5;
    pen.moveTo(column, kAxis - 6);
    pen.lineTo(column, height);
    if (column < width - 60) pen.fillText(Math.abs(at) < step / 2 ? '0' : words(at), column + 4, kAxis - 11);
  }
  pen.stroke();
}

function dot(at, lane, level) {
  pen.fillStyle = colourOfLevel(level);
  pen.beginPath();
  pen.arc(x(at), kAxis + lane * kLane + kLane - 6, 3, 0, 2 * Math.PI);
  pen.fill();
}

function draw() {
  const scale = window.devicePixelRatio || 1;
  const height = kAxis + Math.max(1, lanes.length) * kLane + 6;
  width = canvas.parentElement.clientWidth;
  canvas.style.height = height + 'px';
  canvas.width = width * scale;
  canvas.height = height * scale;
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.fillStyle = style('--stripe');
  lanes.forEach((lane, i) => { if (i % 2 === 0) pen.fillRect(0, kAxis + i * kLane, width, kLane); });
  axis(height);

  pen.save();
  pen.beginPath();
  pen.rect(kGutter, kAxis, width - kGutter, height);
  pen.clip();
  for (const e of exchanges) {
    const left = x(e.at_ns), room = Math.max(3, x(e.at_ns + e.for_ns) - left);
    if (left + room < kGutter || left > width) continue;
    const top = kAxis + e.lane * kLane + 5;
    pen.fillStyle = colourOf(e);
    pen.beginPath();
    pen.roundRect(left, top, room, kBar, Math.min(4, room / 2));
    pen.fill();
    if (e === chosen) {
      pen.strokeStyle = style('--chosen');
      pen.lineWidth = 2;
      pen.stroke();
    }
    const seenFrom = Math.max(left, kGutter), seen = Math.min(left + room, width) - seenFrom;
    if (seen > 34) {
      pen.fillStyle = style('--on-bar');
      pen.font = '12px system-ui, sans-serif';
      pen.fillText(cut(e.message, seen - 12), seenFrom + 6, top + 13);
    }
    for (const part of e.parts) if (part.part === 'report') dot(part.at_ns, e.lane, part.level);
  }
  for (const d of dots) dot(d.at_ns, d.lane, d.level);
  pen.restore();

  lanes.forEach((lane, i) => {
    const top = kAxis + i * kLane;
    pen.fillStyle = style(i % 2 === 0 ? '--stripe' : '--ground');
    pen.fillRect(0, top, kGutter, kLane);
    pen.fillStyle = style('--ink');
    pen.font = '600 13px system-ui, sans-serif';
    pen.fillText(cut(lane.program + ' [' + lane.pid + ']', kGutter - 28), 16, top + 16);
    pen.fillStyle = style('--faint');
    pen.font = '12px system-ui, sans-serif';
    pen.fillText('thread ' + lane.thread + (lane.running ? ', running' : ', ended'), 16, top + 31);
  });
}

function element(name, text, kind) {
  const made = document.createElement(name);
  if (text !== undefined) made.textContent = text;
  if (kind) made.className = kind;
  return made;
}

function tell() {
  chosenPanel.replaceChildren();
  if (chosen === null) {
    chosenPanel.append(element('p', exchanges.length ? 'Choose an exchange to see its parts.'
                                                     : 'No exchange has been recorded.'));
    return;
  }
  const e = chosen;
  chosenPanel.append(element('h2', e.message + ', ' + e.outcome));
  chosenPanel.append(element('p', e.process.program + ' [' + e.process.pid + '], thread ' + e.thread + ', at ' +
    words(e.at_ns) + ', for ' + words(e.for_ns) + (e.exact ? '' : ' (to the tick of the clock)')));
  const table = element('table'), head = element('tr');
  for (const title of ['After', 'Part', 'Level', 'Function', 'Text']) head.append(element('th', title));
  table.append(head);
  const next = exchanges.find(other => other.lane === e.lane && other.at_ns >= e.at_ns + e.for_ns && other !== e);
  const behind = dots.filter(d => d.lane === e.lane && d.at_ns >= e.at_ns + e.for_ns && (!next || d.at_ns <= next.at_ns));
  for (const part of [...e.parts, ...behind]) {
    const row = element('tr');
    row.append(element('td', words(part.at_ns - e.at_ns), 'number'), element('td', part.part));
    row.append(element('td', part.level || ''));
    row.append(element('td', part.function ? part.function + ':' + part.line : ''));
    row.append(element('td', part.text || (part.failed ? 'failed' : '')));
    table.append(row);
  }
  chosenPanel.append(table);
}

function choose(e) { chosen = e; tell(); draw(); }
function zoom(factor, about) {
  const least = 1000, most = 4 * end;
  const next = Math.min(most, Math.max(least, span * factor));
  from = about - (about - from) * next / span;
  span = next;
  draw();
}
const middle = () => chosen ? chosen.at_ns + chosen.for_ns / 2 : from + span / 2;
function move(share) { from += share * span; draw(); }
function step(by) {
  if (!exchanges.length) return;
  const at = chosen === null ? (by > 0 ? -1 : 0) : exchanges.indexOf(chosen);
  const next = exchanges[(at + by + exchanges.length) % exchanges.length];
  if (next.at_ns < from || next.at_ns > from + span) from = next.at_ns - span / 2;
  choose(next);
}
function zoomToChosen() {
  if (!chosen) return;
  span = Math.max(1000, chosen.for_ns * 2);
  from = chosen.at_ns - span / 4;
  draw();
}
function all() { fit(); draw(); }

const keys = {
  '+': () => zoom(0.6, middle()), '=': () => zoom(0.6, middle()), '-': () => zoom(1 / 0.6, middle()),
  ArrowLeft: () => move(-0.15), ArrowRight: () => move(0.15), '0': all, Home: all,
  n: () => step(1), p: () => step(-1), z: zoomToChosen,
};
addEventListener('keydown', event => {
  const act = keys[event.key];
  if (!act || event.ctrlKey || event.metaKey || event.altKey) return;
  event.preventDefault();
  act();
});
canvas.addEventListener('wheel', event => {
  event.preventDefault();
  if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) return move(event.deltaX / 1000);
  zoom(event.deltaY > 0 ? 1.25 : 0.8, from + (event.offsetX - kGutter) / (width - kGutter) * span);
}, { passive: false });

let drag = null;
canvas.addEventListener('pointerdown', event => {
  drag = { x: event.clientX, from, moved: false };
  canvas.setPointerCapture(event.pointerId);
});
canvas.addEventListener('pointermove', event => {
  if (drag === null) return;
  const by = event.clientX - drag.x;
  if (Math.abs(by) > 3) drag.moved = true;
  if (!drag.moved) return;
  from = drag.from - by / (width - kGutter) * span;
  draw();
});
canvas.addEventListener('pointerup', event => {
  if (drag !== null && !drag.moved) {
    const lane = Math.floor((event.offsetY - kAxis) / kLane);
    const distance = e => Math.max(x(e.at_ns) - event.offsetX, event.offsetX - Math.max(x(e.at_ns) + 3, x(e.at_ns + e.for_ns)), 0);
    const near = exchanges.filter(e => e.lane === lane && distance(e) < 6).sort((a, b) => distance(a) - distance(b));
    choose(near.length ? near[0] : null);
  }
  drag = null;
});
document.getElementById('closer').onclick = keys['+'];
document.getElementById('wider').onclick = keys['-'];
document.getElementById('all').onclick = all;
addEventListener('resize', draw);
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', draw);

const failed = exchanges.filter(e => e.outcome === 'not sent' || e.outcome === 'no reply').length;
document.getElementById('about').textContent = 'from ' + data.begins + ', ' + words(end) + ', ' + exchanges.length +
  ' exchanges of ' + data.processes.length + ' processes' + (failed ? ', ' + failed + ' failed' : '');
fit();
choose(exchanges.find(e => e.outcome !== 'answered') || exchanges[0] || null);
document.documentElement.dataset.drawn = exchanges.length;
</script>
</body>
</html>
)html";

// as_script_data gives JSON in which no "<" stands, so that none of it can end the element that it is in.
std::string as_script_data(const std::string &json) {
  std::string out;
  out.reserve(json.size());
  for (const char c : json) {
    if (c == '<') {
      out += "\\u003c";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::string page(std::span<const Timeline> timelines) {
  return kHead + as_script_data(json_of(to_value(timelines))) + kTail;
}

}  // namespace ksctl
