// The whole way from the two files of a log to the folder of results.
import { writeFile } from "node:fs/promises";
import { join } from "node:path";
import { readEvents } from "./aggregate.mjs";
import { Progress } from "./progress.mjs";
import { renderReport } from "./report.mjs";
import { readStacks } from "./stacks.mjs";
import { summarize } from "./summary.mjs";

const Silent = { write() {} };

/**
 * @param {string} eventsPath
 * @param {string} stacksPath
 * @param {string} folder where the results go; it exists.
 * @param {{title: string, shortLived?: number, isQuiet?: boolean}} options
 * @returns {Promise<{notes: string[], files: {path: string, purpose: string}[]}>}
 * @throws {import("./items.mjs").LogError}
 */
export async function convert(eventsPath, stacksPath, folder, { title, shortLived, isQuiet }) {
  const progress = new Progress(isQuiet ? Silent : process.stderr);
  const onProgress = (done, size) => progress.update(done, size);
  const step = async (name, work) => {
    progress.begin(name);
    try {
      return await work();
    } finally {
      progress.end();
    }
  };
  const stacks = await step("Stacks", () => readStacks(stacksPath, onProgress));
  const aggregation = await step("Events", () => readEvents(eventsPath, stacks, { shortLived, onProgress }));
  const summary = summarize(aggregation, stacks, { title });

  const files = [];
  const write = async (name, purpose, content) => {
    const path = join(folder, name);
    await writeFile(path, content);
    files.push({ path, purpose });
  };
  await write("report.html", "the report, for any browser", await renderReport(summary));
  return { notes: summary.notes, files };
}
