"""What the tests of the service's pages share: headless Chromium driven through Debian's
chromedriver (WebDriver spoken over HTTP with the standard library alone), the service and the
driver started on free loopback ports and stopped by PID, and waiting on a condition.

A test module calls main(description, run): run(args, page) gets the parsed arguments and a
running PageSession, and raises Failure to fail; the service's and the driver's last log lines
are then printed.
"""

import argparse
import base64
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

DEADLINE_S = 30  # for each thing a test waits for; whole runs take a few seconds
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the W3C WebDriver element key
CHROMIUM_ARGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--window-size=1280,2000",
]


class Failure(Exception):
    pass


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def http(method, url, body=None, content_type="application/json"):
    """(status, body text); a refused connection is status 0."""
    data = body.encode() if isinstance(body, str) else body
    request = urllib.request.Request(url, data=data, method=method)
    if data is not None:
        request.add_header("Content-Type", content_type)
    try:
        with urllib.request.urlopen(request, timeout=10) as response:
            return response.status, response.read().decode()
    except urllib.error.HTTPError as error:
        return error.code, error.read().decode()
    except (urllib.error.URLError, ConnectionError):
        return 0, ""


def wait_for(what, condition):
    """Polls `condition` until it gives something true, or fails after DEADLINE_S."""
    deadline = time.monotonic() + DEADLINE_S
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure("timed out waiting for " + what)
        time.sleep(0.05)


class WebDriver:
    def __init__(self, port):
        self.base = f"http://127.0.0.1:{port}"
        self.session = None

    def call(self, method, path, payload=None):
        body = json.dumps(payload) if payload is not None else None
        if method == "POST" and body is None:
            body = "{}"
        status, text = http(method, self.base + path, body)
        value = json.loads(text)["value"] if text else None
        if status != 200:
            raise Failure(f"WebDriver {method} {path}: {status} {value}")
        return value

    def start(self, chromium, profile):
        options = {"binary": chromium, "args": CHROMIUM_ARGS + ["--user-data-dir=" + profile]}
        capabilities = {"alwaysMatch": {"browserName": "chrome", "goog:chromeOptions": options}}
        self.session = self.call("POST", "/session", {"capabilities": capabilities})["sessionId"]

    def quit(self):
        if self.session:
            try:
                self.call("DELETE", f"/session/{self.session}")
            except Failure:
                pass
            self.session = None

    def s(self, path):
        return f"/session/{self.session}{path}"

    def go(self, url):
        self.call("POST", self.s("/url"), {"url": url})

    def elements(self, css):
        """The elements matching `css` now, maybe none."""
        found = self.call("POST", self.s("/elements"), {"using": "css selector", "value": css})
        return [element[ELEMENT] for element in found]

    def find(self, css):
        """The first element matching `css` once there is one."""
        return wait_for(css, lambda: next(iter(self.elements(css)), None))

    def execute(self, script, *elements):
        """Runs `script` in the page with the elements as arguments[0], [1], ...; its result."""
        return self.call("POST", self.s("/execute/sync"),
                         {"script": script, "args": [{ELEMENT: e} for e in elements]})

    def click(self, css):
        self.click_element(self.find(css))

    def click_element(self, element):
        # Scrolled into view first: a control below the fold is not clickable.
        self.execute("arguments[0].scrollIntoView({block: 'center'});", element)
        self.call("POST", self.s(f"/element/{element}/click"))

    def type(self, css, text):
        element = self.find(css)
        self.call("POST", self.s(f"/element/{element}/clear"))
        self.call("POST", self.s(f"/element/{element}/value"), {"text": text})

    def text(self, css):
        return self.call("GET", self.s(f"/element/{self.find(css)}/text"))

    def attribute(self, element, name):
        return self.call("GET", self.s(f"/element/{element}/attribute/{name}"))

    def screenshot(self, path):
        with open(path, "wb") as out:
            out.write(base64.b64decode(self.call("GET", self.s("/screenshot"))))


class PageSession:
    """The service (without MongoDB: what the pages call stays on this instance) and chromedriver
    with headless Chromium, on free loopback ports, in `work`; stopped by PID on exit."""

    def __init__(self, args, work):
        self.args = args
        self.work = work
        self.base = f"http://127.0.0.1:{free_port()}"
        self.driver = WebDriver(free_port())
        self.processes = []

    def __enter__(self):
        try:
            self.processes.append(subprocess.Popen(
                [self.args.service, "--http/listenOn=" + self.base[len("http://"):],
                 f"--dataDir={self.work}/data", f"--log/file={self.work}/service.log",
                 "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"]))
            wait_for("the service", lambda: http("POST", self.base + "/metadataDb/ping")[0] == 200)
            self.processes.append(subprocess.Popen(
                [self.args.chromedriver, f"--port={self.driver.base.rsplit(':', 1)[1]}",
                 "--allowed-ips=127.0.0.1", f"--log-path={self.work}/chromedriver.log"],
                stdout=subprocess.DEVNULL))
            wait_for("chromedriver", lambda: http("GET", self.driver.base + "/status")[0] == 200)
            self.driver.start(self.args.chromium, f"{self.work}/profile")
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *exception):
        self.driver.quit()
        for process in reversed(self.processes):
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        self.processes = []
        return False

    def save(self, packets, search_target, track):
        """Saves packets, then waits until an internal search finds `track`."""
        status, text = http("POST", self.base + "/metadataDb/v1/data", json.dumps(packets))
        if status != 200:
            raise Failure(f"saving the packets answered {status} {text}")
        wait_for("the packets' commit", lambda: track in http("GET", self.base + search_target)[1])

    def screenshot(self, name):
        if self.args.screenshots:
            self.driver.screenshot(os.path.join(self.args.screenshots, name))


def main(description, run):
    """Parses the command line, runs `run(args, page)` in a temporary directory, and returns the
    exit status: 0 passed, 1 failed (with the reason and the logs' last lines)."""
    name = os.path.basename(sys.argv[0]).removesuffix(".py")
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--service", required=True, help="the metadata_storage executable")
    parser.add_argument("--chromium", default=shutil.which("chromium") or "/usr/bin/chromium")
    parser.add_argument("--chromedriver",
                        default=shutil.which("chromedriver") or "/usr/bin/chromedriver")
    parser.add_argument("--screenshots", help="a directory for pictures of the page")
    args = parser.parse_args()
    for program in (args.chromium, args.chromedriver, args.service):
        if not os.access(program, os.X_OK):
            print(f"{name}: {program} is not there; scripts/setup installs Chromium "
                  "and chromedriver and builds the service", file=sys.stderr)
            return 1
    work = tempfile.mkdtemp(prefix=name + ".")
    try:
        with PageSession(args, work) as page:
            run(args, page)
    except Failure as failure:
        print(f"{name}: {failure}", file=sys.stderr)
        for log in ("service.log", "chromedriver.log"):
            path = os.path.join(work, log)
            if os.path.exists(path):
                with open(path, errors="replace") as text:
                    print(f"--- last lines of {log}:", file=sys.stderr)
                    print(*text.readlines()[-15:], sep="", file=sys.stderr)
        return 1
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 0
