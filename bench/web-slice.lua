-- One slice of bench/web's load, for wrk. Compares every page with the file that is named after the address and
-- writes one line of numbers to standard error: requests, seconds, the latency's median and 99th percentile in
-- milliseconds, how many took longer than 40 ms, how many failed.
local threads = {}

function setup(thread)
    table.insert(threads, thread)
end

function init(arguments)
    page = assert(io.open(arguments[1], "rb")):read("*a")
    wrong = 0
end

function response(status, _, body)
    if status ~= 200 or body ~= page then
        wrong = wrong + 1
    end
end

function done(summary, latency)
    local slow = 0
    for i = 1, #latency do
        local microseconds, count = latency(i)
        if microseconds > 40000 then
            slow = slow + count
        end
    end
    local errors = summary.errors
    local failed = errors.connect + errors.read + errors.write + errors.timeout
    for _, thread in ipairs(threads) do
        failed = failed + thread:get("wrong")
    end
    io.stderr:write(string.format("%d,%.3f,%.3f,%.3f,%d,%d\n", summary.requests, summary.duration / 1e6,
        latency:percentile(50) / 1e3, latency:percentile(99) / 1e3, slow, failed))
end
