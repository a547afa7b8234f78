// Interoperability: npm esptool-js, an independent client of the ROM protocol, flashes the
// virtual ESP8266 through a pseudo-terminal. Every step is checked; exits non-zero with one
// clear message on the first failure. ESP_INTEROP_LOG=1 prints the chip's command log. Usage:
//   node interop.mjs --chip PATH/esp-virtual-chip --modules DIR/node_modules --work DIR
import assert from "node:assert/strict";
import fs from "node:fs";
import path from "node:path";
import { parseArgs } from "node:util";

import { connect, eraseRegion, loadEsptool, md5Hex, readBack, writeImage } from "./esptoolsteps.mjs";
import { PtySerialPort, startVirtualChip } from "./ptytransport.mjs";

const { values: options } = parseArgs({
  options: { chip: { type: "string" }, modules: { type: "string" }, work: { type: "string" } },
});
for (const name of ["chip", "modules", "work"]) {
  if (!options[name]) {
    console.error(`interop: --${name} is required`);
    process.exit(2);
  }
}

const mac = "ac:d0:74:12:34:56"; // an OUI that the eFuses encode in word 1
const address = 0x10000;
const imageSize = 100 * 1024;
const eraseAt = address + 0x4000; // a region inside the image, erased at the end
const eraseSize = 0x2000;
const filler = 0x11; // flash around the image, which nothing may touch
const fillerSize = 0x40000;

// Firmware-like: runs of varied bytes and of repeated ones, so that compression matters.
function image(size) {
  const bytes = new Uint8Array(size);
  let state = 0x2545f491;
  for (let i = 0; i < size; ++i) {
    state ^= state << 13;
    state ^= state >>> 17;
    state ^= state << 5;
    bytes[i] = i % 4096 < 2048 ? state & 0xff : i & 0x3f;
  }
  return bytes;
}

async function main() {
  fs.mkdirSync(options.work, { recursive: true });
  const fillerFile = path.join(options.work, "filler.bin");
  const dumpFile = path.join(options.work, "dump.bin");
  fs.writeFileSync(fillerFile, new Uint8Array(fillerSize).fill(filler));
  fs.rmSync(dumpFile, { force: true });
  const esptool = await loadEsptool(options.modules);

  // The chip runs its user program until the client resets it into the ROM loader.
  const chip = await startVirtualChip(options.chip, [
    "--boot-mode", "firmware", "--throttle", "--mac", mac,
    "--load", `0:${fillerFile}`, "--dump", dumpFile,
  ]);
  const port = new PtySerialPort(chip.path, { setLines: (dtr, rts) => chip.setLines(dtr, rts) });
  const messages = [];
  const step = async (what, action) => {
    try {
      return await action();
    } catch (error) {
      throw new Error(`${what}: ${error.message}\nesptool-js said:\n  ${messages.join("\n  ")}\nthe chip logged:\n  ${chip.lines.slice(-15).join("\n  ")}`);
    }
  };
  let transport;
  try {
    const session = await step("connect, identify, upload the loader, change the rate", () =>
      connect(esptool, { port, baud: 921600, log: (text) => messages.push(text) }),
    );
    const { loader } = session;
    transport = session.transport;
    await step("chip identity", async () => {
      assert.equal(loader.chip.CHIP_NAME, "ESP8266");
      assert.equal(session.description, "ESP8266EX");
      assert.equal(await loader.chip.readMac(loader), mac);
      assert.equal(loader.IS_STUB, true, "the client's loader runs");
      assert.equal(transport.baudrate, 921600);
      assert.equal(await loader.readFlashId(), 0x1640ef); // manufacturer, type, capacity
      assert.equal(await loader.detectFlashSize(), "4MB");
    });

    const data = image(imageSize);
    const writeSeconds = await step("compressed write (the client compares MD5s)", () =>
      writeImage(loader, { data, address }),
    );
    const { data: read, seconds: readSeconds } = await step("read back", () =>
      readBack(loader, { address, size: imageSize }),
    );
    await step("read-back contents", async () => {
      assert.equal(read.length, imageSize);
      assert.equal(md5Hex(read), md5Hex(data));
      assert.equal(await loader.flashMd5sum(address, imageSize), md5Hex(data));
    });

    const expected = Uint8Array.from(data);
    expected.fill(0xff, eraseAt - address, eraseAt - address + eraseSize);
    await step("erase a region", async () => {
      await eraseRegion(loader, { address: eraseAt, size: eraseSize });
      const { data: erased } = await readBack(loader, { address: eraseAt, size: eraseSize });
      assert.ok(erased.every((byte) => byte === 0xff), "the region reads erased");
      assert.equal(await loader.flashMd5sum(address, imageSize), md5Hex(expected));
    });

    // A hard reset (EN pulsed, GPIO0 high) starts the user program again.
    await step("hard reset into the user program", async () => {
      await transport.setDTR(false);
      await transport.setRTS(true);
      await transport.setRTS(false);
      assert.ok(chip.lines.at(-1).endsWith("-> user program"), chip.lines.at(-1));
    });
    await transport.disconnect();
    transport = null;

    const status = await chip.stop();
    await step("the chip's flash after the session", async () => {
      assert.equal(status.code, 0, `the chip exited with ${JSON.stringify(status)}`);
      const dump = fs.readFileSync(dumpFile);
      assert.equal(md5Hex(dump.subarray(address, address + imageSize)), md5Hex(expected));
      // The compressed write erased only the sectors of the image.
      const end = address + imageSize;
      assert.ok(dump.subarray(0, address).every((byte) => byte === filler), "flash before the image untouched");
      assert.ok(dump.subarray(end, fillerSize).every((byte) => byte === filler), "flash after the image untouched");
      // What the client sent, as the chip logged it: the reset lines, the ROM's and its own
      // loader's commands.
      const log = chip.lines.join("\n");
      for (const line of [
        "LINES dtr=0 rts=1 -> held in reset",
        "LINES dtr=1 rts=0 -> ROM loader",
        "READ_REG len=4 [ROM] -> ok",
        "MEM_END len=8 [ROM] -> ok",
        "CHANGE_BAUDRATE len=8 [flash loader] -> ok",
        "FLASH_DEFL_BEGIN len=16 [flash loader] -> ok",
        "FLASH_DEFL_END len=4 [flash loader] -> ok",
        "READ_FLASH len=16 [flash loader] -> ok",
        "SPI_FLASH_MD5 len=16 [flash loader] -> ok",
        "ERASE_REGION len=8 [flash loader] -> ok",
      ]) {
        assert.ok(log.includes(line), `the chip logged no "${line}"`);
      }
      assert.ok(!/FLASH_DEFL_DATA.*-> status/.test(log), "a compressed block was refused");
    });
    console.log(
      `interop: esptool-js identified the virtual ESP8266, uploaded its loader, wrote ${imageSize} bytes ` +
        `compressed in ${writeSeconds.toFixed(2)} s, read them back in ${readSeconds.toFixed(2)} s at 921600 baud ` +
        `(throttled), checked MD5s, erased a region and reset the chip: passed`,
    );
  } finally {
    if (transport) await transport.disconnect().catch(() => {});
    await chip.stop();
    if (process.env.ESP_INTEROP_LOG) console.log(chip.lines.join("\n"));
  }
}

main().then(
  () => process.exit(0),
  (error) => {
    console.error(`interop: FAILED: ${error.message}`);
    process.exit(1);
  },
);
