// What the exports with one weight per call stack show.

/** @type {{key: string, name: string, file: string, unit: "bytes" | "none"}[]} */
export const Metrics = [
  { key: "liveBytes", name: "Bytes at the end", file: "live-bytes", unit: "bytes" },
  { key: "peakBytes", name: "Bytes at the peak", file: "peak-bytes", unit: "bytes" },
  { key: "allocatedBytes", name: "Bytes allocated", file: "allocated-bytes", unit: "bytes" },
  { key: "allocations", name: "Allocations", file: "allocations", unit: "none" },
  { key: "shortLived", name: "Short-lived blocks", file: "short-lived", unit: "none" },
  { key: "retains", name: "Retains", file: "retains", unit: "none" },
];
