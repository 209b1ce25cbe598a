#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The laboratory's page in a real browser, with reports of the real daemon.

page_test.py PROGRAMS [--pictures DIRECTORY]
"""
import argparse
import contextlib
import http.client
import json
import shutil
import signal
import subprocess
import sys
import tempfile
import urllib.parse
import urllib.request
from pathlib import Path

from browser import Browser
from world import World, bag

SKIPPED = 77
HOSTILE = {"html": "<img src=x onerror=window.taken=1><script>window.taken=1</script>", "control": "a\x1b[31m\u202eb",
           "huge": "x" * 60000}


def shown(text, condition=""):
    """Whether the list of reports has a row with that text."""
    return (f"[...document.querySelectorAll('#report-list .row')].some((row) => !row.hidden && "
            f"row.textContent.includes({json.dumps(text)}){condition})")


def filter_reports(browser, text):
    browser.value(f"document.querySelector('#filter').value = {json.dumps(text)};"
                  "document.querySelector('#filter').dispatchEvent(new Event('input'))")


def details_of(browser, text):
    """The details of the report with that text, chosen by a click while no other report is in the list."""
    filter_reports(browser, text)
    browser.click("#report-list .row", text)
    return browser.text("#details")


def test_guards(world):
    """No request is answered without the token, nor from another site's page, nor under another name."""
    page = urllib.parse.urlparse(world.addresses["page"])
    own = {"X-Lab-Token": page.fragment, "Host": page.netloc, "Origin": f"http://{page.netloc}"}
    fault = json.dumps({"server": "reports", "fault": "serviceUnavailable"})
    for changes, path, body, status in (
            ({}, "/lab/state", None, 200), ({"X-Lab-Token": "0" * 32}, "/lab/state", None, 403),
            ({"X-Lab-Token": ""}, "/lab/fault", fault, 403), ({"Host": "rebound.example"}, "/lab/fault", fault, 403),
            ({"Origin": "http://evil.example"}, "/lab/fault", fault, 403), ({}, "/lab/fault", "{", 400),
            ({}, "/lab/fault", '{"server": "reports", "fault": "?"}', 400), ({}, "/lab/other", None, 404),
            ({}, "/lab/bag?name=../../etc/passwd", None, 400)):
        connection = http.client.HTTPConnection(page.netloc, timeout=30)
        connection.request("POST" if body else "GET", path, body, own | changes)
        answer = connection.getresponse()
        assert answer.status == status, (changes, path, answer.status)
        assert "script-src 'self'" in answer.headers["Content-Security-Policy"]
        connection.close()
    assert page.fragment not in urllib.request.urlopen(f"http://{page.netloc}/").read().decode()


def test_arrivals(world, browser):
    """Sessions as a tree, reports with their fields, hostile texts as texts."""
    browser.until("document.querySelector('#connection').textContent === 'live'")
    outer = subprocess.Popen(
        [f"{world.programs}/telvoractl", "--wait", "30", "session", "--client-type", "8", "--require-user-info",
         "--client-name", "call", "--hierarchy-token", "t", "--hierarchy-level", "0"], env=world.environment,
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    outer.stdout.readline()  # the session is configured
    world.send("audio", {"greeting": "hello", "name": "Ada", "big": 12345678901234567}, "--hierarchy-token", "t",
               "--hierarchy-level", "1")
    outer.communicate("flush\n", timeout=60)
    browser.until("[...document.querySelectorAll('#sessions .row[aria-level=\"2\"]')].some("
                  "(row) => row.textContent.includes('audio'))")
    details = details_of(browser, "greeting")
    assert "hello" in details and "12345678901234567" in details and "Ada" not in details, details
    browser.click("#details button", "answered 200")
    browser.until("document.querySelector('#details').innerText.includes('X-TVR-Client-Name')")

    world.send("evil<b>", HOSTILE)
    browser.click("#tab-reports")
    details = details_of(browser, "<img src=x")
    for text in (HOSTILE["html"], "a\\u001b[31m\\u202eb", "show all 60,000 characters"):
        assert text in details, details
    assert browser.value("document.querySelectorAll('img, iframe, body script, b b').length") == 0
    assert browser.value("typeof window.taken") == "undefined"

    filter_reports(browser, "")
    browser.value("document.querySelector('#report-list').focus()")
    for key in ("Home", "ArrowDown"):
        browser.key(key)
    browser.until("document.querySelector('#report-list .row[aria-selected=true]').ariaPosInSet === '2'")


def test_faults(world, browser):
    """503 at a click: the daemon's post gets it."""
    browser.click("#answers label", "503")
    browser.until("!document.querySelector('#fault').hidden")
    world.send("unlucky", {"n": 1})
    browser.key("Escape")
    browser.until(shown("unlucky", " && row.querySelector('.status.bad').textContent === '503'"))
    browser.click("#answers label", "Normal")
    browser.until("document.querySelector('#fault').hidden")


def test_bags(world, browser):
    """A bag is replaced, explained, and followed by the daemon."""
    browser.click("#tab-bags")
    browser.until("document.querySelector('#bag-text').value.includes('@events@')")
    changed = json.dumps(bag({"key": "greeting", "action": "remove"}))
    for text, message in (("{nonsense", "JSON"), (changed, "Served from now on")):
        browser.value("document.querySelector('#bag-text').select(); document.querySelector('#bag-text').focus()")
        browser.call("Input.insertText", text=text)
        browser.click("#view-bags button", "Sign and serve")
        browser.until(f"document.querySelector('#view-bags .message').textContent.includes('{message}')")
    browser.click("#sessions .row", "audio")
    browser.click("#tab-explain")
    browser.until("document.querySelector('#explanation').textContent.includes('\"greeting\" is removed')")
    assert "client \"audio\"" in browser.text("#explanation")
    world.start_daemon()
    world.send("later", {"greeting": "hello", "kept": 1})
    browser.click("#sessions .row", "All sessions")
    browser.click("#tab-reports")
    browser.until(shown("kept=1"))


def test_restart(world, browser):
    """A kept laboratory returns with its ports, keys, token and bags; the page follows it."""
    first = world.addresses
    lines = world.stop_lab()
    events = [line["event"] | {"status": line["status"]} for line in lines if "event" in line]
    assert 503 in [event["status"] for event in events if event["TelvoraUserInfoClientName"] == "unlucky"], events
    assert ["greeting" in event for event in events if event.get("kept") == 1] == [False], events
    assert lines[-1]["kind"] == "end" and not lines[-1]["problems"], lines[-1]
    world.start_lab()
    assert world.addresses == first, (first, world.addresses)
    world.start_daemon()
    world.send("returned", {"greeting": "hello"})
    browser.until(shown("returned"))
    browser.until("!document.querySelector('#sessions').innerText.includes('audio')")


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # ends the processes, too
    parser = argparse.ArgumentParser()
    parser.add_argument("programs", type=Path)
    parser.add_argument("--pictures", type=Path)
    arguments = parser.parse_args()
    if not (shutil.which("chromium-headless-shell") or shutil.which("chromium")):
        print("skipped: there is no chromium; script/test-page installs it")
        return SKIPPED
    with tempfile.TemporaryDirectory() as directory:
        with contextlib.ExitStack() as stack:
            world = World(arguments.programs.resolve(), Path(directory), stack)
            browser = Browser(world.addresses["page"], stack)
            for step in (test_arrivals, test_faults, test_bags, test_restart):
                step(world, browser)
                print(step.__name__, "passed", flush=True)
                if arguments.pictures:
                    browser.screenshot(arguments.pictures / f"{step.__name__}.png")
            test_guards(world)
            errors = [error for error in browser.errors if '"source": "network"' not in error]
            assert not errors, errors
    return 0


sys.exit(main())
