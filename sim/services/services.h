// services.h - one registration call per modem service of kvn-sim; each adds
// its service to the handset's registry.
#pragma once

#include "handset.h"

namespace kvn_sim {

void register_extend_service(Handset &h);
void register_uim_service(Handset &h);
void register_vs_service(Handset &h);
void register_sar_service(Handset &h);
void register_nas_service(Handset &h);
void register_modem_stats_service(Handset &h); // extend command 4, request types 20 and 27
// Rows of extend command 4 for the tool's device tests (GPIO/RF, SSR, full
// dump, NV sync).
void register_device_tests(Handset &h);

// All of the above, in the order the modem brings them up.
inline void register_all_services(Handset &h)
{
    register_extend_service(h);
    register_modem_stats_service(h);
    register_uim_service(h);
    register_vs_service(h);
    register_sar_service(h);
    register_nas_service(h);
    register_device_tests(h);
}

} // namespace kvn_sim
