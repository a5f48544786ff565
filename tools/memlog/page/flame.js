// Call stacks as a flame graph: as wide as their number.
import { select } from "d3-selection";
import flamegraph from "d3-flame-graph";
import { matchesFrame } from "./data.js";
import { formatPlace } from "./format.js";

/** Grows the tree of all stacks. `isInverted`: from the allocating function to its callers. */
export function buildTree(sites, metric, isInverted) {
  const root = {
    name: "all",
    frame: { name: "all", file: "", line: 0, module: "" },
    value: 0,
    children: [],
    byName: new Map(),
  };
  for (const site of sites) {
    const value = site[metric];
    if (!(value > 0)) continue;
    root.value += value;
    let node = root;
    const { length } = site.frames;
    for (let index = 0; index < length; ++index) {
      const frame = site.frames[isInverted ? index : length - 1 - index];
      const key = `${frame.name}\0${frame.module}`;
      let child = node.byName.get(key);
      if (child === undefined) {
        child = { name: frame.name, frame, value: 0, children: [], byName: new Map() };
        node.byName.set(key, child);
        node.children.push(child);
      }
      child.value += value;
      node = child;
    }
  }
  return root;
}

const Highlight = "#ff5ad9";

function hashOf(text) {
  let hash = 7;
  for (let index = 0; index < text.length; ++index) hash = (hash * 31 + text.charCodeAt(index)) >>> 0;
  return hash;
}

/** Functions of one module have colours of one kind; black text can be read on all of them. */
function colorOf({ name, module }) {
  const own = hashOf(name);
  return `hsl(${(hashOf(module) % 360) + (own % 40)} 60% ${64 + (own % 13)}%)`;
}

export class FlameGraph {
  constructor(parent, details, data) {
    this.parent = parent;
    this.details = details;
    this.data = data;
    this.metric = undefined;
    this.isInverted = false;
    this.term = "";
    this.width = this.getWidth();
    new ResizeObserver(() => {
      if (this.getWidth() !== this.width) this.draw();
    }).observe(parent);
  }

  getWidth() {
    return Math.max(300, this.parent.clientWidth);
  }

  /** @param {{key: string, label: string, format: (value: number) => string}} metric */
  setMetric(metric) {
    this.metric = metric;
    this.draw();
  }

  setInverted(isInverted) {
    this.isInverted = isInverted;
    this.draw();
  }

  search(term) {
    this.term = term;
    if (term) this.chart?.search(term);
    else {
      this.chart?.clear();
      this.describe(null);
    }
  }

  resetZoom() {
    this.chart?.resetZoom();
  }

  draw() {
    if (this.metric === undefined) return;
    this.width = this.getWidth();
    const tree = buildTree(this.data.sites, this.metric.key, this.isInverted);
    this.chart?.destroy();
    this.parent.textContent = "";
    this.chart = undefined;
    this.describe(null);
    if (tree.value === 0) {
      this.parent.textContent = "Nothing to show.";
      return;
    }
    this.total = tree.value;
    this.chart = flamegraph()
      .width(this.width)
      .cellHeight(18)
      .minFrameSize(2)
      .transitionDuration(0)
      .inverted(this.isInverted)
      .sort((a, b) => b.data.value - a.data.value)
      .setColorMapper((node) => (node.highlight ? Highlight : colorOf(node.data.frame)))
      .setSearchMatch((node, term) => matchesFrame(node.data.frame, term.toLowerCase()))
      .setSearchHandler((_, sum) => this.describeSearch(sum))
      .setLabelHandler((node) => this.label(node.data))
      .setDetailsHandler(() => {})
      .onHover((node) => this.describe(node.data));
    select(this.parent).datum(tree).call(this.chart);
    this.finishWidths();
    if (this.term) this.chart.search(this.term);
  }

  /** New frames grow to their width in a transition; one that has nothing left to do ends at once. */
  finishWidths() {
    select(this.parent)
      .selectAll("g.frame")
      .each(function () {
        this.querySelector("rect").setAttribute("width", this.getAttribute("width"));
      });
  }

  label({ frame, value }) {
    const share = ((100 * value) / this.total).toFixed(1);
    const place = [formatPlace(frame), frame.module].filter((text) => text).join(", ");
    return `${frame.name}${place ? ` (${place})` : ""}: ${this.metric.format(value)}, ${share} %`;
  }

  describe(node) {
    this.details.textContent = node ? this.label(node) : "\u00a0";
  }

  describeSearch(sum) {
    const share = ((100 * sum) / this.total).toFixed(1);
    this.details.textContent = `Stacks with “${this.term}”: ${this.metric.format(sum)}, ${share} %`;
  }
}
