"use strict";

const find = (id) => document.getElementById(id);
const frameRate = (value) => `${value.toFixed(1)} fps`;
const bitRate = (value) =>
  value >= 1e6 ? `${(value / 1e6).toFixed(2)} Mbit/s` : `${Math.round(value / 1e3)} kbit/s`;

const jpegOf = (status) => status.streams.find((stream) => stream.codec === "mjpeg");
const setCaption = (text) => { find("caption").textContent = text; };

let watching = false;

// Hides the picture, which is not live any more or has never been.
function stopWatching(reason) {
  watching = false;
  find("picture").hidden = true;
  setCaption(reason);
}

function watch(status) {
  const jpeg = jpegOf(status);
  if (!jpeg) {
    stopWatching("This board has no JPEG encoder for a live picture here.");
    return;
  }
  if (watching) return;
  watching = true;
  const picture = find("picture");
  picture.width = status.width;
  picture.height = status.height;
  picture.onerror = () => stopWatching("The server gives no live picture.");
  picture.src = `${jpeg.path}?${Date.now()}`;
  picture.hidden = false;
  setCaption(`Live, ${status.width} × ${status.height}, motion JPEG`);
}

function row(stream) {
  const cells = [null, stream.running ? "running" : "asleep",
    stream.frame_rate > 0 ? frameRate(stream.frame_rate) : "–",
    stream.bit_rate > 0 ? bitRate(stream.bit_rate) : "–", stream.viewers];
  const line = document.createElement("tr");
  for (const text of cells) line.insertCell().textContent = text ?? "";
  const link = document.createElement("a");
  link.href = stream.path;
  link.textContent = stream.path.slice(1);
  line.cells[0].append(link);
  return line;
}

function show(status) {
  const shown = jpegOf(status) ?? status.streams[0];
  find("source").textContent = status.source.split("/").pop();
  find("profile").textContent = status.profile;
  find("codec").textContent = shown.codec;
  find("frame-rate").textContent = frameRate(shown.frame_rate);
  find("bit-rate").textContent = bitRate(shown.bit_rate);
  find("viewers").textContent =
    `${status.streams.reduce((sum, stream) => sum + stream.viewers, 0)} of ${status.max_clients}`;
  find("streams").replaceChildren(...status.streams.map(row));
}

function setState(name, text) {
  find("state").className = name;
  find("state").textContent = text;
}

async function poll() {
  try {
    const response = await fetch("/status.json", { signal: AbortSignal.timeout(5000) });
    if (!response.ok) throw new Error(response.statusText);
    const status = await response.json();
    show(status);
    watch(status);
    setState("live", "live");
  } catch (error) {
    stopWatching("The server does not answer.");
    setState("lost", "connection lost");
  }
  setTimeout(poll, 1000);
}

poll();
