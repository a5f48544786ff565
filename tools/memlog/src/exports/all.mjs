// The list of exports: name, for what, contents.
import { renderCollapsed } from "./collapsed.mjs";
import { renderDhat } from "./dhat.mjs";
import { renderFirefox } from "./firefox.mjs";
import { Metrics } from "./metrics.mjs";
import { renderPprof } from "./pprof.mjs";
import { renderSpeedscope } from "./speedscope.mjs";

/**
 * @typedef {object} Log what the exports are made of
 * @property {import("../sites.mjs").Site[]} sites
 * @property {import("../stacks.mjs").Frame[]} frames
 * @property {string} title
 * @property {{first: number, last: number, peak: number, shortLived: number}} times in ms
 * @property {import("./changes.mjs").ChangeList} changes
 * @property {object} byTime the heap over time.
 */

/** @type {{name: string, purpose: string, render: (log: Log) => string | Uint8Array}[]} */
export const Exports = [
  { name: "speedscope.json", purpose: "for speedscope", render: renderSpeedscope },
  { name: "firefox.json.gz", purpose: "for the Firefox Profiler", render: renderFirefox },
  { name: "dhat.json", purpose: "for Valgrind's dh_view", render: renderDhat },
  { name: "heap.pb.gz", purpose: "for pprof", render: renderPprof },
  ...Metrics.slice(0, 4).map(({ key, name, file }) => ({
    name: `${file}.collapsed.txt`,
    purpose: `for flame graph scripts: ${name.toLowerCase()}`,
    render: (log) => renderCollapsed(log, key),
  })),
];
