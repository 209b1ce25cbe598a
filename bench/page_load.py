#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Posts 20,000 reports a second to the laboratory, and measures the cost for the laboratory and its page in a browser.

page_load.py PROGRAMS SECONDS
"""
import contextlib
import http.client
import json
import os
import signal
import ssl
import sys
import tempfile
import threading
import time
import urllib.parse
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/page"))
from browser import Browser
from world import World

RATE = 20000  # reports a second
BATCH = 100
SENDERS = 2
HEADERS = {"User-Agent": "load", "X-TVR-Client-Version": "1", "X-TVR-Sender": "TV", "X-TVR-Client-Name": "load",
           "Accept": "application/json", "Content-Type": "application/json"}


def message(sender, start):
    events = [{"_eventNumber": start + i, "_sessionID": f"load{sender}.{(start + i) % 50}", "_method": 4,
               "_status": i % 7, "_startTS": 1700000000.0, "_clientTS": 1700000000.25, "eventTime": 1700000000.25,
               "_timezoneOffset": 3600, "_sender": "TV", "_clientVersion": 1, "_reportVers": "8.1.2", "_build": "13B143",
               "_productFamily": "Labdevice", "_productModel": "Lab1,1", "_osVersion": "9.1", "codec": "opus",
               "bitrate": 96000, "jitter": 0.25, "muted": False, "TelvoraUserInfoClientName": "load"}
              for i in range(BATCH)]
    return json.dumps({"postTime": 1700000000.0, "clientId": "load", "events": events}).encode()


def post(address, context, sender, end):
    connection = http.client.HTTPSConnection(address.netloc, context=context)
    bodies = [message(sender, i * BATCH) for i in range(50)]
    sent, start = 0, time.monotonic()
    while time.monotonic() < end:
        connection.request("POST", address.path, bodies[sent % 50], HEADERS)
        connection.getresponse().read()
        sent += 1
        # Paces the sender; the measurement is of a steady rate, not of bursts.
        time.sleep(max(0, start + sent * BATCH * SENDERS / RATE - time.monotonic()))
    return sent * BATCH


def processor_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_mib(pid):
    return int(open(f"/proc/{pid}/statm").read().split()[1]) * os.sysconf("SC_PAGE_SIZE") / 2**20


def measure(addresses, lab, browser, seconds):
    browser.until("document.querySelector('#connection').textContent === 'live'")
    browser.value("window.longest = 0; window.frames60 = 0; { let last = performance.now(); const frame = (now) => {"
                  " longest = Math.max(longest, now - last); last = now; ++frames60; requestAnimationFrame(frame); };"
                  " requestAnimationFrame(frame); } 0")
    before, script = processor_seconds(lab), browser_seconds(browser)
    context = ssl.create_default_context(cafile=addresses["ca"])
    totals, end = [], time.monotonic() + seconds
    senders = [threading.Thread(target=lambda i=i: totals.append(
        post(urllib.parse.urlparse(addresses["events"]), context, i, end))) for i in range(SENDERS)]
    for sender in senders:
        sender.start()
    for sender in senders:
        sender.join()
    sent = sum(totals)
    browser.until(f"document.querySelector('#reports').textContent === ({sent}).toLocaleString('en')")
    return {"sent": sent, "per second": round(sent / seconds),
            "lab: processor seconds per second": round((processor_seconds(lab) - before) / seconds, 2),
            "lab: resident MiB": round(resident_mib(lab)),
            "page: script seconds per second": round((browser_seconds(browser) - script) / seconds, 2),
            "page: frames per second": round(browser.value("frames60") / seconds),
            "page: longest frame, ms": round(browser.value("longest")),
            "page: heap MiB": round(browser.value("performance.memory.usedJSHeapSize") / 2**20),
            "page: losses": browser.value("document.querySelector('#lost').textContent"),
            "page: newest report": browser.text("#report-list .row")}


def browser_seconds(browser):
    browser.call("Performance.enable")
    return next(m["value"] for m in browser.call("Performance.getMetrics")["metrics"] if m["name"] == "TaskDuration")


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the processes, too
    programs, seconds = Path(sys.argv[1]).resolve(), int(sys.argv[2])
    with tempfile.TemporaryDirectory() as directory, contextlib.ExitStack() as stack:
        world = World(programs, Path(directory), stack)
        browser = Browser(world.addresses["page"], stack)
        print(json.dumps(measure(world.addresses, world.lab.pid, browser, seconds), indent=1))


main()
