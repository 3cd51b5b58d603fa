-- wrk script: sends `total` requests, each with its own `X-Forwarded-For` address, then stops.
--
--   wrk -tT -cC -s wrk-forwarded.lua URL -- <total> <first> <threads> <state dir> [<pid> <every>]
--
-- Address number `first` + k (k = 0 .. total - 1) is written 10.a.b.c, a.b.c being the number's
-- three low bytes; each thread takes its own share of the numbers. Once a thread has sent its
-- share it repeats its last address until it has had as many answers as its share, then stops and
-- creates `<state dir>/stopped-<thread>`: wrk itself runs until its duration ends or it gets
-- SIGINT, so whoever runs it waits for those files and then interrupts it. With one connection per
-- thread exactly `total` requests are sent; with more, the few extra requests repeat an address.
--
-- With <pid> and <every>, thread 1 appends "<requests so far, all threads> <VmRSS kB of pid>" to
-- `<state dir>/rss` after every <every> / <threads> of its answers.
--
-- At the end it prints "statuses: <status>=<count> ..." and "sent: <count>".

local threads = {}

function setup(thread)
  table.insert(threads, thread)
  thread:set("id", #threads)
end

local function address(number)
  return string.format("10.%d.%d.%d", math.floor(number / 65536) % 256,
                       math.floor(number / 256) % 256, number % 256)
end

local function vm_rss(pid)
  local f = io.open("/proc/" .. pid .. "/status")
  if f == nil then return "gone" end
  local text = f:read("*a")
  f:close()
  return text:match("VmRSS:%s*(%d+)") or "?"
end

function init(args)
  local total, first = tonumber(args[1]), tonumber(args[2])
  thread_count, state_dir, pid = tonumber(args[3]), args[4], args[5]
  every = args[6] and math.max(1, math.floor(tonumber(args[6]) / thread_count)) or nil
  local share, rest = math.floor(total / thread_count), total % thread_count
  quota = share + (id <= rest and 1 or 0)
  base = first + (id - 1) * share + math.min(id - 1, rest)
  sent, answered, stopped = 0, 0, false
  -- wrk calls the first thread's request() once before the run, to see what it returns; that
  -- request is never sent. (Whoever runs this checks that "sent" comes out right.)
  if id == 1 then sent = -1 end
  statuses = {}
end

function request()
  sent = sent + 1
  local number = base + math.max(1, math.min(sent, quota)) - 1
  return wrk.format("GET", nil, { ["X-Forwarded-For"] = address(number) })
end

function response(status, headers, body)
  answered = answered + 1
  statuses[status] = (statuses[status] or 0) + 1
  if id == 1 and pid and answered % every == 0 then
    local f = io.open(state_dir .. "/rss", "a")
    f:write(answered * thread_count, " ", vm_rss(pid), "\n")
    f:close()
  end
  if answered >= quota and not stopped then
    stopped = true
    local text = ""
    for code, n in pairs(statuses) do text = text .. code .. "=" .. n .. " " end
    wrk.thread:set("status_counts", text)
    wrk.thread:set("sent_count", sent)
    io.open(state_dir .. "/stopped-" .. id, "w"):close()
    wrk.thread:stop()
  end
end

function done(summary, latency, requests)
  local totals, sent_total = {}, 0
  for _, thread in ipairs(threads) do
    for code, n in string.gmatch(thread:get("status_counts") or "", "(%d+)=(%d+)") do
      totals[code] = (totals[code] or 0) + tonumber(n)
    end
    sent_total = sent_total + (thread:get("sent_count") or 0)
  end
  local codes = {}
  for code in pairs(totals) do table.insert(codes, code) end
  table.sort(codes)
  io.write("statuses:")
  for _, code in ipairs(codes) do io.write(" ", code, "=", totals[code]) end
  io.write("\nsent: ", sent_total, "\n")
end
