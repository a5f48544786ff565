// The processed profile format of the Firefox Profiler, version 57: one thread with every allocation and free ("native
// allocations"), and the heap size as memory track.
import { gzipSync } from "node:zlib";

const Version = 57;
const Pid = "1";

class Strings {
  constructor() {
    this.array = [];
    this.indices = new Map();
  }

  indexOf(text) {
    let index = this.indices.get(text);
    if (index === undefined) {
      index = this.array.push(text) - 1;
      this.indices.set(text, index);
    }
    return index;
  }
}

function makeTable(...columns) {
  return { ...Object.fromEntries(columns.map((name) => [name, []])), length: 0 };
}

/** Appends a row and returns its index. */
function addRow(table, row) {
  for (const [name, value] of Object.entries(row)) table[name].push(value);
  return table.length++;
}

/** Functions, frames and stacks of one thread. */
class Tables {
  constructor(frames, strings) {
    this.frames = frames;
    this.strings = strings;
    this.libs = [];
    this.resources = makeTable("lib", "name", "host", "type");
    this.funcs = makeTable("name", "isJS", "relevantForJS", "resource", "fileName", "lineNumber", "columnNumber");
    this.frameTable = makeTable(
      "address",
      "inlineDepth",
      "category",
      "subcategory",
      "func",
      "nativeSymbol",
      "innerWindowID",
      "line",
      "column",
    );
    this.stacks = makeTable("frame", "prefix");
    this.resourceOf = new Map();
    this.funcOf = new Map();
    this.frameOf = new Map();
    this.stackOf = new Map();
    this.siteStack = new Map();
  }

  /** Index of a site's stack. */
  findStack(site) {
    let stack = this.siteStack.get(site);
    if (stack === undefined) {
      stack = null;
      for (let index = site.frames.length - 1; index >= 0; --index) stack = this.addStack(stack, site.frames[index]);
      this.siteStack.set(site, stack);
    }
    return stack;
  }

  addStack(prefix, frame) {
    return this.once(this.stackOf, `${prefix} ${frame}`, () =>
      addRow(this.stacks, { frame: this.addFrame(frame), prefix }),
    );
  }

  addFrame(frame) {
    return this.once(this.frameOf, frame, () => {
      const { line } = this.frames[frame];
      const func = this.addFunction(this.frames[frame]);
      return addRow(this.frameTable, {
        address: -1,
        inlineDepth: 0,
        category: 0,
        subcategory: 0,
        func,
        nativeSymbol: null,
        innerWindowID: 0,
        line: line > 0 ? line : null,
        column: null,
      });
    });
  }

  addFunction({ name, file, module }) {
    return this.once(this.funcOf, `${name}\0${file}\0${module}`, () =>
      addRow(this.funcs, {
        name: this.strings.indexOf(name),
        isJS: false,
        relevantForJS: false,
        resource: this.addResource(module),
        fileName: file ? this.strings.indexOf(file) : null,
        lineNumber: null,
        columnNumber: null,
      }),
    );
  }

  addResource(module) {
    if (!module) return -1;
    return this.once(this.resourceOf, module, () => {
      const lib = {
        arch: "",
        name: module,
        path: module,
        debugName: module,
        debugPath: module,
        breakpadId: "",
        codeId: null,
      };
      return addRow(this.resources, {
        lib: this.libs.push(lib) - 1,
        name: this.strings.indexOf(module),
        host: null,
        type: 1,
      });
    });
  }

  once(map, key, make) {
    let index = map.get(key);
    if (index === undefined) {
      index = make();
      map.set(key, index);
    }
    return index;
  }
}

function renderCounter({ at, heap }, first) {
  const counts = heap.map((size, index) => size - (index > 0 ? heap[index - 1] : 0));
  return {
    name: "malloc",
    category: "Memory",
    description: "Heap size as the memory manager reported it",
    pid: Pid,
    mainThreadIndex: 0,
    samples: { time: at.map((time) => time - first), count: counts, length: at.length },
  };
}

function renderAllocations(changes, tables, first) {
  return {
    time: changes.times.map((time) => time - first),
    weight: changes.bytes.map((bytes) => bytes * changes.step),
    weightType: "bytes",
    stack: changes.sites.map((site) => tables.findStack(site)),
    memoryAddress: changes.addresses,
    threadId: changes.times.map(() => 0),
    length: changes.length,
  };
}

/**
 * @param {{frames: import("../stacks.mjs").Frame[], title: string, times: {first: number, last: number},
 *   changes: import("./changes.mjs").ChangeList, byTime: object}} log
 * @returns {object} the profile, ready for JSON.
 */
export function makeFirefoxProfile({ frames, title, times, changes, byTime }) {
  const strings = new Strings();
  const tables = new Tables(frames, strings);
  const end = times.last - times.first;
  const nativeAllocations = renderAllocations(changes, tables, times.first);
  const thread = {
    processType: "default",
    processStartupTime: 0,
    processShutdownTime: null,
    registerTime: 0,
    unregisterTime: null,
    pausedRanges: [],
    name: changes.step > 1 ? `Allocations (one block of ${changes.step}, weights scaled)` : "Allocations",
    isMainThread: true,
    processName: title,
    pid: Pid,
    tid: 1,
    samples: { stack: [null, null], time: [0, end], weight: null, weightType: "samples", length: 2 },
    nativeAllocations,
    markers: makeTable("data", "name", "startTime", "endTime", "phase", "category"),
    stackTable: tables.stacks,
    frameTable: tables.frameTable,
    funcTable: tables.funcs,
    resourceTable: tables.resources,
    nativeSymbols: makeTable("libIndex", "address", "name", "functionSize"),
  };
  return {
    meta: {
      interval: 1,
      startTime: 0,
      processType: 0,
      product: title,
      importedFrom: "memory event log",
      stackwalk: 1,
      version: 31,
      preprocessedProfileVersion: Version,
      symbolicated: true,
      symbolicationNotSupported: true,
      usesOnlyOneStackType: true,
      sourceCodeIsNotOnSearchfox: true,
      categories: [{ name: "Other", color: "grey", subcategories: ["Other"] }],
      markerSchema: [],
    },
    libs: tables.libs,
    counters: [renderCounter(byTime, times.first)],
    shared: { stringArray: strings.array },
    threads: [thread],
  };
}

/** The file of `makeFirefoxProfile`'s profile. */
export function renderFirefox(log) {
  return gzipSync(JSON.stringify(makeFirefoxProfile(log)), { level: 4 });
}
