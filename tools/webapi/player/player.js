// The player page of the reference web API: opens a stream of the chosen
// kind through /api/open, plays it with the player that kind needs, and
// closes it through /api/close. window.orvo is what the browser tests drive.
'use strict';

(() => {
  const video = document.getElementById('video');
  const status = document.getElementById('status');
  let current = null;  // {kind, format, id, player}

  // The web API holds a segment request until the transcoder has made it
  // (up to a minute); hls.js must not give up and ask again meanwhile.
  const kSegmentWaitMs = 70000;

  function show(text, isError) {
    status.textContent = text;
    status.className = isError ? 'error' : '';
    if (isError) status.dataset.error = text; else delete status.dataset.error;
  }

  async function close() {
    if (!current) return;
    const { format, id, player } = current;
    current = null;
    try {
      if (player && player.destroy) player.destroy();
      else if (player && player.reset) player.reset();
    } catch (e) { /* the stream is closed below whatever the player did */ }
    video.removeAttribute('src');
    video.load();
    await fetch(`/api/close?format=${format}&id=${encodeURIComponent(id)}`);
  }

  async function open(kind, file, options = {}) {
    await close();
    const format = kind === 'hls-native' ? 'hls' : kind;
    const query = new URLSearchParams({ file, type: format });
    if (options.subtitles && format === 'hls') query.set('subtitle', 'all');
    const answer = await fetch(`/api/open?${query}`);
    const body = await answer.json();
    if (!answer.ok) {
      show(`Cannot open ${file}: ${body.error}`, true);
      return { error: body.error, status: answer.status };
    }
    current = { kind, format, id: body.id, url: body.url, player: null };
    show(`Playing ${file} as ${kind}`, false);
    attach(kind, body);
    return body;
  }

  function fatal(text) { show(`Playback failed: ${text}`, true); }

  // A player sees a failed response only as a network or format error; the
  // web API keeps the stream's own code (a transcoder that ended, say).
  async function failure(fallback) {
    const stream = current;
    if (!stream) return;
    let reason = fallback;
    try {
      const answer = await (await fetch(`/api/stream?format=${stream.format}&id=${stream.id}&last_error=1`)).json();
      if (answer.error) reason = answer.error;
    } catch (e) { /* the fallback stands */ }
    if (current === stream) fatal(reason);
  }

  // mpegts.js seeks only where it has a keyframe index (FLV); for MPEG-TS
  // its seek beyond what it has loaded does nothing. Its transmuxer is told
  // instead to load the stream again from the byte the web API turns into
  // that second (bytes over the library's rate, on a packet boundary), with
  // the timeline kept: the run there carries the source's timestamps.
  function seekByRange(player, bytesPerSecond) {
    const engine = player._player_engine;
    const controller = engine && engine._transmuxer && engine._transmuxer._controller;
    if (!controller || controller.seekByRange) return;
    controller.seekByRange = true;
    controller.seek = (milliseconds) => {
      const packets = Math.ceil(milliseconds / 1000 * bytesPerSecond / 188);
      controller._internalAbort();
      controller._remuxer.seek();
      controller._remuxer.insertDiscontinuity();
      controller._loadSegment(0, packets * 188);
    };
  }

  // The MediaSource mpegts.js makes only grows with what is loaded; a seek
  // needs the whole length.
  function announceDuration(player, seconds) {
    const engine = player._player_engine;
    const source = engine && engine._mse_controller && engine._mse_controller._mediaSource;
    if (!source || source.readyState !== 'open' || !(seconds > 0)) return false;
    if (source.duration >= seconds) return true;
    try { source.duration = seconds; return true; } catch (e) { return false; }
  }

  function attach(kind, { url, duration, bytes_per_second: bytesPerSecond }) {
    if (kind === 'hls') {
      // hls.js is chosen explicitly: Chromium also says it can play HLS, and
      // a page preferring that would never run hls.js.
      const policy = {
        maxTimeToFirstByteMs: kSegmentWaitMs, maxLoadTimeMs: kSegmentWaitMs + 60000,
        timeoutRetry: { maxNumRetry: 1, retryDelayMs: 0, maxRetryDelayMs: 0 },
        errorRetry: {
          maxNumRetry: 2, retryDelayMs: 1000, maxRetryDelayMs: 4000,
          // A transcoder that ended without the segment will not make it on a retry.
          shouldRetry: (config, count, timeout, response, retry) => retry && !(response && response.code === 502),
        },
      };
      const hls = new Hls({ fragLoadPolicy: { default: policy }, renderTextTracksNatively: true });
      hls.on(Hls.Events.ERROR, (event, data) => { if (data.fatal) failure(`${data.type} ${data.details}`); });
      hls.loadSource(url);
      hls.attachMedia(video);
      current.player = hls;
    } else if (kind === 'ss') {
      const player = dashjs.MediaPlayer().create();
      player.on(dashjs.MediaPlayer.events.ERROR, (e) => failure(`dash.js ${e.error && e.error.code}`));
      player.initialize(video, url, true);
      current.player = player;
    } else if (kind === 'http') {
      // Chromium does not play MPEG-TS in a plain video element.
      const player = mpegts.createPlayer({ type: 'mpegts', url, isLive: false },
        { seekType: 'range', enableWorker: false });
      player.on(mpegts.Events.ERROR, (type, detail) => failure(`${type} ${detail}`));
      player.on(mpegts.Events.MEDIA_INFO, () => {
        seekByRange(player, bytesPerSecond);
        const until = Date.now() + 10000;
        const retry = () => { if (!announceDuration(player, duration) && Date.now() < until) setTimeout(retry, 200); };
        retry();
      });
      player.attachMediaElement(video);
      player.load();
      current.player = player;
    } else {
      video.src = url;  // WebM and the browser's own HLS
    }
    video.onerror = () => {
      const code = `media error ${video.error && video.error.code}`;
      failure(code);
    };
    video.play().catch(() => { /* autoplay may wait for the user */ });
  }

  // A WebM stream is made as it is sent, without an index to seek in: a
  // seek is a new run from that second, whose timestamps start there.
  function seek(seconds) {
    if (current && current.kind === 'webm') {
      video.src = `${current.url}&start=${Math.floor(seconds)}`;
      video.play().catch(() => { /* autoplay may wait for the user */ });
    } else {
      video.currentTime = seconds;
    }
  }

  // What the frame on screen shows: the picture inside any bars (black
  // columns at both sides), and the second its binary strip says (eight
  // blocks across the top `strip` share of the picture, white = 1, least
  // significant first); second is -1 when no picture is there.
  function readPicture(strip = 40 / 360) {
    const { videoWidth: width, videoHeight: height } = video;
    if (width === 0) return { second: -1, left: 0, width: 0, height: 0 };
    const canvas = document.createElement('canvas');
    canvas.width = width;
    canvas.height = height;
    const context = canvas.getContext('2d', { willReadFrequently: true });
    context.drawImage(video, 0, 0);
    const row = context.getImageData(0, Math.floor(height / 2), width, 1).data;
    const dark = (x) => Math.max(row[4 * x], row[4 * x + 1], row[4 * x + 2]) <= 40;
    let left = 0;
    let right = width - 1;
    while (left < right && dark(left)) ++left;
    while (right > left && dark(right)) --right;
    const box = right - left + 1;
    let second = 0;
    for (let bit = 0; bit < 8; ++bit) {
      const x = left + Math.floor((bit + 0.5) / 8 * box);
      const [r, g, b] = context.getImageData(x, Math.floor(strip / 2 * height), 1, 1).data;
      if ((r + g + b) / 3 > 128) second |= 1 << bit;
    }
    return { second, left, width: box, height };
  }

  function subtitleCues() {
    let cues = 0;
    for (const track of video.textTracks) {
      if (track.mode === 'disabled') track.mode = 'hidden';
      cues += track.cues ? track.cues.length : 0;
    }
    return cues;
  }

  async function listFiles() {
    const select = document.getElementById('file');
    const { files } = await (await fetch('/api/files')).json();
    select.replaceChildren(...files.map((name) => new Option(name, name)));
    return files;
  }

  document.getElementById('play').onclick = () => open(
    document.getElementById('kind').value, document.getElementById('file').value,
    { subtitles: document.getElementById('subtitles').checked });
  document.getElementById('stop').onclick = () => close().then(() => show('Stopped', false));
  window.addEventListener('pagehide', () => { if (current) navigator.sendBeacon(`/api/close?format=${current.format}&id=${current.id}`); });

  window.orvo = { open, close, seek, readPicture, subtitleCues, listFiles, video, ready: listFiles() };
})();
