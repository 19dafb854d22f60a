// fuzz_sim_packets.cpp - libFuzzer target over kvn-sim's request handling without sockets. Byte 0 picks the rest:
// packets over three connections, an NV/EFS payload, a control request (JSON) or a property write "key\0value"
// (read back byte for byte from its file when persistent). After each input services are up, faults cleared.
#include "control.h"
#include "fuzz_sim.h"

using namespace kvn_sim;

// Pieces: one byte (connection in the low 2 bits, length in the rest), then the bytes; replies taken in between.
static void packets(Router &r, const uint8_t *p, size_t n)
{
    uint64_t conns[3] = {r.open_local(), r.open_local(), r.open_local()};
    while (n >= 1) {
        const unsigned which = p[0] % 3;
        const size_t len = std::min<size_t>(n - 1, static_cast<size_t>(p[0] >> 2) * 8 + 1);
        if (!r.feed_local(conns[which], p + 1, len))
            conns[which] = r.open_local();
        if (p[0] & 2)
            (void)r.take_output(conns[which]);
        p += 1 + len;
        n -= 1 + len;
    }
    for (uint64_t c : conns) {
        (void)r.take_output(c);
        r.close_local(c);
    }
}

static void property(const kvn_sim_fuzz::World &w, const uint8_t *p, size_t n)
{
    const std::string in(reinterpret_cast<const char *>(p), n);
    const size_t nul = in.find('\0');
    const std::string key = in.substr(0, nul), value = nul == std::string::npos ? "" : in.substr(nul + 1);
    if (nul == std::string::npos || !w.h->props.set(key, value) || key.rfind("persist.", 0) != 0)
        return;
    const std::filesystem::path dir(w.dir);
    Properties again(dir / "properties.json", dir / ModemStore::kTempDir);
    std::string err;
    if (!again.load(&err) || again.get(key) != value)
        __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static kvn_sim_fuzz::World w("kvn-sim-fuzz-pk-");
    static const Router::ControlHandler control = [] {
        auto c = make_control_handler(*w.h, *w.router, DaemonInfo{"fuzz.sock", w.dir});
        w.router->set_control(c);
        return c;
    }();
    if (size < 1)
        return 0;
    const uint8_t *p = data + 1;
    const size_t n = size - 1;
    switch (data[0] % 4) {
    case 0:
        packets(*w.router, p, n);
        break;
    case 1:
        (void)w.h->nvefs.handle(p, n, 1);
        w.h->nvefs.connection_closed(1);
        break;
    case 2: {
        const auto req = nlohmann::json::parse(p, p + n, nullptr, false);
        bool ok = false;
        if (req.is_object())
            (void)control(req, &ok);
        break;
    }
    case 3:
        property(w, p, n);
        break;
    }
    for (auto &e : w.h->services.entries())
        w.router->set_service(e, true);
    w.h->faults.clear();
    return 0;
}
