#!/usr/bin/env node
// Turns the two files of a memory event log into a report and into files that other viewers open.
import { stat } from "node:fs/promises";
import { basename, dirname, join, resolve } from "node:path";
import { parseArgs } from "node:util";
import { LogError } from "./src/items.mjs";
import { convert } from "./src/convert.mjs";

const Usage = `memlog: shows the memory event log

  node memlog.mjs FOLDER [--out FOLDER]          the folder has events.json and stacks.json
  node memlog.mjs EVENTS STACKS [--out FOLDER]

  --out FOLDER        where the report and the other files go (the folder "memlog" beside the events)
  --short-lived MS    a block that lives less than this counts as short-lived (10)
  --title TEXT        title of the report
  --quiet             say nothing but errors
`;

class UsageError extends Error {}

function readArguments() {
  const { values, positionals } = parseArgs({
    allowPositionals: true,
    options: {
      out: { type: "string" },
      "short-lived": { type: "string", default: "10" },
      title: { type: "string" },
      quiet: { type: "boolean", default: false },
      help: { type: "boolean", short: "h", default: false },
    },
  });
  if (!values.help && (positionals.length < 1 || positionals.length > 2))
    throw new UsageError("Name a folder or two files.");
  const shortLived = Number(values["short-lived"]);
  if (!(shortLived >= 0)) throw new UsageError("--short-lived needs a number of milliseconds.");
  return { ...values, shortLived, positionals };
}

async function findInputs(positionals) {
  if (positionals.length === 2) return positionals;
  const [folder] = positionals;
  const status = await stat(folder).catch(() => undefined);
  if (status === undefined) throw new LogError(`${folder} is not there.`);
  if (!status.isDirectory()) throw new UsageError("One argument names a folder; name the file of stacks, too.");
  return [join(folder, "events.json"), join(folder, "stacks.json")];
}

async function main() {
  const options = readArguments();
  if (options.help) {
    process.stdout.write(Usage);
    return;
  }
  const [events, stacks] = await findInputs(options.positionals);
  const out = options.out ?? join(dirname(events), "memlog");
  const title = options.title ?? basename(dirname(resolve(events)));
  const result = await convert(events, stacks, out, { title, shortLived: options.shortLived, isQuiet: options.quiet });
  if (options.quiet) return;
  const width = Math.max(...result.files.map(({ path }) => path.length));
  for (const line of result.outcome) console.log(line);
  for (const { path, purpose } of result.files) console.log(`${path.padEnd(width)}  ${purpose}`);
}

main().catch((error) => {
  const isUsage = error instanceof UsageError || error.code?.startsWith("ERR_PARSE_ARGS");
  if (!isUsage && !(error instanceof LogError) && error.syscall === undefined) throw error;
  console.error(`memlog: ${error.message}`);
  if (isUsage) console.error(`\n${Usage}`);
  process.exitCode = isUsage ? 2 : 1;
});
