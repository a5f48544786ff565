import assert from "node:assert/strict";
import { join } from "node:path";
import test from "node:test";
import { Aggregation, readEvents } from "../src/aggregate.mjs";
import { readStacks, Stacks } from "../src/stacks.mjs";
import { makeLog } from "./logs.mjs";

async function read(context, options) {
  const folder = await makeLog(context);
  const stacks = await readStacks(join(folder, "stacks.json"));
  return { stacks, result: await readEvents(join(folder, "events.json"), stacks, options) };
}

test("totals of the log", async (context) => {
  const { result } = await read(context);
  assert.deepEqual(result.events, [6, 4, 3, 2]);
  assert.equal(result.allocatedBytes, 2364);
  assert.equal(result.liveBytes, 264);
  assert.equal(result.blocks.size, 2);
  assert.equal(result.heapPeak, 6300);
  assert.equal(result.heapEnd, 5264);
  assert.deepEqual([result.firstTime, result.lastTime], [100, 190]);
  assert.deepEqual([result.peak.bytes, result.peak.blocks, result.peak.time], [1300, 3, 104]);
  assert.deepEqual([result.refused, result.refusedBytes, result.unknownFrees, result.lostFrees], [1, 4096, 1, 0]);
  assert.equal(result.isCut, false);
});

test("numbers of each call stack", async (context) => {
  const { stacks, result } = await read(context);
  const load = result.sites.get(1);
  assert.deepEqual(
    load.frames.map((index) => stacks.frames[index]),
    [
      { name: "Load(std::vector<int>&)", file: "/game/load.cpp", line: 20, module: "game" },
      { name: "main", file: "C:/game/main.cpp", line: 10, module: "game" },
    ],
  );
  assert.deepEqual([load.allocations, load.allocatedBytes, load.freedBlocks, load.lifetime], [2, 300, 1, 50]);
  assert.deepEqual([load.liveBlocks, load.liveBytes, load.maxLiveBlocks, load.maxLiveBytes], [1, 200, 2, 300]);
  assert.deepEqual([load.peakBlocks, load.peakBytes, load.shortLived], [2, 300, 0]);
  assert.deepEqual(load.oldest, [{ address: "0xB0", size: 200, time: 101 }]);

  const draw = result.sites.get(2);
  assert.deepEqual([draw.allocations, draw.allocatedBytes, draw.freedBlocks, draw.lifetime], [2, 2000, 2, 1]);
  assert.deepEqual([draw.liveBlocks, draw.liveBytes, draw.maxLiveBytes, draw.peakBytes], [0, 0, 1000, 1000]);
  assert.deepEqual([draw.shortLived, draw.shortLivedBytes, draw.frees], [2, 2000, 4]);

  const share = result.sites.get(3);
  assert.deepEqual([share.retains, share.releases, share.openCounters], [3, 2, 1]);
  assert.deepEqual(share.open, [{ address: "0xD8", balance: 1, time: 110 }]);
  assert.deepEqual([share.allocations, share.peakBytes], [0, 0]);

  const lost = result.sites.get(99);
  assert.equal(lost.isKnown, false);
  assert.equal(stacks.frames[lost.frames[0]].name, "(no stack in the log, hash 99)");
  assert.deepEqual(lost.oldest, [{ address: "0x7FFFFFFFFFFFFFF0", size: 64, time: 180 }]);

  const empty = result.sites.get(4);
  assert.equal(stacks.frames[empty.frames[0]].name, "(the allocator itself)");
  assert.deepEqual([empty.isKnown, empty.refused, empty.allocations], [true, 1, 0]);
});

test("short-lived is what the caller says", async (context) => {
  const { result } = await read(context, { shortLived: 51 });
  assert.equal(result.sites.get(1).shortLived, 1);
  assert.equal((await read(context, { shortLived: 1 })).result.sites.get(2).shortLived, 1);
});

/** Counts events given as [time, kind, address, size, hash]. */
function count(events, options) {
  const result = new Aggregation(new Stacks(), options);
  for (const [Timestamp, Event, Address, Size, CSHash] of events)
    assert.equal(result.add({ Timestamp, Event, Address, Size, HeapSize: 0, CSHash }), undefined);
  return result.finish();
}

test("an address that is given out twice: the free between is missing", () => {
  const changes = [];
  const result = count(
    [
      [0, "alloc", "0x10", 8, 1],
      [1, "alloc", "0x20", 30, 1],
      [2, "alloc", "0x10", 100, 3],
      [3, "free", "0x20", 0, 2],
      [4, "alloc", "0x20", 5, 3],
      [5, "alloc", "0x10", 7, 3],
    ],
    { onChange: (time, address, bytes, site) => changes.push([time, address, bytes, site.hash]) },
  );
  const first = result.sites.get(1);
  assert.deepEqual([result.lostFrees, result.liveBytes, first.freedBlocks, first.liveBlocks], [2, 12, 2, 0]);
  assert.deepEqual(result.sites.get(3).oldest, [
    { address: "0x20", size: 5, time: 4 },
    { address: "0x10", size: 7, time: 5 },
  ]);
  assert.deepEqual(changes, [
    [0, 16, 8, 1],
    [1, 32, 30, 1],
    [2, 16, -8, 1], // where it was allocated: nobody knows where it was freed
    [2, 16, 100, 3],
    [3, 32, -30, 2],
    [4, 32, 5, 3],
    [5, 16, -100, 3],
    [5, 16, 7, 3],
  ]);
});

test("events that are older than the ones before count at their time", () => {
  const result = count([
    [10, "alloc", "0x10", 8, 1],
    [7, "free", "0x10", 0, 1],
    [12, "alloc", "0x10", 8, 1],
  ]);
  assert.deepEqual([result.backwards, result.firstTime, result.lastTime], [1, 10, 12]);
  assert.equal(result.sites.get(1).lifetime, 0);
});

test("the first of two peaks of one height counts", () => {
  const result = count([
    [0, "alloc", "0x10", 8, 1],
    [1, "free", "0x10", 0, 1],
    [2, "alloc", "0x10", 8, 2],
  ]);
  assert.deepEqual([result.peak.bytes, result.peak.time], [8, 0]);
  assert.deepEqual([result.sites.get(1).peakBytes, result.sites.get(2).peakBytes], [8, 0]);
});

test("an empty log", () => {
  const result = count([]);
  assert.deepEqual([result.firstTime, result.lastTime, result.peak.time, result.liveBytes], [0, 0, 0, 0]);
});

/** What every site held when all together held most, the slow way: a copy at every new peak. */
function findPeak(events) {
  const live = new Map();
  const held = new Map();
  let peak = { bytes: 0, held: new Map() };
  for (const [, kind, address, size, hash] of events) {
    const block = live.get(address);
    if (block) held.set(block.hash, held.get(block.hash) - block.size);
    live.delete(address);
    if (kind === "alloc") {
      live.set(address, { size, hash });
      held.set(hash, (held.get(hash) ?? 0) + size);
    }
    const bytes = [...live.values()].reduce((sum, each) => sum + each.size, 0);
    if (bytes > peak.bytes) peak = { bytes, held: new Map(held) };
  }
  return peak;
}

test("the peak of random logs is what a slow count finds", () => {
  let state = 12345;
  const random = (limit) => {
    state = (Math.imul(state, 1103515245) + 12345) >>> 0;
    return (state >>> 8) % limit;
  };
  for (let round = 0; round < 50; ++round) {
    const events = Array.from({ length: 200 }, (_, time) => [
      time,
      random(5) < 3 ? "alloc" : "free",
      `0x${(1 + random(30)).toString(16)}`,
      random(100),
      random(6),
    ]);
    const result = count(events);
    const peak = findPeak(events);
    assert.equal(result.peak.bytes, peak.bytes);
    for (const [hash, site] of result.sites) assert.equal(site.peakBytes, peak.held.get(hash) ?? 0, `round ${round}`);
  }
});
