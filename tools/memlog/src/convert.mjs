// The whole way from the two files of a log to the folder of results.
import { mkdir, writeFile } from "node:fs/promises";
import { join } from "node:path";
import { readEvents } from "./aggregate.mjs";
import { Exports } from "./exports/all.mjs";
import { ChangeList } from "./exports/changes.mjs";
import { measureFile } from "./items.mjs";
import { Progress } from "./progress.mjs";
import { renderReport } from "./report.mjs";
import { readStacks } from "./stacks.mjs";
import { describe } from "./text.mjs";
import { summarize } from "./summary.mjs";

const Silent = { write() {} };

/**
 * Reads both files of a log.
 * @param {string} eventsPath
 * @param {string} stacksPath
 * @param {{title: string, shortLived?: number, progress?: Progress}} options
 * @returns {Promise<{summary: object, log: import("./exports/all.mjs").Log}>} what the report and the exports are made of.
 * @throws {import("./items.mjs").LogError}
 */
export async function readLog(eventsPath, stacksPath, { title, shortLived, progress = new Progress(Silent) }) {
  const onProgress = (done, size) => progress.update(done, size);
  const step = async (name, work) => {
    progress.begin(name);
    try {
      return await work();
    } finally {
      progress.end();
    }
  };
  // The stack of an event is written before the event: what is there of the events now has its stacks then.
  const limit = await measureFile(eventsPath);
  const stacks = await step("Stacks", () => readStacks(stacksPath, onProgress));
  const changes = new ChangeList();
  const onChange = (...change) => changes.add(...change);
  const aggregation = await step("Events", () =>
    readEvents(eventsPath, stacks, { shortLived, onChange, onProgress, limit }),
  );
  const summary = summarize(aggregation, stacks, { title });
  const log = {
    sites: [...aggregation.sites.values()],
    frames: stacks.frames,
    title,
    times: {
      first: aggregation.firstTime,
      last: aggregation.lastTime,
      peak: aggregation.peak.time,
      shortLived: aggregation.shortLived,
    },
    changes,
    byTime: summary.byTime,
  };
  return { summary, log };
}

/**
 * Reads both files of a log and writes the report and all exports.
 * @param {string} eventsPath
 * @param {string} stacksPath
 * @param {string} folder where the results go; made when it is not there.
 * @param {{title: string, shortLived?: number, isQuiet?: boolean}} options
 * @returns {Promise<{outcome: string[], files: {path: string, purpose: string}[]}>} outcome: lines for the terminal.
 * @throws {import("./items.mjs").LogError}
 */
export async function convert(eventsPath, stacksPath, folder, { title, shortLived, isQuiet }) {
  const progress = new Progress(isQuiet ? Silent : process.stderr);
  const { summary, log } = await readLog(eventsPath, stacksPath, { title, shortLived, progress });
  await mkdir(folder, { recursive: true });
  const files = [];
  const write = async (name, purpose, content) => {
    const path = join(folder, name);
    await writeFile(path, content);
    files.push({ path, purpose });
  };
  await write("report.html", "the report, for any browser", await renderReport(summary));
  for (const { name, purpose, render } of Exports) await write(name, purpose, render(log));
  return { outcome: describe({ summary, log }), files };
}
