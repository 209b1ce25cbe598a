// SPDX-License-Identifier: Apache-2.0
//
// The latest reports, batches and other requests, as many as the page keeps. Old batches lose their reports first.

const kReports = 10000;
const kRequests = 2000;
const kBytes = 48 << 20; // of JSON

// The last items, at most `limit`, and of at most `maxBytes` unless it is one.
class Latest {
  constructor(limit, maxBytes = Infinity) {
    Object.assign(this, { limit, maxBytes, items: [], bytes: 0 });
  }
  // Adds an item. Returns the items that had to leave.
  add(item) {
    const left = [];
    this.items.push(item);
    this.bytes += item.bytes ?? 0;
    while (this.items.length > this.limit || (this.bytes > this.maxBytes && this.items.length > 1)) {
      left.push(this.items.shift());
      this.bytes -= left.at(-1).bytes ?? 0;
    }
    return left;
  }
}

// The ID of the event's session: the last part of the dotted one.
export const ownID = (event) => String(event._sessionID ?? "").split(".").pop();

export class Store {
  constructor() {
    this.clear();
  }

  clear() {
    this.reports = [];
    this.whole = new Latest(Infinity, kBytes); // the batches that have their reports
    this.batches = new Latest(kRequests);
    this.others = new Latest(kRequests, kBytes / 4);
    this.added = 0; // reports in all
  }

  take(records) {
    for (const record of records) {
      if (record.kind !== "message") {
        this.others.add(record);
        continue;
      }
      const events = (record.body?.events ?? []).slice(-kReports);
      for (const event of events) this.reports.push({ event, batch: record, session: ownID(event) });
      record.listed = events.length;
      this.added += record.reports;
      this.batches.add(record);
      for (const batch of this.whole.add(record)) this.dropReports(batch);
      while (this.reports.length > kReports && this.whole.items.length > 1) {
        const oldest = this.whole.items.shift();
        this.whole.bytes -= oldest.bytes;
        this.dropReports(oldest);
      }
    }
  }

  dropReports(batch) {
    this.reports.splice(0, batch.listed);
    batch.body = null;
  }

  newest(kind) {
    return (kind === "reports" ? this.reports : this[kind].items).toReversed();
  }
}
