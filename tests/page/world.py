# SPDX-License-Identifier: Apache-2.0
"""A laboratory, a daemon and clients, for tests and measurements of the laboratory's page."""
import json
import os
import signal
import subprocess

ENTRY = {"post_url": "@events@", "realtime_post_url": "@realtime@", "locale_whitelist": "US", "sampling_threshold": 1.0,
         "event_threshold": 49, "filters": [{"key": "name", "action": "sha256"}]}


def bag(*filters):
    entry = ENTRY | {"filters": ENTRY["filters"] + list(filters)}
    return {"version": "1.0", "release": {"httpPost": {"clients": [entry]}}}


class World:
    """A laboratory with kept keys and ports, a daemon, and clients."""

    def __init__(self, programs, directory, stack):
        self.programs, self.directory = programs, directory
        self.lab = self.daemon = None
        stack.callback(self.close)
        for name in ("run", "state", "log", "etc/entitlements.d"):
            (directory / name).mkdir(parents=True)
        (directory / "bag.json").write_text(json.dumps(bag()))
        (directory / "etc/entitlements.d/me.plist").write_text(
            f'<plist version="1.0"><dict><key>User</key><integer>{os.getuid()}</integer><key>Entitlements</key>'
            "<dict><key>com.zandor.private.telvorad</key><true/></dict></dict></plist>")
        self.start_lab("--bag", f"dravik={directory}/bag.json")
        self.environment = os.environ | {
            "RUNTIME_DIRECTORY": f"{directory}/run", "STATE_DIRECTORY": f"{directory}/state",
            "CONFIGURATION_DIRECTORY": f"{directory}/etc", "LOGS_DIRECTORY": f"{directory}/log",
            "TELVORA_FRAMEWORK_DIR": self.addresses["framework"], "SSL_CERT_FILE": self.addresses["ca"],
            "LC_ALL": "en_US.UTF-8"}
        self.ctl("defaults", "write", "com.zandor.telvora", "telvora_storebag_url", "string", self.addresses["bags"])
        self.ctl("consent", "on")
        self.start_daemon()

    def start_lab(self, *options):
        self.lab = subprocess.Popen([f"{self.programs}/telvora-lab", "serve", "--keep", f"{self.directory}/kept",
                                     "--follow", "--json", "--ignore-input", *options], stdout=subprocess.PIPE)
        self.addresses = json.loads(self.lab.stdout.readline())

    def stop_lab(self):
        """All that --follow has printed since the addresses."""
        self.lab.send_signal(signal.SIGTERM)
        lines = [json.loads(line) for line in self.lab.stdout]
        assert self.lab.wait() == 0
        return lines

    def start_daemon(self):
        if self.daemon:
            self.daemon.terminate()
            assert self.daemon.wait(timeout=60) == 0
        self.daemon = subprocess.Popen([f"{self.programs}/telvorad"], env=self.environment,
                                       stderr=open(self.directory / "daemon.log", "a"))

    def ctl(self, *arguments, **options):
        return subprocess.run([f"{self.programs}/telvoractl", "--wait", "30", *arguments], env=self.environment,
                              check=True, capture_output=True, text=True, timeout=60, **options).stdout

    def send(self, client, payload, *options):
        report = json.dumps({"category": 4, "type": 2, "payload": payload})
        self.ctl("session", "--client-type", "8", "--require-user-info", "--client-name", client, *options,
                 input=f"{report}\nflush\n")

    def close(self):
        for process in (self.daemon, self.lab):
            if process:
                process.kill()
                process.wait()
