// The generated-client check: starts nox-gateway, generates TypeScript types
// from the document it serves (openapi-typescript), compiles
// client/nox-client-example.ts against them with the TypeScript compiler
// (strict), and runs the program against the gateway with openapi-fetch.
//
//   node client-check.mjs --gateway build/bin/nox-gateway --out build/api/client
import { execFileSync } from "node:child_process";
import { copyFileSync, mkdirSync, rmSync, symlinkSync, writeFileSync } from "node:fs";
import { dirname, join } from "node:path";
import { fileURLToPath } from "node:url";
import { parseArgs } from "node:util";
import { startGateway } from "./gateway.mjs";

const here = dirname(fileURLToPath(import.meta.url));
const { values: options } = parseArgs({ options: { gateway: { type: "string" }, out: { type: "string" } } });
if (!options.gateway || !options.out) {
  console.error("usage: node client-check.mjs --gateway NOX_GATEWAY --out DIR");
  process.exit(2);
}
const out = options.out;
const bin = (name) => join(here, "node_modules", ".bin", name);
const run = (command, args) => execFileSync(command, args, { cwd: out, stdio: "inherit" });

const gateway = await startGateway(options.gateway);
let failed = false;
try {
  rmSync(out, { recursive: true, force: true });
  mkdirSync(out, { recursive: true });
  // The document as the gateway serves it.
  const res = await fetch(gateway.base + "/openapi.json");
  if (res.status !== 200) throw new Error(`GET /openapi.json answered ${res.status}`);
  writeFileSync(join(out, "openapi.json"), await res.text());
  run(bin("openapi-typescript"), ["openapi.json", "--output", "nox-api.d.ts"]);
  copyFileSync(join(here, "client", "nox-client-example.ts"), join(out, "nox-client-example.ts"));
  writeFileSync(join(out, "package.json"), JSON.stringify({ type: "module", private: true }) + "\n");
  writeFileSync(join(out, "tsconfig.json"), JSON.stringify({
    compilerOptions: {
      target: "ES2022", module: "NodeNext", moduleResolution: "NodeNext", strict: true,
      noUncheckedIndexedAccess: false, skipLibCheck: false, types: ["node"], lib: ["ES2022", "DOM"],
      outDir: "js",
    },
    files: ["nox-client-example.ts"],
  }, null, 2) + "\n");
  // The program imports openapi-fetch from tools/api's node_modules.
  symlinkSync(join(here, "node_modules"), join(out, "node_modules"), "dir");
  run(bin("tsc"), ["-p", "tsconfig.json"]);
  run(process.execPath, [join(out, "js", "nox-client-example.js"), gateway.base, "apiuser", gateway.password]);
} catch (error) {
  failed = true;
  console.error(`client check: ${error.message || error}`);
} finally {
  await gateway.stop();
}
if (failed) process.exit(1);
console.log("client check: the generated client logged in, read tasks and alarms, and logged out");
