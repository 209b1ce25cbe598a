// SPDX-License-Identifier: Apache-2.0
//
// The effect of the served bag on a session, as telvora-bag explain prints it. The form begins with the facts that
// the chosen session's reports show.
import { ask } from "./feed.js";
import { make } from "./format.js";

function field(title, input) {
  return make("label", {}, make("span", { textContent: title }), input);
}

export class Explain {
  constructor(section, about) {
    this.about = about;
    this.device = {};
    const text = (value = "") => make("input", { value, autocomplete: "off", spellcheck: false });
    const check = () => make("input", { type: "checkbox" });
    this.inputs = {
      clientType: make("select"), clientName: text(), serviceName: text(), country: text(),
      environment: make("select"), draw: make("input", { type: "number", min: 0, max: 1, step: "any", value: 0 }),
      consent: check(), requireUserInfo: check(), batch: check(),
      userInfo: text("{}"),
    };
    for (const type of about.clientTypes) {
      this.inputs.clientType.append(make("option", {
        value: type.number, textContent: `${type.number} ${type.sender}${type.bag ? ` (bag ${type.bag})` : ""}` }));
    }
    for (const name of about.environments)
      this.inputs.environment.append(make("option", { value: name, textContent: name }));
    this.inputs.environment.value = "release";
    this.inputs.clientType.value = about.clientTypes.find((type) => type.bag)?.number ?? 0;
    this.inputs.consent.checked = this.inputs.requireUserInfo.checked = true;
    const form = make("form", { className: "scenario" },
      field("Client type", this.inputs.clientType), field("Client name", this.inputs.clientName),
      field("Service name", this.inputs.serviceName), field("Further user info, JSON", this.inputs.userInfo),
      field("Country", this.inputs.country), field("Environment", this.inputs.environment),
      field("Sampling draw, 0 to 1", this.inputs.draw), field("The user consents", this.inputs.consent),
      field("User info is required", this.inputs.requireUserInfo), field("The client asks for batches", this.inputs.batch),
      make("button", { type: "submit", textContent: "Explain" }));
    form.addEventListener("submit", (event) => {
      event.preventDefault();
      this.run();
    });
    this.output = make("pre", { id: "explanation", tabIndex: 0, textContent: "Choose a session, or fill in the form." });
    section.append(form, this.output);
  }

  // Fills in the form and explains.
  explain(session) {
    const type = this.about.clientTypes.find((each) => each.sender === session.sender);
    if (type) this.inputs.clientType.value = type.number;
    this.inputs.clientName.value = session.client ?? "";
    this.inputs.serviceName.value = session.service ?? "";
    if (session.country) this.inputs.country.value = session.country;
    this.device = session.device ?? {};
    return this.run();
  }

  async run() {
    const { inputs } = this;
    try {
      const answer = await ask("/lab/explain", {
        clientType: Number(inputs.clientType.value), clientName: inputs.clientName.value,
        serviceName: inputs.serviceName.value, country: inputs.country.value, environment: inputs.environment.value,
        draw: Number(inputs.draw.value), consent: inputs.consent.checked, batch: inputs.batch.checked,
        requireUserInfo: inputs.requireUserInfo.checked, userInfo: JSON.parse(inputs.userInfo.value || "{}"),
        device: this.device,
      });
      this.output.textContent = answer.text;
    } catch (error) {
      this.output.textContent = error.message;
    }
  }
}
