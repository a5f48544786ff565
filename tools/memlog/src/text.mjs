// The outcome in a few lines, for the terminal.
import { formatBytes, formatCount, formatPlace, formatTime } from "../page/format.js";

const LeaksShown = 5;

function describeFrame(frame) {
  return [frame.name, formatPlace(frame) || frame.module].filter((part) => part).join(" ");
}

/**
 * @param {{summary: object, log: import("./exports/all.mjs").Log}} result of `readLog`.
 * @returns {string[]} lines: totals, the leading leaks, remarks.
 */
export function describe({ summary: { title, totals, notes }, log }) {
  const blocks = (count) => `${formatCount(count)} ${count === 1 ? "block" : "blocks"}`;
  const lines = [
    `${title}: ${formatCount(totals.events)} events in ${formatTime(totals.lastTime - totals.firstTime)}, ` +
      `call stacks: ${formatCount(totals.sites)}`,
    `at the peak: ${formatBytes(totals.peakBytes)} in ${blocks(totals.peakBlocks)}`,
    `never freed: ${formatBytes(totals.liveBytes)} in ${blocks(totals.liveBlocks)}`,
  ];
  const leaks = log.sites.filter((site) => site.liveBlocks > 0).sort((a, b) => b.liveBytes - a.liveBytes);
  for (const { liveBytes, liveBlocks, frames } of leaks.slice(0, LeaksShown))
    lines.push(`  ${formatBytes(liveBytes)} in ${blocks(liveBlocks)}: ${describeFrame(log.frames[frames[0]])}`);
  if (leaks.length > LeaksShown) lines.push(`  and ${formatCount(leaks.length - LeaksShown)} call stacks more`);
  if (totals.openCounters > 0) lines.push(`reference counts not back at zero: ${formatCount(totals.openCounters)}`);
  return [...lines, ...notes.map((note) => `note: ${note}`)];
}
