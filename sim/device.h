// device.h - what a device channel of the simulated handset is (the AT
// pseudo-terminal, the diag responder): something the command line can take
// down and bring up, that may sit at a path of the host, and the counters of
// the modem actions the handset was asked for.
#pragma once

#include <cstdint>
#include <string>

namespace kvn_sim {

class DeviceChannel {
public:
    virtual ~DeviceChannel() = default;
    virtual bool up() const = 0;
    virtual void set_up(bool up) = 0;
    // The device's name on a handset ("/dev/smd8"); empty when it has none.
    virtual std::string handset_path() const { return {}; }
    // Where the host offers it now; empty when down or not a device node.
    virtual std::string host_path() const { return {}; }
};

// Counted since the daemon started.
struct DeviceCounters {
    uint64_t restarts = 0;   // modem restarts (`kvn-sim ssr`, SSR requests, full dumps)
    uint64_t full_dumps = 0; // dump files written
    uint64_t nv_syncs = 0;   // NV sync requests
    size_t qmux_cids = 0;    // client ids the QMUX terminal has handed out, now
    size_t qmux_queued = 0;  // bytes of replies queued for the QMUX terminal, now
    uint64_t qmux_dropped = 0; // replies dropped because that queue was full
};

} // namespace kvn_sim
