// vs_service.cpp - the vendor statistics service 0xE4 of the simulated modem:
// message 0x0003 (feature status: remembered per feature) and message 0x0207
// (statistics parameter: the records of each requested id the handset holds,
// in request order, sent as the scenario gave them). Requests are parsed
// strictly; other messages get the standard failure result.
#include "kvn_wire.h"
#include "services.h"
#include "tlv.h"

namespace kvn_sim {
namespace {

constexpr uint16_t kMsgFeatureStatus = 0x0003;
constexpr uint16_t kMsgStatsParam = 0x0207;
constexpr uint16_t kQmiErrMalformed = 0x01;
// Records go into one TLV (u16 length) and one u8 count.
constexpr size_t kMaxRecordsTlv = 0xFFFF;
constexpr size_t kMaxRecords = 0xFF;

class VsService : public Service {
public:
    explicit VsService(Handset &h) : h_(h) {}

    std::vector<uint8_t> handle(const QmiRequest &rq) override
    {
        switch (rq.msg_id) {
        case kMsgFeatureStatus:
            return feature_status(rq);
        case kMsgStatsParam:
            return stats_param(rq);
        default:
            return error_reply(rq.msg_id, kQmiErrInvalidQmiCommand);
        }
    }

private:
    std::vector<uint8_t> malformed(const QmiRequest &rq, const std::string &why)
    {
        h_.note(kLogWarn, "vs: malformed request " + std::to_string(rq.msg_id) + ": " + why);
        return error_reply(rq.msg_id, kQmiErrMalformed);
    }

    std::vector<uint8_t> feature_status(const QmiRequest &rq)
    {
        auto tlvs = parse_tlvs(rq.tlvs);
        if (!tlvs)
            return malformed(rq, "TLVs run past the end of the message");
        const Tlv *feature = find_tlv(*tlvs, 0x01);
        const Tlv *enable = find_tlv(*tlvs, 0x02);
        const Tlv *extra = find_tlv(*tlvs, 0x10);
        if (!feature || feature->value.size() != 4 || !enable || enable->value.size() != 1 ||
            (extra && extra->value.size() != 1))
            return malformed(rq, "feature status needs TLV 0x01 u32, TLV 0x02 u8, optional TLV 0x10 u8");
        VsFeature f;
        f.enable = enable->value[0];
        if (extra)
            f.extra = extra->value[0];
        h_.radio.vs_features[kvn_wire::get_u32(feature->value.data())] = f;
        TlvWriter w;
        w.add_result(0, 0);
        return w.take();
    }

    std::vector<uint8_t> stats_param(const QmiRequest &rq)
    {
        auto tlvs = parse_tlvs(rq.tlvs);
        if (!tlvs)
            return malformed(rq, "TLVs run past the end of the message");
        const Tlv *sub = find_tlv(*tlvs, 0x01);
        const Tlv *number = find_tlv(*tlvs, 0x02);
        const Tlv *ids = find_tlv(*tlvs, 0x03);
        if (!sub || sub->value.size() != 2 || !number || number->value.size() != 2 || !ids || ids->value.empty() ||
            ids->value.size() != 1 + 4u * ids->value[0])
            return malformed(rq, "statistics request needs TLV 0x01 u16, 0x02 u16, 0x03 u8 count + count x u32");
        uint16_t s = kvn_wire::get_u16(sub->value.data());

        Bytes records;
        size_t count = 0;
        if (s < RadioState::kSubs) {
            for (size_t i = 0; i < ids->value[0]; ++i) {
                uint32_t id = kvn_wire::get_u32(ids->value.data() + 1 + 4 * i);
                auto it = h_.radio.vs_stats[s].find(id);
                if (it == h_.radio.vs_stats[s].end())
                    continue;
                for (const VsRecord &r : it->second) {
                    size_t size = 10 + r.data.size();
                    if (count == kMaxRecords || 1 + records.size() + size > kMaxRecordsTlv)
                        break;
                    uint8_t head[10];
                    kvn_wire::put_u16(head, r.sub);
                    kvn_wire::put_u16(head + 2, 0);
                    kvn_wire::put_u32(head + 4, r.id);
                    kvn_wire::put_u16(head + 8, static_cast<uint16_t>(r.data.size()));
                    records.insert(records.end(), head, head + 10);
                    records.insert(records.end(), r.data.begin(), r.data.end());
                    ++count;
                }
            }
        }
        records.insert(records.begin(), static_cast<uint8_t>(count));
        TlvWriter w;
        w.add_result(0, 0);
        w.add(0x10, records.data(), records.size());
        return w.take();
    }

    Handset &h_;
};

} // namespace

void register_vs_service(Handset &h) { h.services.add("vs", kServiceVs, std::make_unique<VsService>(h)); }

} // namespace kvn_sim
