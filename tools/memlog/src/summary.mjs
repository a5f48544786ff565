// What the page of the report shows, as plain data.
import { Site } from "./sites.mjs";

const Sums = [
  "allocations",
  "allocatedBytes",
  "freedBlocks",
  "lifetime",
  "shortLived",
  "shortLivedBytes",
  "liveBlocks",
  "liveBytes",
  "maxLiveBlocks",
  "maxLiveBytes",
  "peakBlocks",
  "peakBytes",
  "frees",
  "refused",
  "retains",
  "releases",
  "openCounters",
];

const Ranks = ["liveBytes", "peakBytes", "allocatedBytes", "allocations", "shortLived", "retains"];

/** The sites that lead in any respect, at most about `limit`. The numbers of the others add up in one more. */
function selectSites(sites, limit) {
  if (sites.length <= limit) return { sites, hidden: 0 };
  const share = Math.ceil(limit / Ranks.length);
  const chosen = new Set();
  for (const rank of Ranks) {
    const best = [...sites].sort((a, b) => b[rank] - a[rank]).slice(0, share);
    for (const site of best) chosen.add(site);
  }
  const other = new Site(0, [], true);
  for (const site of sites) if (!chosen.has(site)) for (const name of Sums) other[name] += site[name];
  return { sites: [...chosen, other], hidden: sites.length - chosen.size };
}

/** The frames that the sites have, and the sites' stacks as indices into these. */
function selectFrames(sites, frames) {
  const used = [];
  const newIndices = new Map();
  const renumber = (frame) => {
    if (!newIndices.has(frame)) newIndices.set(frame, used.push(frames[frame]) - 1);
    return newIndices.get(frame);
  };
  const stacks = sites.map((site) => site.frames.map(renumber));
  return { stacks, frames: used.map(({ name, file, line, module }) => [name, file, line, module]) };
}

const OtherSites = "(other call stacks)";

function plural(count, one, many = `${one}s`) {
  return `${count.toLocaleString("en-US")} ${count === 1 ? one : many}`;
}

/** Remarks about the log itself, in words. */
export function describeLog(aggregation, stacks, hidden) {
  const notes = [];
  const add = (count, text) => count > 0 && notes.push(text);
  const unknown = [...aggregation.sites.values()].filter((site) => !site.isKnown).length;
  if (aggregation.isCut)
    notes.push("The events file ends in the middle: it was being written, or it was cut. What is there counts.");
  if (stacks.isCut)
    notes.push("The stacks file ends in the middle: it was being written, or it was cut. What is there counts.");
  add(unknown, `${plural(unknown, "hash has", "hashes have")} no stack in the stacks file.`);
  add(
    stacks.conflicts,
    `${plural(stacks.conflicts, "hash stands", "hashes stand")} for two stacks; the first one counts.`,
  );
  add(
    aggregation.unknownFrees,
    `${plural(aggregation.unknownFrees, "free")} of blocks that were allocated before the log began.`,
  );
  add(
    aggregation.unknownReleases,
    `${plural(aggregation.unknownReleases, "release")} of counters that were not retained in the log.`,
  );
  add(
    aggregation.lostFrees,
    `${plural(aggregation.lostFrees, "block was", "blocks were")} allocated at an address that was still taken: the free before it is missing.`,
  );
  add(aggregation.refused, `${plural(aggregation.refused, "allocation was", "allocations were")} refused.`);
  add(
    aggregation.backwards,
    `${plural(aggregation.backwards, "event is", "events are")} older than the one before; they count at its time.`,
  );
  add(hidden, `${plural(hidden, "call stack")} with small numbers are shown as one, "${OtherSites}".`);
  return notes;
}

/**
 * @param {import("./aggregate.mjs").Aggregation} aggregation finished.
 * @param {import("./stacks.mjs").Stacks} stacks
 * @param {{title: string, siteLimit?: number}} options
 * @returns {object} plain data, ready for JSON.
 */
export function summarize(aggregation, stacks, { title, siteLimit = 20000 }) {
  const { sites, hidden } = selectSites([...aggregation.sites.values()], siteLimit);
  if (hidden > 0) sites.at(-1).frames = [stacks.intern(OtherSites, "", 0, "")];
  const selected = selectFrames(sites, stacks.frames);
  const [alloc, free, retain, release] = aggregation.events;
  const totals = {
    events: alloc + free + retain + release,
    alloc,
    free,
    retain,
    release,
    sites: aggregation.sites.size,
    allocatedBytes: aggregation.allocatedBytes,
    liveBytes: aggregation.liveBytes,
    liveBlocks: aggregation.blocks.size,
    peakBytes: aggregation.peak.bytes,
    peakBlocks: aggregation.peak.blocks,
    peakTime: aggregation.peak.time,
    heapPeak: aggregation.heapPeak,
    heapEnd: aggregation.heapEnd,
    firstTime: aggregation.firstTime,
    lastTime: aggregation.lastTime,
    shortLivedMs: aggregation.shortLived,
    openCounters: aggregation.counters.size,
  };
  return {
    title,
    notes: describeLog(aggregation, stacks, hidden),
    totals,
    byTime: aggregation.byTime.toObject(),
    byEvent: aggregation.byEvent.toObject(),
    frames: selected.frames,
    sites: {
      ...Object.fromEntries(["hash", ...Sums].map((name) => [name, sites.map((site) => site[name])])),
      frames: selected.stacks,
      oldest: sites.map((site) => site.oldest),
      open: sites.map((site) => site.open),
    },
  };
}
