// A curve over any number of events in bounded memory.

const Counts = ["alloc", "free", "retain", "release"];

/**
 * Buckets of equal width along an axis that only grows. When they run out, the width doubles and neighbours merge, so
 * that the number of buckets stays between half the capacity and the capacity.
 */
export class Timeline {
  /** @param {number} capacity number of buckets at most, even. */
  constructor(capacity = 2000) {
    this.capacity = capacity;
    this.start = undefined;
    this.width = 1;
    this.used = 0;
    this.heap = new Float64Array(capacity); // at the end of the bucket
    this.heapPeak = new Float64Array(capacity);
    this.live = new Float64Array(capacity);
    this.livePeak = new Float64Array(capacity);
    this.counts = Counts.map(() => new Float64Array(capacity));
  }

  /**
   * Adds an event.
   * @param {number} at place on the axis; one that lies before the newest bucket counts there.
   * @param {number} heap bytes the memory manager reported. @param {number} live bytes of the blocks known from the log.
   * @param {number} kind 0 alloc, 1 free, 2 retain, 3 release.
   */
  add(at, heap, live, kind) {
    if (this.start === undefined) this.start = at;
    let index = Math.floor((at - this.start) / this.width);
    while (index >= this.capacity) {
      this.halve();
      index = Math.floor((at - this.start) / this.width);
    }
    index = Math.max(index, this.used - 1);
    if (index >= this.used) this.openBuckets(index);
    this.heap[index] = heap;
    this.live[index] = live;
    if (heap > this.heapPeak[index]) this.heapPeak[index] = heap;
    if (live > this.livePeak[index]) this.livePeak[index] = live;
    ++this.counts[kind][index];
  }

  /** Buckets without events go on with the value before them. */
  openBuckets(last) {
    const before = this.used - 1;
    for (let index = this.used; index <= last; ++index) {
      this.heap[index] = this.heapPeak[index] = before < 0 ? 0 : this.heap[before];
      this.live[index] = this.livePeak[index] = before < 0 ? 0 : this.live[before];
    }
    this.used = last + 1;
  }

  halve() {
    const half = Math.ceil(this.used / 2);
    for (let index = 0; index < half; ++index) {
      const first = 2 * index;
      const second = Math.min(first + 1, this.used - 1);
      this.heap[index] = this.heap[second];
      this.live[index] = this.live[second];
      this.heapPeak[index] = Math.max(this.heapPeak[first], this.heapPeak[second]);
      this.livePeak[index] = Math.max(this.livePeak[first], this.livePeak[second]);
      for (const counts of this.counts) counts[index] = counts[first] + (second > first ? counts[second] : 0);
    }
    for (const counts of this.counts) counts.fill(0, half);
    this.used = half;
    this.width *= 2;
  }

  /** Plain arrays, one entry per bucket; `at` is where each bucket begins. */
  toObject() {
    const cut = (array) => Array.from(array.subarray(0, this.used));
    const counts = Object.fromEntries(Counts.map((name, kind) => [name, cut(this.counts[kind])]));
    return {
      width: this.width,
      at: Array.from({ length: this.used }, (_, index) => this.start + index * this.width),
      heap: cut(this.heap),
      heapPeak: cut(this.heapPeak),
      live: cut(this.live),
      livePeak: cut(this.livePeak),
      ...counts,
    };
  }
}
