// SPDX-License-Identifier: Apache-2.0
//
// The tree of sessions. The first row stands for all of them.
import { count, make, visible } from "./format.js";
import { VirtualList } from "./list.js";

const kRowHeight = 28;

export class Sessions {
  // `chosen(session)` follows the choice of a session; null stands for all.
  constructor(element, chosen) {
    this.all = { id: null, depth: 0, client: "All sessions", events: 0 };
    this.items = new Map(); // by ID, so that a row stays the same item
    this.list = new VirtualList(element, {
      rowHeight: kRowHeight,
      rowRole: "treeitem",
      show: (row, session) => this.show(row, session),
      selected: (session) => chosen(session.id === null ? null : session),
    });
    this.list.chosen = this.all;
  }

  chooseAll() {
    this.list.choose(this.all);
  }

  update(state) {
    this.all.events = state.reports;
    const before = this.items;
    this.items = new Map(state.sessions.map((session) =>
      [session.id, Object.assign(before.get(session.id) ?? {}, session)]));
    this.list.setItems([this.all, ...this.items.values()]);
  }

  show(row, session) {
    row.setAttribute("aria-level", session.depth + 1);
    row.style.paddingInlineStart = `${10 + Math.min(session.depth, 8) * 16}px`;
    const name = [session.client, session.service].filter(Boolean).join(" · ") || session.sender || "unnamed";
    row.replaceChildren(
      make("span", {
        className: "name", textContent: visible(name).slice(0, 200), title: visible(session.id ?? "").slice(0, 200) }),
      make("span", { className: "id", textContent: session.id === null ? "" : visible(session.id).slice(0, 6) }),
      make("span", { className: "count", textContent: count(session.events) }));
  }
}
