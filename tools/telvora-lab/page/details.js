// SPDX-License-Identifier: Apache-2.0
//
// The details of the chosen report, batch or request.
import { clock, fieldTable, make, plural, valueElement, visible } from "./format.js";

const kListedReports = 200;
const kMaxHeading = 40;

// Fields that the daemon adds to a report, the client's user info, and all others.
const isOfDaemon = (name) => name.startsWith("_") || name === "eventTime";
const isUserInfo = (name) => name.startsWith("TelvoraUserInfo");
export const isPayload = (name) => !isOfDaemon(name) && !isUserInfo(name);

export const answerText = (batch) => (batch.status ? String(batch.status) : batch.fault);
export const clientOf = (batch) => batch.headers?.["X-TVR-Client-Name"] ?? "";

// Category and type, which a hostile report may have as long texts.
const short = (value) => visible(value ?? "?").slice(0, kMaxHeading);
const kindOf = (event) => `${short(event._method)}/${short(event._status)}`;

function heading(text) {
  return make("h2", { textContent: text });
}

function part(title, fields) {
  return fields.length ? [make("h3", { textContent: title }), fieldTable(fields)] : [];
}

function linkTo(text, action) {
  const button = make("button", { type: "button", className: "link", textContent: text });
  button.addEventListener("click", action);
  return button;
}

export class Details {
  // `open(batch)` and `openReport(report)` show another item; `explain(session ID)` explains one.
  constructor(element, { openBatch, openReport, explain }) {
    Object.assign(this, { element, openBatch, openReport, explain });
    this.clear();
  }

  clear() {
    this.element.replaceChildren(make("p", { className: "hint", textContent: "Choose a report to see its fields." }));
  }

  showReport(report) {
    const { event, batch } = report;
    const fields = Object.entries(event);
    const pick = (wanted) => fields.filter(([name]) => wanted(name));
    this.element.replaceChildren(
      heading(`Report ${kindOf(event)}`),
      fieldTable([
        ["received", clock(batch.at)],
        ["batch", linkTo(`${plural(batch.reports, "report")}, answered ${answerText(batch)}`, () => this.openBatch(batch))],
        ["session", linkTo(visible(report.session).slice(0, 60) + " – explain", () => this.explain(report.session))],
      ]),
      ...part("Payload", pick(isPayload)),
      ...part("User info", pick(isUserInfo)),
      ...part("Added by the daemon", pick(isOfDaemon)));
  }

  showBatch(batch) {
    const events = batch.body?.events ?? [];
    const list = make("ul", { className: "events" });
    for (const event of events.slice(0, kListedReports)) {
      list.append(make("li", {}, linkTo(`${kindOf(event)} #${short(event._eventNumber)}`,
        () => this.openReport(event, batch))));
    }
    if (events.length > kListedReports)
      list.append(make("li", { textContent: `and ${plural(events.length - kListedReports, "more report")}` }));
    this.element.replaceChildren(
      heading(`Batch of ${plural(batch.reports, "report")}`),
      fieldTable([
        ["received", clock(batch.at)],
        ["path", batch.path],
        ["answer", batch.status ? batch.status : make("span", { textContent: `none (${batch.fault})` })],
        ["size", `${batch.bytes} bytes, decompressed`],
        ...(batch.problem ? [["problem", batch.problem]] : []),
        ...(batch.body ? [["clientId", batch.body.clientId], ["postTime", batch.body.postTime]] : []),
      ]),
      ...part("Headers", Object.entries(batch.headers ?? {})),
      make("h3", { textContent: batch.body || !batch.reports ? "Reports" : "The page has dropped the reports" }), list);
  }

  showOther(record) {
    const fields = Object.entries(record).filter(([name]) => !["at", "kind", "reports"].includes(name));
    this.element.replaceChildren(
      heading(otherTitle(record)), fieldTable([["received", clock(record.at)]]),
      ...part("Fields", fields.map(([name, value]) => [name, valueElement(value)])));
  }
}

export function otherTitle(record) {
  const titles = { bagRequest: "Request for a bag", upload: "Upload of a file", logData: "Log data", dashboard: "Datagram" };
  return titles[record.kind] ?? record.kind;
}
