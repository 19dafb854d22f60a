// fuzz_sim_qmux.cpp - libFuzzer target over kvn-sim's QMUX terminal: frame reader, CTL and every service. The reply
// queue stays within its cap; after each input the modem restarts, so every client id is given back.
#include <fcntl.h>

#include <vector>

#include "fuzz_sim.h"
#include "qmux_port.h"

using kvn_sim::QmuxPort;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static kvn_sim_fuzz::World w("kvn-sim-fuzz-qmux-");
    static std::string err;
    static std::unique_ptr<QmuxPort> port = QmuxPort::open(*w.h, *w.router, &err);
    static const int reader = port ? open(port->path().c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC) : -1;
    if (reader < 0)
        std::abort();
    // Reads every reply, including those still queued.
    const auto drain = [] {
        static uint8_t buf[65536];
        for (int i = 0; i < 1000 && (i == 0 || w.h->counters.qmux_queued > 0); ++i) {
            while (read(reader, buf, sizeof buf) > 0) {
            }
            port->feed({});
        }
    };
    port->feed({data, size});
    if (w.h->counters.qmux_queued > QmuxPort::kOutputMax)
        __builtin_trap();
    // Zeros complete a frame left partial (no timer runs here), then are skipped as noise: each input starts afresh.
    static const std::vector<uint8_t> zeros(QmuxPort::kMaxQmuxLength + 6);
    drain();
    port->feed(zeros);
    drain();
    port->modem_restarted();
    drain();
    return 0;
}
