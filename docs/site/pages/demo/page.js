// The page of the demo: a word, its neighbours, and what a search of them takes.
import { Index, readWords } from "./engine.js";
import load from "./qx.js";

const SHOWN = 12;
const TIMES = 20; // searches for one time, since clocks of browsers are coarse
const part = (name) => document.getElementById(`demo-${name}`);

// Of length 1, so that inner products are cosines.
function normalized({ vectors, dim }) {
  const out = new Float32Array(vectors.length);
  for (let at = 0; at < vectors.length; at += dim) {
    const row = vectors.subarray(at, at + dim);
    const norm = Math.sqrt(row.reduce((sum, value) => sum + value * value, 0));
    out.set(row.map((value) => value / norm), at);
  }
  return out;
}

const [qx, file] = await Promise.all([load(), fetch("words.qxw").then((answer) => answer.arrayBuffer())]);
const words = readWords(file);
const vectors = normalized(words);
const numbers = new Map(words.names.map((name, number) => [name, number]));
const index = new Index(qx, vectors, words.dim, words.names.map((name) => [...name].length), SHOWN + 1);

function row(id, score) {
  const line = document.createElement("tr");
  const button = document.createElement("button");
  button.textContent = "delete";
  button.className = "md-button";
  button.onclick = () => { index.remove(id); show(); };
  for (const content of [words.names[id], score.toFixed(4), button]) {
    line.insertCell().append(content);
  }
  return line;
}

function show() {
  const number = numbers.get(part("word").value.trim().toLowerCase());
  const letters = part("letters").value;
  part("hits").replaceChildren();
  if (number === undefined) {
    part("time").textContent = "This word is not among the 20,000.";
    return;
  }
  const query = vectors.subarray(number * words.dim, (number + 1) * words.dim);
  const label = letters === "" ? null : Number(letters);
  let found;
  const started = performance.now();
  for (let i = 0; i < TIMES; i++) found = index.search(query, SHOWN + 1, label);
  const time = (performance.now() - started) / TIMES;
  const others = found.filter(([id]) => id !== number).slice(0, SHOWN);
  part("hits").append(...others.map(([id, score]) => row(id, score)));
  part("time").textContent = `A search of ${index.count().toLocaleString("en")} words took ${time.toFixed(2)} ms.`;
}

part("word").oninput = show;
part("letters").oninput = show;
part("form").onsubmit = (event) => event.preventDefault();
show();
