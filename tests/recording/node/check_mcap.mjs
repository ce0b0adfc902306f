#!/usr/bin/env node
// An independent check of an MCAP recording, with Foxglove's own readers:
//   node check_mcap.mjs FILE.mcap [--quiet]
// It walks the file's top-level records, checks the data-section and summary CRCs,
// reads every record with @mcap/core's stream reader (chunk and attachment CRCs on),
// reads the messages again through the summary's indexes when there is a summary,
// decodes every message by the ros2msg schema embedded in the file with
// @foxglove/rosmsg2-serialization, and checks each decoded message against what its
// type promises (an image's data is step * height bytes, a raw capture holds 4 or 16
// words per pixel, ...). Prints a summary; exits 1 on any problem, 2 on bad usage.
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { loadDecompressHandlers } from "@mcap/support";
import { parse as parseMessageDefinition } from "@foxglove/rosmsg";
import { MessageReader } from "@foxglove/rosmsg2-serialization";
import { open } from "node:fs/promises";
import { pathToFileURL } from "node:url";

const MAGIC = Buffer.from([0x89, 0x4d, 0x43, 0x41, 0x50, 0x30, 0x0d, 0x0a]);
const OP_DATA_END = 0x0f;
const OP_FOOTER = 0x02;
const PIECE = 4 << 20;

// CRC-32 (IEEE 802.3, as zlib and MCAP use it), incremental: crc32(piece, previous).
const CRC_TABLE = (() => {
  const t = new Uint32Array(256);
  for (let n = 0; n < 256; n++) {
    let c = n;
    for (let k = 0; k < 8; k++) c = c & 1 ? 0xedb88320 ^ (c >>> 1) : c >>> 1;
    t[n] = c >>> 0;
  }
  return t;
})();
export function crc32(bytes, previous = 0) {
  let c = ~previous >>> 0;
  for (let i = 0; i < bytes.length; i++) c = CRC_TABLE[(c ^ bytes[i]) & 0xff] ^ (c >>> 8);
  return ~c >>> 0;
}

async function crcOfRange(file, start, end) {
  let crc = 0;
  const piece = Buffer.alloc(PIECE);
  for (let at = start; at < end; ) {
    const n = Math.min(PIECE, end - at);
    const { bytesRead } = await file.read(piece, 0, n, at);
    if (bytesRead !== n) throw new Error(`short read at ${at}`);
    crc = crc32(piece.subarray(0, n), crc);
    at += n;
  }
  return crc;
}

// The top-level records' opcodes and offsets, read from their length prefixes alone.
async function walkTopLevel(file, size, problems) {
  const records = [];
  const head = Buffer.alloc(9);
  let at = MAGIC.length;
  while (at < size - MAGIC.length) {
    const { bytesRead } = await file.read(head, 0, 9, at);
    if (bytesRead < 9) {
      problems.push(`file ends inside the record header at offset ${at}`);
      break;
    }
    const length = head.readBigUInt64LE(1);
    const end = BigInt(at) + 9n + length;
    if (end > BigInt(size - MAGIC.length)) {
      problems.push(`record (opcode 0x${head[0].toString(16)}) at offset ${at} claims ${length} bytes, past the end of the file`);
      break;
    }
    records.push({ opcode: head[0], offset: at, length: Number(length) });
    at = Number(end);
  }
  return records;
}

function schemaKey(name) {
  // "sensor_msgs/msg/Image" and "sensor_msgs/Image" name the same type.
  return name.replace("/msg/", "/");
}

const BYTES_PER_PIXEL = {
  mono8: 1, "8UC1": 1, mono16: 2, "16UC1": 2, "16SC1": 2, "32FC1": 4,
  rgb8: 3, bgr8: 3, "8UC3": 3, rgba8: 4, bgra8: 4, "8UC4": 4,
};
const POINT_FIELD_SIZE = { 1: 1, 2: 1, 3: 2, 4: 2, 5: 4, 6: 4, 7: 4, 8: 8 };

function timeNs(stamp) {
  const nanos = stamp.nanosec ?? stamp.nsec;
  return BigInt(stamp.sec) * 1000000000n + BigInt(nanos);
}

// What each type promises about its decoded fields; returns the problems found.
// `state` keeps per-channel history (FrameInfo sequences must increase).
const EXPECTATIONS = {
  "sensor_msgs/Image"(m) {
    const p = [];
    const rows = m.encoding === "nv12" || m.encoding === "nv21" ? (m.height * 3) / 2 : m.height;
    if (m.data.length !== m.step * rows) p.push(`data has ${m.data.length} bytes, step * rows is ${m.step * rows}`);
    const bpp = BYTES_PER_PIXEL[m.encoding];
    if (bpp !== undefined && m.step < m.width * bpp) p.push(`step ${m.step} is less than width ${m.width} * ${bpp}`);
    return p;
  },
  "sensor_msgs/CameraInfo"(m) {
    const p = [];
    if (m.k.length !== 9 || m.r.length !== 9 || m.p.length !== 12) p.push("k, r, p are not 9, 9, 12 numbers");
    if (m.distortion_model === "plumb_bob" && m.d.length !== 5) p.push(`plumb_bob with ${m.d.length} coefficients`);
    if (!(m.width > 0 && m.height > 0)) p.push(`size ${m.width} x ${m.height}`);
    if (![...m.k, ...m.d, ...m.p].every(Number.isFinite)) p.push("a coefficient is not finite");
    return p;
  },
  "sensor_msgs/PointCloud2"(m) {
    const p = [];
    if (m.data.length !== m.row_step * m.height) p.push(`data has ${m.data.length} bytes, row_step * height is ${m.row_step * m.height}`);
    if (m.row_step < m.point_step * m.width) p.push(`row_step ${m.row_step} < point_step * width`);
    for (const f of m.fields) {
      const size = POINT_FIELD_SIZE[f.datatype];
      if (size === undefined) p.push(`field ${f.name} has datatype ${f.datatype}`);
      else if (f.offset + size * f.count > m.point_step) p.push(`field ${f.name} ends past point_step`);
    }
    return p;
  },
  "qvreconstruction_msgs/RawCapture"(m) {
    const p = [];
    const pixels = m.width * m.height;
    if (!(pixels > 0)) p.push(`size ${m.width} x ${m.height}`);
    const planes = m.words.length / (4 * pixels);
    if (planes !== 1 && planes !== 4) p.push(`${m.words.length} words for ${m.width} x ${m.height}: neither 4 nor 16 per pixel`);
    else if ((planes === 1) !== (m.stream_type === 5)) p.push(`${planes} plane(s) for stream type ${m.stream_type}`);
    return p;
  },
  "qvreconstruction_msgs/FrameInfo"(m, state) {
    const p = [];
    for (const f of ["sequence", "capture_time_ns"]) if (typeof m[f] !== "bigint") p.push(`${f} is not a 64-bit integer`);
    for (const f of ["temperature_code", "temperature_celsius", "stream_type", "frames_dropped"])
      if (typeof m[f] !== "number" || !Number.isFinite(m[f])) p.push(`${f} is missing or not a number`);
    if (p.length > 0) return p;
    if (timeNs(m.header.stamp) !== m.capture_time_ns) p.push("header.stamp differs from capture_time_ns");
    if (state.lastSequence !== undefined && m.sequence <= state.lastSequence)
      p.push(`sequence ${m.sequence} after ${state.lastSequence}`);
    state.lastSequence = m.sequence;
    return p;
  },
};

// Checks one file. options.onMessage(schemaName, decoded, message, channel) sees every
// decoded message in file order; options.log prints. Returns { problems, summary }.
export async function checkMcap(path, options = {}) {
  const log = options.log ?? (() => {});
  const problems = [];
  const file = await open(path, "r");
  try {
    const size = (await file.stat()).size;
    const summary = { path, size, opcodes: {}, chunks: {}, channels: new Map(), attachments: [], metadata: [] };

    // 1. Magic at both ends and the top-level records.
    const ends = Buffer.alloc(8);
    await file.read(ends, 0, 8, 0);
    if (!ends.equals(MAGIC)) problems.push("no MCAP magic at the start");
    if (size >= 16) await file.read(ends, 0, 8, size - 8);
    const hasEndMagic = size >= 16 && ends.equals(MAGIC);
    if (!hasEndMagic) problems.push("no MCAP magic at the end: the file is cut short");
    const top = hasEndMagic ? await walkTopLevel(file, size, problems) : [];

    // 2. The data section's CRC (from the start of the file to Data End) and the
    //    summary's (from its start through the footer's summary_offset_start).
    const dataEnd = top.find((r) => r.opcode === OP_DATA_END);
    const footer = top.at(-1);
    if (hasEndMagic && (!footer || footer.opcode !== OP_FOOTER)) problems.push("the last record is not a footer");
    if (hasEndMagic && !dataEnd) problems.push("no Data End record");
    if (dataEnd) {
      const body = Buffer.alloc(4);
      await file.read(body, 0, 4, dataEnd.offset + 9);
      const expected = body.readUInt32LE(0);
      if (expected !== 0) {
        const actual = await crcOfRange(file, 0, dataEnd.offset);
        if (actual !== expected) problems.push(`data section CRC ${actual} differs from Data End's ${expected}`);
        summary.dataSectionCrc = "checked";
      } else summary.dataSectionCrc = "absent (0)";
    }
    let summaryStart = 0n;
    if (footer && footer.opcode === OP_FOOTER) {
      const body = Buffer.alloc(20);
      await file.read(body, 0, 20, footer.offset + 9);
      summaryStart = body.readBigUInt64LE(0);
      const expected = body.readUInt32LE(16);
      if (summaryStart !== 0n && expected !== 0) {
        if (summaryStart > BigInt(footer.offset)) problems.push(`summary start ${summaryStart} is past the footer`);
        else {
          const actual = await crcOfRange(file, Number(summaryStart), footer.offset + 9 + 16);
          if (actual !== expected) problems.push(`summary CRC ${actual} differs from the footer's ${expected}`);
          summary.summaryCrc = "checked";
        }
      } else summary.summaryCrc = summaryStart === 0n ? "no summary" : "absent (0)";
    }

    // 3. Every record through the stream reader, chunk and attachment CRCs checked,
    //    every message decoded by its schema.
    const decompressHandlers = await loadDecompressHandlers();
    const stream = new McapStreamReader({ includeChunks: true, decompressHandlers, validateCrcs: true });
    const schemas = new Map();
    const channels = new Map();
    const readers = new Map();
    const states = new Map();
    let messages = 0;
    let streamError;
    const piece = Buffer.alloc(PIECE);
    const checkRecord = (record) => {
      summary.opcodes[record.type] = (summary.opcodes[record.type] ?? 0) + 1;
      switch (record.type) {
        case "Header":
          summary.profile = record.profile;
          summary.library = record.library;
          break;
        case "Schema":
          schemas.set(record.id, record);
          break;
        case "Channel":
          channels.set(record.id, record);
          break;
        case "Chunk": {
          const c = (summary.chunks[record.compression || "none"] ??= { count: 0, compressed: 0n, uncompressed: 0n });
          c.count++;
          c.compressed += BigInt(record.records.byteLength);
          c.uncompressed += record.uncompressedSize;
          break;
        }
        case "Attachment":
          summary.attachments.push(`${record.name} (${record.mediaType}, ${record.data.byteLength} bytes)`);
          break;
        case "Metadata":
          summary.metadata.push(`${record.name}: ${[...record.metadata.keys()].join(", ")}`);
          break;
        case "Message":
          messages++;
          checkMessage(record);
          break;
      }
    };
    const checkMessage = (message) => {
      const channel = channels.get(message.channelId);
      const where = `message ${messages - 1} (channel ${message.channelId}, log time ${message.logTime})`;
      if (!channel) return problems.push(`${where}: no channel record before it`);
      const schema = schemas.get(channel.schemaId);
      const entry = summary.channels.get(channel.id) ?? { topic: channel.topic, schema: schema?.name, encoding: channel.messageEncoding, count: 0 };
      entry.count++;
      summary.channels.set(channel.id, entry);
      if (!schema) return problems.push(`${where}: channel ${channel.topic} has no schema`);
      if (channel.messageEncoding !== "cdr" || schema.encoding !== "ros2msg")
        return problems.push(`${where}: ${channel.messageEncoding} with a ${schema.encoding} schema cannot be decoded here`);
      let reader = readers.get(schema.id);
      if (reader === undefined) {
        try {
          const definitions = parseMessageDefinition(new TextDecoder().decode(schema.data), { ros2: true });
          reader = new MessageReader(definitions);
        } catch (e) {
          reader = null;
          problems.push(`schema ${schema.name}: ${e.message}`);
        }
        readers.set(schema.id, reader);
      }
      if (reader === null) return;
      let decoded;
      try {
        decoded = reader.readMessage(message.data);
      } catch (e) {
        return problems.push(`${where} on ${channel.topic}: does not decode as ${schema.name}: ${e.message}`);
      }
      const trailing = message.data.byteLength - reader.lastReadByteLength();
      if (trailing > 3) problems.push(`${where} on ${channel.topic}: ${trailing} bytes left after ${schema.name}`);
      const expect = EXPECTATIONS[schemaKey(schema.name)];
      if (expect) {
        if (!states.has(channel.id)) states.set(channel.id, {});
        for (const p of expect(decoded, states.get(channel.id))) problems.push(`${where} on ${channel.topic} (${schema.name}): ${p}`);
      }
      options.onMessage?.(schema.name, decoded, message, channel);
    };
    try {
      for (let at = 0; at < size; ) {
        const { bytesRead } = await file.read(piece, 0, PIECE, at);
        if (bytesRead === 0) break;
        at += bytesRead;
        stream.append(piece.subarray(0, bytesRead));
        for (let record; (record = stream.nextRecord()); ) checkRecord(record);
      }
      if (!stream.done()) problems.push("the stream reader did not reach the end of the file (no footer)");
    } catch (e) {
      streamError = e;
      problems.push(`stream reader: ${e.message}`);
    }
    summary.messages = messages;

    // 4. Through the summary's indexes: summary CRC, chunk CRCs, the same message count,
    //    the statistics.
    if (summaryStart !== 0n && !streamError) {
      try {
        const readable = {
          size: async () => BigInt(size),
          read: async (offset, length) => {
            const buffer = Buffer.alloc(Number(length));
            const { bytesRead } = await file.read(buffer, 0, Number(length), Number(offset));
            if (bytesRead !== Number(length)) throw new Error(`short read of ${length} bytes at ${offset}`);
            return buffer;
          },
        };
        const indexed = await McapIndexedReader.Initialize({ readable, decompressHandlers });
        let indexedMessages = 0;
        for await (const _ of indexed.readMessages({ validateCrcs: true })) indexedMessages++;
        if (indexedMessages !== messages) problems.push(`the indexes give ${indexedMessages} messages, the stream ${messages}`);
        const chunkCount = Object.values(summary.chunks).reduce((n, c) => n + c.count, 0);
        if (indexed.chunkIndexes.length !== chunkCount) problems.push(`${indexed.chunkIndexes.length} chunk indexes for ${chunkCount} chunks`);
        if (indexed.statistics) {
          const s = indexed.statistics;
          if (s.messageCount !== BigInt(messages)) problems.push(`statistics count ${s.messageCount} messages, the file holds ${messages}`);
          if (s.chunkCount !== chunkCount) problems.push(`statistics count ${s.chunkCount} chunks, the file holds ${chunkCount}`);
          for (const [id, entry] of summary.channels)
            if ((s.channelMessageCounts.get(id) ?? 0n) !== BigInt(entry.count))
              problems.push(`statistics count ${s.channelMessageCounts.get(id) ?? 0n} messages on ${entry.topic}, the file holds ${entry.count}`);
        }
        let attachments = 0;
        for await (const _ of indexed.readAttachments({ validateCrcs: true })) attachments++;
        if (attachments !== summary.attachments.length) problems.push(`${attachments} attachments by index, ${summary.attachments.length} in the file`);
        summary.indexed = `${indexedMessages} messages, ${indexed.chunkIndexes.length} chunk indexes`;
      } catch (e) {
        problems.push(`indexed reader: ${e.message}`);
      }
    } else if (summaryStart === 0n && footer?.opcode === OP_FOOTER) summary.indexed = "no summary section";

    log(formatSummary(summary, problems));
    return { problems, summary };
  } finally {
    await file.close();
  }
}

function formatSummary(s, problems) {
  const lines = [`${s.path}: ${s.size} bytes, profile "${s.profile ?? ""}", library "${s.library ?? ""}"`];
  lines.push(`  records: ${Object.entries(s.opcodes).map(([k, v]) => `${k} ${v}`).join(", ")}`);
  for (const [kind, c] of Object.entries(s.chunks))
    lines.push(`  chunks (${kind}): ${c.count}, ${c.uncompressed} bytes in ${c.compressed}` +
      (c.compressed > 0n ? ` (ratio ${(Number(c.uncompressed) / Number(c.compressed)).toFixed(2)})` : ""));
  for (const [id, c] of s.channels) lines.push(`  channel ${id} ${c.topic}: ${c.count} x ${c.schema} (${c.encoding})`);
  for (const a of s.attachments) lines.push(`  attachment ${a}`);
  for (const m of s.metadata) lines.push(`  metadata ${m}`);
  lines.push(`  CRCs: data section ${s.dataSectionCrc ?? "not reached"}, summary ${s.summaryCrc ?? "not reached"}, chunks and attachments by both readers`);
  lines.push(`  messages decoded: ${s.messages}; by the indexes: ${s.indexed ?? "not read"}`);
  if (problems.length === 0) lines.push("  OK");
  else {
    lines.push(`  ${problems.length} problem(s):`);
    for (const p of problems.slice(0, 30)) lines.push(`    ${p}`);
    if (problems.length > 30) lines.push(`    ... and ${problems.length - 30} more`);
  }
  return lines.join("\n");
}

if (import.meta.url === pathToFileURL(process.argv[1]).href) {
  const args = process.argv.slice(2);
  const quiet = args.includes("--quiet");
  const paths = args.filter((a) => a !== "--quiet");
  if (paths.length === 0) {
    console.error("usage: node check_mcap.mjs FILE.mcap... [--quiet]");
    process.exit(2);
  }
  let failed = false;
  for (const path of paths) {
    try {
      const { problems } = await checkMcap(path, { log: quiet ? () => {} : console.log });
      if (problems.length > 0) {
        failed = true;
        if (quiet) console.error(`${path}: ${problems.length} problem(s), first: ${problems[0]}`);
      }
    } catch (e) {
      failed = true;
      console.error(`${path}: ${e.message}`);
    }
  }
  process.exit(failed ? 1 : 0);
}
