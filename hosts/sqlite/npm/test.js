// The package in Node: test.js FOLDER, where better-sqlite3 and the package are installed.
"use strict";
const assert = require("node:assert");
const fs = require("node:fs");
const os = require("node:os");
const path = require("node:path");
const { Worker, isMainThread, workerData, parentPort } = require("node:worker_threads");

const folder = isMainThread ? path.resolve(process.argv[2]) : workerData.folder;
const installed = (name) => require(require.resolve(name, { paths: [folder] }));
const Database = installed("better-sqlite3");
const qx = installed("qx-sqlite");
const search = "SELECT rowid, score FROM t WHERE embedding MATCH ? AND k = 2 AND label = ?";

function answer(file) {
  const database = new Database(file);
  qx.load(database);
  return database.prepare(search).all(qx.vector([1, 0]), 1n);
}

if (!isMainThread) {
  parentPort.postMessage(answer(workerData.file));
} else {
  const file = path.join(fs.mkdtempSync(path.join(os.tmpdir(), "qx-")), "words.db");
  const database = new Database(file);
  qx.load(database);
  database.exec("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer, name text)");
  const insert = database.prepare("INSERT INTO t(rowid, embedding, label, name) VALUES (?, ?, ?, ?)");
  database.transaction(() => {
    for (let i = 1; i <= 100; i++) insert.run(BigInt(i), qx.vector([i, 1]), BigInt(i % 2), `name ${i}`);
  })();
  const expected = [{ rowid: 99, score: 99 }, { rowid: 97, score: 97 }];
  assert.deepStrictEqual(answer(file), expected);
  // Numbers of JavaScript are reals, which label takes if they are whole.
  assert.deepStrictEqual(database.prepare(search).all(qx.vector([1, 0]), 1), expected);
  assert.strictEqual(database.prepare("SELECT name FROM t WHERE embedding MATCH '[1, 0]' LIMIT 1").get().name,
    "name 100");
  assert.throws(() => database.prepare(search).all(qx.vector([1]), 1), /a vector of 1 numbers/);
  const readers = [1, 2, 3, 4].map(() => new Promise((resolve, reject) => {
    const worker = new Worker(__filename, { workerData: { folder, file } });
    worker.on("message", resolve);
    worker.on("error", reject);
  }));
  Promise.all(readers).then((answers) => {
    for (const found of answers) assert.deepStrictEqual(found, expected);
    const { version } = database.prepare("SELECT sqlite_version() AS version").get();
    console.log(`SQLite ${version}, ${answers.length} threads`);
  });
}
