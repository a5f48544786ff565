import assert from "node:assert/strict";
import { join } from "node:path";
import test from "node:test";
import { gunzipSync } from "node:zlib";
import { Profile } from "pprof-format";
import { readLog } from "../src/convert.mjs";
import { ChangeList } from "../src/exports/changes.mjs";
import { renderCollapsed } from "../src/exports/collapsed.mjs";
import { renderDhat } from "../src/exports/dhat.mjs";
import { makeFirefoxProfile, renderFirefox } from "../src/exports/firefox.mjs";
import { renderPprof } from "../src/exports/pprof.mjs";
import { renderSpeedscope } from "../src/exports/speedscope.mjs";
import { makeLog } from "./logs.mjs";

async function read(context) {
  const folder = await makeLog(context);
  const { log } = await readLog(join(folder, "events.json"), join(folder, "stacks.json"), { title: "game" });
  return log;
}

test("collapsed stacks", async (context) => {
  const log = await read(context);
  assert.equal(
    renderCollapsed(log, "liveBytes"),
    "main;Load(std::vector<int>&) 200\n(no stack in the log, hash 99) 64\n",
  );
  assert.equal(renderCollapsed(log, "peakBytes"), "main;Load(std::vector<int>&) 300\nmain;Draw 1000\n");
  assert.equal(renderCollapsed(log, "retains"), "main;Draw;Share 3\n");
  const odd = {
    sites: [
      { frames: [0, 1], liveBytes: 1 },
      { frames: [0, 1], liveBytes: 2 },
    ],
    frames: [{ name: "a;b\nc" }, { name: "m n" }],
  };
  assert.equal(renderCollapsed(odd, "liveBytes"), "m n;a:b c 3\n");
});

test("speedscope", async (context) => {
  const file = JSON.parse(renderSpeedscope(await read(context)));
  assert.equal(file.$schema, "https://www.speedscope.app/file-format-schema.json");
  assert.deepEqual(
    file.profiles.map(({ name, unit, endValue }) => [name, unit, endValue]),
    [
      ["Bytes at the end", "bytes", 264],
      ["Bytes at the peak", "bytes", 1300],
      ["Bytes allocated", "bytes", 2364],
      ["Allocations", "none", 5],
      ["Short-lived blocks", "none", 2],
      ["Retains", "none", 3],
    ],
  );
  const [live, peak] = file.profiles;
  const name = (stack) => stack.map((frame) => file.shared.frames[frame].name);
  assert.deepEqual(live.samples.map(name), [["main", "Load(std::vector<int>&)"], ["(no stack in the log, hash 99)"]]);
  assert.deepEqual(live.weights, [200, 64]);
  assert.deepEqual(peak.samples.map(name), [
    ["main", "Draw"],
    ["main", "Load(std::vector<int>&)"],
  ]);
  assert.deepEqual(peak.weights, [1000, 300]);
  assert.deepEqual(file.shared.frames.slice(0, 3), [
    { name: "Load(std::vector<int>&)", file: "/game/load.cpp", line: 20 },
    { name: "main", file: "C:/game/main.cpp", line: 10 },
    { name: "Draw", file: "/game/draw.cpp", line: 30 },
  ]);
  assert.deepEqual(file.shared.frames[3], { name: "Share" });
});

test("DHAT", async (context) => {
  const file = JSON.parse(renderDhat(await read(context)));
  const { pps, ftbl, ...head } = file;
  assert.deepEqual(head, {
    dhatFileVersion: 2,
    mode: "memory event log",
    verb: "Allocated",
    bklt: true,
    bkacc: false,
    tu: "ms",
    Mtu: "ks",
    tuth: 10,
    cmd: "game",
    pid: 0,
    te: 90,
    tg: 4,
  });
  assert.deepEqual(ftbl.slice(0, 5), [
    "[root]",
    "Load(std::vector<int>&) (/game/load.cpp:20)",
    "main (C:/game/main.cpp:10)",
    "Draw (/game/draw.cpp:30)",
    "Share (in engine)",
  ]);
  assert.deepEqual(pps, [
    // 50 ms of the freed block, 89 of the one that stays
    { tb: 300, tbk: 2, tl: 139, mb: 300, mbk: 2, gb: 300, gbk: 2, eb: 200, ebk: 1, fs: [1, 2] },
    { tb: 2000, tbk: 2, tl: 1, mb: 1000, mbk: 1, gb: 1000, gbk: 1, eb: 0, ebk: 0, fs: [3, 2] },
    { tb: 64, tbk: 1, tl: 10, mb: 64, mbk: 1, gb: 0, gbk: 0, eb: 64, ebk: 1, fs: [5] },
  ]);
  assert.equal(ftbl[5], "(no stack in the log, hash 99)");
});

test("pprof", async (context) => {
  const profile = Profile.decode(gunzipSync(renderPprof(await read(context))));
  const text = (index) => profile.stringTable.strings[Number(index)];
  assert.deepEqual(
    profile.sampleType.map(({ type, unit }) => `${text(type)}/${text(unit)}`),
    [
      "alloc_objects/count",
      "alloc_space/bytes",
      "inuse_objects/count",
      "inuse_space/bytes",
      "peak_objects/count",
      "peak_space/bytes",
    ],
  );
  const functionOf = (id) => {
    const location = profile.location.find((each) => Number(each.id) === Number(id));
    const { functionId, line } = location.line[0];
    const made = profile.function.find((each) => Number(each.id) === Number(functionId));
    return `${text(made.name)} ${text(made.filename)}:${line}`;
  };
  assert.deepEqual(
    profile.sample.map((sample) => [sample.locationId.map(functionOf), sample.value.map(Number)]),
    [
      [
        ["Load(std::vector<int>&) /game/load.cpp:20", "main C:/game/main.cpp:10"],
        [2, 300, 1, 200, 2, 300],
      ],
      [
        ["Draw /game/draw.cpp:30", "main C:/game/main.cpp:10"],
        [2, 2000, 0, 0, 1, 1000],
      ],
      [["(no stack in the log, hash 99) :0"], [1, 64, 1, 64, 0, 0]],
    ],
  );
  assert.equal(text(profile.defaultSampleType), "inuse_space");
  assert.equal(Number(profile.durationNanos), 90e6);
});

/** Checks what the format promises of tables: columns of one length, indices that lead somewhere, parents before children. */
function checkFirefoxThread(thread, libs, strings) {
  const isIndex = (value, length) => Number.isInteger(value) && value >= 0 && value < length;
  const tables = [
    "samples",
    "nativeAllocations",
    "markers",
    "stackTable",
    "frameTable",
    "funcTable",
    "resourceTable",
    "nativeSymbols",
  ];
  for (const name of tables)
    for (const [column, values] of Object.entries(thread[name]))
      if (Array.isArray(values)) assert.equal(values.length, thread[name].length, `${name}.${column}`);
  const { stackTable, frameTable, funcTable, resourceTable, nativeAllocations } = thread;
  stackTable.frame.forEach((frame) => assert.ok(isIndex(frame, frameTable.length)));
  stackTable.prefix.forEach((prefix, index) => assert.ok(prefix === null || isIndex(prefix, index)));
  frameTable.func.forEach((func) => assert.ok(isIndex(func, funcTable.length)));
  funcTable.name.forEach((name) => assert.ok(isIndex(name, strings.length)));
  funcTable.fileName.forEach((name) => assert.ok(name === null || isIndex(name, strings.length)));
  funcTable.resource.forEach((resource) => assert.ok(resource === -1 || isIndex(resource, resourceTable.length)));
  resourceTable.lib.forEach((lib) => assert.ok(isIndex(lib, libs.length)));
  nativeAllocations.stack.forEach((stack) => assert.ok(isIndex(stack, stackTable.length)));
}

test("Firefox Profiler", async (context) => {
  const log = await read(context);
  const profile = JSON.parse(gunzipSync(renderFirefox(log)));
  const [thread] = profile.threads;
  const strings = profile.shared.stringArray;
  checkFirefoxThread(thread, profile.libs, strings);
  assert.equal(profile.meta.preprocessedProfileVersion, 57);

  const { time, weight, stack, memoryAddress, weightType } = thread.nativeAllocations;
  assert.equal(weightType, "bytes");
  assert.deepEqual(time, [0, 1, 4, 5, 50, 60, 60, 80]);
  assert.deepEqual(weight, [100, 200, 1000, -1000, -100, 1000, -1000, 64]);
  assert.deepEqual(memoryAddress, [0xa0, 0xb0, 0xc0, 0xc0, 0xa0, 0xc0, 0xc0, 0x7ffffffffffffff0]);
  const names = (index) => {
    const result = [];
    for (; index !== null; index = thread.stackTable.prefix[index]) {
      const func = thread.frameTable.func[thread.stackTable.frame[index]];
      result.push(strings[thread.funcTable.name[func]]);
    }
    return result;
  };
  assert.deepEqual(names(stack[0]), ["Load(std::vector<int>&)", "main"]);
  assert.deepEqual(names(stack[4]), ["Draw", "main"]); // where it was freed

  const [counter] = profile.counters;
  assert.deepEqual([counter.name, counter.category, counter.samples.length], ["malloc", "Memory", 91]);
  let heap = 0;
  const curve = counter.samples.count.map((count) => (heap += count));
  assert.deepEqual([curve[0], curve[1], curve[4], curve[5], curve[90]], [5100, 5300, 6300, 5300, 5264]);
  assert.deepEqual([counter.samples.time[0], counter.samples.time[90]], [0, 90]);
});

test("a long log leaves whole blocks out of the list of changes", () => {
  const changes = new ChangeList(100);
  for (let index = 0; index < 1000; ++index) {
    changes.add(index, 4096 + 16 * index, 50, "made");
    if (index % 2 === 0) changes.add(index, 4096 + 16 * index, -50, "freed");
  }
  assert.ok(changes.length > 25 && changes.length <= 100, `${changes.length} changes`);
  assert.ok(changes.step >= 16, `one of ${changes.step}`);
  const balance = new Map();
  changes.addresses.forEach((address, index) =>
    balance.set(address, (balance.get(address) ?? 0) + changes.bytes[index]),
  );
  for (const [address, bytes] of balance) assert.equal(bytes, ((address - 4096) / 16) % 2 === 0 ? 0 : 50);
  // 500 blocks of 50 bytes stay; the scaled weights estimate that
  const estimate = changes.step * changes.bytes.reduce((sum, bytes) => sum + bytes, 0);
  assert.ok(estimate > 12500 && estimate < 50000, `${estimate} bytes`);
  const profile = makeFirefoxProfile({
    frames: [],
    title: "",
    times: { first: 0, last: 1 },
    changes: new ChangeList(),
    byTime: { at: [], heap: [] },
  });
  assert.equal(profile.threads[0].nativeAllocations.length, 0);
});
