// The style sheet and the script of the page.

#include "log/log_page.h"

namespace NV::tool {

const std::string_view pageStyle = R"css(
:root { color-scheme: light dark; --text: #1d2733; --dim: #55606b; --back: #fff; --line: #f0f3f6;
        --edge: #d5dce3; --call: #2f6f9a; --dialog: #c9d6df; --dialogText: #1d2733; --bad: #b3261e; }
@media (prefers-color-scheme: dark) {
  :root { --text: #dfe5ea; --dim: #9aa7b2; --back: #14191f; --line: #222a32; --edge: #36414b;
          --call: #3d86b8; --dialog: #4a5a66; --dialogText: #f0f3f6; --bad: #ff8a80; }
}
* { box-sizing: border-box; }
body { font: 14px/1.5 system-ui, sans-serif; margin: 1.5em auto; max-width: 76em; padding: 0 1em;
       color: var(--text); background: var(--back); }
h1 { font-size: 1.3em; margin: 0 0 .3em; overflow-wrap: anywhere; }
h2 { font-size: 1.05em; margin: 1.2em 0 .3em; }
a { color: inherit; }
.dim { color: var(--dim); }
.bad, .operation.failed .status, .operation.failed .elapsed { color: var(--bad); }
table { border-collapse: collapse; font-size: 13px; }
td, th { padding: .1em 1.2em .1em 0; text-align: left; vertical-align: top; }
.number { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
.filters { position: sticky; top: 0; z-index: 2; background: var(--back); padding: .6em 0; margin-top: 1em;
           display: flex; flex-wrap: wrap; gap: .5em 1em; align-items: center;
           border-bottom: 1px solid var(--edge); }
.filters select, .filters input[type=search] { font: inherit; max-width: 16em; }
.key i { display: inline-block; width: .9em; height: .9em; border-radius: 2px; margin: 0 .3em 0 1em;
         vertical-align: -.1em; background: var(--call); }
.key i.failed { background: var(--bad); }
.key i.dialog { background: var(--dialog); }
#list { position: relative; overflow: hidden; }
.operation, .fold { position: absolute; left: 0; right: 0; overflow: hidden;
                    border-top: 1px solid var(--edge); padding-top: 3px; }
.operation.chosen { background: var(--line); }
.head { display: flex; gap: 1em; height: 24px; align-items: baseline; width: 100%; border: 0; padding: 0;
        background: none; color: inherit; font: inherit; text-align: left; cursor: pointer;
        white-space: nowrap; }
.head b { min-width: 9em; }
.head .time { color: var(--dim); }
.head .elapsed { min-width: 8em; text-align: right; font-variant-numeric: tabular-nums; }
.head .status { margin-left: auto; overflow: hidden; text-overflow: ellipsis; }
.fold .head { color: var(--dim); }
.line { position: relative; height: 20px; background: var(--line); border-radius: 3px;
        overflow: hidden; }
.call { position: absolute; top: 0; bottom: 0; min-width: 2px; background: var(--call);
        border-right: 1px solid var(--back); overflow: hidden; color: #fff; padding-left: .4em;
        font: 11px/20px monospace; white-space: nowrap; }
.call.dialog { background: var(--dialog); color: var(--dialogText); }
.call.failed { background: var(--bad); color: var(--back); }
.thin { padding-left: 0; }
.details { overflow-x: auto; font-size: 12px; line-height: 20px; white-space: nowrap; margin-top: 4px; }
.details div { height: 20px; font-family: monospace; }
.details .number { display: inline-block; min-width: 9em; margin-right: 1em; }
)css";

// The page has the rows that are on the screen. The height of each row follows from what it shows, so
// that the place of every row is known without making it.
const std::string_view pageScript = R"js(
"use strict";
(function () {
const data = JSON.parse(document.getElementById("data").textContent);
const NAME = 0, BEGUN = 1, ELAPSED = 2, FLAGS = 3, STATUS = 4, MEANING = 5, PROCESS = 6, THREAD = 7,
      PROGRAM = 8, KEY = 9, FILE = 10, LINE = 11, CALLS = 12, ERRORS = 13;
const BAD = 1, FINISHED = 2, TRACED = 4, QUERY = 8;
const CALL = 5;  // values of a call: name, result, begin, width, whether it failed
const HEAD = 28, BARS = 24, DETAIL = 20, EDGE = 24;  // heights
const operations = data.operations, texts = data.texts;

function element(tag, className, text) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  if (text !== undefined) made.textContent = text;
  return made;
}
function add(parent, tag, className, text) {
  return parent.appendChild(element(tag, className, text));
}
function milliseconds(micros) { return (micros / 1000).toFixed(3) + " ms"; }
function timeOf(operation) {
  return new Date(operation[BEGUN]).toISOString().replace("T", " ").replace("Z", "");
}
// Operations of a full trace that did nothing with the token, and did not fail.
function isPlain(operation) {
  return (operation[FLAGS] & (BAD | TRACED)) === TRACED && operation[CALLS].length === 0;
}
function isQuery(operation) { return (operation[FLAGS] & QUERY) !== 0; }

// ---- the head of the page

const body = document.body;
add(body, "h1", "", data.title);
const about = add(body, "p", "dim key", operations.length.toLocaleString("en") +
                  " operations, each on its own scale.");
for (const [name, text] of [["", "call of the PKCS#11 library"], ["failed", "call that failed"],
                            ["dialog", "PIN dialog"]]) {
  add(about, "i", name);
  about.append(text);
}
if (data.leftOut > 0)
  add(body, "p", "", "The log has " + data.leftOut.toLocaleString("en") + " earlier operations that are " +
      "not on this page. Choose them with --since, --until, --pid or --op.");
if (data.untraced > 0)
  add(body, "p", "", data.untraced.toLocaleString("en") + " operations have only the record of their " +
      "end. A full trace has their PKCS#11 calls, too: run \"keywarden log on\".");

function makeTable(headings, rows) {
  const table = add(body, "table");
  const heading = add(table, "tr");
  for (const [text, className] of headings) add(heading, "th", className, text);
  for (const cells of rows) {
    const row = add(table, "tr");
    cells.forEach(function (cell, i) {
      const made = add(row, "td", headings[i][1]);
      made.append(cell);
    });
  }
  return table;
}

add(body, "h2", data.failures > 0 ? "bad" : "", data.failures > 0 ?
    "Failed or not finished: " + data.failures.toLocaleString("en") : "Nothing failed");
function linkTo(kind) {
  const link = element("a", "", "show the latest");
  link.href = "#" + kind.file + "-" + kind.line;
  return link;
}
if (data.kinds.length > 0)
  makeTable([["count", "number"], ["operation", ""], ["result", "bad"], ["meaning", ""], ["", ""]],
    data.kinds.map(function (kind) {
      return [String(kind.count), kind.name, kind.status, kind.reason, linkTo(kind)];
    })).id = "kinds";

add(body, "h2", "", "Figures");
makeTable([["operation", ""], ["count", "number"], ["failed", "number"], ["length only", "number"],
           ["median", "number"], ["95 %", "number"], ["longest", "number"]],
  data.figures.map(function (row) {
    return [row.name, row.count, row.failures, row.sizeQueries].map(String).concat(
      [row.median, row.p95, row.max].map(function (value) { return value.toFixed(3) + " ms"; }));
  })).id = "figures";

// ---- the filters

const filters = add(body, "div", "filters");
const chosen = {};
function choice(id, title, values) {
  const select = add(filters, "select");
  select.id = id;
  select.title = title;
  add(select, "option", "", title).value = "";
  for (const [value, text] of values) add(select, "option", "", text).value = value;
  select.addEventListener("change", function () { chosen[id] = select.value; refresh(); });
}
function distinct(valueOf, textOf) {
  const found = new Map();
  for (const operation of operations) {
    const value = valueOf(operation);
    // A browser is slow with more choices, and nobody reads them.
    if (!found.has(value) && found.size < 2000) found.set(value, textOf(operation));
  }
  return [...found].sort(function (a, b) { return a[1] < b[1] ? -1 : a[1] > b[1] ? 1 : 0; });
}
function processText(operation) {
  const program = texts[operation[PROGRAM]];
  return operation[PROCESS] + (program ? " " + program.replace(/^.*[\\\/]/, "") : "");
}
function value(index) { return function (operation) { return String(operation[index]); }; }
function text(index) { return function (operation) { return texts[operation[index]]; }; }
choice("operation", "all operations", distinct(value(NAME), text(NAME)));
choice("process", "all processes", distinct(value(PROCESS), processText));
choice("thread", "all threads", distinct(value(THREAD), value(THREAD)));
choice("result", "all results", [["bad", "failed or not finished"]].concat(
  distinct(value(STATUS), text(STATUS))));
const search = add(filters, "input");
search.type = "search";
search.id = "search";
search.placeholder = "key, error or call";
search.addEventListener("input", function () { chosen.search = search.value.toLowerCase(); refresh(); });
const label = add(filters, "label");
const unfold = add(label, "input");
unfold.type = "checkbox";
unfold.id = "unfold";
label.append(" operations without token calls");
unfold.addEventListener("change", function () { refresh(); });
const shown = add(filters, "span", "dim");
shown.id = "shown";

function hasText(operation, wanted) {
  if (operation[KEY].toLowerCase().includes(wanted)) return true;
  for (const error of operation[ERRORS])
    if (error.toLowerCase().includes(wanted)) return true;
  for (let i = 0; i < operation[CALLS].length; i += CALL)
    if (texts[operation[CALLS][i]].toLowerCase().includes(wanted) ||
        texts[operation[CALLS][i + 1]].toLowerCase().includes(wanted)) return true;
  return texts[operation[STATUS]].toLowerCase().includes(wanted);
}
function isChosen(operation) {
  if (chosen.operation && String(operation[NAME]) !== chosen.operation) return false;
  if (chosen.process && operation[PROCESS] !== chosen.process) return false;
  if (chosen.thread && operation[THREAD] !== chosen.thread) return false;
  if (chosen.result === "bad" && (operation[FLAGS] & BAD) === 0) return false;
  if (chosen.result && chosen.result !== "bad" && String(operation[STATUS]) !== chosen.result)
    return false;
  return !chosen.search || hasText(operation, chosen.search);
}

// ---- the rows: the number of an operation, or [first, count] of plain operations that are folded

const list = add(body, "div");
list.id = "list";
const opened = new Set(), unfolded = new Set();
let rows = [], tops = new Float64Array(1), target = -1;

function detailsOf(operation) {
  return 1 + operation[CALLS].length / CALL + operation[ERRORS].length +
         (texts[operation[MEANING]] ? 1 : 0);
}
function heightOf(row) {
  if (typeof row !== "number") return HEAD;
  const operation = operations[row];
  return HEAD + (operation[CALLS].length > 0 ? BARS : 0) +
         (opened.has(row) ? detailsOf(operation) * DETAIL + EDGE : 0);
}
function refresh() {
  rows = [];
  let count = 0;
  let fold = null;
  for (let i = 0; i < operations.length; ++i) {
    if (!isChosen(operations[i])) continue;
    ++count;
    if (unfold.checked || i === target || !isPlain(operations[i])) {
      fold = null;
      rows.push(i);
    } else if (fold !== null) {
      fold.push(i);
    } else {
      fold = [i];
      rows.push(fold);
    }
  }
  rows = rows.flatMap(function (row) {
    return typeof row !== "number" && unfolded.has(row[0]) ? row : [row];
  });
  shown.textContent = count.toLocaleString("en") + " of " + operations.length.toLocaleString("en");
  layOut();
}
function layOut() {
  tops = new Float64Array(rows.length + 1);
  for (let i = 0; i < rows.length; ++i) tops[i + 1] = tops[i] + heightOf(rows[i]);
  list.style.height = tops[rows.length] + "px";
  for (const [, made] of present) made.remove();
  present.clear();
  draw();
}
// The last row that begins at or above this height.
function rowAt(height) {
  let low = 0, high = rows.length;
  while (low + 1 < high) {
    const middle = (low + high) >> 1;
    if (tops[middle] <= height) low = middle; else high = middle;
  }
  return low;
}

const present = new Map();
function draw() {
  const top = -list.getBoundingClientRect().top;
  const first = rowAt(Math.max(0, top - 300)), last = rowAt(Math.max(0, top + innerHeight + 300));
  for (const [i, made] of present) {
    if (i < first || i > last) {
      made.remove();
      present.delete(i);
    }
  }
  for (let i = first; i <= last && i < rows.length; ++i) {
    if (present.has(i)) continue;
    const made = typeof rows[i] === "number" ? makeOperation(rows[i]) : makeFold(rows[i]);
    made.style.top = tops[i] + "px";
    made.style.height = tops[i + 1] - tops[i] + "px";
    present.set(i, list.appendChild(made));
  }
}
let waiting = false;
function drawSoon() {
  if (waiting) return;
  waiting = true;
  requestAnimationFrame(function () { waiting = false; draw(); });
}
addEventListener("scroll", drawSoon, { passive: true });
addEventListener("resize", drawSoon);

function makeFold(fold) {
  const made = element("div", "fold");
  const head = add(made, "button", "head");
  add(head, "span", "", "+ " + fold.length.toLocaleString("en") +
      (fold.length === 1 ? " operation" : " operations") + " without token calls");
  head.addEventListener("click", function () { unfolded.add(fold[0]); refresh(); });
  return made;
}
function makeOperation(number) {
  const operation = operations[number];
  const bad = (operation[FLAGS] & BAD) !== 0;
  const made = element("div", "operation" + (bad ? " failed" : "") + (number === target ? " chosen" : ""));
  const head = add(made, "button", "head");
  head.setAttribute("aria-expanded", String(opened.has(number)));
  add(head, "b", "", texts[operation[NAME]]);
  add(head, "span", "time", timeOf(operation));
  add(head, "span", "elapsed",
      operation[FLAGS] & FINISHED ? milliseconds(operation[ELAPSED]) : "not finished");
  add(head, "span", "dim", isQuery(operation) ? "length only" : operation[KEY] ? "key " + operation[KEY] : "");
  const status = add(head, "span", "status", bad ? texts[operation[STATUS]] : "");
  status.title = texts[operation[MEANING]];
  head.addEventListener("click", function () {
    if (!opened.delete(number)) opened.add(number);
    layOut();
  });
  if (operation[CALLS].length > 0) made.append(makeBars(operation));
  if (opened.has(number)) made.append(makeDetails(operation));
  return made;
}
function makeBars(operation) {
  const line = element("div", "line");
  const calls = operation[CALLS];
  const end = calls[calls.length - 3] + calls[calls.length - 2];
  const span = Math.max(operation[ELAPSED], end, 1);
  for (let i = 0; i < calls.length; i += CALL) {
    const width = calls[i + 3] / span * 100;
    const name = texts[calls[i]];
    const bar = add(line, "div", "call" + (calls[i + 4] ? " failed" : name === "PIN dialog" ? " dialog" : "") +
                    (width < 9 ? " thin" : ""), width < 9 ? "" : name);
    bar.style.left = calls[i + 2] / span * 100 + "%";
    bar.style.width = width + "%";
    bar.title = name + " " + texts[calls[i + 1]] + ", " + durationOf(calls, i);
  }
  return line;
}
function durationOf(calls, i) {
  return texts[calls[i + 1]] === "no return" ? "" : milliseconds(calls[i + 3]);
}
function makeDetails(operation) {
  const made = element("div", "details");
  const program = texts[operation[PROGRAM]];
  add(made, "div", "dim", "log line " + operation[LINE] + ", process " + operation[PROCESS] +
      (program ? " " + program : "") + ", thread " + operation[THREAD]);
  if (texts[operation[MEANING]]) add(made, "div", "", texts[operation[MEANING]]);
  for (const error of operation[ERRORS]) add(made, "div", "bad error", error);
  const calls = operation[CALLS];
  for (let i = 0; i < calls.length; i += CALL) {
    const line = add(made, "div", "step" + (calls[i + 4] ? " bad" : ""));
    add(line, "span", "number", durationOf(calls, i));
    line.append(texts[calls[i]] + "  " + texts[calls[i + 1]]);
  }
  return made;
}

// ---- links to an operation: "#0-17" is line 17 of the first file

function follow() {
  const place = /^#(\d+)-(\d+)$/.exec(location.hash);
  if (!place) return;
  const found = operations.findIndex(function (operation) {
    return operation[FILE] === Number(place[1]) && operation[LINE] === Number(place[2]);
  });
  if (found < 0) return;
  target = found;
  opened.add(found);
  if (!isChosen(operations[found])) {
    for (const name of Object.keys(chosen)) {
      chosen[name] = "";
      document.getElementById(name).value = "";
    }
  }
  refresh();
  scrollTo(0, scrollY + list.getBoundingClientRect().top + tops[rows.indexOf(found)] - innerHeight / 3);
  draw();
}
addEventListener("hashchange", follow);
// A link that was followed already does not change the address.
body.addEventListener("click", function (event) {
  if (event.target.hash && event.target.hash === location.hash) follow();
});
refresh();
follow();
})();
)js";

}  // namespace NV::tool
