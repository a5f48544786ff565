// Streams the items of a JSON document `{ "Data": [ {...}, {...} ] }`, however it is laid out and however large it is.
import { open } from "node:fs/promises";
import { StringDecoder } from "node:string_decoder";

const ChunkSize = 1 << 20;
const LongestItem = 64 << 20;
const Opening = /^\uFEFF?\s*\{\s*"Data"\s*:\s*\[/;
const OpeningMax = 1024;

/** What is wrong with an input file, in words for the one who chose it. */
export class LogError extends Error {}

/** Index behind the whitespace that starts at `index`. */
function skipSpace(text, index) {
  for (; index < text.length; ++index) {
    const code = text.charCodeAt(index);
    if (code !== 0x20 && code !== 0x0a && code !== 0x0d && code !== 0x09) break;
  }
  return index;
}

/** Index behind the closing quote of the string that opens at `index`; -1 when it is not in the text. */
function skipString(text, index) {
  for (;;) {
    index = text.indexOf('"', index + 1);
    if (index < 0) return -1;
    let backslashes = 0;
    while (text.charCodeAt(index - 1 - backslashes) === 0x5c) ++backslashes;
    if (backslashes % 2 === 0) return index + 1;
  }
}

/** Index behind the object that opens at `index`; -1 when its end is not in the text. */
function skipObject(text, index) {
  let depth = 0;
  while (index < text.length) {
    const code = text.charCodeAt(index);
    if (code === 0x22) {
      index = skipString(text, index);
      if (index < 0) return -1;
      continue;
    }
    ++index;
    if (code === 0x7b || code === 0x5b) ++depth;
    else if (code === 0x7d || code === 0x5d) {
      if (--depth === 0) return index;
    }
  }
  return -1;
}

/** Cuts the text of a document, handed over piece by piece, into its items. Strict: what it accepts is JSON. */
class ItemParser {
  constructor(onItem) {
    this.onItem = onItem;
    this.text = "";
    this.passed = 0; // characters before `text`
    this.state = "opening";
    this.count = 0;
  }

  /** Takes more text and reports every item that is whole. */
  push(more) {
    this.text += more;
    let index = 0;
    if (this.state === "opening") index = this.parseOpening();
    if (this.state === "items") index = this.parseItems(index);
    if (this.state === "closing" || this.state === "end") index = this.parseEnd(index);
    this.text = this.text.slice(index);
    this.passed += index;
    if (this.text.length > LongestItem) this.fail(0, "an item that does not end");
  }

  parseOpening() {
    const match = Opening.exec(this.text);
    if (match) {
      this.state = "items";
      return match[0].length;
    }
    if (this.text.length >= OpeningMax) this.fail(0, 'it does not begin with { "Data": [');
    return 0;
  }

  parseItems(index) {
    for (;;) {
      let at = skipSpace(this.text, index);
      if (at >= this.text.length) return index;
      if (this.text[at] === "]") {
        this.state = "closing";
        return at + 1;
      }
      if (this.count > 0) {
        if (this.text[at] !== ",") this.fail(at, "a comma or the end of the list is missing");
        at = skipSpace(this.text, at + 1);
        if (at >= this.text.length) return index;
      }
      if (this.text[at] !== "{") this.fail(at, "an item that is no object");
      const end = skipObject(this.text, at);
      if (end < 0) return index;
      this.report(at, end);
      index = end;
    }
  }

  report(start, end) {
    let item;
    try {
      item = JSON.parse(this.text.slice(start, end));
    } catch (error) {
      this.fail(start, `an item that is not JSON (${error.message})`);
    }
    const complaint = this.onItem(item, this.count);
    if (complaint) this.fail(start, complaint);
    ++this.count;
  }

  parseEnd(index) {
    for (;;) {
      const at = skipSpace(this.text, index);
      if (at >= this.text.length) return at;
      if (this.state === "end" || this.text[at] !== "}") this.fail(at, "text behind the end of the list");
      this.state = "end";
      index = at + 1;
    }
  }

  fail(index, what) {
    const error = new LogError(what);
    error.position = this.passed + index;
    throw error;
  }
}

async function* readText(file, size) {
  const decoder = new StringDecoder("utf8");
  const buffer = Buffer.allocUnsafe(Math.max(1, Math.min(ChunkSize, size)));
  for (let done = 0; done < size;) {
    const { bytesRead } = await file.read(buffer, 0, Math.min(buffer.length, size - done), done);
    if (bytesRead === 0) break;
    done += bytesRead;
    yield [decoder.write(buffer.subarray(0, bytesRead)), done];
  }
}

async function lineOf(file, size, position) {
  let line = 1;
  let passed = 0;
  for await (const [text] of readText(file, size)) {
    const end = Math.min(text.length, position - passed);
    for (let at = text.indexOf("\n"); at >= 0 && at < end; at = text.indexOf("\n", at + 1)) ++line;
    passed += text.length;
    if (passed >= position) break;
  }
  return line;
}

async function openFile(path) {
  try {
    const file = await open(path, "r");
    const status = await file.stat();
    if (status.isDirectory()) {
      await file.close();
      throw new LogError(`${path} is a folder.`);
    }
    return [file, status.size];
  } catch (error) {
    if (error.code === "ENOENT") throw new LogError(`${path} is not there.`);
    if (error.code) throw new LogError(`${path} cannot be read (${error.code}).`);
    throw error;
  }
}

/**
 * Size of a file in bytes, for `readItems`.
 * @throws {LogError} it cannot be read.
 */
export async function measureFile(path) {
  const [file, size] = await openFile(path);
  await file.close();
  return size;
}

/**
 * Reads `{ "Data": [...] }` from a file in pieces and calls `onItem(item, index)` for every item, in order.
 *
 * Only what is in the file at the start is read, so that a log which is being written can be looked at. Its end may be
 * missing then: that is no error, the result says so.
 *
 * @param {string} path the file.
 * @param {(item: object, index: number) => string | void} onItem returns what is wrong with the item, nothing if it is good.
 * @param {(done: number, size: number) => void} [onProgress] bytes read and bytes in all.
 * @param {number} [limit] bytes to read at most, as `measureFile` found them earlier.
 * @returns {Promise<{count: number, size: number, isCut: boolean}>} isCut: the document ends before its closing brackets.
 * @throws {LogError} the file cannot be read, is no such document, or holds an item that `onItem` refused.
 */
export async function readItems(path, onItem, onProgress = () => {}, limit = Infinity) {
  const [file, wholeSize] = await openFile(path);
  const size = Math.min(wholeSize, limit);
  try {
    if (size === 0) throw new LogError(`${path} is empty.`);
    const parser = new ItemParser(onItem);
    try {
      for await (const [text, done] of readText(file, size)) {
        parser.push(text);
        onProgress(done, size);
      }
      if (parser.state === "opening") parser.fail(0, 'it does not begin with { "Data": [');
    } catch (error) {
      if (!(error instanceof LogError) || error.position === undefined) throw error;
      const line = await lineOf(file, size, error.position);
      throw new LogError(`${path} is no memory event log: ${error.message} (line ${line}, item ${parser.count + 1}).`);
    }
    return { count: parser.count, size, isCut: parser.state !== "end" };
  } finally {
    await file.close();
  }
}
