// fuzz_sim_at.cpp - libFuzzer target over kvn-sim's AT terminal: bytes as a writer sends them (lines cut at CR,
// LF dropped, overlong lines cut at the bound), each line journalled and answered.
#include "devices.h"
#include "fuzz_sim.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static kvn_sim_fuzz::World w("kvn-sim-fuzz-at-");
    static kvn_sim::AtChannel at(*w.h, *w.router);
    at.feed(data, size);
    return 0;
}
