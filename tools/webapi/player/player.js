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
    current = { kind, format, id: body.id, player: null };
    show(`Playing ${file} as ${kind}`, false);
    attach(kind, body.url);
    return body;
  }

  function fatal(text) { show(`Playback failed: ${text}`, true); }

  function attach(kind, url) {
    if (kind === 'hls') {
      // hls.js is chosen explicitly: Chromium also says it can play HLS, and
      // a page preferring that would never run hls.js.
      const policy = {
        maxTimeToFirstByteMs: kSegmentWaitMs, maxLoadTimeMs: kSegmentWaitMs + 60000,
        timeoutRetry: { maxNumRetry: 1, retryDelayMs: 0, maxRetryDelayMs: 0 },
        errorRetry: { maxNumRetry: 2, retryDelayMs: 1000, maxRetryDelayMs: 4000 },
      };
      const hls = new Hls({ fragLoadPolicy: { default: policy }, renderTextTracksNatively: true });
      hls.on(Hls.Events.ERROR, (event, data) => { if (data.fatal) fatal(`${data.type} ${data.details}`); });
      hls.loadSource(url);
      hls.attachMedia(video);
      current.player = hls;
    } else if (kind === 'ss') {
      const player = dashjs.MediaPlayer().create();
      player.on(dashjs.MediaPlayer.events.ERROR, (e) => fatal(`dash.js ${e.error && e.error.code}`));
      player.initialize(video, url, true);
      current.player = player;
    } else if (kind === 'http') {
      // Chromium does not play MPEG-TS in a plain video element.
      const player = mpegts.createPlayer({ type: 'mpegts', url, isLive: false });
      player.on(mpegts.Events.ERROR, (type, detail) => fatal(`${type} ${detail}`));
      player.attachMediaElement(video);
      player.load();
      current.player = player;
    } else {
      video.src = url;  // WebM and the browser's own HLS
    }
    video.onerror = () => fatal(`media error ${video.error && video.error.code}`);
    video.play().catch(() => { /* autoplay may wait for the user */ });
  }

  // The second the picture shows, read from the sample's binary strip (eight
  // blocks across the top ninth, white = 1, least significant first); -1
  // when no picture is there.
  function pictureSecond() {
    if (video.videoWidth === 0) return -1;
    const canvas = document.createElement('canvas');
    canvas.width = video.videoWidth;
    canvas.height = video.videoHeight;
    const context = canvas.getContext('2d', { willReadFrequently: true });
    context.drawImage(video, 0, 0);
    let second = 0;
    for (let bit = 0; bit < 8; ++bit) {
      const x = Math.floor((bit * 80 + 40) / 640 * canvas.width);
      const y = Math.floor(20 / 360 * canvas.height);
      const [r, g, b] = context.getImageData(x, y, 1, 1).data;
      if ((r + g + b) / 3 > 128) second |= 1 << bit;
    }
    return second;
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

  window.orvo = { open, close, pictureSecond, subtitleCues, listFiles, video, ready: listFiles() };
})();
