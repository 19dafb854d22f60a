// fuzz_sim_scenario.cpp - libFuzzer target over kvn-sim's scenario loader, applying the input to one handset: a
// refused document changes nothing (properties, faults, EFS tree); an input starting with '#' is stretched past the
// size bound and must be refused for it, not parsed.
#include "fuzz_sim.h"
#include "scenario.h"

using namespace kvn_sim;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    std::string err;
    if (!text.empty() && text[0] == '#') {
        std::string big = text;
        while (big.size() <= kMaxScenarioBytes)
            big += text;
        if (parse_scenario_text(big, &err) || err.find("over the bound") == std::string::npos)
            std::abort();
        return 0;
    }
    static kvn_sim_fuzz::World w("kvn-sim-scen-");
    const auto props = w.h->props.all();
    const size_t faults = w.h->faults.all().size();
    const auto efs = w.h->store.efs_ls(0, "/");
    if (!apply_scenario_text(*w.h, text, &err) &&
        (err.empty() || w.h->props.all() != props || w.h->faults.all().size() != faults ||
         w.h->store.efs_ls(0, "/") != efs))
        std::abort(); // refused, yet something changed
    w.h->faults.clear();
    return 0;
}
