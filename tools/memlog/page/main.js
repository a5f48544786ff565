// The page: puts the numbers that the tool left in it onto the screen.
import "../node_modules/uplot/dist/uPlot.min.css";
import "../node_modules/d3-flame-graph/dist/d3-flamegraph.css";
import "./style.css";
import { unpack } from "./data.js";
import { addChoices, make } from "./dom.js";
import { FlameGraph } from "./flame.js";
import { formatBytes, formatCount, formatTime } from "./format.js";
import { HeapChart } from "./heap.js";
import { SitesTable, Views } from "./sites.js";

const Metrics = [
  { key: "liveBytes", label: "Bytes at the end", format: formatBytes },
  { key: "liveBlocks", label: "Blocks at the end", format: formatCount },
  { key: "peakBytes", label: "Bytes at the peak", format: formatBytes },
  { key: "peakBlocks", label: "Blocks at the peak", format: formatCount },
  { key: "allocatedBytes", label: "Bytes allocated", format: formatBytes },
  { key: "allocations", label: "Allocations", format: formatCount },
  { key: "shortLived", label: "Short-lived", format: formatCount },
  { key: "retains", label: "Retains", format: formatCount },
];

function describeTotals({ totals }) {
  const facts = [
    ["Never freed", `${formatBytes(totals.liveBytes)} in ${formatCount(totals.liveBlocks)} blocks`],
    [
      "Peak of the blocks",
      `${formatBytes(totals.peakBytes)} in ${formatCount(totals.peakBlocks)} blocks, at ${formatTime(totals.peakTime - totals.firstTime)}`,
    ],
    ["Heap size", `${formatBytes(totals.heapEnd)} at the end, ${formatBytes(totals.heapPeak)} at most`],
    ["Allocated in all", `${formatBytes(totals.allocatedBytes)} in ${formatCount(totals.alloc)} allocations`],
    ["Frees", formatCount(totals.free)],
    ["Call stacks", formatCount(totals.sites)],
    ["Time", formatTime(totals.lastTime - totals.firstTime)],
  ];
  if (totals.retain + totals.release > 0)
    facts.push([
      "References",
      `${formatCount(totals.retain)} retains, ${formatCount(totals.release)} releases, counters open: ${formatCount(totals.openCounters)}`,
    ]);
  return facts.map(([name, value]) =>
    make("div", {}, make("dt", { textContent: name }), make("dd", { textContent: value })),
  );
}

function start() {
  const get = (id) => document.getElementById(id);
  const data = unpack(JSON.parse(get("data").textContent));
  get("title").textContent = data.title;
  document.title = `${data.title} – memory event log`;
  get("notes").append(...data.notes.map((note) => make("li", { textContent: note })));
  get("totals").append(make("dl", {}, ...describeTotals(data)));

  const has = (key) => data.sites.some((site) => site[key] > 0);
  const heap = new HeapChart(get("heap"), data);
  const axes = ["byTime", "byEvent"];
  addChoices(get("axis"), ["By time", "By event"], (index) => heap.show(axes[index]));
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => heap.show(heap.axis));

  const flame = new FlameGraph(get("flame"), get("flame-details"), data);
  const metrics = Metrics.filter((metric) => has(metric.key));
  addChoices(
    get("metric"),
    metrics.map((metric) => metric.label),
    (index) => flame.setMetric(metrics[index]),
  );
  addChoices(get("direction"), ["From main", "From the allocation"], (index) => flame.setInverted(index === 1));
  get("unzoom").addEventListener("click", () => flame.resetZoom());

  const table = new SitesTable(
    { table: get("sites"), count: get("count"), more: get("more"), purpose: get("view-purpose") },
    data,
  );
  const views = Views.filter((view) => has(view.columns[0].key));
  addChoices(
    get("view"),
    views.map((view) => view.label),
    (index) => table.setView(views[index]),
  );

  let timer;
  get("search").addEventListener("input", (event) => {
    clearTimeout(timer);
    timer = setTimeout(() => {
      const term = event.target.value.trim();
      flame.search(term);
      table.search(term);
    }, 150);
  });
}

start();
