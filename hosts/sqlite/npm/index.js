// The path of the extension, and how a connection loads it.
"use strict";
const path = require("node:path");

const extension = path.join(__dirname, "qx.so");

// Of better-sqlite3, or of node:sqlite if it was opened with allowExtension.
function load(database) {
  database.loadExtension(extension);
}

// A vector as the extension takes it.
function vector(numbers) {
  const floats = Float32Array.from(numbers);
  return Buffer.from(floats.buffer, floats.byteOffset, floats.byteLength);
}

module.exports = { extension, load, vector };
