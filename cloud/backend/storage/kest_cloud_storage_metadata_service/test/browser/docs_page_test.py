#!/usr/bin/env python3
"""The interactive API documentation in a real browser, as a newcomer uses it.

Starts the service (no MongoDB is needed: both calls stay on this instance) and Debian's
chromedriver with headless Chromium, both on free loopback ports. Saves a packet, then in the
page served at /metadataDb/v1/docs/ runs "Try it out" on the ping and on an internal search, and
checks the status and the body that the page shows. Stops everything it started by PID.

    docs_page_test.py --service PATH/metadata_storage [--screenshots DIR]

WebDriver is spoken over HTTP with the standard library alone.
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

DEADLINE_S = 30  # for each thing the test waits for; the whole run takes a few seconds
DEVICE = "6f1c0de0-0000-4000-8000-0000000000b1"
TRACK = "7a000000-0000-4000-8000-0000000000b1"
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

    def find(self, css):
        """The first element matching `css` once there is one."""

        def first():
            found = self.call("POST", self.s("/elements"), {"using": "css selector", "value": css})
            return found[0][ELEMENT] if found else None

        return wait_for(css, first)

    def click(self, css):
        element = self.find(css)
        # Scrolled into view first: a control below the fold is not clickable.
        self.call("POST", self.s("/execute/sync"),
                  {"script": "arguments[0].scrollIntoView({block: 'center'});",
                   "args": [{ELEMENT: element}]})
        self.call("POST", self.s(f"/element/{element}/click"))

    def type(self, css, text):
        element = self.find(css)
        self.call("POST", self.s(f"/element/{element}/clear"))
        self.call("POST", self.s(f"/element/{element}/value"), {"text": text})

    def text(self, css):
        return self.call("GET", self.s(f"/element/{self.find(css)}/text"))

    def screenshot(self, path):
        with open(path, "wb") as out:
            out.write(base64.b64decode(self.call("GET", self.s("/screenshot"))))


def operation(tag, operation_id):
    """The page's block of an operation, by the tag and operationId of the description."""
    return f"#operations-{tag}-{operation_id}"


def try_it_out(driver, block, fill=None):
    """Opens the operation, runs it from the page and gives the status and body it shows."""
    driver.click(f"{block} .opblock-summary")
    driver.click(f"{block} .try-out__btn")
    if fill:
        fill()
    driver.click(f"{block} .execute")
    answer = f"{block} .live-responses-table tbody .response"
    status = wait_for("the answer's status", lambda: driver.text(f"{answer} .response-col_status"))
    body = driver.text(f"{answer} .response-col_description")
    return status.strip(), body


def run(args, work):
    service_port, driver_port = free_port(), free_port()
    base = f"http://127.0.0.1:{service_port}"
    processes = []
    driver = WebDriver(driver_port)
    try:
        processes.append(subprocess.Popen(
            [args.service, f"--http/listenOn=127.0.0.1:{service_port}",
             f"--dataDir={work}/data", "--log/file=" + f"{work}/service.log",
             "--MongoDb/uri=mongodb://127.0.0.1:1/?serverSelectionTimeoutMS=100"]))
        wait_for("the service", lambda: http("POST", base + "/metadataDb/ping")[0] == 200)

        packet = [{"deviceId": DEVICE, "timestampUs": 1700000000000000, "durationUs": 40000,
                   "streamIndex": "primary",
                   "objectMetadataList": [{"trackId": TRACK, "typeId": "car",
                                           "objectMetadataType": "regular",
                                           "boundingBox": {"x": 0.5, "y": 0.5, "width": 0.2,
                                                           "height": 0.1},
                                           "attributes": [{"name": "make",
                                                           "value": "Toyota"}]}]}]
        status, text = http("POST", base + "/metadataDb/v1/data", json.dumps(packet))
        if status != 200:
            raise Failure(f"saving the packet answered {status} {text}")
        search = f"{base}/metadataDb/v1/data?internal_lookup=1&deviceIds={DEVICE}"
        wait_for("the packet's commit", lambda: TRACK in http("GET", search)[1])

        processes.append(subprocess.Popen(
            [args.chromedriver, f"--port={driver_port}", "--allowed-ips=127.0.0.1",
             f"--log-path={work}/chromedriver.log"], stdout=subprocess.DEVNULL))
        wait_for("chromedriver", lambda: http("GET", driver.base + "/status")[0] == 200)
        driver.start(args.chromium, f"{work}/profile")
        driver.go(base + "/metadataDb/v1/docs/")

        title = driver.text(".info .title")
        if "Cloud metadata storage API" not in title:
            raise Failure("the page shows the title " + repr(title))

        status, body = try_it_out(driver, operation("service", "ping"))
        if status != "200":
            raise Failure(f"ping from the page: {status} {body}")

        data = operation("data", "getData")

        def fill_search():
            driver.type(f'{data} tr[data-param-name="internal_lookup"] input', "1")
            driver.click(f'{data} tr[data-param-name="deviceIds"] button.json-schema-form-item-add')
            driver.type(f'{data} tr[data-param-name="deviceIds"] .json-schema-form-item input',
                        DEVICE)

        status, body = try_it_out(driver, data, fill_search)
        if args.screenshots:
            driver.screenshot(os.path.join(args.screenshots, "docs_page.png"))
        if status != "200" or TRACK not in body or "Toyota" not in body:
            raise Failure(f"internal search from the page: {status} {body[:2000]}")
        print(f"docs page: ping {status}, search found {TRACK}")
    finally:
        driver.quit()
        for process in reversed(processes):
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--service", required=True, help="the metadata_storage executable")
    parser.add_argument("--chromium", default=shutil.which("chromium") or "/usr/bin/chromium")
    parser.add_argument("--chromedriver",
                        default=shutil.which("chromedriver") or "/usr/bin/chromedriver")
    parser.add_argument("--screenshots", help="a directory for a picture of the page")
    args = parser.parse_args()
    for program in (args.chromium, args.chromedriver, args.service):
        if not os.access(program, os.X_OK):
            print(f"docs_page_test: {program} is not there; scripts/setup installs Chromium "
                  "and chromedriver and builds the service", file=sys.stderr)
            return 1
    work = tempfile.mkdtemp(prefix="docs_page_test.")
    try:
        run(args, work)
    except Failure as failure:
        print(f"docs_page_test: {failure}", file=sys.stderr)
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


if __name__ == "__main__":
    sys.exit(main())
