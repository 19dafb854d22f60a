// nas_service.cpp - the standard NAS service of the simulated modem. It is registered
// and can be bound, listed, watched, taken down and brought up; its messages
// are not implemented yet, so each request gets the modem's standard answer
// for an unsupported message.
#include "services.h"

namespace kvn_sim {

void register_nas_service(Handset &h)
{
    h.services.add("nas", kServiceNas, std::make_unique<UnsupportedService>());
}

} // namespace kvn_sim
