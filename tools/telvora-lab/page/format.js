// SPDX-License-Identifier: Apache-2.0
//
// Elements and texts. All foreign text becomes a text node: no function here makes markup of it.

const kMaxShown = 600;

// Characters that control a display or the direction of text, so that a text can't hide or forge another one.
const kControl = /[\u0000-\u001f\u007f-\u009f\u061c\u200b-\u200f\u2028-\u202e\u2060-\u2069\ufeff]/g;

export function visible(text) {
  return String(text).replace(kControl, (c) => "\\u" + c.charCodeAt(0).toString(16).padStart(4, "0"));
}

// A new element. `properties` are those of the DOM, or attributes if their names have a hyphen or are "role".
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name.includes("-") || name === "role") element.setAttribute(name, value);
    else element[name] = value;
  }
  element.append(...children);
  return element;
}

export function clock(milliseconds) {
  const time = new Date(milliseconds);
  const digits = (number, length = 2) => String(number).padStart(length, "0");
  return `${digits(time.getHours())}:${digits(time.getMinutes())}:${digits(time.getSeconds())}` +
    `.${digits(time.getMilliseconds(), 3)}`;
}

export const count = (number) => number.toLocaleString("en");

export function plural(number, word) {
  return `${count(number)} ${word}${number === 1 ? "" : word.endsWith("h") ? "es" : "s"}`;
}

// Integers beyond 2^53 keep their digits.
export function parse(json) {
  if (!/[:[,]-?\d{16}/.test(json)) return JSON.parse(json);
  return JSON.parse(json, (key, value, context) =>
    typeof value === "number" && context && Math.abs(value) > Number.MAX_SAFE_INTEGER && /^-?\d+$/.test(context.source)
      ? BigInt(context.source) : value);
}

// A value as JSON, with control characters visible.
export function valueText(value) {
  if (typeof value === "bigint") return String(value);
  const json = JSON.stringify(value, (key, inner) => (typeof inner === "bigint" ? String(inner) : inner));
  return visible(json ?? "");
}

// The value in an element; a long one is cut, with a button for the rest.
export function valueElement(value) {
  const text = typeof value === "string" ? visible(value) : valueText(value);
  const element = make("span", { className: "value " + typeof value, textContent: text.slice(0, kMaxShown) });
  if (text.length <= kMaxShown) return element;
  const more = make("button", { type: "button", textContent: `show all ${count(text.length)} characters` });
  more.addEventListener("click", () => {
    element.textContent = text;
    more.remove();
  });
  return make("span", {}, element, " ", more);
}

// A table of names and values.
export function fieldTable(fields) {
  const table = make("dl", { className: "fields" });
  for (const [name, value] of fields) {
    table.append(make("dt", { textContent: visible(name).slice(0, kMaxShown) }),
      make("dd", {}, value instanceof Node ? value : valueElement(value)));
  }
  return table;
}
