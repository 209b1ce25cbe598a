# SPDX-License-Identifier: Apache-2.0
"""A headless Chromium, driven by its DevTools protocol over a pair of pipes."""
import fcntl
import json
import os
import select
import shutil
import signal
import tempfile
import time

PATIENCE = 90  # seconds; a busy machine may take long to start the browser


class Browser:
    def __init__(self, url, stack, width=1440, height=900, dark=False):
        self.profile = tempfile.mkdtemp()
        self.number, self.pending, self.errors = 0, b"", []
        commands, self.out = (self._high(end) for end in os.pipe())
        self.input, answers = (self._high(end) for end in os.pipe())
        program = shutil.which("chromium-headless-shell") or shutil.which("chromium")
        arguments = [program, "--headless", "--remote-debugging-pipe", "--user-data-dir=" + self.profile,
                     "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars", f"--window-size={width},{height}"]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")  # Chromium's sandbox refuses to run as root
        quiet = self._high(os.open(os.devnull, os.O_WRONLY))
        self.pid = os.posix_spawn(program, arguments + ["about:blank"], os.environ, setpgroup=0, file_actions=[
            (os.POSIX_SPAWN_DUP2, commands, 3), (os.POSIX_SPAWN_DUP2, answers, 4), (os.POSIX_SPAWN_DUP2, quiet, 2)])
        stack.callback(self.close)
        for end in (commands, answers, quiet):
            os.close(end)
        self.session = None
        target = next(t for t in self.call("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log"):
            self.call(domain + ".enable")
        if dark:
            self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark"}])
        self.call("Page.navigate", url=url)

    @staticmethod
    def _high(end):
        """The same file at a number that the browser's pipes do not take."""
        high = fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10)
        os.close(end)
        return high

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + PATIENCE
        while True:
            answer = self._next(deadline, method)
            if answer.get("method") in ("Runtime.exceptionThrown", "Log.entryAdded"):
                self.errors.append(json.dumps(answer["params"])[:500])
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]

    def _next(self, deadline, method):
        while b"\0" not in self.pending:
            if not select.select([self.input], [], [], max(0, deadline - time.monotonic()))[0]:
                raise TimeoutError(method)
            data = os.read(self.input, 1 << 20)
            if not data:
                raise RuntimeError("the browser has ended")
            self.pending += data
        message, self.pending = self.pending.split(b"\0", 1)
        return json.loads(message)

    def value(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, awaitPromise=True, returnByValue=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def until(self, expression):
        """Waits until the expression is true in the page."""
        try:
            self.value("new Promise((done) => { const look = () => { let there = false; try { there = "
                       f"{expression}; }} catch {{}} there ? done(true) : setTimeout(look, 20); }}; look(); }})")
        except TimeoutError:
            shown = self.value("document.body.innerText")
            raise AssertionError("\n".join([f"not so: {expression}", shown, *self.errors])) from None

    def text(self, selector):
        return self.value(f"document.querySelector({json.dumps(selector)}).innerText")

    def click(self, selector, text=""):
        """Clicks the first element of the selector whose text contains `text`, with the mouse."""
        box = (f"[...document.querySelectorAll({json.dumps(selector)})].find((e) => e.checkVisibility() && "
               f"e.textContent.includes({json.dumps(text)}))")
        self.until(box)
        x, y = self.value(f"(() => {{ const e = {box}; e.scrollIntoView({{block: 'nearest'}}); const r = "
                          "e.getBoundingClientRect(); return [r.x + r.width / 2, r.y + r.height / 2]; })()")
        for kind in ("mousePressed", "mouseReleased"):
            self.call("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", clickCount=1)

    def key(self, name):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=name, code=name)

    def screenshot(self, path):
        import base64
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("Page.captureScreenshot")["data"]))

    def close(self):
        os.killpg(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        shutil.rmtree(self.profile, ignore_errors=True)
