import assert from "node:assert/strict";
import { join } from "node:path";
import test from "node:test";
import { readEvents } from "../src/aggregate.mjs";
import { readStacks } from "../src/stacks.mjs";
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
