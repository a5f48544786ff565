// The call stacks of a memory event log: frames interned, hashes looked up.
import { readItems } from "./items.mjs";

/** Undoes what the log does to the markup characters of a symbol name. */
function unescapeMarkup(text) {
  return text.includes("&") ? text.replace(/&lt;/g, "<").replace(/&gt;/g, ">").replace(/&amp;/g, "&") : text;
}

/** "a/b/../c" is "a/c"; backslashes become slashes. What leads out of a relative path stays. */
export function simplifyPath(path) {
  const parts = [];
  for (const part of path.replace(/\\/g, "/").split("/")) {
    if (part === ".." && parts.length > 0 && parts.at(-1) !== ".." && parts.at(-1) !== "") parts.pop();
    else if (part !== ".") parts.push(part);
  }
  return parts.join("/");
}

function isFrame(frame) {
  return (
    frame !== null &&
    typeof frame === "object" &&
    typeof frame.Module === "string" &&
    typeof frame.Symbol === "string" &&
    typeof frame.File === "string" &&
    Number.isInteger(frame.Line)
  );
}

/**
 * One place in the code, shared by all stacks it is part of.
 * @typedef {{name: string, file: string, line: number, module: string}} Frame file: "" when unknown; line: 0 when unknown
 */

/** All call stacks of a log. */
export class Stacks {
  constructor() {
    /** @type {Frame[]} */
    this.frames = [];
    /** Number of hashes that came twice with different frames; the first one is kept. */
    this.conflicts = 0;
    this.isCut = false;
    this.byHash = new Map(); // hash to indices into frames, the innermost first
    this.frameIndices = new Map();
  }

  /** Index of a frame, which is added when it is new. */
  intern(name, file, line, module) {
    const key = `${name}\0${file}\0${line}\0${module}`;
    let index = this.frameIndices.get(key);
    if (index === undefined) {
      index = this.frames.push({ name, file, line, module }) - 1;
      this.frameIndices.set(key, index);
    }
    return index;
  }

  /** Takes one item of the stacks file; returns what is wrong with it. */
  add(item) {
    if (!Number.isInteger(item.CSHash) || !Array.isArray(item.Stack)) return 'a stack without "CSHash" or "Stack"';
    if (!item.Stack.every(isFrame)) return 'a frame without "Module", "Symbol", "File" or "Line"';
    const indices = item.Stack.map((frame) => {
      const file = frame.File === "unknown_file" ? "" : simplifyPath(frame.File);
      const name = unescapeMarkup(frame.Symbol) || `(no name in ${frame.Module || "an unknown module"})`;
      return this.intern(name, file, frame.Line, frame.Module);
    });
    const known = this.byHash.get(item.CSHash);
    if (known === undefined) this.byHash.set(item.CSHash, indices);
    else if (known.join() !== indices.join()) ++this.conflicts;
  }

  /**
   * Frames of a hash, the innermost first, as indices into `frames`; undefined when the log has no such stack.
   * @returns {number[] | undefined}
   */
  find(hash) {
    return this.byHash.get(hash);
  }
}

/**
 * Reads the stacks file of a log.
 * @param {string} path
 * @param {(done: number, size: number) => void} [onProgress]
 * @returns {Promise<Stacks>}
 * @throws {import("./items.mjs").LogError}
 */
export async function readStacks(path, onProgress) {
  const stacks = new Stacks();
  const { isCut } = await readItems(path, (item) => stacks.add(item), onProgress);
  stacks.isCut = isCut;
  return stacks;
}
