// pprof: gzipped protocol buffers, values as in a heap profile.
import { gzipSync } from "node:zlib";
import {
  Function as PprofFunction,
  Line,
  Location,
  Mapping,
  Profile,
  Sample,
  StringTable,
  ValueType,
} from "pprof-format";

const Types = [
  ["alloc_objects", "count", "allocations"],
  ["alloc_space", "bytes", "allocatedBytes"],
  ["inuse_objects", "count", "liveBlocks"],
  ["inuse_space", "bytes", "liveBytes"],
  ["peak_objects", "count", "peakBlocks"],
  ["peak_space", "bytes", "peakBytes"],
];

/** Hands out numbers from 1 for what `make` makes, once for each key. */
class Table {
  constructor() {
    this.ids = new Map();
    this.entries = [];
  }

  idOf(key, make) {
    let id = this.ids.get(key);
    if (id === undefined) {
      id = this.entries.length + 1;
      this.ids.set(key, id);
      this.entries.push(make(id));
    }
    return id;
  }
}

/**
 * @param {{sites: import("../sites.mjs").Site[], frames: import("../stacks.mjs").Frame[], times: {first: number, last: number}}} log
 * @returns {Uint8Array} the file
 */
export function renderPprof({ sites, frames, times }) {
  const strings = new StringTable();
  const text = (value) => strings.dedup(value);
  const mappings = new Table();
  const functions = new Table();
  const locations = frames.map(({ name, file, line, module }, index) => {
    const mappingId = mappings.idOf(
      module,
      (id) => new Mapping({ id, filename: text(module), hasFunctions: true, hasFilenames: true, hasLineNumbers: true }),
    );
    const functionId = functions.idOf(
      `${name}\0${file}`,
      (id) => new PprofFunction({ id, name: text(name), systemName: text(name), filename: text(file) }),
    );
    return new Location({ id: index + 1, mappingId, line: [new Line({ functionId, line })] });
  });
  const used = sites.filter((site) => site.allocations > 0);
  const profile = new Profile({
    sampleType: Types.map(([type, unit]) => new ValueType({ type: text(type), unit: text(unit) })),
    sample: used.map(
      (site) =>
        new Sample({ locationId: site.frames.map((frame) => frame + 1), value: Types.map(([, , key]) => site[key]) }),
    ),
    mapping: mappings.entries,
    location: locations,
    function: functions.entries,
    durationNanos: BigInt(Math.round(times.last - times.first)) * 1000000n,
    defaultSampleType: text("inuse_space"),
    stringTable: strings,
  });
  return gzipSync(profile.encode());
}
