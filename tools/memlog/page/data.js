// The numbers of the report, as the tool put them into the page.

/**
 * @param {object} summary
 * @returns the summary, with `sites` as a list of objects and `frames` in them as objects, the innermost first.
 */
export function unpack(summary) {
  const frames = summary.frames.map(([name, file, line, module]) => ({ name, file, line, module }));
  const columns = Object.entries(summary.sites);
  const sites = summary.sites.hash.map((_, index) => {
    const site = Object.fromEntries(columns.map(([name, values]) => [name, values[index]]));
    site.frames = site.frames.map((frame) => frames[frame]);
    return site;
  });
  return { ...summary, frames, sites };
}

/** True when the frame's function, file or module has the term, which is in lower case. */
export function matchesFrame(frame, term) {
  return (
    frame.name.toLowerCase().includes(term) ||
    frame.file.toLowerCase().includes(term) ||
    frame.module.toLowerCase().includes(term)
  );
}
