// Collapsed stacks: "outermost;...;innermost weight" per line, what flame graph scripts read.

/** Semicolons separate frames, the last space the weight. */
function clean(name) {
  return name.replace(/;/g, ":").replace(/\s+/g, " ");
}

/**
 * @param {{sites: import("../sites.mjs").Site[], frames: import("../stacks.mjs").Frame[]}} log
 * @param {string} key one of the metrics.
 * @returns {string} a line per stack that has some of it; stacks of the same functions add up.
 */
export function renderCollapsed({ sites, frames }, key) {
  const weights = new Map();
  for (const site of sites) {
    if (!(site[key] > 0)) continue;
    const stack = site.frames
      .map((frame) => clean(frames[frame].name))
      .reverse()
      .join(";");
    weights.set(stack, (weights.get(stack) ?? 0) + site[key]);
  }
  return [...weights].map(([stack, weight]) => `${stack} ${weight}\n`).join("");
}
