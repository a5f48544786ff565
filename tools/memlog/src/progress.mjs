// Says how far a long run is: a bar on a terminal, else a plain line every now and then.

const BarWidth = 30;
const RedrawMs = 100;
const LineMs = 5000;

function formatSeconds(seconds) {
  return seconds < 60 ? `${Math.ceil(seconds)} s` : `${Math.floor(seconds / 60)} min ${Math.ceil(seconds % 60)} s`;
}

export class Progress {
  /**
   * @param {{write(text: string): void, isTTY?: boolean, columns?: number}} stream usually process.stderr.
   * @param {() => number} now milliseconds, for tests.
   */
  constructor(stream, now = Date.now) {
    this.stream = stream;
    this.now = now;
    this.interval = stream.isTTY ? RedrawMs : LineMs;
    this.isDrawn = false;
  }

  /** Begins a step of the work, named for the user. */
  begin(title) {
    this.title = title;
    this.start = this.last = this.now();
  }

  /** @param {number} done @param {number} size of the step, in bytes; both may be 0. */
  update(done, size) {
    const now = this.now();
    if (now - this.last < this.interval) return;
    this.last = now;
    const share = size > 0 ? done / size : 1;
    const seconds = (now - this.start) / 1000;
    const rest = share > 0 ? (seconds / share) * (1 - share) : 0;
    const megabytes = `${(done / 1e6).toFixed(0)} of ${(size / 1e6).toFixed(0)} MB`;
    const text = `${String(Math.floor(100 * share)).padStart(3)} %  ${megabytes}  ${formatSeconds(rest)} left`;
    if (this.stream.isTTY) this.draw(share, text);
    else this.stream.write(`${this.title}: ${text.trim()}\n`);
  }

  draw(share, text) {
    const filled = Math.round(share * BarWidth);
    const bar = "#".repeat(filled) + ".".repeat(BarWidth - filled);
    const line = `${this.title} [${bar}] ${text}`;
    this.stream.write(`\r${line.slice(0, (this.stream.columns ?? 80) - 1)}\x1b[K`);
    this.isDrawn = true;
  }

  /** Ends the step; the bar goes away. */
  end() {
    if (this.isDrawn) this.stream.write("\r\x1b[K");
    this.isDrawn = false;
  }
}
