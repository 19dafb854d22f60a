// fuzz_sim_at.cpp - libFuzzer target over kvn-sim's AT terminal line handling:
// bytes as a writer would send them (lines cut at CR, LF dropped, overlong
// lines cut at the bound), each line journalled and answered.
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "devices.h"
#include "handset.h"
#include "router.h"

using namespace kvn_sim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const std::string dir = "/tmp/kvn-sim-fuzz-at-" + std::to_string(getpid());
    static Handset *h = [] {
        std::filesystem::create_directories(dir);
        auto *hs = new Handset(dir);
        std::string err;
        if (!hs->init(&err))
            abort();
        std::atexit([] { std::filesystem::remove_all(dir); });
        return hs;
    }();
    static Router router(*h, -1, -1);
    static AtChannel at(*h, router);
    at.feed(data, size);
    return 0;
}
