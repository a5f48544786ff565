// Blocks that come and go, kept for an export that shows each of them.

/** The same block is always in or always out, whatever its address' low bits. */
function hashOf(address) {
  const number = Number(address);
  const mixed = Math.imul((number / 8) ^ (number / 4294967296), 0x9e3779b1);
  return (mixed ^ (mixed >>> 15)) >>> 0;
}

/**
 * A list of changes in bounded memory: when it is full, it keeps the changes of every second address only. Allocation
 * and free of a block stay together that way.
 */
export class ChangeList {
  /** @param {number} capacity */
  constructor(capacity = 1000000) {
    this.capacity = capacity;
    this.mask = 0;
    this.times = [];
    this.addresses = [];
    this.bytes = [];
    this.sites = [];
  }

  /** One of this many blocks is in the list. */
  get step() {
    return this.mask + 1;
  }

  get length() {
    return this.times.length;
  }

  /** @param {number} bytes negative for a free. @param {object} site where it happened. */
  add(time, address, bytes, site) {
    if (hashOf(address) & this.mask) return;
    if (this.length >= this.capacity) {
      this.thin();
      if (hashOf(address) & this.mask) return;
    }
    this.times.push(time);
    this.addresses.push(Number(address));
    this.bytes.push(bytes);
    this.sites.push(site);
  }

  thin() {
    this.mask = 2 * this.mask + 1;
    let kept = 0;
    for (let index = 0; index < this.length; ++index) {
      if (hashOf(this.addresses[index]) & this.mask) continue;
      for (const column of [this.times, this.addresses, this.bytes, this.sites]) column[kept] = column[index];
      ++kept;
    }
    for (const column of [this.times, this.addresses, this.bytes, this.sites]) column.length = kept;
  }
}
