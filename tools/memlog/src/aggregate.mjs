// One pass over the events of a log: numbers per call stack, curves, leaks. Memory grows with the number of call stacks
// and of blocks that live at the same time, not with the number of events.
import { readItems } from "./items.mjs";
import { PeakTracker, Site } from "./sites.mjs";
import { Timeline } from "./timeline.mjs";

const Kinds = new Map([
  ["alloc", 0],
  ["free", 1],
  ["retain", 2],
  ["release", 3],
]);

const OldestPerSite = 5;

function complain(item) {
  for (const name of ["Timestamp", "Size", "HeapSize", "CSHash"])
    if (typeof item[name] !== "number") return `an event without a number "${name}"`;
  if (!Kinds.has(item.Event)) return `an event of an unknown kind, "Event": ${JSON.stringify(item.Event)}`;
  return 'an event without a hexadecimal "Address"';
}

/** Addresses are numbers where these are exact, for the speed of the map, and else the text. Undefined: no address. */
function keyOf(address) {
  if (typeof address !== "string" || !/^0x[0-9A-Fa-f]+$/.test(address)) return undefined;
  return address.length <= 15 ? Number(address) : address;
}

/** Counts events. Feed it in order, then call `finish`. */
export class Aggregation {
  /**
   * @param {import("./stacks.mjs").Stacks} stacks
   * @param {{shortLived?: number, onChange?: Function}} [options] shortLived: a block freed within so many ms counts as
   *   short-lived (10). onChange(time, address, bytes, site): called for each block that comes (bytes above
   *   0) and goes, with the site at which it does.
   */
  constructor(stacks, options = {}) {
    this.stacks = stacks;
    this.shortLived = options.shortLived ?? 10;
    this.onChange = options.onChange;
    this.sites = new Map();
    this.blocks = new Map(); // address to {site, size, time}
    this.counters = new Map(); // address of a reference count to {site, balance, time}
    this.peak = new PeakTracker();
    this.byTime = new Timeline();
    this.byEvent = new Timeline();
    this.events = [0, 0, 0, 0];
    this.liveBytes = 0;
    this.allocatedBytes = 0;
    this.heapPeak = 0;
    this.heapEnd = 0;
    this.firstTime = undefined;
    this.lastTime = 0;
    this.backwards = 0;
    this.unknownFrees = 0;
    this.lostFrees = 0;
    this.unknownReleases = 0;
    this.refused = 0;
    this.refusedBytes = 0;
    this.isCut = false;
  }

  /** Counts one event of the events file; returns what is wrong with it. */
  add(item) {
    const kind = Kinds.get(item.Event);
    const { Timestamp: stamp, Address: address, Size: size, HeapSize: heap, CSHash: hash } = item;
    const key = keyOf(address);
    const areNumbers =
      typeof stamp === "number" && typeof size === "number" && typeof heap === "number" && typeof hash === "number";
    if (kind === undefined || key === undefined || !areNumbers) return complain(item);

    if (this.firstTime === undefined) this.firstTime = this.lastTime = stamp;
    if (stamp < this.lastTime) ++this.backwards;
    const time = (this.lastTime = Math.max(this.lastTime, stamp));
    const site = this.sites.get(hash) ?? this.addSite(hash);
    if (kind === 0) this.allocate(site, key, size, time);
    else if (kind === 1) this.free(site, key, time);
    else if (kind === 2) this.retain(site, key, time);
    else this.release(site, key);

    const index = this.events[0] + this.events[1] + this.events[2] + this.events[3];
    ++this.events[kind];
    if (heap > this.heapPeak) this.heapPeak = heap;
    this.heapEnd = heap;
    this.byTime.add(time, heap, this.liveBytes, kind);
    this.byEvent.add(index, heap, this.liveBytes, kind);
  }

  addSite(hash) {
    const frames = this.stacks.find(hash);
    const site =
      frames === undefined
        ? new Site(hash, [this.stacks.intern(`(no stack in the log, hash ${hash})`, "", 0, "")], false)
        : new Site(hash, frames.length > 0 ? frames : [this.stacks.intern("(the allocator itself)", "", 0, "")], true);
    this.sites.set(hash, site);
    return site;
  }

  allocate(site, address, size, time) {
    if (address === 0) {
      ++site.refused;
      ++this.refused;
      this.refusedBytes += size;
      return;
    }
    const replaced = this.blocks.get(address);
    if (replaced !== undefined) {
      ++this.lostFrees;
      this.drop(replaced, address, time, replaced.site);
      this.blocks.delete(address); // so that the map stays in the order of allocation
    }
    this.peak.beforeChange(site);
    this.blocks.set(address, { site, size, time });
    ++site.allocations;
    site.allocatedBytes += size;
    this.allocatedBytes += size;
    site.liveBytes += size;
    this.liveBytes += size;
    if (++site.liveBlocks > site.maxLiveBlocks) site.maxLiveBlocks = site.liveBlocks;
    if (site.liveBytes > site.maxLiveBytes) site.maxLiveBytes = site.liveBytes;
    this.peak.offer(this.liveBytes, this.blocks.size, time);
    this.onChange?.(time, address, size, site);
  }

  free(site, address, time) {
    ++site.frees;
    const block = this.blocks.get(address);
    if (block === undefined) {
      ++this.unknownFrees;
      return;
    }
    this.drop(block, address, time, site);
    this.blocks.delete(address);
  }

  /** A block goes away. `place`: the site that frees it. */
  drop(block, address, time, place) {
    const { site, size } = block;
    const lifetime = time - block.time;
    this.peak.beforeChange(site);
    ++site.freedBlocks;
    site.lifetime += lifetime;
    if (lifetime < this.shortLived) {
      ++site.shortLived;
      site.shortLivedBytes += size;
    }
    --site.liveBlocks;
    site.liveBytes -= size;
    this.liveBytes -= size;
    this.onChange?.(time, address, -size, place);
  }

  retain(site, address, time) {
    ++site.retains;
    const counter = this.counters.get(address);
    if (counter === undefined) this.counters.set(address, { site, balance: 1, time });
    else ++counter.balance;
  }

  release(site, address) {
    ++site.releases;
    const counter = this.counters.get(address);
    if (counter === undefined) ++this.unknownReleases;
    else if (--counter.balance === 0) this.counters.delete(address);
  }

  /** To be called once behind the last event. Returns this. */
  finish() {
    for (const site of this.sites.values()) this.peak.finish(site);
    this.firstTime ??= 0;
    this.peak.time ??= this.firstTime;
    for (const [address, { site, size, time }] of this.blocks) {
      site.liveTime += this.lastTime - time;
      if (site.oldest.length < OldestPerSite) site.oldest.push({ address: formatAddress(address), size, time });
    }
    for (const [address, { site, balance, time }] of this.counters)
      if (++site.openCounters <= OldestPerSite) site.open.push({ address: formatAddress(address), balance, time });
    return this;
  }
}

/** Addresses as the log writes them. */
export function formatAddress(key) {
  return typeof key === "string" ? key : `0x${key.toString(16).toUpperCase()}`;
}

/**
 * Reads the events file of a log and counts it.
 * @param {string} path
 * @param {import("./stacks.mjs").Stacks} stacks
 * @param {object} [options] as of Aggregation, and onProgress and limit as of readItems.
 * @returns {Promise<Aggregation>} finished.
 * @throws {import("./items.mjs").LogError}
 */
export async function readEvents(path, stacks, options = {}) {
  const aggregation = new Aggregation(stacks, options);
  const { isCut } = await readItems(path, (item) => aggregation.add(item), options.onProgress, options.limit);
  aggregation.isCut = isCut;
  return aggregation.finish();
}
