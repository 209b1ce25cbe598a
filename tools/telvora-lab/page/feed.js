// SPDX-License-Identifier: Apache-2.0
//
// Requests to the laboratory, and the records of its feed.
import { parse } from "./format.js";

const kRetryMilliseconds = 1000;
const kLeastInterval = 50;

const token = location.hash.slice(1);
const pause = (milliseconds) => new Promise((done) => setTimeout(done, milliseconds));

// Sends a request; a body makes it a POST. Throws an Error with the laboratory's reason.
export async function ask(path, body) {
  const response = await fetch(path, {
    method: body === undefined ? "GET" : "POST",
    headers: { "X-Lab-Token": token },
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  if (response.status === 403) throw new Error("open the address that telvora-lab printed");
  const answer = parse(await response.text());
  if (!response.ok) throw new Error(answer.error);
  return answer;
}

// Calls `take(records)` with all records as they come, `lost(reports)` for reports that this page was too slow for, and
// `connected(reason)` when the connection changes; the reason is empty while there is one. `restarted()` follows
// the start of another laboratory at the same address. Never returns.
export async function follow({ take, lost, connected, restarted }) {
  let run = null;
  let next = 1;
  let seen = null;
  for (;;) {
    const started = performance.now();
    try {
      const answer = await ask(`/lab/feed?from=${next}`);
      connected("");
      if (run !== null && run !== answer.run) {
        [run, next, seen] = [null, 1, null];
        restarted();
        continue;
      }
      run = answer.run;
      if (seen !== null && answer.reportsBefore > seen) lost(answer.reportsBefore - seen);
      next = answer.first + answer.records.length;
      seen = answer.records.reduce((sum, record) => sum + record.reports, answer.reportsBefore);
      take(answer.records);
    } catch (error) {
      connected(error.message);
      await pause(kRetryMilliseconds);
    }
    await pause(Math.max(0, kLeastInterval - (performance.now() - started)));
  }
}
