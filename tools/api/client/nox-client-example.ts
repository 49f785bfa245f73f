// A small program on the client generated from the gateway's OpenAPI
// document: types by openapi-typescript (nox-api.d.ts), requests by
// openapi-fetch. It logs in, lists the tasks, reads one task's details in
// English and in Chinese, reads the alarm count and logs out.
//
//   node nox-client-example.js http://127.0.0.1:8080 apiuser PASSWORD
import assert from "node:assert/strict";
import createClient from "openapi-fetch";
import type { components, paths } from "./nox-api.js";

type Task = components["schemas"]["Task"];

async function main(): Promise<void> {
  const [baseUrl, username, password] = process.argv.slice(2);
  if (!baseUrl || !username || !password) throw new Error("usage: nox-client-example BASE_URL USER PASSWORD");
  const client = createClient<paths>({ baseUrl });

  // Log in: the token comes back in the body (and in X-Auth-Token).
  const login = await client.POST("/sessions", {
    body: { username, password, scope: "4", language: "en" },
  });
  assert.equal(login.response.status, 200, `login: ${JSON.stringify(login.error)}`);
  assert.ok(login.data);
  const token: string = login.data.data.token;
  const headers = { "X-Auth-Token": token };
  console.log(`logged in as ${login.data.data.userName}, session ${login.data.data.sessionId}`);

  // The tasks; a failed one (with error information) shows the most.
  const list = await client.GET("/kestrel_task", { params: { query: { start: 0, limit: 100 } }, headers });
  assert.ok(list.data, `task list: ${JSON.stringify(list.error)}`);
  const tasks: Task[] = list.data.data;
  assert.ok(tasks.length > 0, "the demo data holds tasks");
  const chosen = tasks.find((task) => task.errorInfo !== undefined) ?? tasks[0];
  console.log(`${tasks.length} tasks; reading task ${chosen.taskId} (${chosen.name})`);

  const detail = async (language: "en" | "zh"): Promise<Task> => {
    const res = await client.GET("/kestrel_task/{id}", {
      params: { path: { id: chosen.taskId }, query: { LANGUAGE: language } },
      headers,
    });
    assert.ok(res.data, `task ${chosen.taskId} (${language}): ${JSON.stringify(res.error)}`);
    const data = res.data.data;
    assert.ok("taskId" in data, "a task, not a count");
    return data;
  };
  const english = await detail("en");
  const chinese = await detail("zh");
  assert.equal(english.taskId, chosen.taskId);
  assert.ok(english.detail.length > 0, "the detail read fills the detail");
  assert.notEqual(english.detail, chinese.detail, "English and Chinese details differ");
  console.log(`detail (en): ${english.detail.split("\n")[0].trim()}`);
  console.log(`detail (zh): ${chinese.detail.split("\n")[0].trim()}`);
  if (english.errorInfo?.description !== undefined) {
    console.log(`failure (en): ${english.errorInfo.description}`);
    console.log(`failure (zh): ${chinese.errorInfo?.description ?? ""}`);
  }

  const alarms = await client.GET("/alarm/historyalarm/count", { headers });
  assert.ok(alarms.data, `alarm count: ${JSON.stringify(alarms.error)}`);
  const count: number = alarms.data.COUNT;
  assert.ok(count >= 0);
  console.log(`${count} history alarms`);

  const logout = await client.DELETE("/sessions", { headers });
  assert.equal(logout.response.status, 200, `logout: ${JSON.stringify(logout.error)}`);
  // The token is dead now: the error envelope comes back typed.
  const after = await client.GET("/kestrel_task/count", { headers });
  assert.equal(after.response.status, 401);
  assert.equal(after.error?.error.code, 0x03000011);
  console.log("logged out; the token is refused:", after.error?.error.description);
}

main().catch((error: unknown) => {
  console.error(error);
  process.exit(1);
});
