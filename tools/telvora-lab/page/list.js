// SPDX-License-Identifier: Apache-2.0
//
// A list of many rows of one height, of which only the visible ones are in the document. Arrow keys, Page Up, Page
// Down, Home and End move the selection.
import { make } from "./format.js";

const kSpare = 4; // rows outside of the visible part

let lists = 0;

export class VirtualList {
  // `show(row, item)` fills a row; `selected(item)` follows the user's choice of an item.
  constructor(element, { rowHeight, rowRole, show, selected }) {
    Object.assign(this, { element, rowHeight, rowRole, show, selected });
    this.items = [];
    this.chosen = null;
    this.rows = [];
    this.prefix = `list${++lists}-`;
    this.space = make("div", { className: "space" });
    element.append(this.space);
    element.addEventListener("scroll", () => this.draw());
    element.addEventListener("keydown", (event) => this.onKey(event));
    // At the press: until the release, another item may have come to this place.
    this.space.addEventListener("mousedown", (event) => {
      const row = event.target.closest(".row");
      if (row && row.item !== null) this.choose(row.item);
    });
    new ResizeObserver(() => this.draw()).observe(element);
  }

  get atTop() {
    return this.element.scrollTop < this.rowHeight;
  }

  setItems(items) {
    this.items = items;
    this.space.style.height = `${items.length * this.rowHeight}px`;
    this.draw();
  }

  choose(item) {
    this.chosen = item;
    this.draw();
    this.selected(item);
  }

  clear() {
    this.chosen = null;
    this.element.scrollTop = 0;
  }

  draw() {
    const height = this.element.clientHeight;
    if (height === 0) return; // hidden
    const first = Math.max(0, Math.floor(this.element.scrollTop / this.rowHeight) - kSpare);
    const wanted = Math.min(this.items.length - first, Math.ceil(height / this.rowHeight) + 2 * kSpare);
    while (this.rows.length < wanted) this.addRow();
    this.rows.forEach((row, i) => {
      row.hidden = i >= wanted;
      row.item = row.hidden ? null : this.items[first + i];
      if (row.hidden) return;
      row.style.transform = `translateY(${(first + i) * this.rowHeight}px)`;
      row.setAttribute("aria-posinset", first + i + 1);
      row.setAttribute("aria-setsize", this.items.length);
      row.setAttribute("aria-selected", row.item === this.chosen);
      this.show(row, row.item);
    });
    const active = this.rows.find((row) => row.item !== null && row.item === this.chosen);
    if (active) this.element.setAttribute("aria-activedescendant", active.id);
    else this.element.removeAttribute("aria-activedescendant");
  }

  addRow() {
    const row = make("div", { className: "row", id: this.prefix + this.rows.length, role: this.rowRole });
    this.rows.push(row);
    this.space.append(row);
  }

  onKey(event) {
    const page = Math.max(1, Math.floor(this.element.clientHeight / this.rowHeight) - 1);
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity, End: Infinity };
    const step = steps[event.key];
    if (step === undefined || this.items.length === 0) return;
    event.preventDefault();
    const at = this.items.indexOf(this.chosen);
    const wanted = at < 0 ? 0 : Math.min(this.items.length - 1, Math.max(0, at + step));
    const top = wanted * this.rowHeight;
    const bottom = top + this.rowHeight - this.element.clientHeight;
    if (this.element.scrollTop > top) this.element.scrollTop = top;
    if (this.element.scrollTop < bottom) this.element.scrollTop = bottom;
    this.choose(this.items[wanted]);
  }
}
