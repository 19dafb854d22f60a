// fuzz_sim_scenario.cpp - libFuzzer target over kvn-sim's scenario loader:
// the input is scenario text, parsed strictly (size bound, syntax position,
// repeated keys), checked, and applied to one handset on a scratch state
// directory (on /dev/shm when there is one). Two properties must hold for
// every input: a document the loader refuses changes nothing (properties,
// faults and the EFS tree as they were), and an input starting with '#' is
// stretched past the size bound and must be refused for it, not parsed.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "handset.h"
#include "scenario.h"
#include "services/services.h"

using namespace kvn_sim;

namespace {

struct World {
    std::string dir;
    std::unique_ptr<Handset> h;

    World()
    {
        namespace fs = std::filesystem;
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        // libFuzzer ends the process without running destructors: the
        // directories of fuzz runs that are gone are removed here instead.
        std::error_code ec;
        for (const auto &e : fs::directory_iterator(base, ec)) {
            std::string name = e.path().filename().string();
            if (name.rfind("kvn-sim-scen-", 0) == 0 && kill(atoi(name.c_str() + 13), 0) != 0)
                fs::remove_all(e.path(), ec);
        }
        dir = base + "/kvn-sim-scen-" + std::to_string(getpid());
        h = std::make_unique<Handset>(dir);
        std::string err;
        if (!h->init(&err))
            abort();
        register_all_services(*h);
    }
};

World &world()
{
    static World w;
    return w;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string err;
    if (!text.empty() && text[0] == '#') {
        std::string big = text;
        while (big.size() <= kMaxScenarioBytes)
            big += text;
        if (parse_scenario_text(big, &err) || err.find("over the bound") == std::string::npos)
            abort();
        return 0;
    }
    World &w = world();
    auto props = w.h->props.all();
    size_t faults = w.h->faults.all().size();
    auto efs = w.h->store.efs_ls(0, "/");
    if (!apply_scenario_text(*w.h, text, &err)) {
        if (err.empty() || w.h->props.all() != props || w.h->faults.all().size() != faults ||
            w.h->store.efs_ls(0, "/") != efs)
            abort(); // refused, yet something changed
    }
    w.h->faults.clear();
    return 0;
}
