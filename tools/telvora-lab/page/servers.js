// SPDX-License-Identifier: Apache-2.0
//
// The answers of the servers: faults at a click.
import { ask } from "./feed.js";
import { make } from "./format.js";

const kLabels = {
  none: "Normal", success: "Normal", notFound: "404", serviceUnavailable: "503", noAnswer: "No answer", reset: "Reset",
  halfAnswer: "Half an answer", slow: "Slow: 5 s", hold: "Hold", failed: "Failed", notUtf8: "Not UTF-8", empty: "Empty",
  emptyAnswer: "Empty", notModified: "304", truncated: "Truncated", notAPropertyList: "No property list",
  unsignedBag: "Unsigned", foreignKey: "Foreign key", flippedBit: "Flipped bit", innerNotAPropertyList: "No bag inside",
};

export const faultLabel = (fault) => kLabels[fault] ?? fault;

// A choice among faults; `chosen(fault)` sends it.
export function faultSelect(faults, label, chosen) {
  const select = make("select", { "aria-label": label });
  for (const fault of faults) select.append(make("option", { value: fault, textContent: faultLabel(fault) }));
  select.addEventListener("change", () => chosen(select.value));
  return select;
}

export class Answers {
  constructor(form, faults, failed) {
    this.failed = failed;
    this.radios = new Map();
    const group = make("fieldset", {}, make("legend", { textContent: "Reports" }));
    for (const fault of faults.reports) {
      const radio = make("input", { type: "radio", name: "reports", value: fault });
      radio.addEventListener("change", () => this.send("reports", fault));
      this.radios.set(fault, radio);
      group.append(make("label", {}, radio, make("span", { textContent: faultLabel(fault) })));
    }
    form.append(group);
    this.selects = {};
    for (const [server, title] of [["uploads", "Uploads"], ["logData", "Log data"]]) {
      this.selects[server] = faultSelect(faults[server], title, (fault) => this.send(server, fault));
      form.append(make("label", { className: "server" }, make("span", { textContent: title }), this.selects[server]));
    }
  }

  async send(server, fault) {
    try {
      await ask("/lab/fault", { server, fault });
      this.failed("");
    } catch (error) {
      this.failed(error.message);
    }
  }

  update(state) {
    const radio = this.radios.get(state.faults.reports);
    if (radio) radio.checked = true;
    for (const [server, select] of Object.entries(this.selects)) {
      if (document.activeElement !== select) select.value = state.faults[server];
    }
  }
}
