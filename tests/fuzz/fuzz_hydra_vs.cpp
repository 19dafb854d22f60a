// fuzz_hydra_vs.cpp - libFuzzer target over what the statistics layer reads from the modem. Byte 0 picks the path,
// byte 1 the message or statistic, the rest is input: the decoder of the vendor statistics messages followed by the
// event builder, the event builder over arbitrary records (counts and lengths out of range), or the group-9 layout
// printers over exactly the statistic's bytes. Events go into a buffer of exactly the largest event's size.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "pelmox_test_modem_stats.h"
#include "vs_client.h"
#include "vs_service_v01.h"

namespace {

struct Msg {
    qmi_idl_type_of_message_type kind;
    uint16_t id;
};
const Msg kMsgs[] = {{QMI_IDL_RESPONSE, 0x0207},   {QMI_IDL_RESPONSE, 0x0003},   {QMI_IDL_INDICATION, 0x0004},
                     {QMI_IDL_INDICATION, 0x0203}, {QMI_IDL_INDICATION, 0x0204}, {QMI_IDL_INDICATION, 0x0601}};
const uint32_t kStats[] = {82, 103, 108, 94, 112, 113, 135, 6, 7, 110, 111, 100, 1};

void build(uint16_t id, const void *decoded)
{
    std::unique_ptr<uint8_t[]> ev(new uint8_t[VS_EVENT_MAX_LEN]);
    uint32_t len = 0;
    if (vs_client_build_event(id, decoded, ev.get(), &len) != 0 && len > VS_EVENT_MAX_LEN)
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return freopen("/dev/null", "w", stdout) ? 0 : 1; // the printers' lines are not what is checked
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    const qmi_idl_service_object_type vs = vs_get_service_object_internal_v01(1, 2, 6);
    const uint8_t *in = data + 2;
    const size_t len = size - 2;
    if (data[0] % 3 == 2) {
        const uint32_t id = kStats[data[1] % (sizeof(kStats) / sizeof(kStats[0]))];
        std::vector<uint8_t> bytes(in, in + len);
        pelmox_test_qmi_modem_stats_print_data(static_cast<modem_stats_data_id_e_type>(id), bytes.data(),
                                               bytes.size());
        return 0;
    }
    const bool decode = data[0] % 3 == 0; // else any record whatever its counts say, for an indication
    const Msg &m = decode ? kMsgs[data[1] % (sizeof(kMsgs) / sizeof(kMsgs[0]))] : kMsgs[2 + data[1] % 4];
    uint32_t rec_len = 0;
    if (qmi_idl_get_message_c_struct_len(vs, m.kind, m.id, &rec_len) != 0)
        __builtin_trap();
    std::unique_ptr<uint8_t[]> rec(new uint8_t[rec_len]());
    if (!decode)
        std::memcpy(rec.get(), in, len < rec_len ? len : rec_len);
    else if (qmi_idl_message_decode(vs, m.kind, m.id, in, uint32_t(len), rec.get(), rec_len) != 0)
        return 0;
    if (m.kind == QMI_IDL_INDICATION)
        build(m.id, rec.get());
    return 0;
}
