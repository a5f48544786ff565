// What is counted per call stack.

/** All that the log tells about one call stack ("site": a place that allocates, with all its callers). */
export class Site {
  constructor(hash, frames, isKnown) {
    this.hash = hash;
    /** Indices of frames, the innermost first. */
    this.frames = frames;
    /** False when the stacks file has no such hash. */
    this.isKnown = isKnown;
    this.allocations = 0;
    this.allocatedBytes = 0;
    /** Blocks from here that were freed again, wherever that happened. */
    this.freedBlocks = 0;
    this.lifetime = 0; // of these, sum, ms
    this.liveTime = 0; // of the blocks live at the end, sum, ms
    this.shortLived = 0;
    this.shortLivedBytes = 0;
    this.liveBlocks = 0;
    this.liveBytes = 0;
    this.maxLiveBlocks = 0;
    this.maxLiveBytes = 0;
    /** At the moment at which all sites together held most. */
    this.peakBlocks = 0;
    this.peakBytes = 0;
    this.peakEpoch = 0;
    /** Frees that happened here, of whosever blocks. */
    this.frees = 0;
    this.refused = 0;
    this.retains = 0;
    this.releases = 0;
    /** Counters first retained here that were not released as often as retained. */
    this.openCounters = 0;
    /** The first of these: {address, balance, time}. */
    this.open = [];
    /** Oldest blocks of this site that are live at the end: {address, size, time}. */
    this.oldest = [];
  }
}

/**
 * The peak of a sum over many sites, with what each site contributed to it, at constant cost per event: a site keeps its
 * share when it first changes after a peak.
 */
export class PeakTracker {
  constructor() {
    this.epoch = 0;
    this.bytes = 0;
    this.blocks = 0;
    this.time = undefined;
  }

  /** To be called before the live numbers of a site change. */
  beforeChange(site) {
    if (site.peakEpoch === this.epoch) return;
    site.peakEpoch = this.epoch;
    site.peakBytes = site.liveBytes;
    site.peakBlocks = site.liveBlocks;
  }

  /** To be called after every growth of the sum. */
  offer(bytes, blocks, time) {
    if (bytes <= this.bytes) return;
    this.bytes = bytes;
    this.blocks = blocks;
    this.time = time;
    ++this.epoch;
  }

  /** To be called at the end, for every site. */
  finish(site) {
    this.beforeChange(site);
  }
}
