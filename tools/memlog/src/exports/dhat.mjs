// The format of dh_view, the viewer of Valgrind's DHAT. Times are milliseconds from the log's beginning.

function describe({ name, file, line, module }) {
  const place = file ? (line > 0 ? `${file}:${line}` : file) : module && `in ${module}`;
  return place ? `${name} (${place})` : name;
}

/**
 * @param {{sites: import("../sites.mjs").Site[], frames: import("../stacks.mjs").Frame[], title: string, times:
 *   {first: number, last: number, peak: number, shortLived: number}}} log
 * @returns {string} JSON
 */
export function renderDhat({ sites, frames, title, times }) {
  return JSON.stringify({
    dhatFileVersion: 2,
    mode: "memory event log",
    verb: "Allocated",
    bklt: true,
    bkacc: false,
    tu: "ms",
    Mtu: "ks",
    tuth: times.shortLived,
    cmd: title,
    pid: 0,
    te: times.last - times.first,
    tg: times.peak - times.first,
    pps: sites
      .filter((site) => site.allocations > 0)
      .map((site) => ({
        tb: site.allocatedBytes,
        tbk: site.allocations,
        tl: site.lifetime + site.liveTime,
        mb: site.maxLiveBytes,
        mbk: site.maxLiveBlocks,
        gb: site.peakBytes,
        gbk: site.peakBlocks,
        eb: site.liveBytes,
        ebk: site.liveBlocks,
        fs: site.frames.map((frame) => frame + 1),
      })),
    ftbl: ["[root]", ...frames.map(describe)],
  });
}
