// Starts the real nox-gateway for the API checks: a free loopback port, a
// fresh data folder, a password of this run. Stopped with SIGTERM.
//
//   const gw = await startGateway("build/bin/nox-gateway");
//   const res = await fetch(gw.base + "/healthz");
//   await gw.stop();
import { spawn } from "node:child_process";
import { randomBytes } from "node:crypto";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";

export async function startGateway(binary, extraArgs = []) {
  const dir = mkdtempSync(join(tmpdir(), "nox-api-"));
  const password = "Pw-" + randomBytes(9).toString("hex");
  const args = ["--listen", "127.0.0.1:0", "--data", join(dir, "data"), "--init-password", password,
                "--log", join(dir, "trace.log"), "--access-log", join(dir, "access.log"),
                "--threads", "4", ...extraArgs];
  const child = spawn(binary, args, { stdio: ["ignore", "pipe", "pipe"] });
  let output = "";
  const exited = new Promise((resolve) => child.on("exit", (code, signal) => resolve({ code, signal })));
  const port = await new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`${binary} did not say where it listens:\n${output}`)), 60000);
    const onData = (chunk) => {
      output += chunk;
      const match = /listening on 127\.0\.0\.1:(\d+)\n/.exec(output);
      if (match) {
        clearTimeout(timer);
        resolve(Number(match[1]));
      }
    };
    child.stdout.on("data", onData);
    child.stderr.on("data", onData);
    child.on("error", (error) => { clearTimeout(timer); reject(error); });
    exited.then(({ code, signal }) => {
      clearTimeout(timer);
      reject(new Error(`${binary} exited (${code ?? signal}) before listening:\n${output}`));
    });
  });
  return {
    base: `http://127.0.0.1:${port}`,
    password,
    output: () => output,
    async stop() {
      child.kill("SIGTERM");
      const { code, signal } = await exited;
      rmSync(dir, { recursive: true, force: true });
      if (code !== 0) throw new Error(`nox-gateway ended with ${code ?? signal}:\n${output}`);
    },
  };
}
