"use strict";

// Plays a stream of fragmented MP4 at its live edge, through Media Source Extensions.
class LivePlayer {
  // Seconds of the stream that are there and not yet shown.
  static target = 0.1;    // wanted: it absorbs what the network and the encoder vary
  static most = 0.3;      // played faster from there on, up to the target
  static tooMuch = 1;     // skipped from there on, as after a pause
  static kept = 10;       // before the picture, until it is removed

  constructor(video) {
    this.video = video;
    this.queue = [];
    this.abort = new AbortController();
    this.source = new MediaSource();
    video.src = URL.createObjectURL(this.source);
  }

  // Returns when the stream has ended, and throws if it cannot be played.
  async play(url) {
    const opened = new Promise((resolve) =>
      this.source.addEventListener("sourceopen", resolve, { once: true }));
    const response = await fetch(url, { signal: this.abort.signal });
    const type = response.headers.get("Content-Type");
    if (!response.ok || !MediaSource.isTypeSupported(type)) {
      this.stop();
      throw new Error(response.ok ? `this browser does not play ${type}` : response.statusText);
    }
    this.hasSound = type.includes("opus");
    await opened;
    URL.revokeObjectURL(this.video.src);
    this.buffer = this.source.addSourceBuffer(type);
    this.buffer.addEventListener("updateend", () => this.append());
    const reader = response.body.getReader();
    for (let part = await reader.read(); !part.done; part = await reader.read()) {
      if (this.source.readyState !== "open") throw new Error("it cannot be decoded");
      this.queue.push(part.value);
      this.append();
    }
  }

  stop() {
    this.abort.abort();
    this.video.removeAttribute("src");
    this.video.load();
  }

  // One step: appends what has come, or removes what is old.
  append() {
    if (this.buffer.updating || this.source.readyState !== "open") return;
    this.followEdge();
    const { buffered } = this.buffer;
    const old = buffered.length ? buffered.end(buffered.length - 1) - LivePlayer.kept : 0;
    if (buffered.length && old - buffered.start(0) > LivePlayer.kept) {
      this.buffer.remove(0, old);
    } else if (this.queue.length) {
      const bytes = new Uint8Array(this.queue.reduce((sum, part) => sum + part.length, 0));
      this.queue.reduce((at, part) => (bytes.set(part, at), at + part.length), 0);
      this.queue = [];
      this.buffer.appendBuffer(bytes);
    }
  }

  followEdge() {
    const { video, buffer: { buffered } } = this;
    if (!buffered.length || video.paused && video.currentTime > 0) return;
    const last = buffered.length - 1;
    const ahead = buffered.end(last) - video.currentTime;
    if (ahead > LivePlayer.tooMuch || video.currentTime < buffered.start(last)) {
      video.currentTime = Math.max(buffered.start(last), buffered.end(last) - LivePlayer.target);
    }
    if (ahead > LivePlayer.most) video.playbackRate = 1 + Math.ceil(10 * ahead) / 20;
    if (ahead < LivePlayer.target) video.playbackRate = 1;
  }
}
