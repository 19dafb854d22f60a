// uim_service.cpp - the standard UIM service (11) of the simulated modem:
// card status, power down/up, the EID, logical channels to the eUICC's ISD-R
// and APDUs on them, over the handset's slot model (uim_slots.h). The eUICC
// answers an ES10c eUICCMemoryReset; every other APDU gets 6D 00. Requests
// are read strictly: a missing or misshapen mandatory TLV is a refusal.
//
// Layouts, from the published sources: Get Card Status 0x2F from libqmi's
// data/qmi-service-uim.json ("UIM Card Status" for TLV 0x10: u16 indexes with
// the slot in the high byte, every enum one byte) and the Gobi API 2013
// structs (request TLV 0x10 extended status, response TLV 0x13 with the same
// card layout); Power Off 0x30 and Power On 0x31 from libqmi (TLV 0x01 slot
// u8) and Gobi / lite-qmi's uim.h (Power On TLV 0x10 ignore hot-swap, u8);
// Open Logical Channel 0x42, Logical Channel 0x3F and Send APDU 0x3B from
// libqmi and Hermes hermes/uim_cmd.qmi (AID u8 n + n, APDU u16 n + n, card
// result SW1 SW2); Get Slot Status 0x47 in uim_slot_status.cpp. Without a
// published layout: Power On's card mode TLV 0x11 (accepted as one byte) and
// Get EID 0x65 (TLV 0x01 slot; answer TLV 0x10 u8 16 + the EID, which a
// public diag decode of the message bears out).
#include "kvn_wire.h"
#include "services/uim_slot_status.h"
#include "services.h"
#include "tlv.h"
#include "uim_slots.h"

namespace kvn_sim {
namespace {

// Message ids.
constexpr uint16_t kGetCardStatus = 0x2F;
constexpr uint16_t kPowerOff = 0x30;
constexpr uint16_t kPowerOn = 0x31;
constexpr uint16_t kSendApdu = 0x3B;
constexpr uint16_t kLogicalChannel = 0x3F;
constexpr uint16_t kOpenLogicalChannel = 0x42;
constexpr uint16_t kGetEid = 0x65;
constexpr uint16_t kGetSlotStatus = 0x47;

// QMI errors.
constexpr uint16_t kErrMalformed = 0x01;
constexpr uint16_t kErrMissingArgument = 0x11;
constexpr uint16_t kErrInvalidArgument = 0x30;
constexpr uint16_t kErrDeviceNotReady = 0x34;
constexpr uint16_t kErrNotSupported = 0x5E;

// ISD-R AID (GSMA SGP.22).
constexpr uint8_t kIsdrAid[] = {0xA0, 0x00, 0x00, 0x05, 0x59, 0x10, 0x10, 0xFF,
                                0xFF, 0xFF, 0xFF, 0x89, 0x00, 0x00, 0x01, 0x00};
// The USIM application a present card reports (3GPP USIM AID prefix).
constexpr uint8_t kUsimAid[] = {0xA0, 0x00, 0x00, 0x00, 0x87, 0x10, 0x02, 0xFF,
                                0xFF, 0xFF, 0xFF, 0x89, 0x06, 0x19, 0x00, 0x00};

using Reply = std::vector<uint8_t>;

Reply failure(uint16_t error)
{
    TlvWriter w;
    w.add_result(1, error);
    return w.take();
}

// A refusal that carries the card's status word in TLV 0x11.
Reply failure_sw(uint16_t error, uint8_t sw1, uint8_t sw2)
{
    TlvWriter w;
    w.add_result(1, error);
    uint8_t sw[2] = {sw1, sw2};
    w.add(0x11, sw, 2);
    return w.take();
}

Reply success_only()
{
    TlvWriter w;
    w.add_result(0, 0);
    return w.take();
}

// One card of TLV 0x10 / 0x13: state, UPIN state/retries, error code, the
// applications (a ready USIM while the card is present and has a profile).
void put_card(Bytes &out, const ReportedCard &c, bool with_app)
{
    const uint8_t head[] = {c.state, 0, 0, 0, c.error_code, static_cast<uint8_t>(with_app ? 1 : 0)};
    out.insert(out.end(), std::begin(head), std::end(head));
    if (!with_app)
        return;
    // Type USIM, state ready, perso ready, feature unknown, retries 0/0.
    const uint8_t app[] = {2, 7, 2, 11, 0, 0, sizeof(kUsimAid)};
    out.insert(out.end(), std::begin(app), std::end(app));
    out.insert(out.end(), std::begin(kUsimAid), std::end(kUsimAid));
    // UPIN does not replace PIN1; PIN1 disabled 3/10, PIN2 enabled-not-verified 3/10.
    const uint8_t pins[] = {0, 3, 3, 10, 1, 3, 10};
    out.insert(out.end(), std::begin(pins), std::end(pins));
}

void put_u16(Bytes &out, uint16_t v)
{
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

class UimService : public Service {
public:
    explicit UimService(Handset &h) : h_(h) {}

    Reply handle(const QmiRequest &rq) override
    {
        auto tlvs = parse_tlvs(rq.tlvs);
        if (!tlvs)
            return failure(kErrMalformed);
        switch (rq.msg_id) {
        case kGetCardStatus:
            return card_status(*tlvs);
        case kGetSlotStatus:
            return uim_slot_status_reply(h_.uim);
        case kPowerOff:
        case kPowerOn:
        case kGetEid:
        case kOpenLogicalChannel:
        case kLogicalChannel:
        case kSendApdu:
            return slot_request(rq.msg_id, *tlvs);
        }
        return failure(kQmiErrInvalidQmiCommand);
    }

    // A modem restart or `service uim down` closes every logical channel.
    void availability_changed(bool up) override
    {
        if (!up)
            h_.uim.close_all_channels();
    }

private:
    // A TLV of exactly one byte; nullopt when absent or another size.
    static std::optional<uint8_t> u8(const std::vector<Tlv> &tlvs, uint8_t type, bool *bad)
    {
        const Tlv *t = find_tlv(tlvs, type);
        if (!t)
            return std::nullopt;
        if (t->value.size() != 1) {
            *bad = true;
            return std::nullopt;
        }
        return t->value[0];
    }

    Reply card_status(const std::vector<Tlv> &tlvs)
    {
        bool bad = false;
        auto ext = u8(tlvs, 0x10, &bad);
        if (bad)
            return failure(kErrMalformed);
        UimSlots &u = h_.uim;
        uint8_t n = static_cast<uint8_t>(u.count());
        Bytes cards;
        uint16_t gw_pri = 0xFFFF, gw_sec = 0xFFFF;
        for (uint8_t i = 1; i <= n; ++i) {
            ReportedCard c = u.reported(i);
            bool app = c.state == 1 && has_profile(i);
            put_card(cards, c, app);
            if (app)
                (i == 1 ? gw_pri : gw_sec) = static_cast<uint16_t>((i - 1) << 8); // slot high, app 0 low
        }
        Bytes legacy;
        for (uint16_t index : {gw_pri, uint16_t(0xFFFF), gw_sec, uint16_t(0xFFFF)})
            put_u16(legacy, index);
        legacy.push_back(n);
        legacy.insert(legacy.end(), cards.begin(), cards.end());

        TlvWriter w;
        w.add_result(0, 0);
        w.add(0x10, legacy.data(), legacy.size());
        if (ext && *ext == 1 && u.extended_card_status) {
            Bytes x;
            Bytes gw;
            for (uint16_t index : {gw_pri, gw_sec})
                if (index != 0xFFFF)
                    put_u16(gw, index);
            x.push_back(static_cast<uint8_t>(gw.size() / 2));
            x.insert(x.end(), gw.begin(), gw.end());
            x.push_back(0); // no 1X sessions
            x.push_back(n);
            x.insert(x.end(), cards.begin(), cards.end());
            w.add(0x13, x.data(), x.size());
        }
        return w.take();
    }

    // A card with a subscription to run: a physical card, or an eUICC with
    // at least one profile.
    bool has_profile(uint32_t n) const
    {
        const UimSlot *s = h_.uim.slot(n);
        return s->running == SlotMedium::Physical || (s->euicc && s->euicc->profiles > 0);
    }

    // The messages that name a slot in TLV 0x01.
    Reply slot_request(uint16_t msg_id, const std::vector<Tlv> &tlvs)
    {
        bool bad = false;
        auto slot_no = u8(tlvs, 0x01, &bad);
        if (bad)
            return failure(kErrMalformed);
        if (!slot_no)
            return failure(kErrMissingArgument);
        UimSlot *s = h_.uim.slot(*slot_no);
        if (!s)
            return failure(kErrInvalidArgument);
        switch (msg_id) {
        case kPowerOff:
            h_.uim.power_down(*slot_no);
            return success_only();
        case kPowerOn:
            return power_on(*slot_no, tlvs);
        case kGetEid:
            return get_eid(*s);
        case kOpenLogicalChannel:
            return open_channel(*slot_no, *s, tlvs);
        case kLogicalChannel:
            return close_channel(*slot_no, tlvs);
        case kSendApdu:
            return send_apdu(*slot_no, *s, tlvs);
        }
        return failure(kQmiErrInvalidQmiCommand);
    }

    Reply power_on(uint8_t slot_no, const std::vector<Tlv> &tlvs)
    {
        bool bad = false;
        (void)u8(tlvs, 0x10, &bad); // ignore hot-swap switch: accepted
        (void)u8(tlvs, 0x11, &bad); // card mode: accepted
        if (bad)
            return failure(kErrMalformed);
        h_.uim.power_up(slot_no);
        return success_only();
    }

    static bool on_euicc(const UimSlot &s) { return s.powered && s.running == SlotMedium::Euicc && s.euicc; }

    Reply get_eid(UimSlot &s)
    {
        if (!on_euicc(s))
            return failure(kErrNotSupported);
        if (s.eid_requests < s.euicc->eid_ready_after) {
            ++s.eid_requests;
            return failure(kErrDeviceNotReady);
        }
        TlvWriter w;
        w.add_result(0, 0);
        uint8_t v[17];
        v[0] = 16;
        std::copy(s.euicc->eid.begin(), s.euicc->eid.end(), v + 1);
        w.add(0x10, v, sizeof(v));
        return w.take();
    }

    Reply open_channel(uint8_t slot_no, const UimSlot &s, const std::vector<Tlv> &tlvs)
    {
        const Tlv *aid = find_tlv(tlvs, 0x10);
        if (aid && (aid->value.empty() || aid->value[0] != aid->value.size() - 1))
            return failure(kErrMalformed);
        bool isdr = aid && aid->value.size() == 1 + sizeof(kIsdrAid) &&
                    std::equal(std::begin(kIsdrAid), std::end(kIsdrAid), aid->value.begin() + 1);
        if (!isdr || !on_euicc(s))
            return failure_sw(kErrInvalidArgument, 0x6A, 0x82); // file or application not found
        uint8_t channel = h_.uim.open_channel(slot_no);
        if (channel == 0)
            return failure_sw(kErrInvalidArgument, 0x6A, 0x81); // function not supported: no channel left
        TlvWriter w;
        w.add_result(0, 0);
        w.add(0x10, &channel, 1);
        const uint8_t ok[2] = {0x90, 0x00};
        w.add(0x11, ok, 2);
        return w.take();
    }

    Reply close_channel(uint8_t slot_no, const std::vector<Tlv> &tlvs)
    {
        bool bad = false;
        auto channel = u8(tlvs, 0x11, &bad);
        if (bad)
            return failure(kErrMalformed);
        if (!channel)
            return failure(kErrMissingArgument);
        if (!h_.uim.close_channel(slot_no, *channel))
            return failure(kErrInvalidArgument);
        return success_only();
    }

    Reply send_apdu(uint8_t slot_no, UimSlot &s, const std::vector<Tlv> &tlvs)
    {
        bool bad = false;
        auto channel = u8(tlvs, 0x10, &bad);
        const Tlv *apdu = find_tlv(tlvs, 0x02);
        if (bad || (apdu && (apdu->value.size() < 2 ||
                             kvn_wire::get_u16(apdu->value.data()) != apdu->value.size() - 2)))
            return failure(kErrMalformed);
        if (!apdu || !channel)
            return failure(kErrMissingArgument);
        if (!h_.uim.channel_open(slot_no, *channel))
            return failure(kErrInvalidArgument);
        Bytes response = euicc_answer(s, apdu->value.subspan(2));
        Bytes v;
        put_u16(v, static_cast<uint16_t>(response.size()));
        v.insert(v.end(), response.begin(), response.end());
        TlvWriter w;
        w.add_result(0, 0);
        w.add(0x10, v.data(), v.size());
        return w.take();
    }

    // The eUICC's answer to a command APDU: a STORE DATA (80 E2 91 ..)
    // carrying eUICCMemoryReset (BF34) deletes every profile; anything else
    // is an instruction it does not know.
    static Bytes euicc_answer(UimSlot &s, std::span<const uint8_t> apdu)
    {
        bool reset = apdu.size() >= 7 && apdu[0] == 0x80 && apdu[1] == 0xE2 && apdu[2] == 0x91 &&
                     apdu[4] >= 2 && apdu[5] == 0xBF && apdu[6] == 0x34;
        if (!reset || !s.euicc)
            return {0x6D, 0x00};
        uint8_t rr = s.euicc->profiles > 0 ? 0x00 : 0x01; // 0 ok, 1 nothing to delete
        s.euicc->profiles = 0;
        return {0xBF, 0x34, 0x03, 0x80, 0x01, rr, 0x90, 0x00};
    }

    Handset &h_;
};

} // namespace

void register_uim_service(Handset &h)
{
    h.services.add("uim", kServiceUim, std::make_unique<UimService>(h));
    register_uim_card_messages(h);
}

} // namespace kvn_sim
