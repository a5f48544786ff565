// A log is read while a program writes it.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { once } from "node:events";
import { join } from "node:path";
import test from "node:test";
import { readLog } from "../src/convert.mjs";
import { LogError } from "../src/items.mjs";
import { makeFolder } from "./logs.mjs";

const Programs = process.env.MEMLOG_PROGRAMS;

test("a log that grows", { skip: !Programs && "MEMLOG_PROGRAMS names no folder" }, async (context) => {
  const folder = await makeFolder(context);
  const program = spawn(join(Programs, "leak_hunt"), [folder, "unbuffered"], { stdio: "ignore" });
  const exit = once(program, "exit");
  const read = () => readLog(join(folder, "events.json"), join(folder, "stacks.json"), { title: "" });
  const counts = [];
  while (program.exitCode === null) {
    try {
      const { summary, log } = await read();
      counts.push(summary.totals.events);
      for (const site of log.sites) assert.ok(site.isKnown, `hash ${site.hash} has no stack`);
    } catch (error) {
      // In the very beginning the files are not there, or empty.
      if (!(error instanceof LogError) || counts.length > 0) throw error;
    }
  }
  assert.deepEqual(await exit, [0, null]);
  const { totals, notes } = (await read()).summary;
  assert.deepEqual([totals.alloc, totals.free, totals.retain, totals.release], [2080, 2035, 40, 20]);
  assert.deepEqual(notes, []);
  assert.ok(new Set(counts).size > 2, `read ${counts}`);
  assert.deepEqual(
    counts,
    [...counts].sort((a, b) => a - b),
  );
});
