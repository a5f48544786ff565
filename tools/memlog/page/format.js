// Numbers and places as the page shows them.

const Units = ["bytes", "KB", "MB", "GB", "TB"];

/** 1536 is "1.536 KB": thousands, as in the other numbers of the page. */
export function formatBytes(bytes) {
  let unit = 0;
  let value = bytes;
  for (; Math.abs(value) >= 1000 && unit < Units.length - 1; ++unit) value /= 1000;
  return `${value.toLocaleString("en-US", { maximumSignificantDigits: 4 })} ${Units[unit]}`;
}

export function formatCount(count) {
  return count.toLocaleString("en-US", { maximumFractionDigits: 1 });
}

/** Milliseconds as "12 ms", "3.4 s" or "5:06 min". */
export function formatTime(ms) {
  if (Math.abs(ms) < 1000) return `${formatCount(ms)} ms`;
  if (ms < 60000) return `${(ms / 1000).toPrecision(3)} s`;
  const minutes = Math.floor(ms / 60000);
  return `${minutes}:${String(Math.floor((ms % 60000) / 1000)).padStart(2, "0")} min`;
}

/** "main.cpp:12", "main.cpp" without a line, "" without a file. */
export function formatPlace({ file, line }) {
  const name = file.slice(file.lastIndexOf("/") + 1);
  return name && line > 0 ? `${name}:${line}` : name;
}
