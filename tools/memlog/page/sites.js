// The table of call stacks: who leads in what.
import { matchesFrame } from "./data.js";
import { make } from "./dom.js";
import { formatBytes, formatCount, formatPlace, formatTime } from "./format.js";

const PageSize = 100;

const meanSize = {
  key: "meanSize",
  label: "Mean size",
  format: formatBytes,
  of: (site) => site.allocatedBytes / site.allocations,
};
const meanLife = {
  key: "meanLife",
  label: "Mean life",
  format: formatTime,
  of: (site) => site.lifetime / site.freedBlocks,
};
const column = (key, label, format = formatCount) => ({ key, label, format, of: (site) => site[key] });
const Allocations = column("allocations", "Allocations");
const AllocatedBytes = column("allocatedBytes", "Bytes allocated", formatBytes);
const LiveBlocks = column("liveBlocks", "Blocks at the end");
const LiveBytes = column("liveBytes", "Bytes at the end", formatBytes);

/** What one can look at. The first column of each sorts it; only sites that have it are listed. */
export const Views = [
  {
    label: "Never freed",
    purpose: "Blocks that were still there when the log ended: leak candidates.",
    columns: [LiveBytes, LiveBlocks, Allocations, column("maxLiveBytes", "Most at once", formatBytes)],
  },
  {
    label: "Peak",
    purpose: "What was there when the blocks of the log took most room.",
    columns: [
      column("peakBytes", "Bytes at the peak", formatBytes),
      column("peakBlocks", "Blocks at the peak"),
      LiveBytes,
      Allocations,
    ],
  },
  {
    label: "Most bytes",
    purpose: "Who allocated most in all, freed or not.",
    columns: [AllocatedBytes, Allocations, meanSize, meanLife],
  },
  {
    label: "Most allocations",
    purpose: "Who allocated most often.",
    columns: [Allocations, AllocatedBytes, meanSize, meanLife],
  },
  {
    label: "Short-lived",
    purpose: "Blocks that were freed right away: a buffer could be kept, or live on the stack.",
    columns: [
      column("shortLived", "Short-lived"),
      column("shortLivedBytes", "Their bytes", formatBytes),
      Allocations,
      meanLife,
    ],
  },
  { label: "Frees", purpose: "Where blocks are freed, whoever allocated them.", columns: [column("frees", "Frees")] },
  {
    label: "Retained",
    purpose: "Reference counts: who retains and releases; open ones were retained more often than released.",
    columns: [column("retains", "Retains"), column("releases", "Releases"), column("openCounters", "Open counters")],
  },
  { label: "Refused", purpose: "Allocations that got no memory.", columns: [column("refused", "Refused")] },
];

/** A mean of nothing is not shown. */
function formatCell(column, site) {
  const value = column.of(site);
  return Number.isFinite(value) ? column.format(value) : "–";
}

export class SitesTable {
  /** @param elements {table, count, more, purpose} @param data what `unpack` returned. */
  constructor(elements, data) {
    this.elements = elements;
    this.data = data;
    this.term = "";
    this.shown = PageSize;
    elements.more.addEventListener("click", () => {
      this.shown += PageSize;
      this.draw();
    });
  }

  setView(view) {
    this.view = view;
    this.sortBy = view.columns[0];
    this.shown = PageSize;
    this.elements.purpose.textContent = view.purpose;
    this.draw();
  }

  search(term) {
    this.term = term.toLowerCase();
    this.shown = PageSize;
    this.draw();
  }

  /** The sites of the view that match the search, in order. */
  select() {
    const [first] = this.view.columns;
    const sites = this.data.sites.filter(
      (site) => first.of(site) > 0 && (!this.term || site.frames.some((frame) => matchesFrame(frame, this.term))),
    );
    return sites.sort((a, b) => (this.sortBy.of(b) || 0) - (this.sortBy.of(a) || 0));
  }

  draw() {
    const sites = this.select();
    const { table, count, more } = this.elements;
    count.textContent = `${formatCount(sites.length)} call ${sites.length === 1 ? "stack" : "stacks"}`;
    more.hidden = sites.length <= this.shown;
    const body = make("tbody", {}, ...sites.slice(0, this.shown).map((site) => this.makeRow(site)));
    table.replaceChildren(this.makeHead(), body);
  }

  makeHead() {
    const cells = this.view.columns.map((column) => {
      const button = make("button", { type: "button", textContent: column.label });
      button.addEventListener("click", () => {
        this.sortBy = column;
        this.draw();
      });
      const cell = make("th", { scope: "col" }, button);
      if (column === this.sortBy) cell.setAttribute("aria-sort", "descending");
      return cell;
    });
    return make(
      "thead",
      {},
      make("tr", {}, ...cells, make("th", { scope: "col", className: "place", textContent: "Where" })),
    );
  }

  makeRow(site) {
    const numbers = this.view.columns.map((column) => make("td", { textContent: formatCell(column, site) }));
    const [first] = site.frames;
    const details = make("details", {}, make("summary", {}, this.makeFrame(first)));
    details.addEventListener("toggle", () => details.childElementCount === 1 && details.append(this.makeStack(site)), {
      once: true,
    });
    return make("tr", {}, ...numbers, make("td", { className: "place" }, details));
  }

  makeFrame(frame) {
    const place = make("span", {
      className: "file",
      textContent: formatPlace(frame) || frame.module,
      title: frame.file,
    });
    return make("span", {}, frame.name, " ", place);
  }

  makeStack(site) {
    const frames = site.frames.slice(1).map((frame) => make("li", {}, this.makeFrame(frame)));
    const facts = [`hash ${site.hash}`];
    const since = (time) => `at ${formatTime(time - this.data.totals.firstTime)}`;
    for (const { address, size, time } of site.oldest)
      facts.push(`${address}: ${formatBytes(size)}, allocated ${since(time)}`);
    for (const { address, balance, time } of site.open)
      facts.push(`counter ${address}: ${balance} open, first retained ${since(time)}`);
    return make("div", {}, make("ol", {}, ...frames), make("p", { className: "facts", textContent: facts.join("\n") }));
  }
}
