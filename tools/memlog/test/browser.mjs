// A headless browser for the tests.
import { existsSync } from "node:fs";
import puppeteer from "puppeteer-core";

const Browsers = [process.env.MEMLOG_BROWSER, "/usr/bin/chromium", "/usr/bin/google-chrome"];

/** Path of a browser; undefined when there is none. */
export const browserPath = Browsers.find((path) => path && existsSync(path));

/** Starts the browser, which ends with the test `context`. */
export async function startBrowser(context) {
  if (!browserPath) throw new Error("No browser: install Debian's chromium, or name one in MEMLOG_BROWSER.");
  // Without its sandbox, which root cannot have; the pages are this project's own.
  const args = ["--no-sandbox", "--disable-dev-shm-usage", "--force-color-profile=srgb"];
  const browser = await puppeteer.launch({ executablePath: browserPath, args, headless: true });
  context.after(() => browser.close());
  return browser;
}

/**
 * Opens a file in a new page.
 * @returns the page; `page.troubles` collects console errors and exceptions, `page.requests` every address it asked for.
 */
export async function openFile(browser, path, { scheme = "light", hash = "" } = {}) {
  const page = await browser.newPage();
  page.troubles = [];
  page.requests = [];
  page.on("console", (message) => {
    if (["error", "warn", "assert"].includes(message.type())) page.troubles.push(message.text());
  });
  page.on("pageerror", (error) => page.troubles.push(error.message));
  page.on("request", (request) => page.requests.push(request.url()));
  await page.setViewport({ width: 1200, height: 1300 });
  await page.emulateMediaFeatures([{ name: "prefers-color-scheme", value: scheme }]);
  await page.goto(`file://${path}${hash}`);
  return page;
}
