// The report of real logs, in a real browser. Needs the built programs: MEMLOG_PROGRAMS names their folder.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { readFile } from "node:fs/promises";
import { dirname, join } from "node:path";
import test from "node:test";
import { fileURLToPath } from "node:url";
import { convert } from "../src/convert.mjs";
import { browserPath, openFile, startBrowser } from "./browser.mjs";
import { makeFolder, makeLog } from "./logs.mjs";

const Root = join(dirname(fileURLToPath(import.meta.url)), "../../..");
const Programs = process.env.MEMLOG_PROGRAMS;
const needsBrowser = { skip: !browserPath && !Programs && "no browser" };
const needsPrograms = { skip: !Programs && "MEMLOG_PROGRAMS names no folder" };

async function report(context, log, title) {
  const out = join(log, "out");
  await convert(join(log, "events.json"), join(log, "stacks.json"), out, { title, isQuiet: true });
  return out;
}

/** Number of pixels of the element's canvas that are not blank. */
function countInk(page, selector) {
  return page.$eval(selector, (canvas) => {
    const { data } = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height);
    let count = 0;
    for (let index = 3; index < data.length; index += 4) if (data[index] > 0) ++count;
    return count;
  });
}

const textsOf = (page, selector) => page.$$eval(selector, (elements) => elements.map((element) => element.textContent));
const rowsOf = (page) =>
  page.$$eval("#sites tbody tr", (rows) => rows.map((row) => [...row.cells].map((cell) => cell.textContent)));

async function choose(page, group, label) {
  const [button] = await page.$$(`xpath/.//*[@id="${group}"]/button[text()="${label}"]`);
  assert.ok(button, `no button ${label}`);
  await button.click();
}

async function search(page, term) {
  await page.$eval(
    "#search",
    (input, value) => {
      input.value = value;
      input.dispatchEvent(new Event("input"));
    },
    term,
  );
  await new Promise((resolve) => setTimeout(resolve, 300));
}

/** Waits until the flame graph's frames have got their width. */
const waitForFlame = (page) =>
  page.waitForFunction(() => document.querySelector("#flame rect")?.getAttribute("width") > 100);

test("the log written by hand", needsBrowser, async (context) => {
  const browser = await startBrowser(context);
  const out = await report(context, await makeLog(context), "by <hand> & </script> heart");
  const page = await openFile(browser, join(out, "report.html"));
  await waitForFlame(page);
  assert.equal(await page.$eval("#title", (title) => title.textContent), "by <hand> & </script> heart");
  assert.deepEqual(await textsOf(page, "#notes li"), [
    "1 hash has no stack in the stacks file.",
    "1 free of blocks that were allocated before the log began.",
    "1 allocation was refused.",
  ]);
  assert.deepEqual(await textsOf(page, "#totals dd"), [
    "264 bytes in 2 blocks",
    "1.3 KB in 3 blocks, at 4 ms",
    "5.264 KB at the end, 6.3 KB at most",
    "2.364 KB in 6 allocations",
    "4",
    "5",
    "90 ms",
    "3 retains, 2 releases, counters open: 1",
  ]);
  const load = "Load(std::vector<int>&) load.cpp:20";
  assert.deepEqual(await rowsOf(page), [
    ["200 bytes", "1", "2", "300 bytes", load],
    ["64 bytes", "1", "1", "64 bytes", "(no stack in the log, hash 99) "],
  ]);
  await choose(page, "view", "Most bytes");
  assert.deepEqual((await rowsOf(page)).slice(0, 2), [
    ["2 KB", "2", "1 KB", "0.5 ms", "Draw draw.cpp:30"],
    ["300 bytes", "2", "150 bytes", "50 ms", load],
  ]);
  await choose(page, "view", "Short-lived");
  assert.deepEqual(await rowsOf(page), [["2", "2 KB", "2", "0.5 ms", "Draw draw.cpp:30"]]);
  await choose(page, "view", "Retained");
  assert.deepEqual(await rowsOf(page), [["3", "2", "1", "Share engine"]]);
  await page.click("#sites summary");
  await page.waitForSelector("#sites ol");
  assert.deepEqual(await textsOf(page, "#sites ol li"), ["Draw draw.cpp:30", "main main.cpp:10"]);
  assert.equal(
    await page.$eval("#sites .facts", (facts) => facts.textContent),
    "hash 3\ncounter 0xD8: 1 open, first retained at 10 ms",
  );

  const names = () => textsOf(page, "#flame title");
  assert.deepEqual((await names()).sort(), [
    "(no stack in the log, hash 99): 64 bytes, 24.2 %",
    "Load(std::vector<int>&) (load.cpp:20, game): 200 bytes, 75.8 %",
    "all: 264 bytes, 100.0 %",
    "main (main.cpp:10, game): 200 bytes, 75.8 %",
  ]);
  await choose(page, "metric", "Blocks at the peak");
  await waitForFlame(page);
  assert.deepEqual((await names()).sort(), [
    "Draw (draw.cpp:30, game): 1, 33.3 %",
    "Load(std::vector<int>&) (load.cpp:20, game): 2, 66.7 %",
    "all: 3, 100.0 %",
    "main (main.cpp:10, game): 3, 100.0 %",
  ]);
  assert.deepEqual(page.troubles, []);
});

test("more call stacks than fit", needsBrowser, async (context) => {
  const browser = await startBrowser(context);
  const hashes = Array.from({ length: 250 }, (_, index) => index + 1);
  const frame = (hash) => ({ Module: "game", Symbol: `Function${hash}`, File: "game.cpp", Line: hash });
  const log = await makeFolder(context, {
    "stacks.json": JSON.stringify({ Data: hashes.map((hash) => ({ CSHash: hash, Stack: [frame(hash)] })) }),
    "events.json": JSON.stringify({
      Data: hashes.map((hash) => ({
        Timestamp: hash,
        Address: `0x${(64 * hash).toString(16)}`,
        Size: hash,
        HeapSize: 0,
        Event: "alloc",
        CSHash: hash,
      })),
    }),
  });
  const page = await openFile(browser, join(await report(context, log, "many"), "report.html"));
  assert.equal(await page.$eval("#count", (count) => count.textContent), "250 call stacks");
  const places = async () => (await rowsOf(page)).map((row) => row.at(-1));
  assert.deepEqual([(await places()).length, (await places())[0]], [100, "Function250 game.cpp:250"]);
  await page.click("#more");
  await page.click("#more");
  assert.deepEqual([(await places()).length, (await places()).at(-1)], [250, "Function1 game.cpp:1"]);
  assert.ok(await page.$eval("#more", (button) => button.hidden));

  await page.click("#sites th:nth-child(2) button"); // blocks at the end: one each
  assert.equal(await page.$eval("#sites th[aria-sort]", (cell) => cell.textContent), "Blocks at the end");
  await search(page, "function24");
  assert.equal((await places()).length, 11); // 24 and 240 to 249
  assert.deepEqual(page.troubles, []);
});

test("a real run of vlmhost", needsPrograms, async (context) => {
  const browser = await startBrowser(context);
  const log = await makeFolder(context);
  const inputs = ["README.md", "include", "examples/host/samples"].map((name) => join(Root, name));
  execFileSync(join(Programs, "vlmhost"), ["--log", join(log, "host.log"), "--memlog", log, ...inputs], {
    stdio: "pipe",
  });
  const out = await report(context, log, "vlmhost");
  for (const scheme of ["light", "dark"]) {
    const page = await openFile(browser, join(out, "report.html"), { scheme });
    await waitForFlame(page);
    assert.ok((await countInk(page, "#heap canvas")) > 5000, "the chart is drawn");
    assert.ok((await page.$$("#flame rect")).length > 10, "the flame graph is drawn");
    assert.ok((await page.$$("#heap .uplot")).length === 2);

    await choose(page, "view", "Most allocations");
    const all = (await rowsOf(page)).length;
    await search(page, "convert");
    const found = await rowsOf(page);
    assert.ok(found.length > 0 && found.length < all, `${found.length} of ${all} rows`);
    assert.match(await page.$eval("#flame-details", (details) => details.textContent), /^Stacks with “convert”: /);
    const marked = await page.$$eval(
      "#flame rect",
      (all) => all.filter((rect) => rect.getAttribute("fill") === "#ff5ad9").length,
    );
    assert.ok(marked > 0, "found frames are marked");
    await search(page, "no function has this name");
    assert.equal((await rowsOf(page)).length, 0);
    await search(page, "");
    assert.equal((await rowsOf(page)).length, all);

    await choose(page, "axis", "By event");
    await choose(page, "direction", "From the allocation");
    await waitForFlame(page);
    assert.deepEqual(page.troubles, []);
    assert.deepEqual(page.requests, [`file://${join(out, "report.html")}`]); // and nothing else
    await page.close();
  }
});

test("the leaks of leak_hunt", needsPrograms, async (context) => {
  const browser = await startBrowser(context);
  const log = await makeFolder(context);
  execFileSync(join(Programs, "leak_hunt"), [log], { stdio: "pipe" });
  const out = await report(context, log, "leak_hunt");
  const page = await openFile(browser, join(out, "report.html"));
  await waitForFlame(page);
  const facts = await textsOf(page, "#totals dd");
  assert.equal(facts[0], "17.92 KB in 45 blocks");
  assert.equal(facts[7], "40 retains, 20 releases, counters open: 20");
  const rows = await rowsOf(page);
  assert.deepEqual(
    rows.map((row) => row.slice(0, 3)),
    [
      ["12.8 KB", "25", "100"],
      ["2.56 KB", "10", "10"],
      ["2.56 KB", "10", "10"],
    ],
  );
  assert.match(rows[0][4], /CSession::CSession\(\) main\.cpp:\d+$/);
  assert.match(rows[1][4], /MakePeer\(\)/);
  await choose(page, "view", "Short-lived");
  const [[count, , , , where]] = await rowsOf(page);
  const texts = Number(count.replace(/,/g, "")); // a busy machine may make one or the other live longer
  assert.ok(texts >= 1900 && texts <= 1960, `${count} texts`);
  assert.match(where, /Format/);

  await choose(page, "view", "Never freed");
  if (process.env.MEMLOG_SCREENSHOT) {
    await page.click("#sites summary");
    await page.waitForSelector("#sites ol");
    await page.mouse.move(1, 1);
    const height = await page.$eval("main", (main) => Math.ceil(main.getBoundingClientRect().bottom + scrollY));
    await page.evaluate(() => scrollTo(0, 0));
    await page.setViewport({ width: 1200, height });
    await page.screenshot({ path: process.env.MEMLOG_SCREENSHOT });
  }
  assert.deepEqual(page.troubles, []);
});

test("the licences of all libraries are in the page", async (context) => {
  const out = await report(context, await makeLog(context), "game");
  const html = await readFile(join(out, "report.html"), "utf8");
  for (const name of ["uplot", "d3-flame-graph", "d3-selection", "d3-hierarchy"])
    assert.match(html, new RegExp(`<h3>${name} \\d`));
  assert.match(html, /Permission is hereby granted, free of charge/);
  assert.match(html, /Apache License/);
});
