// Small logs written by hand, laid out as the library writes them.
import { mkdtemp, rm, writeFile } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";

const Main = { Module: "game", Symbol: "main", File: "C:\\game\\main.cpp", Line: 10 };
const Load = { Module: "game", Symbol: "Load(std::vector&lt;int&gt;&amp;)", File: "/game/src/../load.cpp", Line: 20 };
const Draw = { Module: "game", Symbol: "Draw", File: "/game/draw.cpp", Line: 30 };
const Share = { Module: "engine", Symbol: "Share", File: "unknown_file", Line: 0 };

/** Four call stacks: 1 main > Load, 2 main > Draw, 3 main > Draw > Share, 4 of the allocator's frames only. */
export const Stacks = [
  { CSHash: 1, Stack: [Load, Main] },
  { CSHash: 2, Stack: [Draw, Main] },
  { CSHash: 3, Stack: [Share, Draw, Main] },
  { CSHash: 4, Stack: [] },
];

function event(time, kind, address, size, heap, hash) {
  return { Timestamp: time, Address: address, Size: size, HeapSize: heap, Event: kind, CSHash: hash };
}

/**
 * What happens: Load takes 100 + 200 bytes and frees the 100 after 50 ms; Draw takes and frees 1000 bytes twice, at
 * once; another 64 bytes have an unknown stack. At the peak (104 ms) 300 + 1000 bytes are live, 1300 in 3 blocks.
 */
export const Events = [
  event(100, "alloc", "0xA0", 100, 5100, 1),
  event(101, "alloc", "0xB0", 200, 5300, 1),
  event(104, "alloc", "0xC0", 1000, 6300, 2),
  event(105, "free", "0xC0", 0, 5300, 2),
  event(110, "retain", "0xD8", 0, 5300, 3),
  event(111, "retain", "0xD8", 0, 5300, 3),
  event(112, "release", "0xD8", 0, 5300, 3),
  event(113, "retain", "0xE8", 0, 5300, 3),
  event(114, "release", "0xE8", 0, 5300, 3),
  event(150, "free", "0xA0", 0, 5200, 2),
  event(160, "alloc", "0xC0", 1000, 6200, 2),
  event(160, "free", "0xC0", 0, 5200, 2),
  event(170, "free", "0xF0", 0, 5200, 2),
  event(180, "alloc", "0x7FFFFFFFFFFFFFF0", 64, 5264, 99),
  event(190, "alloc", "0x0", 4096, 5264, 4),
];

function layOut(items, text) {
  return `{ "Data": [\n${items.map(text).join(",")}]}\n`;
}

export function stacksText(stacks = Stacks) {
  const frame = ({ Module, Symbol, File, Line }) =>
    `{ "Module": "${Module}", "Symbol": "${Symbol}", "File": ${JSON.stringify(File)}, "Line": ${Line} `;
  return layOut(stacks, ({ CSHash, Stack }) => {
    const frames = Stack.map((each, index) => `${frame(each)}${index + 1 < Stack.length ? "}," : "}"}\n`);
    return `{ "CSHash": ${CSHash}, "Stack": [\n${frames.join("")}]}\n`;
  });
}

export function eventsText(events = Events) {
  return layOut(
    events,
    (each) =>
      `{ "Timestamp": ${each.Timestamp}, "Address": "${each.Address}", "Size": ${each.Size}, ` +
      `"HeapSize": ${each.HeapSize}, "Event": "${each.Event}", "CSHash": ${each.CSHash} }\n`,
  );
}

/** A folder that goes away with the test `context`; `files` are written into it. */
export async function makeFolder(context, files = {}) {
  const folder = await mkdtemp(join(tmpdir(), "memlog-"));
  context.after(() => rm(folder, { recursive: true, force: true }));
  for (const [name, text] of Object.entries(files)) await writeFile(join(folder, name), text);
  return folder;
}

/** A folder with the log above. */
export function makeLog(context) {
  return makeFolder(context, { "events.json": eventsText(), "stacks.json": stacksText() });
}
