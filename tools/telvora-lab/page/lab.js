// SPDX-License-Identifier: Apache-2.0
//
// The page: what arrives at the laboratory, and its answers.
import { Bags } from "./bags.js";
import { answerText, clientOf, Details, isPayload, otherTitle } from "./details.js";
import { Explain } from "./explain.js";
import { ask, follow } from "./feed.js";
import { clock, count, fieldTable, make, plural, valueText, visible } from "./format.js";
import { VirtualList } from "./list.js";
import { Answers, faultLabel } from "./servers.js";
import { Sessions } from "./sessions.js";
import { ownID, Store } from "./store.js";

const kStateMilliseconds = 1000;
const kRowHeight = 30;
const kRowText = 300;
const kTabs = ["reports", "batches", "others", "bags", "explain"];

const byId = (id) => document.getElementById(id);
const store = new Store();
const details = new Details(byId("details"), { openBatch, openReport, explain: explainSession });
const sessions = new Sessions(byId("sessions"), (session) => {
  chosenSession = session;
  if (session && tab === "explain") explain.explain(session);
  goLive();
});
let chosenSession = null;
let tab = "reports";
let lost = 0;
let answers, bags, explain;

// Rows

function cell(className, text) {
  return make("span", { className, textContent: visible(text).slice(0, kRowText) });
}

const statusCell = (batch) => cell("status " + (batch.status === 200 ? "good" : "bad"), answerText(batch));

// The client's own fields on one line, computed once.
function summaryOf(report) {
  const cut = (value) => (typeof value === "string" ? value.slice(0, kRowText) : value);
  report.summary ??= Object.entries(report.event)
    .filter(([name]) => isPayload(name))
    .map(([name, value]) => `${visible(cut(name))}=${valueText(cut(value))}`)
    .join("  ").slice(0, 2 * kRowText);
  return report.summary;
}

// Reports of category 0, which the daemon adds to each session.
const kOwn = ["start", "end", "finish"];
const ownName = (event) => (event._method === 0 ? kOwn[event._status] : undefined);

function kind(event) {
  const name = ownName(event);
  return `${event._method ?? "?"}/${event._status ?? "?"}${name ? " " + name : ""}`;
}

function showReport(row, report) {
  row.classList.toggle("own", ownName(report.event) !== undefined);
  row.replaceChildren(cell("time", clock(report.batch.at)), cell("kind", kind(report.event)),
    cell("client", clientOf(report.batch)), cell("text", summaryOf(report)), statusCell(report.batch));
}

function showBatch(row, batch) {
  row.replaceChildren(cell("time", clock(batch.at)), cell("kind", batch.path), cell("client", clientOf(batch)),
    cell("text", plural(batch.reports, "report") + (batch.problem ? `: ${batch.problem}` : "")), statusCell(batch));
}

function showOther(row, record) {
  const text = record.name ?? record.target ?? record.problem ??
    (record.report ? valueText(record.report) : `${record.bytes} bytes`);
  row.replaceChildren(cell("time", clock(record.at)), cell("title", otherTitle(record)), cell("text", text),
    cell("status " + (record.status && record.status !== 200 ? "bad" : "good"), record.status ?? ""));
}

const lists = {};
for (const [name, id, show, selected] of [
  ["reports", "report-list", showReport, (report) => details.showReport(report)],
  ["batches", "batch-list", showBatch, (batch) => details.showBatch(batch)],
  ["others", "other-list", showOther, (record) => details.showOther(record)],
]) {
  lists[name] = new VirtualList(byId(id), { rowHeight: kRowHeight, rowRole: "option", show, selected });
  lists[name].shownAt = 0;
}

// Views

function wantedReports() {
  const wanted = byId("filter").value.toLowerCase();
  const id = chosenSession?.id;
  const hasText = (report) =>
    `${kind(report.event)} ${clientOf(report.batch)} ${summaryOf(report)}`.toLowerCase().includes(wanted);
  return store.newest("reports").filter((report) =>
    (id === undefined || report.session === id) && (!wanted || hasText(report)));
}

const everything = {
  reports: wantedReports,
  batches: () => store.newest("batches").filter((batch) => !chosenSession ||
    (batch.body?.events ?? []).some((event) => ownID(event) === chosenSession.id)),
  others: () => store.newest("others"),
};

// Shows the newest items, unless the user reads older ones: then a button says how many reports came since.
function refresh() {
  const list = lists[tab];
  byId("live").hidden = true;
  if (!list) return;
  if (list.chosen !== null || !list.atTop) {
    const newer = store.added - list.shownAt;
    byId("live").hidden = newer === 0;
    byId("live").textContent = `▲ ${count(newer)} newer`;
    return;
  }
  const items = everything[tab]();
  list.shownAt = store.added;
  list.setItems(items);
  list.element.parentElement.querySelector(".empty").hidden = items.length > 0;
}

let refreshWanted = false;
function refreshSoon() {
  if (refreshWanted) return;
  refreshWanted = true;
  requestAnimationFrame(() => {
    refreshWanted = false;
    refresh();
  });
}

function goLive() {
  for (const list of Object.values(lists)) list.clear();
  details.clear();
  refresh();
}

function openTab(name) {
  tab = name;
  for (const each of kTabs) {
    byId(`tab-${each}`).setAttribute("aria-selected", each === name);
    byId(`tab-${each}`).tabIndex = each === name ? 0 : -1;
    byId(`view-${each}`).hidden = each !== name;
  }
  byId("filter").hidden = name !== "reports";
  document.body.classList.toggle("wide", !lists[name]);
  refresh();
  lists[name]?.draw();
  if (name === "explain" && chosenSession) explain.explain(chosenSession);
}

function openBatch(batch) {
  openTab("batches");
  lists.batches.setItems(everything.batches());
  lists.batches.choose(batch);
}

function openReport(event, batch) {
  openTab("reports");
  const known = store.reports.find((report) => report.event === event);
  lists.reports.choose(known ?? { event, batch, session: ownID(event) });
}

function explainSession(id) {
  const session = sessions.items.get(id);
  if (!session) return;
  chosenSession = session;
  sessions.list.chosen = session;
  sessions.list.draw();
  openTab("explain");
}

byId("tabs").addEventListener("click", (event) => {
  const button = event.target.closest("[role=tab]");
  if (button) openTab(button.id.slice("tab-".length));
});
byId("tabs").addEventListener("keydown", (event) => {
  const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
  if (!step) return;
  const next = kTabs[(kTabs.indexOf(tab) + step + kTabs.length) % kTabs.length];
  openTab(next);
  byId(`tab-${next}`).focus();
});
byId("live").addEventListener("click", goLive);
byId("filter").addEventListener("input", goLive);
document.addEventListener("keydown", (event) => {
  if (event.key === "Escape" && lists[tab]) goLive();
});

// The laboratory's state

function connected(reason) {
  byId("connection").textContent = reason === "" ? "live" : visible(reason);
  byId("connection").classList.toggle("bad", reason !== "");
}

function notice(id, text) {
  byId(id).hidden = text === "";
  byId(id).textContent = text;
}

let before = null; // the figures of the last second
function showState(state) {
  const now = performance.now();
  byId("reports").textContent = count(state.reports);
  byId("messages").textContent = count(state.messages);
  const seconds = before ? (now - before.now) / 1000 : 0;
  byId("rate").textContent = count(seconds > 0 ? Math.max(0, Math.round((state.reports - before.reports) / seconds)) : 0);
  before = { now, reports: state.reports };
  notice("fault", state.faults.reports === "none" ? "" : `Reports are answered: ${faultLabel(state.faults.reports)}`);
  byId("problems").hidden = state.problemCount === 0;
  byId("problems").querySelector("summary").textContent = plural(state.problemCount, "malformed message");
  byId("problems").querySelector("ul").replaceChildren(
    ...state.problems.map((problem) => make("li", { textContent: visible(problem) })));
  sessions.update(state);
  answers.update(state);
  bags.update(state);
}

const later = () => new Promise((done) => setTimeout(done, kStateMilliseconds));

async function watchState() {
  for (;;) {
    try {
      showState(await ask("/lab/state"));
    } catch (error) {
      connected(error.message);
    }
    await later();
  }
}

// The constant facts, as soon as the laboratory answers.
async function facts() {
  for (;;) {
    try {
      return await ask("/lab/about");
    } catch (error) {
      connected(error.message);
    }
    await later();
  }
}

async function start() {
  openTab("reports");
  const about = await facts();
  answers = new Answers(byId("answers"), about.faults, connected);
  bags = new Bags(byId("view-bags"), about);
  explain = new Explain(byId("view-explain"), about);
  byId("addresses").querySelector("dl").replaceWith(fieldTable(Object.entries(about.addresses)));
  watchState();
  follow({
    take: (records) => {
      store.take(records);
      if (records.length) refreshSoon();
    },
    lost: (reports) => {
      lost += reports;
      notice("lost", `${plural(lost, "report")} not shown: this page was too slow`);
    },
    connected,
    restarted: () => {
      store.clear();
      sessions.chooseAll();
    },
  });
}

start();
