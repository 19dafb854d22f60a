// fuzz_sim_qmux.cpp - libFuzzer target over kvn-sim's QMUX terminal: the frame
// reader (markers, lengths, resync after noise, partial frames), the CTL
// service (client ids, version info, sync) and the hand-over of requests to
// every service, on one handset in a scratch state directory. Replies go to
// the pseudo-terminal, whose other end is drained after each input; the reply
// queue must stay within its cap. After each input the modem restarts, so
// every client id is given back.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "handset.h"
#include "qmux_port.h"
#include "router.h"
#include "services/services.h"

using namespace kvn_sim;

namespace {

struct World {
    std::string dir = "/tmp/kvn-sim-fuzz-qmux-" + std::to_string(getpid());
    std::unique_ptr<Handset> h;
    std::unique_ptr<Router> router;
    std::unique_ptr<QmuxPort> port;
    int reader = -1; // the terminal's client end, drained

    World()
    {
        std::filesystem::create_directories(dir);
        h = std::make_unique<Handset>(dir);
        std::string err;
        if (!h->init(&err))
            abort();
        register_all_services(*h);
        router = std::make_unique<Router>(*h, -1, -1);
        port = QmuxPort::open(*h, *router, &err);
        if (!port)
            abort();
        reader = open(port->path().c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        std::atexit([] { std::filesystem::remove_all("/tmp/kvn-sim-fuzz-qmux-" + std::to_string(getpid())); });
    }
    // Reads every reply the port has, including those still queued.
    void drain()
    {
        static uint8_t buf[65536];
        for (int i = 0; i < 1000 && (i == 0 || h->counters.qmux_queued > 0); ++i) {
            while (read(reader, buf, sizeof buf) > 0) {
            }
            port->feed({});
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static World w;
    w.port->feed({data, size});
    if (w.h->counters.qmux_queued > QmuxPort::kOutputMax)
        __builtin_trap();
    // Zeros complete a frame left partial (no timer runs here) and are
    // skipped as noise after it, so the next input starts afresh.
    static const std::vector<uint8_t> zeros(QmuxPort::kMaxQmuxLength + 6);
    w.drain();
    w.port->feed(zeros);
    w.drain();
    w.port->modem_restarted();
    w.drain();
    return 0;
}
