// fuzz_sim_packets.cpp - libFuzzer target over kvn-sim's request handling,
// in-process and without sockets: one handset on a scratch state directory
// (on /dev/shm when there is one, so the store's fsyncs stay cheap) and a
// Router fed through in-process connections. The first input byte picks what
// the rest is:
//   0  a packet stream cut into pieces spread over three connections
//      (framing, CONNECT/WATCH/LIST, QMI dispatch to every service, NV/EFS
//      command 2, properties, log, control JSON), replies taken in between;
//   1  one NV/EFS command-2 payload, straight to its handler;
//   2  one control request (JSON text) straight to the control handler;
//   3  a property write "key\0value": a persistent property that was taken
//      must read back byte for byte from its file.
// After each input the handset is put back: services up, faults cleared.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "control.h"
#include "handset.h"
#include "router.h"
#include "services/services.h"

using namespace kvn_sim;

namespace {

struct World {
    std::string dir;
    std::unique_ptr<Handset> h;
    std::unique_ptr<Router> router;
    Router::ControlHandler control;

    World()
    {
        namespace fs = std::filesystem;
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        // libFuzzer ends the process without running destructors: the
        // directories of fuzz runs that are gone are removed here instead.
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(base, ec)) {
            std::string name = e.path().filename().string();
            if (name.rfind("kvn-sim-fuzz-", 0) == 0 && kill(atoi(name.c_str() + 13), 0) != 0)
                fs::remove_all(e.path(), ec);
        }
        dir = base + "/kvn-sim-fuzz-" + std::to_string(getpid());
        fs::create_directories(dir, ec);
        h = std::make_unique<Handset>(dir);
        std::string err;
        if (!h->init(&err))
            abort();
        register_all_services(*h);
        router = std::make_unique<Router>(*h, -1, -1);
        control = make_control_handler(*h, *router, DaemonInfo{"fuzz.sock", dir});
        router->set_control(control);
    }
    ~World()
    {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    void reset()
    {
        for (auto &e : h->services.entries())
            router->set_service(e, true);
        h->faults.clear();
    }
};

World &world()
{
    static World w;
    return w;
}

void packets(World &w, const uint8_t *p, size_t n)
{
    uint64_t conns[3] = {w.router->open_local(), w.router->open_local(), w.router->open_local()};
    // Pieces: one byte (connection in the low 2 bits, piece length index in
    // the rest), then the bytes.
    while (n >= 1) {
        unsigned which = p[0] % 3;
        size_t len = std::min<size_t>(n - 1, static_cast<size_t>(p[0] >> 2) * 8 + 1);
        if (!w.router->feed_local(conns[which], p + 1, len))
            conns[which] = w.router->open_local();
        if (p[0] & 2)
            (void)w.router->take_output(conns[which]);
        p += 1 + len;
        n -= 1 + len;
    }
    for (uint64_t c : conns) {
        (void)w.router->take_output(c);
        w.router->close_local(c);
    }
}

void property(World &w, const uint8_t *p, size_t n)
{
    const uint8_t *nul = static_cast<const uint8_t *>(memchr(p, 0, n));
    if (!nul)
        return;
    std::string key(reinterpret_cast<const char *>(p), static_cast<size_t>(nul - p));
    std::string value(reinterpret_cast<const char *>(nul + 1), n - key.size() - 1);
    if (!w.h->props.set(key, value) || key.rfind("persist.", 0) != 0)
        return;
    Properties again(std::filesystem::path(w.dir) / "properties.json",
                     std::filesystem::path(w.dir) / ModemStore::kTempDir);
    std::string err;
    if (!again.load(&err) || again.get(key) != value)
        __builtin_trap(); // a persistent property must come back as it was set
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    World &w = world();
    const uint8_t *p = data + 1;
    size_t n = size - 1;
    switch (data[0] % 4) {
    case 0:
        packets(w, p, n);
        break;
    case 1:
        (void)w.h->nvefs.handle(p, n, 1);
        w.h->nvefs.connection_closed(1);
        break;
    case 2: {
        auto req = nlohmann::json::parse(p, p + n, nullptr, false);
        bool ok = false;
        if (req.is_object())
            (void)w.control(req, &ok);
        break;
    }
    case 3:
        property(w, p, n);
        break;
    }
    w.reset();
    return 0;
}
