import assert from "node:assert/strict";
import test from "node:test";
import { Timeline } from "../src/timeline.mjs";

test("few events: a bucket each, gaps go on", () => {
  const timeline = new Timeline(8);
  timeline.add(100, 50, 5, 0);
  timeline.add(100, 70, 7, 0);
  timeline.add(100, 60, 6, 1);
  timeline.add(103, 65, 8, 2);
  assert.deepEqual(timeline.toObject(), {
    width: 1,
    at: [100, 101, 102, 103],
    heap: [60, 60, 60, 65],
    heapPeak: [70, 60, 60, 65],
    live: [6, 6, 6, 8],
    livePeak: [7, 6, 6, 8],
    alloc: [2, 0, 0, 0],
    free: [1, 0, 0, 0],
    retain: [0, 0, 0, 1],
    release: [0, 0, 0, 0],
  });
});

test("many events: neighbours merge, nothing is lost", () => {
  const timeline = new Timeline(4);
  for (let at = 0; at < 10; ++at) timeline.add(at, at === 5 ? 99 : at, at, at % 2);
  assert.deepEqual(timeline.toObject(), {
    width: 4,
    at: [0, 4, 8],
    heap: [3, 7, 9],
    heapPeak: [3, 99, 9],
    live: [3, 7, 9],
    livePeak: [3, 7, 9],
    alloc: [2, 2, 1],
    free: [2, 2, 1],
    retain: [0, 0, 0],
    release: [0, 0, 0],
  });
});

test("a long pause costs no room, an old event counts in the newest bucket", () => {
  const timeline = new Timeline(4);
  timeline.add(0, 1, 1, 0);
  timeline.add(1e9, 2, 2, 0);
  timeline.add(5, 3, 3, 0);
  const { at, alloc, heap } = timeline.toObject();
  assert.equal(at.length, 4);
  assert.deepEqual(alloc, [1, 0, 0, 2]);
  assert.deepEqual(heap, [1, 1, 1, 3]);
});
