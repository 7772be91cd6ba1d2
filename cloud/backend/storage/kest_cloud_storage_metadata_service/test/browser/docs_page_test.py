#!/usr/bin/env python3
"""The interactive API documentation in a real browser, as a newcomer uses it.

Starts the service (no MongoDB is needed: both calls stay on this instance) and Debian's
chromedriver with headless Chromium, both on free loopback ports. Saves a packet, then in the
page served at /metadataDb/v1/docs/ runs "Try it out" on the ping and on an internal search, and
checks the status and the body that the page shows. Stops everything it started by PID.

    docs_page_test.py --service PATH/metadata_storage [--screenshots DIR]
"""

import sys

from webdriver import Failure, main, wait_for

DEVICE = "6f1c0de0-0000-4000-8000-0000000000b1"
TRACK = "7a000000-0000-4000-8000-0000000000b1"


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


def run(args, page):
    packet = [{"deviceId": DEVICE, "timestampUs": 1700000000000000, "durationUs": 40000,
               "streamIndex": "primary",
               "objectMetadataList": [{"trackId": TRACK, "typeId": "car",
                                       "objectMetadataType": "regular",
                                       "boundingBox": {"x": 0.5, "y": 0.5, "width": 0.2,
                                                       "height": 0.1},
                                       "attributes": [{"name": "make", "value": "Toyota"}]}]}]
    page.save(packet, f"/metadataDb/v1/data?internal_lookup=1&deviceIds={DEVICE}", TRACK)
    driver = page.driver
    driver.go(page.base + "/metadataDb/v1/docs/")

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
    page.screenshot("docs_page.png")
    if status != "200" or TRACK not in body or "Toyota" not in body:
        raise Failure(f"internal search from the page: {status} {body[:2000]}")
    print(f"docs page: ping {status}, search found {TRACK}")


if __name__ == "__main__":
    sys.exit(main(__doc__.splitlines()[0], run))
