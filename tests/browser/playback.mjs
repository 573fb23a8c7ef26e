// Real players in Debian's headless Chromium against the reference web API
// (tools/webapi): every stream kind seeks far into a landscape and a rotated
// source and shows the right picture in the right shape, subtitles load, HDR
// shows SDR colours, a file that cannot be opened or transcoded shows its
// error, a server that breaks its segments fails the same check, nothing of
// a closed stream is left behind, and started as root the web API runs its
// requests as the NAS does.
//
//   node tests/browser/playback.mjs --build BUILD_DIR
//
// Exits 77 (skipped) when chromium or the player packages are missing.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, execFileSync } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const repo = path.resolve(path.dirname(new URL(import.meta.url).pathname), '../..');
const webapi = path.join(repo, 'tools/webapi');
const buildArg = process.argv.indexOf('--build');
const build = path.resolve(buildArg > 0 ? process.argv[buildArg + 1] : path.join(repo, 'build'));
const chromiumPath = '/usr/bin/chromium';

function missing() {
  if (!fs.existsSync(chromiumPath)) return 'chromium';
  for (const name of ['playwright-core', 'hls.js', 'dashjs', 'mpegts.js']) {
    if (!fs.existsSync(path.join(webapi, 'node_modules', name))) return name;
  }
  for (const tool of ['tools/webapi/webapi-cgi', 'nas/subtitle-service', 'nas/launchers/ffmpeg-launcher']) {
    if (!fs.existsSync(path.join(build, tool))) return tool;
  }
  try { execFileSync('lighttpd', ['-v']); } catch { return 'lighttpd'; }
  return '';
}
const lacking = missing();
if (lacking) {
  console.log(`browser tests skipped: ${lacking} is missing (scripts/install-deps.sh installs it)`);
  process.exit(77);
}
const { chromium } = createRequire(path.join(webapi, 'package.json'))('playwright-core');

const media = path.join(repo, '.test-media/browser');
const scratch = fs.mkdtempSync(path.join(os.tmpdir(), 'orvovte-browser-'));
let browser;
const servers = [];

async function freePort() {
  return new Promise((resolve) => {
    const probe = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = probe.address();
      probe.close(() => resolve(port));
    });
  });
}

async function waitFor(condition, ms, step = 200) {
  const deadline = Date.now() + ms;
  for (;;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > deadline) return value;
    await new Promise((resolve) => setTimeout(resolve, step));
  }
}

async function startServer(name, extra = []) {
  const port = await freePort();
  const state = path.join(scratch, name);
  const child = spawn(path.join(webapi, 'setup.sh'),
    ['serve', '--build', build, '--media', media, '--port', String(port), '--state', state, ...extra],
    { stdio: ['ignore', 'inherit', 'inherit'] });
  const server = { child, state, root: path.join(state, 'root'), base: `http://127.0.0.1:${port}` };
  servers.push(server);
  const up = await waitFor(() => fetch(`${server.base}/api/files`).then((r) => r.ok, () => false), 10000);
  assert.ok(up, `web API on port ${port} did not come up`);
  return server;
}

// Processes started for this server's streams: every request, monitor and
// transcoder carries the machine root in its environment.
function streamProcesses(server) {
  const marker = `ORVOVTE_MACHINE_ROOT=${server.root}\0`;
  const found = [];
  for (const pid of fs.readdirSync('/proc').filter((entry) => /^\d+$/.test(entry))) {
    try {
      if (fs.readFileSync(`/proc/${pid}/environ`, 'latin1').includes(marker)) found.push(pid);
    } catch { /* gone meanwhile */ }
  }
  return found;
}

function sessionsLeft(server) {
  const left = [];
  for (const type of ['HLS', 'SS', 'HTTP', 'WEBM']) {
    const dir = path.join(server.root, 'tmp/Reelhall', type);
    if (fs.existsSync(dir)) left.push(...fs.readdirSync(dir).map((id) => `${type}/${id}`));
  }
  const volume = path.join(server.root, 'volume1/@tmp/Reelhall');
  for (const type of fs.existsSync(volume) ? fs.readdirSync(volume) : []) {
    left.push(...fs.readdirSync(path.join(volume, type)).map((id) => `volume ${type}/${id}`));
  }
  return left;
}

async function assertNothingLeft(server) {
  const processes = await waitFor(() => streamProcesses(server).length === 0, 8000) ? [] : streamProcesses(server);
  assert.deepEqual(processes.map((pid) => fs.readFileSync(`/proc/${pid}/cmdline`, 'latin1').replace(/\0/g, ' ')), [],
    'processes of closed streams are left');
  assert.deepEqual(sessionsLeft(server), [], 'session directories of closed streams are left');
}

async function newPage(server) {
  const page = await browser.newPage();
  await page.goto(`${server.base}/`);
  await page.evaluate(() => window.orvo.ready);
  return page;
}

// Plays `kind` until the video's clock passes `seconds`; the page's error
// text, or null.
async function playPast(page, seconds, ms) {
  await page.waitForFunction(({ s }) => window.orvo.video.currentTime > s ||
    document.getElementById('status').dataset.error !== undefined, { s: seconds }, { timeout: ms, polling: 250 })
    .catch(() => {});
  return page.evaluate(({ s }) => (window.orvo.video.currentTime > s ? null
    : document.getElementById('status').dataset.error || `stuck at ${window.orvo.video.currentTime.toFixed(1)} s`),
  { s: seconds });
}

// The picture shows the whole second its frame is in, so it trails the clock
// by up to a second, plus the time a frame is shown; a picture from the
// wrong fragment or segment is two seconds or more away.
function assertPictureMatchesClock(picture, clock, what) {
  assert.ok(picture <= clock + 0.5 && picture >= clock - 1.5,
    `${what}: clock ${clock} shows the picture of second ${picture}`);
}

// Under a root test run the server and its requests run as "nobody" with
// root saved (the monitors keep root as their real id only), and no process
// of a stream carries the client's request headers. A request is wholly
// root for moments (while its libraries load, a child before its exec):
// one seen so a second apart is wrong.
async function assertRunsAsTheNasDoes(server, what) {
  if (process.getuid() !== 0) return;
  const uids = (pid) => fs.readFileSync(`/proc/${pid}/status`, 'latin1').match(/^Uid:\s+(.*)$/m)[1].split(/\s+/);
  assert.equal(uids(server.child.pid)[1], '65534', 'lighttpd runs as root');
  const firstSeenRoot = new Map();
  const stayedRoot = new Set();
  for (const start = Date.now(); Date.now() - start < 1300; await new Promise((resolve) => setTimeout(resolve, 100))) {
    for (const pid of streamProcesses(server)) {
      try {
        // A request's own environment shows here as it was at its start.
        const program = path.basename(fs.readlinkSync(`/proc/${pid}/exe`));
        if (program === 'webapi-cgi') {
          if (uids(pid).includes('65534')) continue;
          if (!firstSeenRoot.has(pid)) firstSeenRoot.set(pid, Date.now());
          if (Date.now() - firstSeenRoot.get(pid) >= 1000) stayedRoot.add(pid);
        } else if (program !== 'request-gate') {
          assert.doesNotMatch(fs.readFileSync(`/proc/${pid}/environ`, 'latin1'), /(^|\0)HTTP_/,
            `${what}: process ${pid} got request headers`);
        }
      } catch (error) {
        if (error.code !== 'ENOENT' && error.code !== 'ESRCH') throw error;
      }
    }
  }
  assert.deepEqual([...stayedRoot], [], `${what}: requests or monitors wholly root`);
}

// SMPTE bars as an HDR10 grade puts them (PQ, BT.2020, white at 100 nits)
// in 10-bit HEVC; the colours a screen should show at two bars of the top
// row, as fractions of the picture's width and height.
const hdrSource = 'hdr10-bars.mkv';
const hdrBars = [{ x: 0.284, y: 0.25, rgb: [191, 191, 0] }, { x: 0.391, y: 0.25, rgb: [0, 191, 191] }];

function makeHdrSource() {
  const file = path.join(media, hdrSource);
  if (fs.existsSync(file)) return;
  const part = path.join(media, `part-${hdrSource}`);
  execFileSync('ffmpeg', ['-nostdin', '-y', '-v', 'error', '-f', 'lavfi', '-i',
    'smptehdbars=size=640x360:rate=25:duration=12', '-f', 'lavfi', '-i',
    'sine=frequency=440:sample_rate=48000:duration=12', '-vf',
    'zscale=tin=bt709:min=bt709:pin=bt709:rin=tv:t=smpte2084:m=bt2020nc:p=bt2020:r=tv:npl=100,format=yuv420p10le',
    '-c:v', 'libx265', '-preset', 'ultrafast', '-x265-params',
    'log-level=error:crf=12:colorprim=bt2020:transfer=smpte2084:colormatrix=bt2020nc:hdr10=1:max-cll=1000,400',
    '-c:a', 'aac', '-ac', '2', part]);
  fs.renameSync(part, file);
}

let server;
before(async () => {
  execFileSync(path.join(webapi, 'make-sample.sh'), [media], { stdio: 'inherit' });
  makeHdrSource();
  // Media may belong to any user: the web API's user cannot read this one.
  fs.chmodSync(path.join(media, 'phone.mp4'), 0o600);
  browser = await chromium.launch({
    executablePath: chromiumPath, headless: true,
    args: ['--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--autoplay-policy=no-user-gesture-required'],
  });
  server = await startServer('main');
});

after(async () => {
  if (browser) await browser.close();
  for (const { child } of servers) child.kill('SIGTERM');
  await waitFor(() => servers.every(({ child }) => child.exitCode !== null || child.signalCode !== null), 5000);
  fs.rmSync(scratch, { recursive: true, force: true });
});

test('HLS through hls.js plays and loads subtitles', async () => {
  const page = await newPage(server);
  const opened = await page.evaluate(() => window.orvo.open('hls', 'sample.mp4', { subtitles: true }));
  assert.ok(opened.id, JSON.stringify(opened));
  assert.equal(await playPast(page, 3, 60000), null, 'HLS playback');
  const cues = await waitFor(() => page.evaluate(() => window.orvo.subtitleCues()), 15000, 500);
  assert.ok(cues > 0, 'no subtitle cue loaded');
  await page.evaluate(() => window.orvo.close());
  await page.close();
  await assertNothingLeft(server);
});

test("HLS plays in the browser's own player too", async () => {
  const page = await newPage(server);
  await page.evaluate(() => window.orvo.open('hls-native', 'sample.mp4'));
  await page.evaluate(() => { window.orvo.video.playbackRate = 2; });
  assert.equal(await playPast(page, 10, 60000), null, 'native HLS playback');
  await page.evaluate(() => window.orvo.close());
  await page.close();
  await assertNothingLeft(server);
});

// A landscape source and a phone clip stored on its side with a display
// matrix: the picture's width over height upright, where its strip ends
// (a share of its height), and a far second to seek to.
const seekSources = [
  { file: 'sample.mp4', aspect: 640 / 360, strip: 40 / 360, target: 41 },
  { file: 'phone.mp4', aspect: 360 / 640, strip: 40 / 640, target: 22 },
];
// How far from the target a seek may land: progressive MPEG-TS by the byte
// the web API turns that second into, the others at the second itself (a
// WebM seek is a new run started there).
const seekKinds = [
  { kind: 'hls', early: 1.5, late: 1 }, { kind: 'ss', early: 1.5, late: 1 },
  { kind: 'http', early: 5, late: 5 }, { kind: 'webm', early: 1.5, late: 1 },
];

test('every kind seeks far and shows the picture of its clock, upright and in shape', async () => {
  const page = await newPage(server);
  for (const source of seekSources) {
    for (const { kind, early, late } of seekKinds) {
      const what = `${kind} of ${source.file}`;
      const opened = await page.evaluate(({ k, f }) => window.orvo.open(k, f), { k: kind, f: source.file });
      assert.ok(opened.id, `${what}: ${JSON.stringify(opened)}`);
      // Sought as soon as there is a picture: far beyond what a player has
      // loaded by then.
      await page.waitForFunction(() => window.orvo.video.readyState >= 2 ||
        document.getElementById('status').dataset.error !== undefined, null, { timeout: 40000, polling: 50 });
      // Where the clock is once the seek is done (a WebM seek loads a new run).
      const landed = await page.evaluate((t) => {
        const { video } = window.orvo;
        const done = new Promise((resolve) => {
          const at = () => resolve(video.currentTime);
          video.addEventListener('seeked', at, { once: true });
          video.addEventListener('loadeddata', at, { once: true });
          video.addEventListener('error', () => resolve(null), { once: true });
        });
        window.orvo.seek(t);
        return Promise.race([done, new Promise((resolve) => setTimeout(() => resolve(null), 30000))]);
      }, source.target);
      if (source === seekSources[0]) await assertRunsAsTheNasDoes(server, what);
      const refused = await page.evaluate(() => document.getElementById('status').dataset.error);
      assert.ok(landed >= source.target - early && landed <= source.target + late,
        `${what}: the seek to ${source.target} s landed at ${landed}${refused ? ` (${refused})` : ''}`);
      // The picture of the next frame shown, with the clock then.
      const shown = await page.evaluate(async (strip) => {
        const { video } = window.orvo;
        await Promise.race([new Promise((resolve) => video.requestVideoFrameCallback(resolve)),
          new Promise((resolve) => setTimeout(resolve, 30000))]);
        return { clock: video.currentTime, error: document.getElementById('status').dataset.error,
          ...window.orvo.readPicture(strip) };
      }, source.strip);
      assert.equal(shown.error, undefined, `${what}: ${shown.error}`);
      assert.ok(shown.second >= source.target - early && shown.second <= source.target + late,
        `${what}: the seek to ${source.target} s shows the picture of second ${shown.second}`);
      assertPictureMatchesClock(shown.second, shown.clock, what);
      const aspect = shown.width / shown.height;
      assert.ok(Math.abs(aspect / source.aspect - 1) < 0.06,
        `${what}: a ${shown.width}x${shown.height} picture for a source of aspect ${source.aspect.toFixed(3)}`);
      await page.evaluate(() => window.orvo.close());
      // The next run's open finds the machine's one transcode place free.
      await assertNothingLeft(server);
    }
  }
  await page.close();
});

test('a transcoder that fails at once shows its reason, whatever the kind', async () => {
  const page = await newPage(server);
  const cases = [['http', 'cut-short.mp4', 'transcoder_exited'], ['webm', 'cut-short.mp4', 'transcoder_exited'],
    ['hls', 'cut-short.mp4', 'transcoder_exited'], ['ss', 'cut-short.mp4', 'transcoder_exited'],
    ['hls', 'silent.mp4', 'transcoder_exited']];
  for (const [kind, file, reason] of cases) {
    const opened = await page.evaluate(([k, f]) => window.orvo.open(k, f), [kind, file]);
    assert.ok(opened.id, `${kind} ${file}: ${JSON.stringify(opened)}`);
    const shown = await page.waitForFunction(() => document.getElementById('status').dataset.error,
      null, { timeout: 10000, polling: 100 }).then((handle) => handle.jsonValue(), () => 'nothing shown');
    assert.equal(shown, `Playback failed: ${reason}`, `${kind} ${file}`);
    await page.evaluate(() => window.orvo.close());
    await assertNothingLeft(server);
  }
  await page.close();
});

test('HLS of a 10-bit HDR10 source shows the bars in their colours', async () => {
  const page = await newPage(server);
  const opened = await page.evaluate((file) => window.orvo.open('hls', file), hdrSource);
  assert.ok(opened.id, JSON.stringify(opened));
  // Played to its last segment, so that no segment request still waits
  // when the stream is closed.
  await page.evaluate(() => { window.orvo.video.playbackRate = 2; });
  assert.equal(await playPast(page, 10.5, 60000), null, 'HDR10 playback');
  // Read back from the video element as the page would paint it.
  const shown = await page.evaluate((spots) => {
    const { video } = window.orvo;
    const canvas = document.createElement('canvas');
    canvas.width = video.videoWidth;
    canvas.height = video.videoHeight;
    const context = canvas.getContext('2d', { willReadFrequently: true });
    context.drawImage(video, 0, 0);
    return spots.map(({ x, y }) => Array.from(context.getImageData(
      Math.floor(x * canvas.width), Math.floor(y * canvas.height), 1, 1).data.slice(0, 3)));
  }, hdrBars);
  hdrBars.forEach(({ rgb }, bar) => {
    assert.ok(rgb.every((level, channel) => Math.abs(shown[bar][channel] - level) <= 30),
      `a bar shows ${shown[bar]} for ${rgb}`);
  });
  await page.evaluate(() => window.orvo.close());
  await page.close();
  await assertNothingLeft(server);
});

test('a stream that cannot be opened shows its error', async () => {
  const page = await newPage(server);
  const answer = await page.evaluate(() => window.orvo.open('hls', 'dts-audio.mkv'));
  assert.deepEqual(answer, { error: 'TransAudioNotSupported', status: 415 });
  const shown = await page.textContent('#status');
  assert.match(shown, /TransAudioNotSupported/);
  await page.close();
  await assertNothingLeft(server);
});

test('the HLS check fails when the server breaks its segments', async () => {
  const broken = await startServer('broken', ['--break-segments']);
  const page = await newPage(broken);
  await page.evaluate(() => window.orvo.open('hls', 'sample.mp4'));
  const failure = await playPast(page, 10, 20000);
  assert.notEqual(failure, null, 'playback of cut segments passed the check');
  await page.evaluate(() => window.orvo.close());
  await page.close();
  await assertNothingLeft(broken);
});
