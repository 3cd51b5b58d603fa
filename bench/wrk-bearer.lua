-- wrk script: every request carries `Authorization: Bearer <token>`, the token coming from the
-- environment variable BENCH_TOKEN. The request stays static, so wrk formats it only once.
local token = os.getenv("BENCH_TOKEN")
if token == nil or token == "" then
  error("BENCH_TOKEN is not set")
end
wrk.headers["Authorization"] = "Bearer " .. token
