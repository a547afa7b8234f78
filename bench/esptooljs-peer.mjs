// The peer of the end-to-end benchmark: npm esptool-js at its best settings (its own flash
// loader, compressed writes, the given rate) against a virtual chip that the benchmark runs.
// The chip waits in its boot loader, so the client connects without a reset; the boot message
// it printed is drained first, since this client takes it for a broken answer. Timed: connect
// -> written and verified by MD5 (write), or connect -> read (read). Prints "seconds=S"; exits
// non-zero with one line on a failure. Usage:
//   node esptooljs-peer.mjs --modules DIR/node_modules --port /dev/pts/N --op write|read
//        --baud N --address A (--file F | --size S)
import fs from "node:fs";
import { parseArgs } from "node:util";

import { connect, loadEsptool, md5Hex, readBack, writeImage } from "../tests/interop/esptoolsteps.mjs";
import { PtySerialPort } from "../tests/interop/ptytransport.mjs";

const quietMs = 100; // the boot message is over once the line has been quiet this long
const pollMs = 10;

const { values: options } = parseArgs({
  options: {
    modules: { type: "string" },
    port: { type: "string" },
    op: { type: "string" },
    baud: { type: "string" },
    address: { type: "string", default: "0" },
    file: { type: "string" },
    size: { type: "string" },
    expect: { type: "string" }, // MD5 (hex) that a read must yield
  },
});

async function drain(path) {
  const fd = fs.openSync(path, fs.constants.O_RDWR | fs.constants.O_NOCTTY | fs.constants.O_NONBLOCK);
  const buffer = Buffer.alloc(65536);
  try {
    for (let quiet = 0; quiet < quietMs; quiet += pollMs) {
      try {
        if (fs.readSync(fd, buffer) > 0) quiet = -pollMs;
      } catch {
        // EAGAIN: nothing there
      }
      await new Promise((resolve) => setTimeout(resolve, pollMs));
    }
  } finally {
    fs.closeSync(fd);
  }
}

async function main() {
  const esptool = await loadEsptool(options.modules);
  await drain(options.port);
  const port = new PtySerialPort(options.port);
  const address = Number(options.address);
  const baud = Number(options.baud);
  const data = options.op === "write" ? new Uint8Array(fs.readFileSync(options.file)) : null;
  const started = performance.now();
  const { loader, transport } = await connect(esptool, { port, baud, reset: "no_reset" });
  let read = null;
  if (options.op === "write") {
    await writeImage(loader, { data, address });
  } else {
    ({ data: read } = await readBack(loader, { address, size: Number(options.size) }));
  }
  const seconds = (performance.now() - started) / 1000;
  await transport.disconnect();
  if (read && options.expect && md5Hex(read) !== options.expect.toLowerCase())
    throw new Error(`the read returned other data (MD5 ${md5Hex(read)})`);
  console.log(`seconds=${seconds.toFixed(3)}`);
}

main().then(
  () => process.exit(0),
  (error) => {
    console.error(`esptool-js peer: FAILED: ${error.message}`);
    process.exit(1);
  },
);
