// SPDX-License-Identifier: Apache-2.0
//
// The bags: an editor whose bag replaces the served one, and the faults of a bag's answers.
import { ask } from "./feed.js";
import { make, visible } from "./format.js";
import { faultSelect } from "./servers.js";

export class Bags {
  constructor(section, about) {
    this.names = make("datalist", { id: "bag-names" });
    this.name = make("input", { id: "bag-name", autocomplete: "off", spellcheck: false });
    this.name.setAttribute("list", "bag-names");
    this.fault = faultSelect(about.faults.bags, "Answer to requests for this bag", (fault) => this.setFault(fault));
    this.text = make("textarea", {
      id: "bag-text", spellcheck: false, "aria-label": "The bag, as JSON or as a property list" });
    this.save = make("button", { type: "submit", textContent: "Sign and serve" });
    this.message = make("p", { role: "status", className: "message" });
    this.findings = make("ul", { className: "findings" });
    const known = new Set(about.clientTypes.map((type) => type.bag).filter(Boolean));
    for (const name of [...known].sort()) this.names.append(make("option", { value: name }));
    const form = make("form", { className: "editor" },
      make("div", { className: "bar" },
        make("label", {}, "Bag ", this.name), this.names,
        make("label", {}, "Answer ", this.fault), this.save),
      this.text, this.message, this.findings);
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      this.replace();
    });
    this.name.addEventListener("change", () => this.load());
    section.append(form);
  }

  update(state) {
    if (!this.name.value && state.bags.length) {
      this.name.value = state.bags[0].name;
      this.load();
    }
    const bag = state.bags.find((each) => each.name === this.name.value);
    if (document.activeElement !== this.fault) this.fault.value = bag?.fault ?? "none";
  }

  async load() {
    try {
      const bag = await ask(`/lab/bag?name=${encodeURIComponent(this.name.value)}`);
      this.show(bag, bag.signed ? "" : "This bag was signed with another key. A bag that replaces it is signed with the " +
        "laboratory's key, which is in the framework directory of the addresses.");
    } catch (error) {
      this.text.value = "";
      this.show({ findings: [] }, `There is no bag "${this.name.value}" yet: ${error.message}`);
    }
  }

  async replace() {
    const name = this.name.value;
    try {
      const answer = await ask("/lab/bag", { name, text: this.text.value });
      this.show(answer, `Served from now on. A daemon fetches it when its copy has expired, or at its next start.`);
    } catch (error) {
      this.show({ findings: [] }, error.message, true);
    }
  }

  async setFault(fault) {
    try {
      await ask("/lab/fault", { server: "bags", bag: this.name.value, fault });
    } catch (error) {
      this.show({ findings: [] }, error.message, true);
    }
  }

  show(answer, message, isError = false) {
    if (answer.text !== undefined) this.text.value = answer.text;
    this.message.textContent = visible(message);
    this.message.classList.toggle("error", isError);
    this.findings.replaceChildren(...answer.findings.map((finding) => make("li", { className: finding.severity },
      make("code", { textContent: visible(finding.path) }), " ", visible(finding.text))));
  }
}
