// Prints what the engine of the demo finds for words, as demo_bits.py does by the native library.
// demo_bits.mjs FOLDER    the folder of the demo
import { readFileSync } from "node:fs";
import { pathToFileURL } from "node:url";

const folder = pathToFileURL(`${process.argv[2]}/`);
const { Index, readWords } = await import(new URL("engine.js", folder));
const { default: load } = await import(new URL("qx.js", folder));
const bytes = (name) => readFileSync(new URL(name, folder));
const qx = await load({ wasmBinary: bytes("qx.wasm") });
const { names, vectors, dim } = readWords(new Uint8Array(bytes("words.qxw")).buffer);
for (const exponent of [0, -72, 62]) {
  const scaled = vectors.map((value) => value * 2 ** exponent);
  const index = new Index(qx, scaled, dim, names.map((name) => [...name].length), 10);
  for (let word = 0; word < 20000; word += 101) {
    const query = scaled.subarray(word * dim, (word + 1) * dim);
    for (const label of [null, 5]) {
      const hits = index.search(query, 10, label);
      const scores = new Uint32Array(Float32Array.from(hits, ([, score]) => score).buffer);
      console.log(hits.map(([id], i) => `${id}:${scores[i].toString(16)}`).join(" "));
    }
  }
}
