#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""A real call client against the real voice service.

Runs LarimoServer from a copy of the app folder on the private sound server, feeds a tone into
the fake microphone, makes the Chipmunk slot active and opens a page in headless Chromium that
asks for the microphone, looks for "Larimo Microphone" among the recording devices and listens
to it. The page reports back over a small local HTTP endpoint; the test passes when the device
is listed and what the browser hears is the tone an octave up.

Needs PULSE_SERVER pointing at the private sound server (the CTest fixture `soundserver`).
"""

import argparse
import http.server
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

TONE_HZ = 300.0
# The Chipmunk preset shifts by an octave.
EXPECTED_HZ = 2 * TONE_HZ
WANTED = "Larimo Microphone"


def log(text):
    print(f"browser_mic_test: {text}", flush=True)


def wait_for(seconds, predicate, every=0.1):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if predicate():
            return True
        time.sleep(every)
    return predicate()


class Reports:
    """What the page posted: its steps and its one result."""

    def __init__(self):
        self.lock = threading.Lock()
        self.steps = []
        self.result = None


def make_handler(page, reports):
    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            if self.path.split("?")[0] != "/":
                self.send_error(404)
                return
            self.send_response(200)
            self.send_header("Content-Type", "text/html; charset=utf-8")
            self.send_header("Content-Length", str(len(page)))
            self.end_headers()
            self.wfile.write(page)

        def do_POST(self):
            length = int(self.headers.get("Content-Length", "0"))
            try:
                body = json.loads(self.rfile.read(length) or b"null")
            except json.JSONDecodeError:
                body = None
            with reports.lock:
                if self.path == "/result" and reports.result is None:
                    reports.result = body if isinstance(body, dict) else {"error": "unreadable result"}
                elif self.path == "/progress" and isinstance(body, dict):
                    reports.steps.append(str(body.get("step")))
            self.send_response(204)
            self.end_headers()

        def log_message(self, *args):
            pass

    return Handler


class Run:
    def __init__(self, args):
        self.args = args
        self.work = Path(tempfile.mkdtemp(prefix="larimo-browser-"))
        self.namespace = f"browser{os.getpid()}"
        self.env = dict(os.environ, LARIMO_OBJECT_NAMESPACE=self.namespace)
        self.service = None
        self.browser = None
        self.tone_module = None
        self.http = None

    # --- parts -----------------------------------------------------------------------------

    def ctl(self, *words):
        return subprocess.run([str(self.app / "larimoctl"), *words], env=self.env, capture_output=True,
                              text=True, timeout=20)

    def start_service(self):
        self.app = self.work / "app"
        shutil.copytree(self.args.app, self.app, symlinks=True)
        self.service_log = open(self.work / "service.out", "wb")
        self.service = subprocess.Popen([str(self.app / "LarimoServer")], cwd=self.app, env=self.env,
                                        stdout=self.service_log, stderr=subprocess.STDOUT)
        if not wait_for(30, lambda: self.ctl("status").returncode == 0 or self.service.poll() is not None):
            raise AssertionError("the voice service does not answer")
        if self.service.poll() is not None:
            raise AssertionError(f"the voice service ended with {self.service.returncode}")

    def start_tone(self):
        tone = subprocess.run([str(self.args.source_dir / "scripts/test-soundserver.sh"), "tone",
                               str(self.args.soundserver_dir), str(int(TONE_HZ))],
                              capture_output=True, text=True, timeout=20)
        if tone.returncode != 0:
            raise AssertionError(f"no tone into the fake microphone: {tone.stderr.strip()}")
        self.tone_module = tone.stdout.strip()

    def start_http(self, page):
        self.reports = Reports()
        self.http = http.server.ThreadingHTTPServer(("127.0.0.1", 0), make_handler(page, self.reports))
        threading.Thread(target=self.http.serve_forever, daemon=True).start()
        return self.http.server_address[1]

    def start_browser(self, port):
        profile = self.work / "profile"
        command = [
            self.args.chromium, "--headless=new", "--no-first-run", "--no-default-browser-check",
            f"--user-data-dir={profile}", "--disable-gpu", "--disable-extensions",
            "--disable-background-networking", "--disable-component-update", "--mute-audio",
            # The permission prompt answers itself; the devices stay the sound server's own.
            "--use-fake-ui-for-media-stream", "--autoplay-policy=no-user-gesture-required",
            f"http://127.0.0.1:{port}/?listenMs={int(self.args.listen_seconds * 1000)}",
        ]
        if os.geteuid() == 0:
            command.insert(1, "--no-sandbox")
        self.browser_log = open(self.work / "browser.out", "wb")
        # A session of its own, so its helper processes end with it.
        self.browser = subprocess.Popen(command, env=self.env, stdout=self.browser_log, stderr=subprocess.STDOUT,
                                        start_new_session=True)

    def wait_result(self):
        def arrived():
            with self.reports.lock:
                return self.reports.result is not None
        wait_for(self.args.timeout, lambda: arrived() or self.browser.poll() is not None, every=0.2)
        with self.reports.lock:
            return self.reports.result, list(self.reports.steps)

    # --- end -------------------------------------------------------------------------------

    def stop(self):
        if self.browser is not None and self.browser.poll() is None:
            try:
                os.killpg(self.browser.pid, signal.SIGTERM)
                self.browser.wait(timeout=15)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                try:
                    os.killpg(self.browser.pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
                self.browser.wait()
        if self.http is not None:
            self.http.shutdown()
        if self.tone_module:
            subprocess.run(["pactl", "unload-module", self.tone_module], capture_output=True, timeout=20)
        if self.service is not None and self.service.poll() is None:
            self.service.terminate()
            try:
                self.service.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.service.kill()
                self.service.wait()
        # The named objects of the test's namespace, in whichever of the user's object folders
        # the service used.
        uid = os.geteuid()
        bases = [Path(f"/run/user/{uid}/larimo"), *Path("/dev/shm").glob(f"larimo-{uid}*")]
        if os.environ.get("XDG_RUNTIME_DIR", "").startswith("/"):
            bases.append(Path(os.environ["XDG_RUNTIME_DIR"]) / "larimo")
        for base in bases:
            if base.is_dir() and not base.is_symlink():
                shutil.rmtree(base / self.namespace, ignore_errors=True)
                try:
                    base.rmdir()
                except OSError:
                    pass

    def show_logs(self):
        for name in ("service.out", "browser.out"):
            path = self.work / name
            if path.exists():
                text = path.read_text(errors="replace").splitlines()
                # The browser's own log is long and mostly about the missing desktop bus.
                lines = [line for line in text if "dbus" not in line.lower()][-40:]
                log(f"--- last lines of {name} ---")
                for line in lines:
                    print(line)
        larimo_log = self.work / "app/larimocl.log"
        if larimo_log.exists():
            log("--- larimocl.log ---")
            print(larimo_log.read_text(errors="replace")[-4000:])


def check(result, steps):
    failures = []
    if result is None:
        return [f"the page sent no result (its steps: {steps})"]
    if result.get("error"):
        failures.append(f"the page failed: {result['error']}")
    labels = result.get("labels", [])
    if WANTED not in labels:
        failures.append(f'"{WANTED}" is not among the recording devices {labels}')
    if "trackLabel" in result and result["trackLabel"] != WANTED:
        failures.append(f"the browser recorded from \"{result['trackLabel']}\"")
    if "rms" in result:
        rms, peak = result["rms"], result.get("peakHz", 0.0)
        if result.get("timedOut") or rms <= 0.01:
            failures.append(f"the browser heard silence (rms {rms:.4f})")
        elif abs(peak - EXPECTED_HZ) > 0.1 * EXPECTED_HZ:
            failures.append(f"the strongest pitch is {peak:.0f} Hz, not the tone shifted up to {EXPECTED_HZ:.0f} Hz")
    return failures


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--app", type=Path, required=True, help="the staged app folder")
    parser.add_argument("--source-dir", type=Path, required=True)
    parser.add_argument("--soundserver-dir", type=Path, required=True)
    parser.add_argument("--chromium", default="chromium")
    parser.add_argument("--timeout", type=float, default=150, help="seconds to wait for the page's result")
    parser.add_argument("--listen-seconds", type=float, default=60, help="how long the page listens for sound")
    args = parser.parse_args()

    if "PULSE_SERVER" not in os.environ:
        log("PULSE_SERVER is not set; run under the soundserver fixture")
        return 2
    if shutil.which(args.chromium) is None:
        log(f"{args.chromium} is not installed (scripts/install-deps.sh installs it)")
        return 2
    page = (Path(__file__).parent / "browser_mic.html").read_bytes()

    run = Run(args)
    failures = []
    try:
        run.start_service()
        run.start_tone()
        # The voice here is a steady tone, which noise suppression would rightly fade as noise.
        cleaned = run.ctl("noise", "off")
        if cleaned.returncode != 0:
            raise AssertionError(f"larimoctl noise off failed: {cleaned.stdout}{cleaned.stderr}")
        selected = run.ctl("effect", "1")
        if selected.returncode != 0:
            raise AssertionError(f"larimoctl effect 1 failed: {selected.stdout}{selected.stderr}")
        port = run.start_http(page)
        run.start_browser(port)
        result, steps = run.wait_result()
        log(f"page steps: {steps}")
        log(f"page result: {json.dumps(result)}")
        failures = check(result, steps)
        if run.service.poll() is not None:
            failures.append(f"the voice service ended with {run.service.returncode}")
    except AssertionError as error:
        failures.append(str(error))
    finally:
        run.stop()
    if failures:
        for failure in failures:
            log(f"FAILED: {failure}")
        run.show_logs()
    shutil.rmtree(run.work, ignore_errors=True)
    if failures:
        return 1
    log(f'passed: "{WANTED}" listed and heard')
    return 0


if __name__ == "__main__":
    sys.exit(main())
