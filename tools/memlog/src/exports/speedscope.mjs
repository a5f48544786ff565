// speedscope's file format: one profile per metric, call stacks as samples with weights.
import { Metrics } from "./metrics.mjs";

/**
 * @param {{sites: import("../sites.mjs").Site[], frames: import("../stacks.mjs").Frame[], title: string}} log
 * @returns {string} JSON
 */
export function renderSpeedscope({ sites, frames, title }) {
  const profiles = Metrics.map(({ key, name, unit }) => {
    const used = sites.filter((site) => site[key] > 0).sort((a, b) => b[key] - a[key]);
    return {
      type: "sampled",
      name,
      unit,
      startValue: 0,
      endValue: used.reduce((sum, site) => sum + site[key], 0),
      samples: used.map((site) => [...site.frames].reverse()),
      weights: used.map((site) => site[key]),
    };
  }).filter(({ samples }) => samples.length > 0);
  return JSON.stringify({
    $schema: "https://www.speedscope.app/file-format-schema.json",
    name: title,
    exporter: "memlog",
    activeProfileIndex: 0,
    shared: {
      frames: frames.map(({ name, file, line }) => ({ name, ...(file && { file }), ...(line > 0 && { line }) })),
    },
    profiles,
  });
}
