-- wrk script: a mix of the gateway's read routes and certificate uploads.
-- Environment: NOX_TOKEN (session token), NOX_TASK (a task id), NOX_CERT
-- (path of a PEM certificate to upload), NOX_MIX ("mix", "upload" for certificate
-- uploads only, or a single path to GET).
local token = os.getenv("NOX_TOKEN") or ""
local task = os.getenv("NOX_TASK") or "1"
local mix = os.getenv("NOX_MIX") or "mix"
local cert = ""
local certPath = os.getenv("NOX_CERT")
if certPath then
  local f = io.open(certPath, "rb")
  if f then cert = f:read("*a"); f:close() end
end

local boundary = "----noxload7MA4YWxkTrZu0gW"
local upload = "--" .. boundary .. "\r\n" ..
  "Content-Disposition: form-data; name=\"file\"; filename=\"ca.pem\"\r\n" ..
  "Content-Type: application/x-pem-file\r\n\r\n" .. cert .. "\r\n--" .. boundary .. "--\r\n"

local requests = {}
local function add(weight, method, path, headers, body)
  headers["Host"] = headers["Host"] or wrk.headers["Host"] or (wrk.host .. ":" .. tostring(wrk.port))
  for _ = 1, weight do
    requests[#requests + 1] = wrk.format(method, path, headers, body)
  end
end

-- Requests are formatted in init: only then does wrk know the Host header
-- (a server may refuse HTTP/1.1 without it).
init = function(args)
local auth = { ["X-Auth-Token"] = token }
if mix == "mix" then
  add(3, "GET", "/kestrel_task/" .. task .. "?LANGUAGE=en", auth)
  add(3, "GET", "/kestrel_task/" .. task .. "?LANGUAGE=zh", auth)
  add(2, "GET", "/kestrel_task?limit=20", auth)
  add(2, "GET", "/alarm/historyalarm/count", auth)
  add(2, "GET", "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf", auth)
  if cert ~= "" then
    add(1, "POST", "/kestrel_cert/import_cert",
        { ["X-Auth-Token"] = token, ["Content-Type"] = "multipart/form-data; boundary=" .. boundary },
        upload)
  end
elseif mix == "upload" then
  add(1, "POST", "/kestrel_cert/import_cert",
      { ["X-Auth-Token"] = token, ["Content-Type"] = "multipart/form-data; boundary=" .. boundary },
      upload)
else
  add(1, "GET", mix, auth)
end
end

local i = 0
request = function()
  i = i + 1
  return requests[(i % #requests) + 1]
end

local bad = 0
response = function(status, headers, body)
  if status >= 400 then bad = bad + 1 end
end

done = function(summary, latency, requests)
  local errors = summary.errors.connect + summary.errors.read + summary.errors.write +
                 summary.errors.timeout + summary.errors.status
  io.write(string.format("RESULT requests=%d seconds=%.2f rps=%.1f errors=%d timeouts=%d p50_ms=%.3f p99_ms=%.3f p999_ms=%.3f max_ms=%.3f\n",
    summary.requests, summary.duration / 1e6, summary.requests / (summary.duration / 1e6), errors,
    summary.errors.timeout,
    latency:percentile(50) / 1000, latency:percentile(99) / 1000, latency:percentile(99.9) / 1000,
    latency.max / 1000))
end
