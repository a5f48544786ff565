#!/usr/bin/env node
// How long a large log takes, and how much memory: node bench.mjs [EVENTS] [CALL STACKS]
import { once } from "node:events";
import { createWriteStream } from "node:fs";
import { mkdtemp, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { convert } from "./src/convert.mjs";

const eventCount = Number(process.argv[2] ?? 1000000);
const stackCount = Number(process.argv[3] ?? 1000);

let state = 1;
function random(limit) {
  state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
  return Math.floor((state / 4294967296) * limit);
}

async function writeLog(path, items) {
  const file = createWriteStream(path);
  let text = '{ "Data": [\n';
  let separator = "";
  for (const item of items) {
    text += separator + item;
    separator = ",";
    if (text.length < 1 << 20) continue;
    if (!file.write(text)) await once(file, "drain");
    text = "";
  }
  file.end(`${text}]}\n`);
  await once(file, "finish");
}

function* makeStacks() {
  for (let stack = 0; stack < stackCount; ++stack) {
    const frames = Array.from({ length: 8 + random(16) }, (_, level) => {
      const number = level < 10 ? stack >> (2 * (level >> 1)) : level;
      return `{ "Module": "game", "Symbol": "Level${level}::Function${number}(int)", "File": "/game/level${level}.cpp", "Line": ${1 + number} }`;
    });
    yield `{ "CSHash": ${stack}, "Stack": [\n${frames.join(",\n")}\n]}\n`;
  }
}

/** Blocks come a little more often than they go; most that go are young. */
function* makeEvents() {
  const live = [];
  let address = 0x560000000000;
  let heap = 10000000;
  for (let index = 0; index < eventCount; ++index) {
    const isFree = live.length > 0 && random(100) < 48;
    const block = isFree
      ? live.splice(live.length - 1 - random(Math.min(live.length, 50)), 1)[0]
      : [(address += 16), 16 << random(8)];
    if (!isFree) live.push(block);
    heap += isFree ? -block[1] : block[1];
    yield (
      `{ "Timestamp": ${Math.floor(index / 200)}, "Address": "0x${block[0].toString(16).toUpperCase()}", ` +
      `"Size": ${isFree ? 0 : block[1]}, "HeapSize": ${heap}, "Event": "${isFree ? "free" : "alloc"}", ` +
      `"CSHash": ${random(stackCount)} }\n`
    );
  }
}

const folder = await mkdtemp(join(tmpdir(), "memlog-bench-"));
try {
  const [events, stacks] = [join(folder, "events.json"), join(folder, "stacks.json")];
  await writeLog(stacks, makeStacks());
  await writeLog(events, makeEvents());
  const start = process.hrtime.bigint();
  await convert(events, stacks, folder, { title: "bench" });
  const seconds = Number(process.hrtime.bigint() - start) / 1e9;
  const megabytes = process.resourceUsage().maxRSS / 1024;
  console.log(
    `${eventCount} events, ${stackCount} call stacks: ${seconds.toFixed(1)} s, ${megabytes.toFixed(0)} MB at most`,
  );
} finally {
  await rm(folder, { recursive: true });
}
