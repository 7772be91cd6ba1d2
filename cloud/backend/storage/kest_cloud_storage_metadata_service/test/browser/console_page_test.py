#!/usr/bin/env python3
"""The console page in a real browser: a search of the README's "Try it" data.

Starts the service and headless Chromium (see webdriver.py), saves the two packets of the
README's "Try it", then in the page served at /metadataDb/v1/console/ searches them: the timeline
must show both tracks and the list both rows; a box drawn on the frame around the car keeps only
the car; a click on the car's bucket narrows the period, and the list, to it. Stops everything it
started by PID.

    console_page_test.py --service PATH/metadata_storage [--screenshots DIR]
"""

import sys

from webdriver import ELEMENT, Failure, main, wait_for

DEVICE = "6f1c2b9e-3d4a-4c55-9e0f-1a2b3c4d5e6f"
PERSON = "0b6e3f0a-8d1c-4f4e-a1a2-b3c4d5e6f7a8"
CAR = "5d7c1e22-9b0a-4f3e-8c6d-2e1f0a9b8c7d"
T0_US = 1767225600000000  # 2026-01-01 00:00:00 UTC


def packet(offset_us, track, type_id, box, attributes):
    return {"deviceId": "{" + DEVICE + "}", "timestampUs": T0_US + offset_us, "durationUs": 40000,
            "streamIndex": "primary",
            "objectMetadataList": [{"trackId": "{" + track + "}", "typeId": type_id,
                                    "objectMetadataType": "regular", "boundingBox": box,
                                    "attributes": attributes}]}


def rows(driver):
    """The list's rows as their cells' text."""
    return driver.execute(
        "return [...document.querySelectorAll('#tracks tbody tr')]"
        ".map(row => [...row.cells].map(cell => cell.textContent));")


def buckets_with_tracks(driver):
    """{start ms: tracks} of the timeline's buckets that have tracks."""
    found = driver.execute(
        "return [...document.querySelectorAll('#timeline svg g.bucket')]"
        ".filter(g => g.dataset.tracks !== '0')"
        ".map(g => [g.dataset.startMs, Number(g.dataset.tracks)]);")
    return {int(start): tracks for start, tracks in found}


def search_and_wait(driver, expected_rows, what):
    """Runs the search and waits until the list has `expected_rows` rows and the status is in."""
    driver.execute("document.getElementById('status').textContent = '';")
    driver.click("#run")
    wait_for(what, lambda: "buckets" in driver.text("#status") and
             len(rows(driver)) == expected_rows)


def drag(driver, element, from_xy, to_xy):
    """A mouse drag on the element, between offsets from its centre."""
    move = lambda xy: {"type": "pointerMove", "duration": 50, "origin": {ELEMENT: element},
                       "x": xy[0], "y": xy[1]}
    driver.call("POST", driver.s("/actions"), {"actions": [{
        "type": "pointer", "id": "mouse", "parameters": {"pointerType": "mouse"},
        "actions": [move(from_xy), {"type": "pointerDown", "button": 0}, move(to_xy),
                    {"type": "pointerUp", "button": 0}]}]})
    driver.call("DELETE", driver.s("/actions"))


def run(args, page):
    page.save([packet(0, PERSON, "person", {"x": 0.1, "y": 0.2, "width": 0.3, "height": 0.4},
                      [{"name": "color", "value": "red"}]),
               packet(10000000, CAR, "car", {"x": 0.5, "y": 0.5, "width": 0.2, "height": 0.1},
                      [{"name": "make", "value": "Toyota"}, {"name": "color", "value": "blue"}])],
              f"/metadataDb/v1/data?internal_lookup=1&deviceIds={DEVICE}", CAR)
    driver = page.driver
    driver.go(page.base + "/metadataDb/v1/console/")

    driver.type("#devices", DEVICE)
    driver.type("#from", "2026-01-01 00:00:00")
    driver.type("#to", "2026-01-01 00:01:00")
    driver.click("#internal")
    search_and_wait(driver, 2, "both tracks in the list")
    # A minute in 100 buckets of 600 ms: the person in the first, the car in the one from 9.6 s.
    t0_ms = T0_US // 1000
    timeline = buckets_with_tracks(driver)
    if timeline != {t0_ms: 1, t0_ms + 9600: 1}:
        raise Failure(f"the timeline shows {timeline}")
    cells = len(driver.elements("#timeline svg rect.cell"))
    if cells != 256:
        raise Failure(f"the heatmap has {cells} cells")
    listed = rows(driver)
    if sorted(row[3] for row in listed) != ["car", "person"]:
        raise Failure(f"the list shows {listed}")
    page.screenshot("console_search.png")

    # A box around the car only: the right half of the frame, below its middle.
    frame = driver.find("#frame")
    size = driver.execute("const r = arguments[0].getBoundingClientRect();"
                          "return [r.width, r.height];", frame)
    drag(driver, frame, (int(size[0] * 0.05), int(size[1] * 0.02)),
         (int(size[0] * 0.45), int(size[1] * 0.45)))
    search_and_wait(driver, 1, "the car alone within the box")
    if rows(driver)[0][3] != "car" or set(buckets_with_tracks(driver)) != {t0_ms + 9600}:
        raise Failure(f"within the box: {rows(driver)}, {buckets_with_tracks(driver)}")
    # A click on the frame is the whole frame again.
    drag(driver, frame, (0, 0), (1, 1))
    search_and_wait(driver, 2, "both tracks without the box")

    # A click on the car's bucket narrows the period, and the list, to it.
    car_bucket = next(g for g in driver.elements("#timeline svg g.bucket")
                      if driver.attribute(g, "data-start-ms") == str(t0_ms + 9600))
    driver.execute("document.getElementById('status').textContent = '';")
    driver.click_element(car_bucket)
    wait_for("the list narrowed to the car",
             lambda: "buckets" in driver.text("#status") and len(rows(driver)) == 1)
    narrowed = rows(driver)[0]
    period = driver.execute("return [document.getElementById('from').value,"
                            " document.getElementById('to').value];")
    page.screenshot("console_narrowed.png")
    if narrowed[3] != "car" or "make=Toyota" not in narrowed[4] or CAR not in narrowed[5]:
        raise Failure(f"after the click the list shows {narrowed}")
    if period != ["2026-01-01 00:00:09.600", "2026-01-01 00:00:10.200"]:
        raise Failure(f"after the click the period is {period}")
    print(f"console page: timeline {timeline}, narrowed to {narrowed[3]} in {period}")


if __name__ == "__main__":
    sys.exit(main(__doc__.splitlines()[0], run))
