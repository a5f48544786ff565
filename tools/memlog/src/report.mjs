// Builds the page: one HTML file that needs nothing else.
import { readFile } from "node:fs/promises";
import { dirname, join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { build } from "esbuild";

const Root = join(dirname(fileURLToPath(import.meta.url)), "..");

/** Scripts and styles of the page, with the libraries in them; `packages`: the folders of these. */
async function bundle() {
  const result = await build({
    absWorkingDir: Root,
    entryPoints: ["page/main.js"],
    bundle: true,
    minify: true,
    write: false,
    metafile: true,
    format: "iife",
    target: "es2020",
    legalComments: "none", // the licences are shown in full
    outdir: "out",
    logLevel: "silent",
  });
  const find = (end) => result.outputFiles.find((file) => file.path.endsWith(end)).text;
  const packages = new Set();
  for (const input of Object.keys(result.metafile.inputs)) {
    const match = /^(?:.*\/)?node_modules\/((?:@[^/]+\/)?[^/]+)\//.exec(input);
    if (match) packages.add(resolve(Root, match[0]));
  }
  return { script: find(".js"), style: find(".css"), packages: [...packages].sort() };
}

/** Name, version and licence text of a bundled package. */
async function readLicence(folder) {
  const { name, version, license } = JSON.parse(await readFile(join(folder, "package.json"), "utf8"));
  for (const file of ["LICENSE", "LICENSE.md", "LICENSE.txt", "LICENCE"]) {
    const text = await readFile(join(folder, file), "utf8").catch(() => undefined);
    if (text !== undefined) return { name, version, license, text };
  }
  throw new Error(`${name} has no licence text.`);
}

function renderLicence({ name, version, license, text }) {
  return `<h3>${name} ${version} (${license})</h3><pre>${escapeText(text)}</pre>`;
}

/** JSON that may stand inside a script element. */
function embed(data) {
  return JSON.stringify(data).replace(/</g, "\\u003c");
}

function escapeText(text) {
  return text.replace(/&/g, "&amp;").replace(/</g, "&lt;").replace(/>/g, "&gt;");
}

/**
 * @param {object} summary what `summarize` returned.
 * @returns {Promise<string>} the whole report as one HTML document.
 */
export async function renderReport(summary) {
  const [template, { script, style, packages }] = await Promise.all([
    readFile(join(Root, "page/page.html"), "utf8"),
    bundle(),
  ]);
  const licences = await Promise.all(packages.map(readLicence));
  const parts = {
    style: `<style>${style}</style>`,
    data: `<script id="data" type="application/json">${embed(summary)}</script>`,
    script: `<script>${script.replace(/<\/script/gi, "<\\/script")}</script>`,
    licences: licences.map(renderLicence).join("\n"),
  };
  return template.replace(/<!-- (\w+) -->/g, (_, name) => parts[name]);
}
