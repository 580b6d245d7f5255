-- A phone's traffic: content lookups by beacon, and now and then a visit upload.
local form = "app_token=demo-token&beacon%5Buuid%5D=F7826DA6-4FA2-4E98-8024-BC5B71E0893E&beacon%5Bmajor%5D=1" ..
  "&beacon%5Bminor%5D=9&session%5Bapp_version%5D=2.4.1&session%5Bsdk_version%5D=1.0.0" ..
  "&session%5Bstart_time%5D=2026-11-23T09%3A00%3A00.000%2B0000&session%5Bend_time%5D=2026-11-23T09%3A10%3A00.000%2B0000" ..
  "&session_logs%5B%5D%5Buuid%5D=F7826DA6-4FA2-4E98-8024-BC5B71E0893E&session_logs%5B%5D%5Bmajor%5D=1" ..
  "&session_logs%5B%5D%5Bminor%5D=9&session_user=load-test"
local lookup = "/api/v1/contents/by_hardware?app_token=demo-token&major=1&minor=9&session_user=load-test" ..
  "&type=BLE&uuid=F7826DA6-4FA2-4E98-8024-BC5B71E0893E"
local counter = 0

request = function()
  counter = counter + 1
  if counter % 10 == 0 then
    return wrk.format("POST", "/api/v1/sessions",
      {["Content-Type"] = "application/x-www-form-urlencoded; charset=utf-8"}, form)
  end
  return wrk.format("GET", lookup)
end

done = function(summary, latency, requests)
  io.write(string.format("requests %d, %.0f req/s, errors: connect %d read %d write %d status %d timeout %d\n",
    summary.requests, summary.requests / (summary.duration / 1e6), summary.errors.connect, summary.errors.read,
    summary.errors.write, summary.errors.status, summary.errors.timeout))
  io.write(string.format("latency p50 %.1f ms, p99 %.1f ms, max %.1f ms\n", latency:percentile(50) / 1000,
    latency:percentile(99) / 1000, latency.max / 1000))
end
