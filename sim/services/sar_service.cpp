// sar_service.cpp - the standard SAR service 0x11 of the simulated modem:
// RF set state (0x0001, TLV 0x01 u32) sets the DSI, RF get state (0x0002)
// answers it in TLV 0x10 u32, or without that TLV when the scenario says
// `"sar_dsi": null`. Other messages get the standard failure result.
// Layout: libqmi's data/qmi-service-sar.json, message ids confirmed by the
// Gobi API 2013 QMIEnum.h.
#include "kvn_wire.h"
#include "services.h"
#include "tlv.h"

namespace kvn_sim {
namespace {

constexpr uint16_t kMsgRfSetState = 0x0001;
constexpr uint16_t kMsgRfGetState = 0x0002;
constexpr uint16_t kQmiErrMalformed = 0x01;

class SarService : public Service {
public:
    explicit SarService(Handset &h) : h_(h) {}

    std::vector<uint8_t> handle(const QmiRequest &rq) override
    {
        TlvWriter w;
        switch (rq.msg_id) {
        case kMsgRfSetState: {
            auto tlvs = parse_tlvs(rq.tlvs);
            const Tlv *state = tlvs ? find_tlv(*tlvs, 0x01) : nullptr;
            if (!state || state->value.size() != 4) {
                h_.note(kLogWarn, "sar: RF set state without TLV 0x01 u32");
                return error_reply(rq.msg_id, kQmiErrMalformed);
            }
            h_.radio.sar_dsi = kvn_wire::get_u32(state->value.data());
            w.add_result(0, 0);
            return w.take();
        }
        case kMsgRfGetState:
            w.add_result(0, 0);
            if (h_.radio.sar_dsi)
                w.add_u32(0x10, *h_.radio.sar_dsi);
            return w.take();
        default:
            return error_reply(rq.msg_id, kQmiErrInvalidQmiCommand);
        }
    }

private:
    Handset &h_;
};

} // namespace

void register_sar_service(Handset &h) { h.services.add("sar", kServiceSar, std::make_unique<SarService>(h)); }

} // namespace kvn_sim
