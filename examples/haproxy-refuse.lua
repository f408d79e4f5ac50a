-- HAProxy in front of application servers: a listener refuses connections while none of its servers is up, instead of
-- taking them and closing them again. The gateway then goes on to the next entry of its list, or says 602.
-- haproxy-servers.cfg loads this file.

local kPause = 100 -- milliseconds

core.register_task(function()
    local refuses = {}
    while true do
        for name, proxy in pairs(core.proxies) do
            local isDown = proxy:get_stats()["status"] == "DOWN"
            if next(proxy.listeners) and isDown ~= (refuses[name] or false) then
                if isDown then proxy:pause() else proxy:resume() end
                refuses[name] = isDown
            end
        end
        core.msleep(kPause)
    end
end)
