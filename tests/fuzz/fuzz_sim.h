// fuzz_sim.h - what the kvn-sim fuzz targets share: one handset with every service on a scratch state directory
// (on /dev/shm when there is one, so the store's fsyncs stay cheap) and a router without sockets.
#pragma once

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

    explicit World(const std::string &name)
        : dir((access("/dev/shm", W_OK) == 0 ? "/dev/shm/" : "/tmp/") + name + std::to_string(getpid()))
    {
        std::filesystem::create_directories(dir);
        h = std::make_unique<kvn_sim::Handset>(dir);
        std::string err;
        if (!h->init(&err))
            std::abort();
        kvn_sim::register_all_services(*h);
        router = std::make_unique<kvn_sim::Router>(*h, -1, -1);
    }
    ~World() // runs when libFuzzer ends normally; a crashed run leaves its directory to look at
    {
        router.reset();
        h.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
};

} // namespace kvn_sim_fuzz
