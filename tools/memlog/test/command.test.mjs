// The command as a user types it.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { readdir, readFile, rm, writeFile } from "node:fs/promises";
import { basename, dirname, join } from "node:path";
import test from "node:test";
import { fileURLToPath } from "node:url";
import { eventsText, Events, makeFolder, makeLog } from "./logs.mjs";

const Command = join(dirname(fileURLToPath(import.meta.url)), "../memlog.mjs");

function run(...options) {
  const { status, stdout, stderr } = spawnSync(process.execPath, [Command, ...options], { encoding: "utf8" });
  return { status, stdout, stderr };
}

const Files = [
  "allocated-bytes.collapsed.txt",
  "allocations.collapsed.txt",
  "dhat.json",
  "firefox.json.gz",
  "heap.pb.gz",
  "live-bytes.collapsed.txt",
  "peak-bytes.collapsed.txt",
  "report.html",
  "speedscope.json",
];

test("a folder", async (context) => {
  const folder = await makeLog(context);
  const { status, stdout, stderr } = run(folder);
  assert.deepEqual([status, stderr], [0, ""]);
  assert.deepEqual((await readdir(join(folder, "memlog"))).sort(), Files);
  const lines = stdout.trim().split("\n");
  const name = basename(folder);
  assert.deepEqual(lines.slice(0, 9), [
    `${name}: 15 events in 90 ms, call stacks: 5`,
    "at the peak: 1.3 KB in 3 blocks",
    "never freed: 264 bytes in 2 blocks",
    "  200 bytes in 1 block: Load(std::vector<int>&) load.cpp:20",
    "  64 bytes in 1 block: (no stack in the log, hash 99)",
    "reference counts not back at zero: 1",
    "note: 1 hash has no stack in the stacks file.",
    "note: 1 free of blocks that were allocated before the log began.",
    "note: 1 allocation was refused.",
  ]);
  const report = join(folder, "memlog", "report.html");
  const longest = join(folder, "memlog", "allocated-bytes.collapsed.txt");
  assert.equal(lines[9], `${report.padEnd(longest.length)}  the report, for any browser`);
  assert.equal(lines.length, 9 + Files.length);
});

test("two files and a folder for the results, quietly", async (context) => {
  const folder = await makeLog(context);
  const out = join(folder, "deep", "out");
  assert.deepEqual(run(join(folder, "events.json"), join(folder, "stacks.json"), "--out", out, "--quiet"), {
    status: 0,
    stdout: "",
    stderr: "",
  });
  assert.deepEqual((await readdir(out)).sort(), Files);
});

test("a log that is being written", async (context) => {
  const folder = await makeLog(context);
  await writeFile(join(folder, "events.json"), eventsText(Events).slice(0, -40));
  const { status, stdout } = run(folder);
  assert.equal(status, 0);
  assert.match(
    stdout,
    /^note: The events file ends in the middle: it was being written, or it was cut\. What is there counts\.$/m,
  );
});

test("bad input says what is wrong, and leaves nothing behind", async (context) => {
  const folder = await makeLog(context);
  const events = join(folder, "events.json");
  const refuse = async (status, message, ...options) => {
    const result = run(...options);
    assert.deepEqual([result.status, result.stdout], [status, ""]);
    assert.equal(result.stderr.split("\n")[0], message);
    assert.ok(!(await readdir(folder)).includes("memlog"));
  };
  const kinds = [
    ['"Event": "alloc"', '"Event": "lost"', 'an event of an unknown kind, "Event": "lost" (line 2, item 1)'],
    ['"Size": 200', '"Size": "200"', 'an event without a number "Size" (line 3, item 2)'],
    ['"0xC0"', '"12"', 'an event without a hexadecimal "Address" (line 4, item 3)'],
    ['"CSHash": 3 ', '"Hash": 3 ', 'an event without a number "CSHash" (line 6, item 5)'],
  ];
  for (const [good, bad, message] of kinds) {
    await writeFile(events, eventsText().replace(good, bad));
    await refuse(1, `memlog: ${events} is no memory event log: ${message}.`, folder);
  }
  await writeFile(events, eventsText());
  const stacks = join(folder, "stacks.json");
  await refuse(
    1,
    `memlog: ${events} is no memory event log: a stack without "CSHash" or "Stack" (line 2, item 1).`,
    stacks,
    events,
  );
  await writeFile(stacks, '{ "Data": [{ "CSHash": 1, "Stack": [{ "Module": "m" }] }]}');
  await refuse(
    1,
    `memlog: ${stacks} is no memory event log: a frame without "Module", "Symbol", "File" or "Line" (line 1, item 1).`,
    folder,
  );
  await rm(stacks);
  await refuse(1, `memlog: ${stacks} is not there.`, folder);
  await refuse(1, `memlog: ${folder}x is not there.`, `${folder}x`);
  await refuse(2, "memlog: Name a folder or two files.");
  await refuse(2, "memlog: One argument names a folder; name the file of stacks, too.", events);
  await refuse(2, "memlog: --short-lived needs a number of milliseconds.", folder, "--short-lived", "soon");
});

test("--help", () => {
  const { status, stdout } = run("--help");
  assert.equal(status, 0);
  assert.match(stdout, /node memlog\.mjs FOLDER/);
});

test("the title is the folder's name unless another is given", async (context) => {
  const folder = await makeFolder(context, { "events.json": eventsText([]), "stacks.json": '{ "Data": [\n]}\n' });
  run(folder);
  const read = async () => JSON.parse(await readFile(join(folder, "memlog", "speedscope.json"), "utf8")).name;
  assert.equal(await read(), basename(folder));
  run(folder, "--title", "game");
  assert.equal(await read(), "game");
});
