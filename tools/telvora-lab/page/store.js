// SPDX-License-Identifier: Apache-2.0
//
// The latest reports, batches and other requests, as many as the page keeps.

const kReports = 10000;
const kBatches = 2000;

// The last `limit` items. Dropping is rare, so that adding is cheap.
class Latest {
  constructor(limit) {
    this.limit = limit;
    this.items = [];
  }
  add(item) {
    this.items.push(item);
    if (this.items.length >= 2 * this.limit) this.items.splice(0, this.items.length - this.limit);
  }
  newestFirst(wanted = () => true) {
    return this.items.slice(-this.limit).reverse().filter(wanted);
  }
}

// The ID of the event's session: the last part of the dotted one.
export const ownID = (event) => String(event._sessionID ?? "").split(".").pop();

export class Store {
  constructor() {
    this.clear();
  }

  clear() {
    this.reports = new Latest(kReports);
    this.batches = new Latest(kBatches);
    this.others = new Latest(kBatches);
    this.added = 0; // reports in all
  }

  take(records) {
    for (const record of records) {
      if (record.kind !== "message") {
        this.others.add(record);
        continue;
      }
      this.batches.add(record);
      // Of more reports than fit, the first ones would be dropped at once.
      const events = record.body?.events ?? [];
      for (const event of events.slice(-kReports))
        this.reports.add({ event, batch: record, session: ownID(event) });
      this.added += events.length;
    }
  }
}
