// A Web-Serial-like port over a pseudo-terminal, so that a client written for the browser's
// serial API runs in Node against esp-virtual-chip. A pseudo-terminal has no modem lines and no
// rate: DTR/RTS go to the chip's control input, and the rate is only recorded (the virtual chip
// keeps its own, which CHANGE_BAUDRATE moves).
import { spawn } from "node:child_process";
import fs from "node:fs";
import readline from "node:readline";
import tty from "node:tty";

const startTimeoutMs = 10000; // until the chip has printed its device path
const lineTimeoutMs = 5000; // until the chip confirms new modem lines
const stopTimeoutMs = 10000; // until the chip has exited after SIGTERM

// Starts esp-virtual-chip with `args` (not --quiet: line changes wait for its confirmation);
// resolves once it printed its device path. Every later line of its output is kept in `lines`
// (one per command received or line change).
export async function startVirtualChip(program, args = []) {
  const child = spawn(program, args, { stdio: ["pipe", "pipe", "inherit"] });
  const lines = [];
  const waiters = [];
  const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve({ code, signal })));
  readline.createInterface({ input: child.stdout }).on("line", (line) => {
    lines.push(line);
    for (const waiter of waiters.splice(0)) waiter();
  });
  const nextLine = (from, match, timeoutMs) =>
    new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`no "${match}" line from ${program} in ${timeoutMs} ms`)), timeoutMs);
      const look = () => {
        const found = lines.slice(from).find((line) => line.startsWith(match));
        if (found !== undefined) {
          clearTimeout(timer);
          resolve(found);
        } else {
          waiters.push(look);
        }
      };
      look();
    });
  const path = await Promise.race([
    nextLine(0, "/dev/", startTimeoutMs),
    exited.then(({ code }) => Promise.reject(new Error(`${program} exited (${code}) before printing its device path`))),
  ]);
  return {
    path,
    lines,
    // Drives the reset circuit (true = asserted); resolves once the chip applied it.
    async setLines(dtr, rts) {
      const from = lines.length;
      child.stdin.write(`dtr=${dtr ? 1 : 0} rts=${rts ? 1 : 0}\n`);
      return nextLine(from, `LINES dtr=${dtr ? 1 : 0} rts=${rts ? 1 : 0}`, lineTimeoutMs);
    },
    // Ends the chip (it writes --dump then); resolves with its exit status.
    async stop() {
      child.kill("SIGTERM");
      const timer = setTimeout(() => child.kill("SIGKILL"), stopTimeoutMs);
      const status = await exited;
      clearTimeout(timer);
      return status;
    },
  };
}

// The serial port object that a Web-Serial client expects: open/close, readable/writable web
// streams, setSignals, getInfo, and an in-place rate change.
export class PtySerialPort {
  // `setLines(dtr, rts)` receives the modem lines (true = asserted) whenever they change.
  constructor(path, { setLines = async () => {} } = {}) {
    this.path = path;
    this.setLines = setLines;
    this.readable = null;
    this.writable = null;
    this.baudRate = 0;
    this.dtr = false;
    this.rts = false;
    this.fd = -1;
  }

  getInfo() {
    return {}; // no USB vendor or product
  }

  async open({ baudRate = 115200 } = {}) {
    if (this.fd >= 0) throw new Error(`${this.path} is already open`);
    this.fd = fs.openSync(this.path, fs.constants.O_RDWR | fs.constants.O_NOCTTY);
    const input = new tty.ReadStream(this.fd);
    input.setRawMode(true); // no echo, no line editing, every byte as it is
    const output = new tty.WriteStream(this.fd);
    this.input = input;
    this.output = output;
    this.baudRate = baudRate;
    this.readable = new ReadableStream({
      start(controller) {
        input.on("data", (chunk) => controller.enqueue(new Uint8Array(chunk)));
        input.on("close", () => {
          try {
            controller.close();
          } catch {
            // already closed or cancelled
          }
        });
        input.on("error", (error) => controller.error(error));
      },
      cancel() {
        input.destroy();
      },
    });
    this.writable = new WritableStream({
      write(chunk) {
        return new Promise((resolve, reject) => output.write(Buffer.from(chunk), (error) => (error ? reject(error) : resolve())));
      },
    });
  }

  async close() {
    this.input?.destroy();
    this.output?.destroy();
    if (this.fd >= 0) {
      try {
        fs.closeSync(this.fd);
      } catch {
        // the streams closed it
      }
    }
    this.fd = -1;
    this.input = this.output = null;
    this.readable = this.writable = null;
  }

  // Absent members keep their line, as in the Web Serial API.
  async setSignals({ dataTerminalReady, requestToSend } = {}) {
    const dtr = dataTerminalReady ?? this.dtr;
    const rts = requestToSend ?? this.rts;
    if (dtr === this.dtr && rts === this.rts) return;
    this.dtr = dtr;
    this.rts = rts;
    await this.setLines(dtr, rts);
  }

  async setBaudRate(baudRate) {
    this.baudRate = baudRate;
  }
}
