// The contract test: every exchange the end-to-end tests recorded
// (tests/e2e/exchange_recorder.h) is checked against the OpenAPI document
// the gateway serves at /openapi.json:
//   - the path and method name a documented operation, and the status is
//     one the operation lists;
//   - the content type is one listed for that status;
//   - the body is valid against the listed schema (JSON Schema 2020-12, with
//     Ajv), closed objects admitting no member they do not name; a string
//     schema that declares contentMediaType application/json holds JSON valid
//     against its contentSchema.
// Requests outside the document are held to what the document's
// description promises for them: a path that is no route answers 404 (or 405
// for a method the gateway never serves), a method a path does not list
// answers 405 (or 401 where a session is needed), and any request may be
// refused by the transport (400, 413, 414, 431); all of them with the error
// envelope. HEAD is held to GET's statuses and content types, without a
// body; a path item marked x-nox-deeper-paths also serves the paths below
// it.
//
//   node contract.mjs --gateway build/bin/nox-gateway --exchanges build/api/exchanges.jsonl
//
// Exits 0 when every exchange conforms, 1 naming each mismatch (route,
// status, what differs), 77 when nothing was recorded.
import Ajv2020 from "ajv/dist/2020.js";
import addFormats from "ajv-formats";
import { existsSync, readFileSync } from "node:fs";
import { parseArgs } from "node:util";
import { startGateway } from "./gateway.mjs";

const { values: options } = parseArgs({
  options: { gateway: { type: "string" }, exchanges: { type: "string" } },
});
if (!options.gateway || !options.exchanges) {
  console.error("usage: node contract.mjs --gateway NOX_GATEWAY --exchanges FILE");
  process.exit(2);
}

const DOC_ID = "https://nox-gateway.invalid/openapi.json";
const METHODS = ["get", "put", "post", "delete", "options", "head", "patch", "trace"];
// Answers the document's description promises for any request.
const TRANSPORT_REFUSALS = ["400", "413", "414", "431"];

async function servedDocument() {
  const gateway = await startGateway(options.gateway);
  try {
    const res = await fetch(gateway.base + "/openapi.json");
    if (res.status !== 200) throw new Error(`GET /openapi.json answered ${res.status}`);
    return await res.json();
  } finally {
    await gateway.stop();
  }
}

function readExchanges(file) {
  if (!existsSync(file)) return [];
  return readFileSync(file, "utf8").split("\n").filter((line) => line.trim() !== "")
    .map((line, index) => {
      try {
        return JSON.parse(line);
      } catch (error) {
        throw new Error(`${file}:${index + 1}: not JSON: ${error.message}`);
      }
    });
}

// JSON pointer escaping of one reference token.
const escapeToken = (token) => token.replace(/~/g, "~0").replace(/\//g, "~1");

// The object at `pointer` ("#/components/...") in the document.
function resolvePointer(doc, pointer) {
  return pointer.replace(/^#\//, "").split("/")
    .map((token) => token.replace(/~1/g, "/").replace(/~0/g, "~"))
    .reduce((node, token) => (node === undefined ? undefined : node[token]), doc);
}

// Follows a Reference Object to what it names; returns [object, pointer].
function follow(doc, node, pointer) {
  while (node && typeof node.$ref === "string") {
    pointer = node.$ref;
    node = resolvePointer(doc, pointer);
  }
  return [node, pointer];
}

// The documented path template that `path` matches: a path without
// templating first, as OpenAPI orders them; null when none does.
function matchPath(doc, path) {
  const templates = Object.keys(doc.paths);
  if (templates.includes(path)) return { template: path, params: {} };
  for (const template of templates) {
    const names = [];
    const source = template.split("/").map((segment) => {
      const name = /^\{(.+)\}$/.exec(segment);
      if (!name) return segment.replace(/[.*+?^${}()|[\]\\]/g, "\\$&");
      names.push(name[1]);
      return "([^/]+)";
    }).join("/");
    // A path item marked x-nox-deeper-paths also serves the paths below it.
    const deeper = doc.paths[template]["x-nox-deeper-paths"] ? "(?:/.*)?" : "";
    const match = new RegExp(`^${source}${deeper}$`).exec(path);
    if (match) {
      return { template, params: Object.fromEntries(names.map((n, i) => [n, match[i + 1]])) };
    }
  }
  return null;
}

const essence = (type) => (type || "").split(";")[0].trim().toLowerCase();
const normalized = (type) => (type || "").toLowerCase().split(";").map((s) => s.trim()).join("; ");

// The media type entry of `content` for the answer's Content-Type: the
// exact type with parameters first, else the type without them.
function mediaFor(content, contentType) {
  const entries = Object.entries(content || {});
  return entries.find(([key]) => normalized(key) === normalized(contentType)) ||
    entries.find(([key]) => !key.includes(";") && essence(key) === essence(contentType));
}

function describeErrors(errors) {
  return errors.map((e) => {
    const at = e.instancePath || "(the body)";
    if (e.keyword === "additionalProperties") return `${at}: undocumented member "${e.params.additionalProperty}"`;
    return `${at}: ${e.message}${e.params && e.params.allowedValue !== undefined ? ` (${JSON.stringify(e.params.allowedValue)})` : ""}`;
  }).join("; ");
}

async function main() {
  const exchanges = readExchanges(options.exchanges);
  if (exchanges.length === 0) {
    console.log(`contract: no exchanges recorded in ${options.exchanges}; the end-to-end tests record them (ctest -L e2e runs this check after them)`);
    process.exit(77);
  }
  const doc = await servedDocument();
  const ajv = new Ajv2020({ strict: false, allErrors: true, validateFormats: true });
  addFormats(ajv);
  ajv.addFormat("int32", { type: "number", validate: (n) => Number.isInteger(n) && n >= -(2 ** 31) && n < 2 ** 31 });
  ajv.addFormat("int64", { type: "number", validate: (n) => Number.isInteger(n) });
  ajv.addSchema(doc, DOC_ID);
  const validators = new Map();
  const validatorAt = (pointer) => {
    if (!validators.has(pointer)) {
      const validate = ajv.getSchema(DOC_ID + pointer);
      if (!validate) throw new Error(`no schema at ${pointer}`);
      validators.set(pointer, validate);
    }
    return validators.get(pointer);
  };
  const envelopePointer = "#/components/schemas/ErrorEnvelope";

  // Checks `body` against the schema at `pointer`; returns the mismatch or "".
  const checkBody = (pointer, body) => {
    const [schema, schemaPointer] = follow(doc, resolvePointer(doc, pointer), pointer);
    let value = body;
    if (!(schema && schema.type === "string")) {
      try {
        value = JSON.parse(body);
      } catch (error) {
        return `the body is not JSON: ${error.message}`;
      }
    }
    const validate = validatorAt(schemaPointer);
    if (!validate(value)) return describeErrors(validate.errors);
    if (schema && schema.contentMediaType === "application/json" && schema.contentSchema) {
      let inner;
      try {
        inner = JSON.parse(value);
      } catch (error) {
        return `the text is not the JSON its schema says: ${error.message}`;
      }
      const [, innerPointer] = follow(doc, schema.contentSchema, `${schemaPointer}/contentSchema`);
      const validateInner = validatorAt(innerPointer);
      if (!validateInner(inner)) return "the JSON text: " + describeErrors(validateInner.errors);
    }
    return "";
  };

  const checkEnvelope = (exchange) => {
    if (essence(exchange.contentType) !== "application/json") {
      return `content type "${exchange.contentType}" where the error envelope (application/json) is due`;
    }
    return checkBody(envelopePointer, exchange.body);
  };

  const problems = [];
  const exercised = new Map();
  for (const exchange of exchanges) {
    const path = exchange.target.split("?")[0];
    // HEAD is answered as GET, without the body.
    const head = exchange.method === "HEAD";
    const method = head ? "get" : exchange.method.toLowerCase();
    const status = String(exchange.status);
    const match = matchPath(doc, path);
    const pathItem = match && doc.paths[match.template];
    const operation = pathItem && METHODS.includes(method) ? pathItem[method] : undefined;
    const route = `${exchange.method} ${match ? match.template : path}`;
    const where = `${route} ${status} (${exchange.test || "?"}: ${exchange.method} ${exchange.target.slice(0, 120)})`;
    let problem = "";
    const checkEnvelopeOf = (answer) => (head ? "" : checkEnvelope(answer));
    if (!operation) {
      // A method the path does not list is the administrator's to try (405);
      // the access table refuses it to every other scope (403).
      const allowed = match ? ["405", "401", "403", ...TRANSPORT_REFUSALS] : ["404", "405", ...TRANSPORT_REFUSALS];
      if (!allowed.includes(status)) {
        problem = match ? `the path does not list ${exchange.method}, so 405 (or 401, or 403 from the access table, or a transport refusal) is due, not ${status}`
                        : `no documented path matches, so 404 (or 405, or a transport refusal) is due, not ${status}`;
      } else {
        problem = checkEnvelopeOf(exchange);
      }
    } else {
      const key = `${exchange.method} ${match.template}`;
      exercised.set(key, (exercised.get(key) || new Set()).add(status));
      const opPointer = `#/paths/${escapeToken(match.template)}/${method}`;
      const listed = operation.responses[status] ? status : operation.responses[`${status[0]}XX`] ? `${status[0]}XX` : null;
      if (!listed) {
        problem = `status ${status} is not listed (listed: ${Object.keys(operation.responses).join(", ")})`;
      } else {
        const [response, responsePointer] = follow(doc, operation.responses[listed], `${opPointer}/responses/${listed}`);
        const media = mediaFor(response.content, exchange.contentType);
        if (!media) {
          problem = `content type "${exchange.contentType}" is not listed (listed: ${Object.keys(response.content || {}).join(", ") || "none"})`;
        } else if (media[1].schema && !head) {
          problem = checkBody(`${responsePointer}/content/${escapeToken(media[0])}/schema`, exchange.body);
        }
      }
    }
    if (problem) problems.push(`MISMATCH ${where}: ${problem}`);
  }

  const operations = [];
  for (const [template, item] of Object.entries(doc.paths)) {
    for (const method of METHODS) if (item[method]) operations.push(`${method.toUpperCase()} ${template}`);
  }
  console.log(`contract: ${exchanges.length} exchanges checked against the served document (${operations.length} operations)`);
  for (const op of operations) {
    const seen = exercised.get(op);
    console.log(`  ${op}: ${seen ? [...seen].sort().join(", ") : "not exercised"}`);
  }
  if (problems.length > 0) {
    const distinct = [...new Set(problems)];
    for (const problem of distinct) console.log(problem);
    console.log(`contract: ${problems.length} of ${exchanges.length} exchanges do not match the document`);
    process.exit(1);
  }
  console.log("contract: every exchange matches the document");
}

main().catch((error) => {
  console.error(`contract: ${error.stack || error}`);
  process.exit(1);
});
