// transport.h - the seam between the client API and the ways to a modem. A
// transport is a table of a few operations; the client handles, notifiers and
// the service list go through the one chosen for the process:
//
//   socket     kvn-sim's socket protocol (PROTOCOL.md); the default.
//   qmux       QMUX frames on the character device (or terminal) named by
//              $KVN_QMI_DEVICE.
//   qmi-proxy  the same frames through libqmi's qmi-proxy, which opens
//              $KVN_QMI_DEVICE for us and shares it ($KVN_QMI_PROXY=1).
//
// Sending, receiving, waiting and releasing are the channel's (channel.h):
// destroying a channel releases what it holds on the modem.
#pragma once

#include "channel.h"

#include <qmi_client.h>

#include <memory>
#include <vector>

namespace kvn_qmi {

struct Transport {
    const char *name;
    // Opens a client of the service instance: QMI_NO_ERR with *out set, or
    // QMI_SERVICE_ERR when the service is absent or the modem does not answer.
    int (*connect)(qmi_idl_service_object_type svc, uint16_t instance, std::unique_ptr<Channel> *out);
    // The instances of the service that are up, in one exchange with the
    // modem; empty when it is absent or nothing answers.
    std::vector<qmi_service_info> (*list)(uint32_t service_id);
    // A notifier's channel: it brings SERVICE_UP / SERVICE_GONE packets for
    // the service and is lost when the modem goes away. Null when none can be
    // had now; the notifier tries again later.
    std::unique_ptr<Channel> (*watch)(uint32_t service_id);
};

// The transport of this process, chosen from the environment on first use.
const Transport &transport();

const Transport &socket_transport();
// QMUX on $KVN_QMI_DEVICE, directly (proxy false) or through qmi-proxy.
const Transport &qmux_transport(bool proxy);

// The instances of svc that are up. A call without an array (the count)
// keeps its reply for the next call with an array on the same service
// object, which then makes no exchange of its own; another list call, a wait
// or the loss of the modem drops what was kept.
std::vector<qmi_service_info> service_list(qmi_idl_service_object_type svc, bool with_array);
void forget_service_list();

} // namespace kvn_qmi
