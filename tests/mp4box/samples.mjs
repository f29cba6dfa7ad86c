// Prints the samples of every track of an MP4 file as mp4box.js reads them:
// one JSON document, {"fragmented": bool, "tracks": [{"id", "samples":
// [[offset, size, dts, cts, sync], ...]}]}.
//   node samples.mjs MP4BOX_MODULE FILE
import { readFileSync } from "node:fs";
import { pathToFileURL } from "node:url";

const [modulePath, file] = process.argv.slice(2);
const MP4Box = await import(pathToFileURL(modulePath).href);
const bytes = readFileSync(file);
const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
buffer.fileStart = 0;
const parsed = MP4Box.createFile();
let info = null;
parsed.onError = (error) => {
  console.error(String(error));
  process.exit(1);
};
parsed.onReady = (ready) => {
  info = ready;
};
parsed.appendBuffer(buffer);
parsed.flush();
if (info === null) {
  console.error("mp4box.js found no movie box");
  process.exit(1);
}
const tracks = info.tracks.map((track) => ({
  id: track.id,
  samples: parsed.getTrackById(track.id).samples.map((s) => [s.offset, s.size, s.dts, s.cts, s.is_sync]),
}));
console.log(JSON.stringify({ fragmented: info.isFragmented, tracks }));
