// The console: one search shown three ways, from the API beside this page: the timeline and
// heatmap that GET activity.svg draws, and the first tracks that GET data finds. Clicking a
// bucket of the timeline narrows the period to it.
"use strict";

(function () {
  const kListed = 100;
  const $ = (id) => document.getElementById(id);
  const form = $("search");
  const frame = $("frame");
  const boxElement = $("box");
  let box = null;  // {x, y, width, height} in fractions of the frame
  const periods = [];  // earlier periods, for "Back"
  let generation = 0;  // answers of an older search are dropped

  // ---- Times: text in UTC, "2026-01-01 10:00:00" (seconds and milliseconds optional).

  function parseTime(text) {
    const m = /^\s*(\d{4})-(\d{2})-(\d{2})(?:[ T](\d{2}):(\d{2})(?::(\d{2})(?:\.(\d{1,3}))?)?)?\s*Z?\s*$/
      .exec(text);
    if (!m)
      return null;
    const ms = m[7] ? Number(m[7].padEnd(3, "0")) : 0;
    return Date.UTC(Number(m[1]), Number(m[2]) - 1, Number(m[3]), Number(m[4] || 0),
      Number(m[5] || 0), Number(m[6] || 0), ms);
  }

  function formatTime(ms) {
    const text = new Date(ms).toISOString().replace("T", " ").replace("Z", "");
    return text.endsWith(".000") ? text.slice(0, -4) : text;
  }

  // ---- The query: the items of GET data's query form. The service decodes a query once before
  // splitting it into items and each item again, so values are encoded twice.

  function item(name, value) {
    return name + "=" + encodeURIComponent(encodeURIComponent(String(value)));
  }

  function words(text) {
    return text.split(/[\s,;]+/).filter((word) => word.length > 0);
  }

  /** The query items of the form, or throws an Error saying what to fix. */
  function searchItems() {
    const from = parseTime($("from").value);
    const to = parseTime($("to").value);
    if (from === null)
      throw new Error("From: a time such as 2026-01-01 10:00:00 (UTC) is expected");
    if (to === null)
      throw new Error("To: a time such as 2026-01-01 11:00:00 (UTC) is expected");
    if (to <= from)
      throw new Error("To must be after From");
    const items = [item("startTimeMs", from), item("durationMs", to - from)];
    for (const device of words($("devices").value))
      items.push(item("deviceIds", device));
    for (const type of words($("types").value))
      items.push(item("objectTypeId", type));
    if ($("words").value.trim())
      items.push(item("freeText", $("words").value.trim()));
    if (box) {
      items.push(item("boundingBox",
        [box.x, box.y, box.width, box.height].map((v) => v.toFixed(4)).join(",")));
    }
    if ($("internal").checked)
      items.push(item("internal_lookup", 1));
    return items;
  }

  async function call(path, items) {
    const response = await fetch("../" + path + "?" + items.join("&"));
    const text = await response.text();
    if (!response.ok) {
      let reason = response.status + " " + response.statusText;
      try {
        reason += ": " + JSON.parse(text).errorText;
      } catch (e) {
        // An answer without an error record: the status says it all.
      }
      throw new Error(path + " answered " + reason);
    }
    return text;
  }

  function setStatus(text, isError) {
    $("status").textContent = text;
    $("status").classList.toggle("error", Boolean(isError));
  }

  // ---- The timeline: the service's picture, inline so that its buckets can be clicked.

  function showTimeline(svg) {
    const timeline = $("timeline");
    timeline.innerHTML = svg;
    let tracks = 0;
    let buckets = 0;
    for (const bucket of timeline.querySelectorAll("g.bucket")) {
      tracks = Math.max(tracks, Number(bucket.dataset.tracks));
      ++buckets;
      bucket.addEventListener("click", () => {
        narrowTo(Number(bucket.dataset.startMs), Number(bucket.dataset.endMs));
      });
    }
    return {buckets, most: tracks};
  }

  function narrowTo(startMs, endMs) {
    periods.push([$("from").value, $("to").value]);
    $("back").disabled = false;
    $("from").value = formatTime(startMs);
    $("to").value = formatTime(endMs);
    run();
  }

  // ---- The list: the first tracks of the search, newest first.

  function cell(row, text, className) {
    const td = row.insertCell();
    td.textContent = text;
    if (className)
      td.className = className;
  }

  function showTracks(tracks) {
    const body = $("tracks").tBodies[0];
    body.replaceChildren();
    for (const track of tracks) {
      const row = body.insertRow();
      cell(row, formatTime(Math.floor(track.firstAppearanceTimeUs / 1000)));
      cell(row, formatTime(Math.floor(track.lastAppearanceTimeUs / 1000)));
      cell(row, String(track.deviceId).replace(/[{}]/g, ""), "id");
      cell(row, track.objectTypeId);
      cell(row, (track.attributes || []).map((a) => a.name + "=" + a.value).join(" "));
      cell(row, String(track.id).replace(/[{}]/g, ""), "id");
    }
    $("listed").textContent = tracks.length === 0 ? "No tracks."
      : tracks.length + (tracks.length === 1 ? " track" : " tracks") +
        (tracks.length >= kListed ? ": the first " + kListed + " only." : ".");
  }

  async function run() {
    let items;
    try {
      items = searchItems();
    } catch (error) {
      setStatus(error.message, true);
      return;
    }
    const current = ++generation;
    setStatus("Searching...");
    const activity = items.slice();
    if ($("bucket").value)
      activity.push(item("bucketMs", $("bucket").value));
    if ($("heatmap").checked)
      activity.push(item("heatmap", "true"));
    const data = items.concat([item("maxObjectTracksToSelect", kListed)]);
    try {
      const [svg, tracks] = await Promise.all(
        [call("activity.svg", activity), call("data", data).then((text) => JSON.parse(text))]);
      if (current !== generation)
        return;
      const shown = showTimeline(svg);
      showTracks(tracks);
      setStatus(shown.buckets + " buckets, at most " + shown.most +
        (shown.most === 1 ? " track" : " tracks") + " in one.");
    } catch (error) {
      if (current === generation)
        setStatus(error.message, true);
    }
  }

  // ---- The region: a box dragged on the 16:9 frame.

  function showBox() {
    boxElement.hidden = !box;
    if (!box) {
      $("boxText").textContent = "Whole frame: drag on it to search a region.";
      return;
    }
    boxElement.style.left = box.x * 100 + "%";
    boxElement.style.top = box.y * 100 + "%";
    boxElement.style.width = box.width * 100 + "%";
    boxElement.style.height = box.height * 100 + "%";
    $("boxText").textContent = "Region x " + box.x.toFixed(2) + ", y " + box.y.toFixed(2) +
      ", " + box.width.toFixed(2) + " by " + box.height.toFixed(2) + " of the frame.";
  }

  function framePoint(event) {
    const r = frame.getBoundingClientRect();
    const clamp = (v) => Math.min(Math.max(v, 0), 1);
    return {x: clamp((event.clientX - r.left) / r.width), y: clamp((event.clientY - r.top) / r.height)};
  }

  let dragStart = null;
  frame.addEventListener("pointerdown", (event) => {
    dragStart = framePoint(event);
    frame.setPointerCapture(event.pointerId);
    box = null;
    showBox();
  });
  frame.addEventListener("pointermove", (event) => {
    if (!dragStart)
      return;
    const p = framePoint(event);
    box = {
      x: Math.min(p.x, dragStart.x), y: Math.min(p.y, dragStart.y),
      width: Math.abs(p.x - dragStart.x), height: Math.abs(p.y - dragStart.y),
    };
    showBox();
  });
  frame.addEventListener("pointerup", () => {
    dragStart = null;
    // A click, or a box too small to see, is the whole frame.
    if (box && (box.width < 0.01 || box.height < 0.01))
      box = null;
    showBox();
  });

  // ---- The form.

  form.addEventListener("submit", (event) => {
    event.preventDefault();
    run();
  });
  $("back").addEventListener("click", () => {
    const previous = periods.pop();
    if (!previous)
      return;
    [$("from").value, $("to").value] = previous;
    $("back").disabled = periods.length === 0;
    run();
  });

  // The last hour, to begin with.
  const now = Date.now();
  $("from").value = formatTime(Math.floor((now - 3600000) / 60000) * 60000);
  $("to").value = formatTime(Math.ceil(now / 60000) * 60000);
})();
