// An index of the engine for JavaScript, and the file of words, whose format is that of data/README.md.

export function readWords(buffer) {
  const header = new DataView(buffer);
  const count = header.getUint32(12, true);
  const dim = header.getUint32(16, true);
  const first = 32 + header.getUint32(20, true);
  const names = new TextDecoder().decode(new Uint8Array(buffer, 32, first - 32)).trimEnd().split("\n");
  // The bits of a half are those of a float with fewer, and an exponent that begins 112 higher.
  const bits = new Uint32Array(count * dim);
  for (let i = 0; i < bits.length; i++) {
    const half = header.getUint16(first + 2 * i, true);
    bits[i] = (half & 0x8000) << 16 | (half & 0x7fff) << 13;
  }
  const vectors = new Float32Array(bits.buffer).map((value) => value * 2 ** 112);
  return { names, dim, vectors };
}

export class Index {
  // qx is the module of the engine; labels are numbers by which searches can be filtered.
  constructor(qx, vectors, dim, labels, most) {
    const count = labels.length;
    const ids = BigInt64Array.from(labels, (_, i) => BigInt(i));
    const rows = this.#place(qx, vectors);
    const listed = this.#place(qx, ids);
    const given = this.#place(qx, BigInt64Array.from(labels, BigInt));
    this.qx = qx;
    this.index = qx._qx_index_new(dim, 0);
    qx._qx_index_build(this.index, rows, BigInt(count), dim, listed, 0, 0, 0, 0);
    qx._qx_index_set_rowmeta(this.index, listed, given, 0, 0, count);
    for (const used of [rows, listed, given]) qx._free(used);
    this.query = qx._malloc(dim * 4);
    this.ids = qx._malloc(most * 8);
    this.scores = qx._malloc(most * 4);
  }

  #place(qx, numbers) {
    const at = qx._malloc(numbers.byteLength);
    qx.HEAPU8.set(new Uint8Array(numbers.buffer, numbers.byteOffset, numbers.byteLength), at);
    return at;
  }

  // The k best: pairs of an id and a score. With a label, of rows that have it.
  search(query, k, label = null) {
    const { qx } = this;
    qx.HEAPF32.set(query, this.query / 4);
    qx._qx_index_search_filtered(this.index, label === null ? 0 : 1, 0, BigInt(label ?? 0), this.query, k,
      this.ids, this.scores);
    const ids = new BigInt64Array(qx.HEAPU8.buffer, this.ids, k);
    const scores = new Float32Array(qx.HEAPU8.buffer, this.scores, k);
    return [...ids].map((id, i) => [Number(id), scores[i]]).filter(([id]) => id >= 0);
  }

  remove(id) {
    const { qx } = this;
    new BigInt64Array(qx.HEAPU8.buffer, this.ids, 1)[0] = BigInt(id);
    qx._qx_index_delete(this.index, this.ids, 1);
  }

  count() {
    return Number(this.qx._qx_index_visible_count(this.index));
  }
}
