// The heap over time, and how much happened when.
import uPlot from "uplot";
import { color } from "./dom.js";
import { formatBytes, formatCount, formatTime } from "./format.js";

const Cursor = { sync: { key: "heap" }, drag: { x: true, y: false } };

function makeAxes(formatX, formatY) {
  const common = {
    stroke: () => color("text"),
    grid: { stroke: () => color("line") },
    ticks: { stroke: () => color("line") },
  };
  return [
    { ...common, values: (_, ticks) => ticks.map(formatX) },
    { ...common, size: 80, values: (_, ticks) => ticks.map(formatY) },
  ];
}

function makeOptions(width, height, formatX, formatY, series) {
  return {
    width,
    height,
    cursor: Cursor,
    scales: { x: { time: false }, y: { range: (_, low, high) => [0, Math.max(1, high * 1.05)] } },
    axes: makeAxes(formatX, formatY),
    series: [{ label: "At", value: (_, x) => (x == null ? "" : formatX(x)) }, ...series],
  };
}

function makeLine(label, stroke, format, more = {}) {
  return {
    label,
    stroke: () => color(stroke),
    width: 1.5,
    points: { show: false },
    value: (_, y) => (y == null ? "" : format(y)),
    ...more,
  };
}

export class HeapChart {
  /** @param {HTMLElement} parent @param data what `unpack` returned. */
  constructor(parent, data) {
    this.parent = parent;
    this.data = data;
    this.plots = [];
    new ResizeObserver(() => this.resize()).observe(parent);
  }

  /** @param {"byTime" | "byEvent"} axis */
  show(axis) {
    this.axis = axis;
    for (const plot of this.plots) plot.destroy();
    const curve = this.data[axis];
    const isTime = axis === "byTime";
    const at = isTime ? curve.at.map((time) => time - this.data.totals.firstTime) : curve.at;
    const formatX = isTime ? formatTime : formatCount;
    const width = this.getWidth();
    const hasSteps = uPlot.paths.stepped({ align: 1 });
    const kinds = ["alloc", "free", "retain", "release"].filter((kind) => this.data.totals[kind] > 0);
    const names = { alloc: "Allocations", free: "Frees", retain: "Retains", release: "Releases" };
    this.plots = [
      new uPlot(
        makeOptions(width, 260, formatX, formatBytes, [
          makeLine("Heap size", "heap", formatBytes, { paths: hasSteps }),
          makeLine("Blocks of the log", "live", formatBytes, { paths: hasSteps, fill: () => color("live-fill") }),
        ]),
        [at, curve.heapPeak, curve.livePeak],
        this.parent,
      ),
      new uPlot(
        makeOptions(
          width,
          140,
          formatX,
          formatCount,
          kinds.map((kind) => makeLine(names[kind], kind, formatCount, { paths: hasSteps })),
        ),
        [at, ...kinds.map((kind) => curve[kind])],
        this.parent,
      ),
    ];
  }

  getWidth() {
    return Math.max(300, this.parent.clientWidth);
  }

  resize() {
    const width = this.getWidth();
    for (const plot of this.plots) if (plot.width !== width) plot.setSize({ width, height: plot.height });
  }
}
