// The steps of a flash session driven by npm esptool-js over a PtySerialPort, each callable on its
// own with its parameters, so that the interoperability test and a benchmark share them.
import { createHash } from "node:crypto";
import { createRequire } from "node:module";
import path from "node:path";
import { pathToFileURL } from "node:url";

// esptool-js from `modulesDir` (a node_modules folder), not from this file's neighbourhood.
export async function loadEsptool(modulesDir) {
  const require = createRequire(path.join(path.resolve(modulesDir), "noop.js"));
  return import(pathToFileURL(require.resolve("esptool-js")).href);
}

export function md5Hex(bytes) {
  return createHash("md5").update(bytes).digest("hex");
}

// Connects through the reset circuit (the client's own reset sequence), identifies the chip,
// uploads the client's flash loader and moves to `baud`. Resolves with the loader object and
// the chip description; `log` receives the client's messages.
export async function connect(esptool, { port, baud = 921600, log = () => {} }) {
  const transport = new esptool.Transport(port, false);
  const terminal = { clean() {}, writeLine: log, write: log };
  const loader = new esptool.ESPLoader({ transport, baudrate: baud, romBaudrate: 115200, terminal });
  const description = await loader.main("default_reset");
  return { loader, transport, description };
}

// Writes `data` at `address` (compressed unless told otherwise); the client checks the chip's
// MD5 of the region against its own. Resolves with the seconds it took.
export async function writeImage(loader, { data, address, compress = true }) {
  const started = performance.now();
  await loader.writeFlash({
    fileArray: [{ data, address }],
    flashMode: "keep",
    flashFreq: "keep",
    flashSize: "keep",
    eraseAll: false,
    compress,
    calculateMD5Hash: md5Hex,
  });
  return (performance.now() - started) / 1000;
}

// Reads `size` bytes at `address`; resolves with the bytes and the seconds it took.
export async function readBack(loader, { address, size }) {
  const started = performance.now();
  const data = await loader.readFlash(address, size);
  return { data, seconds: (performance.now() - started) / 1000 };
}

// ERASE_REGION through the client's generic command path (it has no call of its own for it).
export async function eraseRegion(loader, { address, size }) {
  const words = new Uint8Array(8);
  const view = new DataView(words.buffer);
  view.setUint32(0, address, true);
  view.setUint32(4, size, true);
  const timeout = loader.timeoutPerMb(loader.ERASE_REGION_TIMEOUT_PER_MB, size);
  await loader.checkCommand("erase region", loader.ESP_ERASE_REGION, words, 0, 0, timeout);
}
