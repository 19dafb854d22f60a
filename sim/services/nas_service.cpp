// nas_service.cpp - the standard NAS service 3 of the simulated modem, as far
// as a client's connect sequence needs it: bind subscription (0x0045, TLV
// 0x01 one byte: 0, 1 or 2) and register indications (0x0003, optional
// one-byte switches) are answered with success. Other messages get the
// standard failure result. Layouts: bind subscription from the Gobi API 2013
// structs (eQMINASSubscriptionType, UINT8; libqmi has no NAS bind), register
// indications from libqmi's data/qmi-service-nas.json and Gobi.
#include "services.h"
#include "tlv.h"

namespace kvn_sim {
namespace {

constexpr uint16_t kMsgRegisterIndications = 0x0003;
constexpr uint16_t kMsgBindSubscription = 0x0045;
constexpr uint16_t kQmiErrMalformed = 0x01;
constexpr uint16_t kQmiErrInvalidArg = 0x30;

class NasService : public Service {
public:
    explicit NasService(Handset &h) : h_(h) {}

    std::vector<uint8_t> handle(const QmiRequest &rq) override
    {
        auto tlvs = parse_tlvs(rq.tlvs);
        switch (rq.msg_id) {
        case kMsgBindSubscription: {
            const Tlv *sub = tlvs ? find_tlv(*tlvs, 0x01) : nullptr;
            if (!sub || sub->value.size() != 1) {
                h_.note(kLogWarn, "nas: bind subscription without TLV 0x01 u8");
                return error_reply(rq.msg_id, kQmiErrMalformed);
            }
            if (sub->value[0] > 2)
                return error_reply(rq.msg_id, kQmiErrInvalidArg);
            return success();
        }
        case kMsgRegisterIndications:
            if (!tlvs) {
                h_.note(kLogWarn, "nas: register indications with TLVs past the end");
                return error_reply(rq.msg_id, kQmiErrMalformed);
            }
            return success();
        default:
            return error_reply(rq.msg_id, kQmiErrInvalidQmiCommand);
        }
    }

private:
    static std::vector<uint8_t> success()
    {
        TlvWriter w;
        w.add_result(0, 0);
        return w.take();
    }
    Handset &h_;
};

} // namespace

void register_nas_service(Handset &h) { h.services.add("nas", kServiceNas, std::make_unique<NasService>(h)); }

} // namespace kvn_sim
