import assert from "node:assert/strict";
import test from "node:test";
import { Progress } from "../src/progress.mjs";

function makeStream(more) {
  const texts = [];
  return { texts, write: (text) => texts.push(text), ...more };
}

test("a bar on a terminal, which goes away", () => {
  const stream = makeStream({ isTTY: true, columns: 100 });
  let now = 0;
  const progress = new Progress(stream, () => now);
  progress.begin("Events");
  progress.update(1, 400e6);
  assert.deepEqual(stream.texts, []);
  now = 2000;
  progress.update(100e6, 400e6);
  assert.deepEqual(stream.texts, ["\rEvents [########......................]  25 %  100 of 400 MB  6 s left\x1b[K"]);
  progress.end();
  assert.equal(stream.texts.at(-1), "\r\x1b[K");
});

test("a line now and then elsewhere", () => {
  const stream = makeStream();
  let now = 0;
  const progress = new Progress(stream, () => now);
  progress.begin("Events");
  for (now = 0; now < 12000; now += 100) progress.update(now * 1000, 1200e6);
  progress.end();
  assert.deepEqual(stream.texts, [
    "Events: 0 %  5 of 1200 MB  19 min 55 s left\n",
    "Events: 0 %  10 of 1200 MB  19 min 50 s left\n",
  ]);
});
