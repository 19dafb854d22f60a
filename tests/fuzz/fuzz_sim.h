// fuzz_sim.h - what the kvn-sim fuzz targets share: one handset with every service on a scratch state directory
// (on /dev/shm when there is one, so the store's fsyncs stay cheap) and a router without sockets.
#pragma once

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "handset.h"
#include "router.h"
#include "services/services.h"

namespace kvn_sim_fuzz {

struct World {
    std::string dir;
    std::unique_ptr<kvn_sim::Handset> h;
    std::unique_ptr<kvn_sim::Router> router;

    // prefix names this target's directories; those of runs whose process is gone are removed first, as
    // libFuzzer may end a run without running destructors or exit handlers.
    explicit World(const std::string &prefix)
    {
        namespace fs = std::filesystem;
        const std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(base, ec)) {
            const std::string name = e.path().filename().string();
            if (name.rfind(prefix, 0) == 0 && kill(std::atoi(name.c_str() + prefix.size()), 0) != 0)
                fs::remove_all(e.path(), ec);
        }
        dir = base + "/" + prefix + std::to_string(getpid());
        fs::create_directories(dir, ec);
        h = std::make_unique<kvn_sim::Handset>(dir);
        std::string err;
        if (!h->init(&err))
            std::abort();
        kvn_sim::register_all_services(*h);
        router = std::make_unique<kvn_sim::Router>(*h, -1, -1);
    }
    ~World()
    {
        router.reset();
        h.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

} // namespace kvn_sim_fuzz
