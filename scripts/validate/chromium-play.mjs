// Plays an MP4 file in headless Chromium as a web page would: the file is
// served from 127.0.0.1 with byte ranges, a <video> element loads its
// metadata, seeks to the middle and plays to the end at four times the speed
// (the fastest at which Chromium still plays audio). Fails on a media error, a
// seek or an end that never comes, an end short of the duration, a file read
// without byte ranges, or when no video frame or no audio was decoded after the
// seek. Prints one line; exit status 0 when clean.
//
//   node chromium-play.mjs FILE [CHROMIUM]
import { mkdtemp, open, rm, stat } from 'node:fs/promises';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { chromium } from 'playwright-core';

const path = process.argv[2];
const executablePath = process.argv[3] || '/usr/bin/chromium';
const size = (await stat(path)).size;

// A static server for one page and one file, with byte ranges.
let rangeRequests = 0;
const page = `<!doctype html><meta charset="utf-8"><body></body>`;
const server = createServer(async (req, res) => {
  if (req.url !== '/media.mp4') {
    res.writeHead(200, { 'Content-Type': 'text/html' });
    res.end(page);
    return;
  }
  const range = /^bytes=(\d*)-(\d*)$/.exec(req.headers.range || '');
  let start = 0;
  let end = size - 1;
  if (range) {
    if (range[1] !== '') start = Number(range[1]);
    if (range[2] !== '') end = Math.min(Number(range[2]), size - 1);
    if (range[1] === '' && range[2] !== '') start = size - Number(range[2]);
    if (start > end || start >= size) {
      res.writeHead(416, { 'Content-Range': `bytes */${size}` });
      res.end();
      return;
    }
    ++rangeRequests;
  }
  res.writeHead(range ? 206 : 200, {
    'Content-Type': 'video/mp4',
    'Accept-Ranges': 'bytes',
    'Content-Length': end - start + 1,
    ...(range ? { 'Content-Range': `bytes ${start}-${end}/${size}` } : {}),
  });
  if (req.method === 'HEAD') {
    res.end();
    return;
  }
  const file = await open(path);
  const stream = file.createReadStream({ start, end });
  stream.pipe(res);
  res.on('close', () => stream.destroy());
});
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const origin = `http://127.0.0.1:${server.address().port}`;

const profile = await mkdtemp(join(tmpdir(), 'mp4rec-chromium-'));
let result;
let context;
try {
  context = await chromium.launchPersistentContext(profile, {
    executablePath,
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
           '--disable-background-networking', '--disable-component-update', '--disable-sync',
           '--autoplay-policy=no-user-gesture-required'],
  });
  const tab = context.pages()[0] || await context.newPage();
  await tab.goto(`${origin}/`);
  result = await tab.evaluate(async (src) => {
    const video = document.createElement('video');
    video.preload = 'auto';
    document.body.append(video);
    // Resolves on `event`, rejects on a media error or after `ms`.
    const until = (event, ms, what) => new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`${what}: no ${event} after ${ms} ms`)), ms);
      video.addEventListener(event, () => { clearTimeout(timer); resolve(); }, { once: true });
      video.addEventListener('error', () => {
        clearTimeout(timer);
        reject(new Error(`${what}: media error ${video.error.code} ${video.error.message}`));
      }, { once: true });
    });
    try {
      const loaded = until('loadedmetadata', 30000, 'metadata');
      video.src = src;
      await loaded;
      const duration = video.duration;
      const tracks = { width: video.videoWidth, height: video.videoHeight };
      const seeked = until('seeked', 30000, 'seek to the middle');
      video.currentTime = duration / 2;
      await seeked;
      const framesBefore = video.getVideoPlaybackQuality().totalVideoFrames;
      const audioBefore = video.webkitAudioDecodedByteCount;
      video.playbackRate = 4;
      const ended = until('ended', (duration / 8) * 1000 * 3 + 30000, 'play to the end');
      await video.play();
      await ended;
      return {
        ok: true,
        duration,
        ...tracks,
        end: video.currentTime,
        frames: video.getVideoPlaybackQuality().totalVideoFrames - framesBefore,
        audioBytes: video.webkitAudioDecodedByteCount - audioBefore,
      };
    } catch (e) {
      return { ok: false, message: e.message };
    }
  }, `${origin}/media.mp4`);
} catch (e) {
  result = { ok: false, message: `chromium: ${e.message.split('\n')[0]}` };
} finally {
  if (context) await context.close();
  server.close();
  await rm(profile, { recursive: true, force: true });
}

const problems = [];
if (!result.ok) {
  problems.push(result.message);
} else {
  if (!(result.width > 0 && result.height > 0)) problems.push('no video track');
  if (result.frames <= 0) problems.push('no video frame decoded after the seek');
  if (result.audioBytes <= 0) problems.push('no audio decoded after the seek');
  if (Math.abs(result.end - result.duration) > 0.5) {
    problems.push(`ended at ${result.end} s of ${result.duration} s`);
  }
  if (rangeRequests === 0) problems.push('the file was not read with byte ranges');
}
if (problems.length > 0) {
  console.log(`FAIL ${problems.join('; ')}`);
  process.exit(1);
}
console.log(`OK ${result.width}x${result.height} ${result.duration.toFixed(3)} s, seeked to the ` +
            `middle, played to the end: ${result.frames} frames, ${result.audioBytes} audio bytes`);
