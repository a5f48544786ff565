import assert from "node:assert/strict";
import { writeFile } from "node:fs/promises";
import { join } from "node:path";
import test from "node:test";
import { LogError, measureFile, readItems } from "../src/items.mjs";
import { eventsText, Events, makeFolder, Stacks, stacksText } from "./logs.mjs";

async function read(context, text, onItem = () => {}) {
  const folder = await makeFolder(context);
  const path = join(folder, "log.json");
  await writeFile(path, text);
  const items = [];
  const result = await readItems(path, (item, index) => {
    items.push(item);
    return onItem(item, index);
  });
  return { items, ...result };
}

async function refuse(context, text, message, onItem) {
  await assert.rejects(read(context, text, onItem), (error) => {
    assert.ok(error instanceof LogError, error.stack);
    assert.match(error.message, message);
    return true;
  });
}

test("files as the library writes them", async (context) => {
  assert.deepEqual((await read(context, eventsText())).items, Events);
  assert.deepEqual((await read(context, stacksText())).items, Stacks);
  const empty = await read(context, '{ "Data": [\n]}\n');
  assert.deepEqual([empty.items, empty.count, empty.isCut], [[], 0, false]);
});

test("the same, laid out by other tools", async (context) => {
  for (const indent of [undefined, 1, "\t"]) {
    const result = await read(context, JSON.stringify({ Data: Stacks }, null, indent));
    assert.deepEqual(result.items, Stacks);
    assert.equal(result.isCut, false);
  }
  assert.deepEqual((await read(context, "\uFEFF" + eventsText().replace(/\n/g, "\r\n"))).items, Events);
});

test("braces, brackets and quotes inside strings", async (context) => {
  const items = [{ a: '}"]{' }, { b: "\\" }, { c: '\\"' }, { d: { e: ["}", []] } }, { f: "ü€😀" }];
  assert.deepEqual((await read(context, JSON.stringify({ Data: items }))).items, items);
});

test("items that lie across the pieces in which a file is read", async (context) => {
  const items = Array.from({ length: 300 }, (_, index) => ({ index, text: "€]}\\".repeat(3000) }));
  const result = await read(context, JSON.stringify({ Data: items }));
  assert.ok(result.size > 3 << 20);
  assert.deepEqual(result.items, items);
});

test("blanks behind the end, as after a repair", async (context) => {
  const result = await read(context, `${eventsText()}${" ".repeat(5000)}`);
  assert.deepEqual([result.count, result.isCut], [15, false]);
});

test("a file that is being written, cut anywhere", async (context) => {
  const text = eventsText(Events.slice(0, 2));
  const opening = '{ "Data": ['.length;
  const firstEnd = text.indexOf("}") + 1;
  const secondEnd = text.indexOf("}", firstEnd) + 1;
  for (let size = opening; size < text.length - 1; ++size) {
    const { count, isCut } = await read(context, text.slice(0, size));
    const whole = size < firstEnd ? 0 : size < secondEnd ? 1 : 2;
    assert.deepEqual([size, count, isCut], [size, whole, size < text.length - 1]);
  }
});

test("what is no log is refused, with the place", async (context) => {
  await refuse(context, "", /log\.json is empty\.$/);
  await refuse(context, "hello", /is no memory event log: it does not begin with \{ "Data": \[ \(line 1, item 1\)/);
  await refuse(context, "x".repeat(5000), /does not begin with/);
  await refuse(context, '{ "Data": 5 }', /does not begin with/);
  await refuse(
    context,
    '{ "Data": [\n{"a": 1}\n{"a": 2}]}',
    /a comma or the end of the list is missing \(line 3, item 2\)/,
  );
  await refuse(context, '{ "Data": [\n{"a": 1},\n]}', /an item that is no object \(line 3, item 2\)/);
  await refuse(context, '{ "Data": [\n[1]]}', /an item that is no object \(line 2, item 1\)/);
  await refuse(context, '{ "Data": [\n{"a": 1}\n,{"a": nul}]}', /an item that is not JSON .*\(line 3, item 2\)/);
  await refuse(context, '{ "Data": [\n{"a": 1}]}\n}', /text behind the end of the list \(line 3, item 2\)/);
  await refuse(context, '{ "Data": [\n{"a": 1}], "More": 1}', /text behind the end of the list/);
  await refuse(
    context,
    '{ "Data": [\n{"a": 1}\n,{"a": 2}]}',
    /: too big \(line 3, item 2\)/,
    (item) => item.a > 1 && "too big",
  );
});

test("files that cannot be read", async (context) => {
  const folder = await makeFolder(context);
  const read = (path) => readItems(path, () => {});
  await assert.rejects(read(join(folder, "none.json")), { message: `${join(folder, "none.json")} is not there.` });
  await assert.rejects(read(folder), { message: `${folder} is a folder.` });
});

test("progress reaches the size of the file", async (context) => {
  const folder = await makeFolder(context, { "log.json": eventsText() });
  const seen = [];
  const { size } = await readItems(
    join(folder, "log.json"),
    () => {},
    (done, all) => seen.push([done, all]),
  );
  assert.deepEqual(seen.at(-1), [size, size]);
});

test("what was added since the file was measured is left out", async (context) => {
  const folder = await makeFolder(context, { "log.json": eventsText(Events.slice(0, 3)) });
  const path = join(folder, "log.json");
  const limit = await measureFile(path);
  await writeFile(path, eventsText(Events));
  const { count, size, isCut } = await readItems(path, () => {}, undefined, limit);
  assert.deepEqual([count, size, isCut], [3, limit, true]);
});
