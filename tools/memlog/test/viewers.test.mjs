// The exports in the viewers they are for, as far as these can be had without a network.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { existsSync } from "node:fs";
import { readFile, writeFile } from "node:fs/promises";
import { dirname, join } from "node:path";
import test from "node:test";
import { fileURLToPath } from "node:url";
import { convert } from "../src/convert.mjs";
import { browserPath, openFile, startBrowser } from "./browser.mjs";
import { makeLog } from "./logs.mjs";

const Modules = join(dirname(fileURLToPath(import.meta.url)), "../node_modules");
const Speedscope = join(Modules, "speedscope/dist/release/index.html");
const ProfilerCommand = join(Modules, "@firefox-devtools/profiler-cli/dist/profiler-cli.js");
const DhView = "/usr/libexec/valgrind/dh_view.html";
const isWhole = Boolean(process.env.MEMLOG_PROGRAMS); // nothing may be left out there

async function makeExports(context) {
  const folder = await makeLog(context);
  await convert(join(folder, "events.json"), join(folder, "stacks.json"), folder, { title: "game", isQuiet: true });
  return folder;
}

/** Opens a file in speedscope the way its command line does. */
async function openInSpeedscope(browser, folder, name) {
  const content = (await readFile(join(folder, name))).toString("base64");
  const script = join(folder, `${name}.js`);
  await writeFile(script, `speedscope.loadFileFromBase64(${JSON.stringify(name)}, "${content}")`);
  const page = await openFile(browser, Speedscope, { hash: `#localProfilePath=${script}` });
  await page.waitForFunction(() => document.title !== "speedscope" && document.querySelector("canvas"), {
    timeout: 10000,
  });
  return page;
}

/** Speedscope's tables: function to its own weight; and, in a file of several profiles, profile to its total. */
async function readTables(page) {
  await page.keyboard.press("3"); // the view "Sandwich"
  await page.waitForFunction(() => document.body.textContent.includes("Symbol Name"));
  const rows = await page.$$eval("tr", (all) => all.map((row) => [...row.children].map((cell) => cell.textContent)));
  const pairs = rows.map((cells) => cells.slice(-2)).filter(([first]) => first !== "Self" && first !== "Name");
  // Functions stand behind their weight, "200 B (76%)", profiles before it.
  return Object.fromEntries(
    pairs.map(([first, second]) => (/^\d/.test(first) ? [second, first.replace(/\(.*/, "").trim()] : [first, second])),
  );
}

test("speedscope", { skip: !browserPath && !isWhole && "no browser" }, async (context) => {
  const browser = await startBrowser(context);
  const folder = await makeExports(context);
  const expected = {
    "speedscope.json": {
      "Bytes at the end": "264 B",
      "Bytes at the peak": "1.27 KB",
      "Bytes allocated": "2.31 KB",
      Allocations: "5",
      "Short-lived blocks": "2",
      Retains: "3",
      // of the first profile
      "(no stack in the log, hash 99)": "64 B",
      "Load(std::vector<int>&)": "200 B",
      main: "0 B",
    },
    "peak-bytes.collapsed.txt": { Draw: "1,000", "Load(std::vector<int>&)": "300", main: "0" },
    "heap.pb.gz": { "(no stack in the log, hash 99)": "64 B", "Load(std::vector<int>&)": "200 B", main: "0 B" },
  };
  for (const [name, tables] of Object.entries(expected)) {
    const page = await openInSpeedscope(browser, folder, name);
    assert.deepEqual(await readTables(page), tables, name);
    await page.close();
  }
});

test(
  "dh_view",
  { skip: (!browserPath || !existsSync(DhView)) && !isWhole && "no browser or no dh_view" },
  async (context) => {
    const browser = await startBrowser(context);
    const folder = await makeExports(context);
    const page = await openFile(browser, DhView);
    const input = await page.waitForSelector("input[type=file]");
    await input.uploadFile(join(folder, "dhat.json"));
    await page.waitForFunction(() => document.body.innerText.includes("Processing time"));
    const text = await page.$eval("body", (body) => body.innerText);
    const lines = [
      "Command: game",
      "t-gmax: 4 ms (4.44% of program duration)",
      "t-end:  90 ms",
      "Total:     2,364 bytes (100%, 26,266,666.67/ks) in 5 blocks (100%, 55,555.56/ks), avg size 472.8 bytes, avg lifetime 30 ms",
      "At t-gmax: 1,300 bytes (100%) in 3 blocks (100%), avg size 433.33 bytes",
      "At t-end:  264 bytes (100%) in 2 blocks (100%), avg size 132 bytes",
      "Max:       300 bytes in 2 blocks, avg size 150 bytes",
      "At t-end:  200 bytes (75.76%) in 1 blocks (50%), avg size 200 bytes",
      "#1: Load(std::vector<int>&) (/game/load.cpp:20)",
      "#2: main (C:/game/main.cpp:10)",
    ];
    for (const line of lines) assert.ok(text.includes(line), `${line} is missing in\n${text}`);
    assert.deepEqual(page.troubles, []);
  },
);

// Its command reads profiles with the code of the site. It asks for a newer Node.js than the viewer does, but needs none.
test("the Firefox Profiler", async (context) => {
  const folder = await makeExports(context);
  const query = (...words) => {
    const { status, stdout, stderr } = spawnSync(process.execPath, [ProfilerCommand, ...words], {
      encoding: "utf8",
      env: { ...process.env, PROFILER_CLI_SESSION_DIR: folder },
      timeout: 60000,
    });
    assert.equal(status, 0, `${words.join(" ")}: ${stdout}${stderr}`);
    return stdout;
  };
  const queryJson = (...words) => JSON.parse(query(...words, "--json"));

  query("load", join(folder, "firefox.json.gz")); // starts a server that answers the queries
  try {
    const { product, importedFrom } = queryJson("profile", "meta");
    assert.deepEqual({ product, importedFrom }, { product: "game", importedFrom: "memory event log" });

    const lost = "(no stack in the log, hash 99)";
    const load = "game!Load(std::vector<int>&)";
    const expected = {
      "native-retained-allocations": { [load]: 200, [lost]: 64, "game!main": 0 },
      "native-allocations": { "game!Draw": 2000, [load]: 300, [lost]: 64, "game!main": 0 },
      "native-deallocations-memory": { "game!Draw": -2000, [load]: -100, "game!main": 0 },
      "native-deallocations-sites": { "game!Draw": -2100, "game!main": 0 },
    };
    const { name, availableStrategies } = queryJson("thread", "info");
    assert.equal(name, "Allocations");
    assert.deepEqual(availableStrategies, Object.keys(expected));
    for (const [strategy, bytes] of Object.entries(expected)) {
      const { weightType, topFunctionsBySelf } = queryJson("thread", "samples", "--strategy", strategy);
      assert.equal(weightType, "bytes");
      const own = topFunctionsBySelf.map(({ nameWithLibrary, selfSamples }) => [nameWithLibrary, selfSamples]);
      assert.deepEqual(Object.fromEntries(own), bytes, strategy);
    }

    const heap = queryJson("counter", "info", "c-0");
    assert.deepEqual([heap.label, heap.unit, heap.rangeStart, heap.rangeEnd], ["Memory", "bytes", 0, 90]);
    assert.equal(heap.stats[0].value, 1200); // from 5100 to 6300
  } finally {
    query("stop");
  }
});
