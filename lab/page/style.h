// The look of the lab's page, and the few lines of script that keep it fresh.
#pragma once

#include <string_view>

namespace kv::lab {

/// Colours are the variables of :root; each text colour has a contrast of at least 4.5 on --card and --page.
inline constexpr std::string_view style = R"(
:root { color-scheme: light dark; --page: #f5f7f9; --card: #fff; --line: #d9dee3; --ink: #1d2730; --soft: #56636f;
  --bad: #b3261e; --good: #17783f; --warn: #8a5700; --accent: #2059a8; --tint: #2059a81a; }
@media (prefers-color-scheme: dark) {
  :root { --page: #11171d; --card: #1a222a; --line: #313c46; --ink: #e2e8ee; --soft: #9dabb8;
    --bad: #ff8a80; --good: #5dcb8b; --warn: #eab54d; --accent: #86b6f7; --tint: #86b6f726; } }
* { box-sizing: border-box; }
body { margin: 0 auto; max-width: 76rem; padding: .9rem 1.2rem 2.5rem; background: var(--page); color: var(--ink);
  font: 15px/1.4 system-ui, "DejaVu Sans", sans-serif; }
a { color: inherit; text-decoration-color: color-mix(in srgb, currentColor 55%, transparent); text-underline-offset: .18em; }
.strip a, .grid a { text-decoration-color: var(--line); }
a:hover, .strip a:hover, .grid a:hover { color: var(--accent); text-decoration-color: currentColor; }
:focus-visible { outline: 2px solid var(--accent); outline-offset: 2px; border-radius: 3px; }
h1 { font-size: 1.3rem; margin: 0; overflow-wrap: anywhere; }
h2 { font-size: 1rem; margin: 0; min-width: 0; overflow-wrap: anywhere; }
h3 { font-size: .93rem; margin: .6rem 0 .1rem; overflow-wrap: anywhere; }
p { margin: .3rem 0; }
code { font: .92em ui-monospace, "DejaVu Sans Mono", monospace; overflow-wrap: anywhere; }
.skip { position: absolute; left: -99rem; background: var(--card); padding: .2rem .6rem; } .skip:focus { left: 1rem; }
.soft { color: var(--soft); } .bad { color: var(--bad); } .good { color: var(--good); } .warn { color: var(--warn); }
.top, .bar, .title, .tabs, .fields { display: flex; flex-wrap: wrap; align-items: baseline; gap: .2rem 1.1rem; }
.top { justify-content: space-between; }
.bar { justify-content: space-between; margin: .35rem 0 .8rem; color: var(--soft); }
.bar > details { margin-left: auto; } .bar > details[open] { margin-left: 0; width: 100%; }
.title { justify-content: space-between; margin: 1.4rem 0 .45rem; }
.tabs a { text-decoration: none; color: var(--soft); padding: .1rem 0; }
.tabs a[aria-current] { color: var(--ink); font-weight: 600; border-bottom: 2px solid var(--accent); }
.formats { font-size: .82rem; color: var(--soft); display: inline-flex; gap: .7rem; }
.tiles { display: grid; grid-template-columns: repeat(auto-fit, minmax(9.5rem, 1fr)); gap: .6rem;
  margin-bottom: .6rem; }
.tile, .card { display: block; background: var(--card); border: 1px solid var(--line); border-radius: 8px;
  padding: .55rem .8rem; }
.tile { text-decoration: none; color: var(--ink); }
.tile b { font-size: 1.5rem; line-height: 1.25; display: block; font-variant-numeric: tabular-nums; }
.card { margin-bottom: .45rem; overflow-wrap: anywhere; }
.problem { border-left: 4px solid var(--bad); } .problem.past { border-left-color: var(--line); }
.notice { border-left: 4px solid var(--warn); }
.strip { display: grid; grid-template-columns: minmax(7rem, 15rem) minmax(0, 1fr) 3.6rem; gap: .12rem .8rem;
  align-items: center; grid-auto-flow: dense; }
.strip .label { overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
.strip > svg, .strip > .axis { grid-column: 2; }
.strip .share { grid-column: 3; color: var(--soft); text-align: right; font-variant-numeric: tabular-nums; }
.strip svg { width: 100%; height: 16px; display: block; border-bottom: 1px solid var(--line); }
.strip .axis { display: flex; justify-content: space-between; font-size: .8rem; color: var(--soft); }
.tick { fill: var(--good); } .tick.some { fill: var(--warn); } .tick.failed { fill: var(--bad); }
.strip a:hover .tick { fill: var(--accent); }
.key { font-size: .82rem; color: var(--soft); display: flex; flex-wrap: wrap; gap: .2rem 1.1rem; margin-top: .45rem; }
.key svg { width: 8px; height: 16px; vertical-align: -3px; margin-right: .35rem; }
.scroll { overflow-x: auto; }
table { border-collapse: collapse; font-size: .9rem; }
.scroll > .grid { width: 100%; }
th { text-align: left; font-weight: 600; color: var(--soft); white-space: nowrap; }
td { overflow-wrap: anywhere; } .grid th { white-space: normal; } .grid td { white-space: nowrap; }
.grid td.long { white-space: normal; } .grid td.words { white-space: normal; overflow-wrap: normal; }
.number, .grid td.num { white-space: nowrap; font-variant-numeric: tabular-nums; }
th, td { padding: .26rem .9rem .26rem 0; border-bottom: 1px solid var(--line); vertical-align: top; }
th:last-child, td:last-child { padding-right: 0; }
tr:last-child > th, tr:last-child > td { border-bottom: 0; }
th.num, td.num { text-align: right; padding-left: .9rem; font-variant-numeric: tabular-nums; }
td table { margin: 0; }
.fields { gap: .1rem 1.2rem; font-size: .9rem; } .fields > span > span:first-child { color: var(--soft); }
pre { margin: .4rem 0 0; white-space: pre-wrap; overflow-wrap: anywhere; max-height: 30rem; overflow-y: auto;
  font: 13px/1.4 ui-monospace, "DejaVu Sans Mono", monospace; }
summary { cursor: pointer; color: var(--soft); width: fit-content; max-width: 100%; overflow-wrap: anywhere; }
form { display: flex; flex-wrap: wrap; gap: .5rem 1rem; align-items: end; padding: .6rem 0; }
label { font-size: .82rem; color: var(--soft); min-width: 0; }
label > input:not([type]), label > select { display: block; width: 12rem; max-width: 100%; }
input, select, button { font: inherit; font-size: .9rem; color: var(--ink); background: var(--card);
  border: 1px solid var(--soft); border-radius: 6px; padding: .2rem .5rem; }
button { cursor: pointer; }
footer { margin-top: 1.6rem; font-size: .82rem; }
@media (max-width: 40rem) {
  body { padding: .7rem .7rem 2rem; }
  .tiles { grid-template-columns: repeat(2, minmax(0, 1fr)); } .tile b { font-size: 1.3rem; }
  .strip { grid-template-columns: minmax(0, 1fr) auto; }
  .strip > svg, .strip > .axis { grid-column: 1 / -1; margin-bottom: .3rem; } .strip > .share { grid-column: 2; }
  .grid, .grid td { display: block; } .grid th { display: none; } .grid tr:first-child, .grid td:empty { display: none; }
  .grid tr { display: flex; flex-wrap: wrap; gap: 0 .9rem; padding: .35rem 0; border-bottom: 1px solid var(--line); } .grid tr:last-child { border: 0; }
  .grid td { padding: 0 !important; border: 0; white-space: normal; text-align: left !important; }
  .grid td::before { content: attr(data-title) " "; color: var(--soft); } }
)";

/// Of the cards and plots of values. The colours of lines tell twelve apart, with a contrast of at least 3 on --card.
inline constexpr std::string_view valueStyle = R"(
.cards { display: grid; grid-template-columns: repeat(auto-fill, minmax(14rem, 1fr)); gap: .6rem; }
a.value { display: flex; flex-direction: column; color: inherit; text-decoration: none; }
a.value:hover, a.value:focus-visible { border-color: var(--accent); }
.value .name { font-size: .82rem; color: var(--soft); white-space: nowrap; overflow: hidden; text-overflow: ellipsis; }
.value .name:last-child { white-space: normal; }
.value .member { overflow-wrap: anywhere; line-height: 1.25; }
.place { display: flex; gap: .3em; } .place span { overflow: hidden; text-overflow: ellipsis; }
.place span:first-child { flex: 0 0 auto; max-width: 65%; }
.value .now { font-size: 1.2rem; font-weight: 600; font-variant-numeric: tabular-nums; }
.value svg, .value .wait { width: 100%; height: 46px; display: block; margin: auto 0 .15rem; }
.value svg { overflow: visible; padding-top: .15rem; } .value .wait { line-height: 46px; }
.line { fill: none; stroke: var(--accent); stroke-width: 1.7; vector-effect: non-scaling-stroke; stroke-linejoin: round; }
.under { fill: var(--tint); }
.plot { display: grid; grid-template-columns: auto minmax(0, 1fr); padding: 1rem 1.2rem .6rem .4rem; }
.plot svg { grid-column: 2; width: 100%; height: 22rem; display: block; overflow: visible; border: 1px solid var(--line); border-width: 0 0 1px 1px; }
.yaxis, .xaxis { position: relative; font-size: .82rem; color: var(--soft); font-variant-numeric: tabular-nums; }
.yaxis span { position: absolute; right: .5rem; transform: translateY(-50%); white-space: nowrap; }
.xaxis { grid-column: 2; height: 1.6rem; }
.xaxis span { position: absolute; top: .25rem; transform: translateX(-50%); white-space: nowrap; }
.grid-line { stroke: var(--line); stroke-width: 1; fill: none; vector-effect: non-scaling-stroke; }
.hover { fill: transparent; } .hover:hover { fill: var(--tint); }
.swatch { width: 1.4rem; height: .8rem; margin-right: .5rem; vertical-align: middle; } .swatch .line { stroke-width: 4; }
.dots { stroke-width: 6; stroke-linecap: round; } .band { stroke-width: 0; fill-opacity: .18; fill: var(--accent); }
.band.line1 { fill: #d1662b; } .band.line2 { fill: #2f9e62; }
.line1 { stroke: #d1662b; } .line2 { stroke: #2f9e62; } .line3 { stroke: #b04bb5; } .line4 { stroke: #9a8416; }
.line5 { stroke: #d14a6e; } .line6 { stroke: #1c97a8; } .line7 { stroke: #7a6ff0; } .line8 { stroke: #8a6a4f; }
.line9 { stroke: #5f9e1c; } .line10 { stroke: #cf4436; } .line11 { stroke: #6b7c8c; }
@media (max-width: 40rem) { .cards { grid-template-columns: repeat(2, minmax(0, 1fr)); }
  .plot { padding-left: 0; } .plot svg { height: 15rem; }
  .many span:nth-child(even) { display: none; } }
)";

/// Fetches the changing part again, without taking from the reader what is open, focused, selected or scrolled.
inline constexpr std::string_view script = R"(
const live = document.getElementById('live'), clock = document.getElementById('clock');
const trouble = document.getElementById('trouble');
let shown = '', waits = [];
function startCountdowns() {
  for (const place of live.querySelectorAll('[data-host]')) place.textContent = location.host;
  waits = [...live.querySelectorAll('[data-left]')].map(e => [e, performance.now() + e.dataset.left * 1000]);
}
function countDown() {
  for (const [element, end] of waits)
    element.textContent = Math.max(0, Math.ceil((end - performance.now()) / 1000)) + ' s';
}
function selectorOf(element) {
  for (const name of ['id', 'href', 'aria-label'])
    if (element.getAttribute(name)) return '[' + name + '="' + CSS.escape(element.getAttribute(name)) + '"]';
  return element.parentElement.id ? '#' + CSS.escape(element.parentElement.id) + ' > ' + element.localName : 'none';
}
function show(text) {
  const open = new Map([...live.querySelectorAll('details[id]')].map(e => [e.id, e.open]));
  const scrolled = [...live.querySelectorAll('.scroll, pre')].map(e => [e.scrollLeft, e.scrollTop]);
  const focus = live.contains(document.activeElement) ? document.activeElement : null;
  const selector = focus ? selectorOf(focus) : 'none', at = [...live.querySelectorAll(selector)].indexOf(focus);
  const height = window.scrollY;
  live.innerHTML = text;
  for (const e of live.querySelectorAll('details[id]')) if (open.has(e.id)) e.open = open.get(e.id);
  live.querySelectorAll('.scroll, pre').forEach((e, at) => { [e.scrollLeft, e.scrollTop] = scrolled[at] || [0, 0]; });
  const alike = live.querySelectorAll(selector);
  (alike[at] || alike[0])?.focus({ preventScroll: true });
  window.scrollTo(window.scrollX, height);
  startCountdowns();
}
function tell(text) { if (trouble.textContent !== text) trouble.textContent = text; }
async function refresh() {
  setTimeout(refresh, 1000 * live.dataset.every);
  if (document.hidden) return;
  try {
    const answer = await fetch(live.dataset.from + location.search);
    if (!answer.ok) throw new Error('HTTP ' + answer.status);
    const text = await answer.text();
    const held = text !== shown && !getSelection().isCollapsed;
    if (text !== shown && !held) { show(text); shown = text; }
    if (!held) clock.textContent = 'as of ' + new Date(answer.headers.get('Date')).toISOString().slice(11, 19) + ' UTC';
    tell(held ? 'waits while text is selected' : '');
  } catch (error) {
    tell('the server does not answer (' + error.message + ')');
  }
}
startCountdowns();
setInterval(countDown, 1000);
setTimeout(refresh, 1000 * live.dataset.every);
)";

}  // namespace kv::lab
