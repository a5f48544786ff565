import assert from "node:assert/strict";
import test from "node:test";
import { Aggregation } from "../src/aggregate.mjs";
import { Stacks } from "../src/stacks.mjs";
import { summarize } from "../src/summary.mjs";

test("of many call stacks the leading ones are shown, the others as one", () => {
  const stacks = new Stacks();
  for (let hash = 1; hash <= 20; ++hash)
    stacks.add({ CSHash: hash, Stack: [{ Module: "m", Symbol: `f${hash}`, File: "", Line: 1 }] });
  const aggregation = new Aggregation(stacks);
  for (let hash = 1; hash <= 20; ++hash)
    aggregation.add({ Timestamp: 0, Event: "alloc", Address: `0x${hash}0`, Size: hash, HeapSize: 0, CSHash: hash });
  const { sites, frames, notes, totals } = summarize(aggregation.finish(), stacks, { title: "", siteLimit: 12 });

  // two per rank: 20 and 19 lead by bytes, 1 and 2 come first among equals by count
  const names = sites.frames.map(([frame]) => frames[frame][0]);
  assert.deepEqual(names, ["f20", "f19", "f1", "f2", "(other call stacks)"]);
  assert.deepEqual(sites.liveBytes, [20, 19, 1, 2, 168]);
  assert.deepEqual(sites.allocations, [1, 1, 1, 1, 16]);
  assert.equal(totals.liveBytes, 210);
  assert.deepEqual(notes, ['16 call stacks with small numbers are shown as one, "(other call stacks)".']);
  assert.equal(frames.length, 5); // and no frame that nobody has
});
