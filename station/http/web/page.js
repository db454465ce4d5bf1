"use strict";

const find = (id) => document.getElementById(id);
const frameRate = (value) => `${value.toFixed(1)} fps`;
const bitRate = (value) =>
  value >= 1e6 ? `${(value / 1e6).toFixed(2)} Mbit/s` : `${Math.round(value / 1e3)} kbit/s`;

const streamOf = (status, codec) => status.streams.find((stream) => stream.codec === codec);
const setCaption = (text) => { find("caption").textContent = text; };

const video = find("video");
let watched = null;       // codec
let player = null;
let unplayable = false;   // MP4, by this browser
let clock = null;         // of the MP4 less this page's, in seconds

// Hides the picture, which is not live any more or has never been.
function stopWatching(reason) {
  watched = null;
  player?.stop();
  player = null;
  clock = null;
  for (const id of ["picture", "video", "controls"]) find(id).hidden = true;
  setCaption(reason);
}

function showIn(element, status, codec, name) {
  element.width = status.width;
  element.height = status.height;
  element.hidden = false;
  watched = codec;
  setCaption(`Live, ${status.width} × ${status.height}, ${name}`);
}

async function watchVideo(stream, status) {
  showIn(video, status, stream.codec, stream.codec.toUpperCase());
  find("controls").hidden = false;
  const current = player = new LivePlayer(video);
  try {
    await current.play(stream.mp4);
    if (current === player) stopWatching("The stream has ended.");
  } catch (error) {
    if (current !== player) return;
    unplayable = error.message.startsWith("this browser");
    stopWatching(`The server gives no live video: ${error.message}`);
    if (unplayable) watch(status);
  }
}

function watchPictures(stream, status) {
  const picture = find("picture");
  picture.onerror = () => stopWatching("The server gives no live picture.");
  picture.src = `${stream.path}?${Date.now()}`;
  showIn(picture, status, stream.codec, "motion JPEG");
}

function watch(status) {
  if (watched) return;
  const encoded = status.streams[0];
  const jpeg = streamOf(status, "mjpeg");
  if (encoded.mp4 && window.MediaSource && !unplayable) {
    watchVideo(encoded, status);
  } else if (jpeg) {
    watchPictures(jpeg, status);
  } else {
    stopWatching("This board has no JPEG encoder for a live picture here.");
  }
}

// Frames by their time on the MP4's clock: from the camera's delivery to the screen.
function showDelay(now, frame) {
  if (clock !== null) {
    const delay = clock + frame.expectedDisplayTime / 1000 - frame.mediaTime;
    find("delay").textContent = `${Math.round(delay * 1000)} ms`;
  }
  find("sound").hidden = !player?.hasSound;
  const quality = video.getVideoPlaybackQuality();
  find("frames").textContent = `${quality.totalVideoFrames} shown, ${quality.droppedVideoFrames} dropped`;
  video.requestVideoFrameCallback(showDelay);
}

function row(stream) {
  const cells = [null, stream.running ? "running" : "asleep",
    stream.frame_rate > 0 ? frameRate(stream.frame_rate) : "–",
    stream.bit_rate > 0 ? bitRate(stream.bit_rate) : "–", stream.viewers];
  const line = document.createElement("tr");
  for (const text of cells) line.insertCell().textContent = text ?? "";
  for (const path of [stream.path, stream.mp4]) {
    if (!path) continue;
    const link = document.createElement("a");
    link.href = path;
    link.textContent = path.slice(1);
    line.cells[0].append(link, " ");
  }
  return line;
}

function show(status) {
  const shown = streamOf(status, watched) ?? status.streams[0];
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
    const begin = performance.now();
    const response = await fetch("/status.json", { signal: AbortSignal.timeout(5000) });
    const middle = (begin + performance.now()) / 2;
    if (!response.ok) throw new Error(response.statusText);
    const status = await response.json();
    watch(status);
    const time = streamOf(status, watched)?.mp4_time;
    clock = time == null ? null : time - middle / 1000;
    show(status);
    setState("live", "live");
  } catch (error) {
    stopWatching("The server does not answer.");
    setState("lost", "connection lost");
  }
  setTimeout(poll, 1000);
}

find("pause").onclick = () => { video.paused ? video.play() : video.pause(); };
find("sound").onclick = () => { video.muted = !video.muted; };
video.onpause = () => { find("pause").textContent = "Play"; };
video.onplay = () => { find("pause").textContent = "Pause"; };
video.onvolumechange = () => { find("sound").textContent = video.muted ? "Sound on" : "Sound off"; };
video.requestVideoFrameCallback?.(showDelay);
poll();
