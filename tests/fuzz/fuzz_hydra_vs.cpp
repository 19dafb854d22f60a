// fuzz_hydra_vs.cpp - libFuzzer target over what the statistics layer reads from the modem. Byte 0 picks decoder
// then event builder, builder over any record, or group-9 printers over exactly the bytes; byte 1 the message.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "pelmox_test_modem_stats.h"
#include "vs_client.h"
#include "vs_service_v01.h"

// Responses first, then the indications the event builder takes.
const uint16_t kMsgs[] = {0x0207, 0x0003, 0x0004, 0x0203, 0x0204, 0x0601};
const uint32_t kStats[] = {82, 103, 108, 94, 112, 113, 135, 6, 7, 110, 111, 100, 1};

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
    const size_t m = decode ? data[1] % 6 : 2 + data[1] % 4;
    const auto kind = m < 2 ? QMI_IDL_RESPONSE : QMI_IDL_INDICATION;
    uint32_t rec_len = 0;
    if (qmi_idl_get_message_c_struct_len(vs, kind, kMsgs[m], &rec_len) != 0)
        __builtin_trap();
    std::unique_ptr<uint8_t[]> rec(new uint8_t[rec_len]());
    if (!decode)
        std::memcpy(rec.get(), in, len < rec_len ? len : rec_len);
    else if (qmi_idl_message_decode(vs, kind, kMsgs[m], in, uint32_t(len), rec.get(), rec_len) != 0)
        return 0;
    if (kind == QMI_IDL_RESPONSE)
        return 0;
    std::unique_ptr<uint8_t[]> ev(new uint8_t[VS_EVENT_MAX_LEN]);
    uint32_t ev_len = 0;
    if (vs_client_build_event(kMsgs[m], rec.get(), ev.get(), &ev_len) != 0 && ev_len > VS_EVENT_MAX_LEN)
        __builtin_trap();
    return 0;
}
