// The heap over time, and how much happened when.
import uPlot from "uplot";
import { color } from "./dom.js";
import { formatBytes, formatCount, formatTime } from "./format.js";

const KindNames = { alloc: "Allocations", free: "Frees", retain: "Retains", release: "Releases" };
const AxisWidth = 80;
const Cursor = { sync: { key: "heap" }, drag: { x: true, y: false } };

function makeAxis(more) {
  const line = { stroke: () => color("line") };
  return { stroke: () => color("text"), grid: line, ticks: line, size: AxisWidth, ...more };
}

function makeOptions(width, height, formatX, formatY, series) {
  return {
    width,
    height,
    cursor: Cursor,
    scales: { x: { time: false }, y: { range: (_, low, high) => [0, Math.max(1, high * 1.05)] } },
    axes: [
      makeAxis({ size: 36, values: (_, ticks) => ticks.map(formatX) }),
      makeAxis({ values: (_, ticks) => ticks.map(formatY) }),
    ],
    series: [{ label: "At", value: (_, x) => (x == null ? "" : formatX(x)) }, ...series],
  };
}

function makeLine(label, stroke, format, more = {}) {
  const value = (_, y) => (y == null ? "" : format(y));
  const paths = uPlot.paths.stepped({ align: 1 });
  return { label, stroke: () => color(stroke), width: 1.5, points: { show: false }, value, paths, ...more };
}

/** Draws a line from top to bottom where the blocks of the log took most room. */
function drawPeak(plot, at) {
  const { ctx, bbox } = plot;
  const x = Math.round(plot.valToPos(at, "x", true));
  if (x < bbox.left || x > bbox.left + bbox.width) return; // zoomed away
  ctx.save();
  ctx.strokeStyle = ctx.fillStyle = color("accent");
  ctx.setLineDash([4, 4]);
  ctx.beginPath();
  ctx.moveTo(x, bbox.top);
  ctx.lineTo(x, bbox.top + bbox.height);
  ctx.stroke();
  ctx.textAlign = "right";
  ctx.textBaseline = "top";
  ctx.fillText("peak ", x, bbox.top + 2);
  ctx.restore();
}

/** The heap has an axis of its own: it holds what was there before the log began, too. */
function makeHeapOptions(width, formatX, peak) {
  const live = makeLine("Blocks of the log (left axis)", "live", formatBytes, { fill: () => color("live-fill") });
  const heap = makeLine("Heap size (right axis)", "heap", formatBytes, { scale: "heap" });
  const options = makeOptions(width, 280, formatX, formatBytes, [live, heap]);
  options.axes.push(
    makeAxis({ scale: "heap", side: 1, grid: { show: false }, values: (_, ticks) => ticks.map(formatBytes) }),
  );
  if (peak !== undefined) options.hooks = { draw: [(plot) => drawPeak(plot, peak)] };
  return options;
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
    const peak = isTime ? this.data.totals.peakTime - this.data.totals.firstTime : undefined;
    const width = this.getWidth();
    const kinds = Object.keys(KindNames).filter((kind) => this.data.totals[kind] > 0);
    const step = isTime ? formatTime(curve.width) : `${formatCount(curve.width)} events`;
    const counts = kinds.map((kind) => makeLine(`${KindNames[kind]} per ${step}`, kind, formatCount));
    this.plots = [
      new uPlot(makeHeapOptions(width, formatX, peak), [at, curve.livePeak, curve.heapPeak], this.parent),
      new uPlot(
        { ...makeOptions(width, 140, formatX, formatCount, counts), padding: [null, AxisWidth, null, null] },
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
