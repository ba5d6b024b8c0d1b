// Parses an MP4 file with mp4box.js, the parser behind many web players.
// Every warning or error it logs is a failure except one kind: the unread room
// behind the entries of a sample table (a front index is reserved at full size
// for the longest recording, and its tables fill up as the file grows). Both
// tracks must hold samples, each with a place inside the file and a duration,
// and each track's duration must agree with its samples within one sample.
// Prints one line; exit status 0 when clean.
//
//   node mp4box-check.mjs FILE
import { readFile } from 'node:fs/promises';
import { createFile, Log } from 'mp4box';

const path = process.argv[2];
const problems = [];
const tableRoom = /^Parsing of box '(stts|stss|stsc|stsz|stco)' did not read the entire/;
let reservedTables = 0;
const note = (...args) => {
  const text = args.slice(2).join(' ') || args.join(' ');
  if (tableRoom.test(text)) ++reservedTables;
  else problems.push(text);
};
console.warn = note;  // Log.warn and Log.error write here as "[time] [module] text"
console.error = note;
Log.setLogLevel(Log.warn);

const bytes = await readFile(path);
const file = createFile();
file.onError = (module, message) => problems.push(`${module}: ${message}`);
let info = null;
file.onReady = (i) => { info = i; };
const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
buffer.fileStart = 0;
file.appendBuffer(buffer);
file.flush();

const summary = [];
if (!info) {
  problems.push('no moov found');
} else {
  for (const kind of ['video', 'audio']) {
    const track = info.tracks.find((t) => t.type === kind);
    if (!track) {
      problems.push(`no ${kind} track`);
      continue;
    }
    const samples = file.getTrackById(track.id).samples;
    if (samples.length === 0) problems.push(`${kind} track without samples`);
    let longest = 0;
    for (const s of samples) {
      if (s.offset == null || s.duration == null) {
        problems.push(`${kind} samples from number ${s.number} on have no chunk or no duration ` +
                      `(${samples.length - s.number} of ${samples.length})`);
        break;
      }
      longest = Math.max(longest, s.duration);
      if (s.offset + s.size > bytes.byteLength) {
        problems.push(`${kind} sample ${s.number} ends behind the file`);
        break;
      }
    }
    if (Math.abs(track.duration - track.samples_duration) > longest) {
      problems.push(`${kind} duration ${track.duration}/${track.timescale} but its samples last ` +
                    `${track.samples_duration}/${track.timescale}`);
    }
    summary.push(`${kind} ${track.codec} ${samples.length} samples ` +
                 `${(track.duration / track.timescale).toFixed(3)} s`);
  }
}
if (problems.length > 0) {
  console.log(`FAIL ${[...new Set(problems)].slice(0, 5).join('; ')}`);
  process.exit(1);
}
const room = reservedTables > 0 ? ` (${reservedTables} tables with reserved room)` : '';
console.log(`OK ${summary.join(', ')}${room}`);
