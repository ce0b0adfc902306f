#!/usr/bin/env node
// Our CDR encoders and schema texts, checked by decoders that are not ours:
//   node cdr_samples.mjs SAMPLE_WRITER
// runs SAMPLE_WRITER (tests/recording/write_cdr_samples.cpp), which prints messages
// encoded by our C++ code with their schemas and the values they hold; puts them in an
// MCAP file with @mcap/core's own writer; runs check_mcap.mjs on it; and compares
// every decoded field with the values the writer meant. Then it damages a copy of the
// file (a flipped byte in a chunk, a cut message) and expects the check to fail.
import { McapWriter } from "@mcap/core";
import { execFileSync } from "node:child_process";
import { mkdtemp, readFile, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { checkMcap } from "./check_mcap.mjs";

function readSamples(bytes) {
  const magic = "QVCDRSAMPLES\n";
  if (bytes.subarray(0, magic.length).toString() !== magic) throw new Error("sample writer output lacks its magic");
  const samples = [];
  let at = magic.length;
  const block = () => {
    if (at + 4 > bytes.length) throw new Error(`sample output ends at ${at}`);
    const n = bytes.readUInt32LE(at);
    if (at + 4 + n > bytes.length) throw new Error(`sample block at ${at} runs past the end`);
    const b = bytes.subarray(at + 4, at + 4 + n);
    at += 4 + n;
    return b;
  };
  while (at < bytes.length) {
    const name = block().toString();
    const schema = block().toString();
    const expected = JSON.parse(block().toString());
    samples.push({ name, schema, expected, payload: new Uint8Array(block()) });
  }
  return samples;
}

async function writeMcap(path, samples, { chunkSize } = {}) {
  const pieces = [];
  let position = 0n;
  const writable = {
    write: async (buffer) => {
      pieces.push(Buffer.from(buffer));
      position += BigInt(buffer.byteLength);
    },
    position: () => position,
  };
  const writer = new McapWriter({ writable, chunkSize });
  await writer.start({ profile: "ros2", library: "cdr_samples.mjs" });
  const channels = new Map();
  for (const s of samples) {
    if (channels.has(s.name)) continue;
    const schemaId = await writer.registerSchema({ name: s.name, encoding: "ros2msg", data: new TextEncoder().encode(s.schema) });
    const topic = "/samples/" + s.name.split("/").at(-1);
    channels.set(s.name, await writer.registerChannel({ topic, schemaId, messageEncoding: "cdr", metadata: new Map() }));
  }
  let sequence = 0;
  for (const s of samples) {
    const logTime = 1700000000000000000n + BigInt(sequence);
    await writer.addMessage({ channelId: channels.get(s.name), sequence: sequence++, logTime, publishTime: logTime, data: s.payload });
  }
  await writer.addAttachment({ name: "calibration.yaml", mediaType: "application/yaml", logTime: 0n, createTime: 0n, data: new TextEncoder().encode("label: sample\n") });
  await writer.addMetadata({ name: "qvreconstruction", metadata: new Map([["stream_type", "0"]]) });
  await writer.end();
  await writeFile(path, Buffer.concat(pieces));
}

function fnv1a(bytes) {
  let h = 0x811c9dc5;
  for (let i = 0; i < bytes.length; i++) h = Math.imul(h ^ bytes[i], 0x01000193) >>> 0;
  return h.toString(16).padStart(8, "0");
}

// Every field the writer listed must be in the decoded message with that value.
function compare(expected, actual, path, problems) {
  if (expected !== null && typeof expected === "object" && "$bytes" in expected) {
    if (!ArrayBuffer.isView(actual)) return problems.push(`${path}: not an array`);
    const bytes = new Uint8Array(actual.buffer, actual.byteOffset, actual.byteLength);
    if (bytes.length !== expected.$bytes.length || fnv1a(bytes) !== expected.$bytes.fnv1a)
      problems.push(`${path}: ${bytes.length} bytes with FNV-1a ${fnv1a(bytes)}, expected ${expected.$bytes.length} with ${expected.$bytes.fnv1a}`);
  } else if (Array.isArray(expected)) {
    if (actual == null || actual.length !== expected.length) return problems.push(`${path}: length ${actual?.length}, expected ${expected.length}`);
    expected.forEach((e, i) => compare(e, actual[i], `${path}[${i}]`, problems));
  } else if (expected !== null && typeof expected === "object") {
    if (actual == null || typeof actual !== "object") return problems.push(`${path}: missing`);
    for (const key of Object.keys(expected)) compare(expected[key], actual[key], `${path}.${key}`, problems);
  } else if (typeof expected === "string" && typeof actual === "bigint") {
    if (String(actual) !== expected) problems.push(`${path}: ${actual}, expected ${expected}`);
  } else if (!Object.is(expected, actual)) {
    problems.push(`${path}: ${String(actual)}, expected ${String(expected)}`);
  }
}

const writerPath = process.argv[2];
if (!writerPath) {
  console.error("usage: node cdr_samples.mjs SAMPLE_WRITER");
  process.exit(2);
}
const samples = readSamples(execFileSync(writerPath, { maxBuffer: 64 << 20 }));
const dir = await mkdtemp(join(tmpdir(), "qv-cdr-samples-"));
const failures = [];
try {
  // The samples as written, in small chunks and in one: decoded and compared.
  for (const chunkSize of [64 * 1024, 64 << 20]) {
    const path = join(dir, `samples-${chunkSize}.mcap`);
    await writeMcap(path, samples, { chunkSize });
    const decoded = [];
    const { problems } = await checkMcap(path, { log: console.log, onMessage: (name, m) => decoded.push({ name, m }) });
    failures.push(...problems);
    if (decoded.length !== samples.length) failures.push(`${decoded.length} messages decoded of ${samples.length}`);
    decoded.forEach(({ name, m }, i) => {
      if (name !== samples[i].name) failures.push(`message ${i} is a ${name}, written as ${samples[i].name}`);
      compare(samples[i].expected, m, `message ${i} (${name})`, failures);
    });
  }
  const names = new Set(samples.map((s) => s.name));
  for (const t of ["sensor_msgs/msg/Image", "sensor_msgs/msg/CameraInfo", "sensor_msgs/msg/PointCloud2",
    "qvreconstruction_msgs/msg/RawCapture", "qvreconstruction_msgs/msg/FrameInfo"])
    if (!names.has(t)) failures.push(`no sample of ${t}`);

  // The check must fail on damage: a flipped byte inside the first chunk's records...
  const good = join(dir, `samples-${64 * 1024}.mcap`);
  const bytes = await readFile(good);
  const flipped = Buffer.from(bytes);
  let chunk = 8;  // the top-level records after the magic, up to the first chunk
  while (flipped[chunk] !== 0x06) chunk += 9 + Number(flipped.readBigUInt64LE(chunk + 1));
  // opcode, length, start and end times, uncompressed size and CRC, compression "", records' length
  flipped[chunk + 9 + 8 + 8 + 8 + 4 + 4 + 8 + 100] ^= 0x40;
  await writeFile(join(dir, "flipped.mcap"), flipped);
  if ((await checkMcap(join(dir, "flipped.mcap"))).problems.length === 0) failures.push("a flipped byte in a chunk went unnoticed");
  // ...a file cut short...
  await writeFile(join(dir, "cut.mcap"), bytes.subarray(0, bytes.length - 100));
  if ((await checkMcap(join(dir, "cut.mcap"))).problems.length === 0) failures.push("a file cut short went unnoticed");
  // ...a capture whose words do not fill its size, and a message cut in half.
  const capture = samples.findIndex((s) => s.name.endsWith("/RawCapture"));
  const info = samples.findIndex((s) => s.name.endsWith("/FrameInfo"));
  const bad = samples.map((s) => ({ ...s }));
  const words = bad[capture].payload;
  const header = 4 + 8 + 4 + 4;  // encapsulation, stamp, frame_id "tof"
  const count = new DataView(words.buffer, words.byteOffset).getUint32(header + 16, true);
  bad[capture].payload = words.slice(0, words.length - 2);
  new DataView(bad[capture].payload.buffer).setUint32(header + 16, count - 1, true);
  bad[info].payload = bad[info].payload.slice(0, 20);
  await writeMcap(join(dir, "bad.mcap"), bad);
  const { problems } = await checkMcap(join(dir, "bad.mcap"));
  if (!problems.some((p) => p.includes("neither 4 nor 16 per pixel"))) failures.push("a capture of the wrong length went unnoticed");
  if (!problems.some((p) => p.includes("does not decode as qvreconstruction_msgs/msg/FrameInfo"))) failures.push("a cut FrameInfo went unnoticed");
} finally {
  await rm(dir, { recursive: true, force: true });
}
if (failures.length > 0) {
  console.error(`${failures.length} failure(s):`);
  for (const f of failures.slice(0, 40)) console.error("  " + f);
  process.exit(1);
}
console.log(`all ${samples.length} samples decoded by @foxglove/rosmsg2-serialization as written; damaged files refused`);
