// fuzz_qmi_decode.cpp - libFuzzer target over the QMI decoder for every UIM, SAR and NAS message: bytes 0-2 pick
// service, kind and message, the rest is the TLV area, records are heap blocks of exactly the message's size. What
// decodes must encode again, and that encoding must decode to the same record.
#include <network_access_service_v01.h>
#include <qmi_idl_lib.h>
#include <specific_absorption_rate_v01.h>
#include <user_identity_module_v01.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3)
        return 0;
    const qmi_idl_service_object_type services[] = {uim_get_service_object_v01(), sar_get_service_object_v01(),
                                                    nas_get_service_object_v01()};
    const qmi_idl_service_object_type svc = services[data[0] % 3];
    const auto kind = static_cast<qmi_idl_type_of_message_type>(data[1] % QMI_IDL_NUM_MSG_TYPES);
    if (svc->n_msgs[kind] == 0)
        return 0;
    const qmi_idl_message_table_entry &e = svc->msgid_to_msg[kind][data[2] % svc->n_msgs[kind]];
    const auto record = [&] { return std::unique_ptr<uint8_t[]>(new uint8_t[e.c_struct_len ? e.c_struct_len : 1]); };
    auto rec = record();
    if (qmi_idl_message_decode(svc, kind, e.msg_id, data + 3, static_cast<uint32_t>(size - 3), rec.get(),
                               e.c_struct_len) != QMI_IDL_LIB_NO_ERR)
        return 0;
    std::vector<uint8_t> wire(e.max_msg_len + 1);
    uint32_t wire_len = 0;
    if (qmi_idl_message_encode(svc, kind, e.msg_id, rec.get(), e.c_struct_len, wire.data(),
                               static_cast<uint32_t>(wire.size()), &wire_len) != QMI_IDL_LIB_NO_ERR)
        __builtin_trap(); // whatever decodes must encode
    auto back = record();
    if (qmi_idl_message_decode(svc, kind, e.msg_id, wire.data(), wire_len, back.get(), e.c_struct_len) !=
            QMI_IDL_LIB_NO_ERR ||
        std::memcmp(rec.get(), back.get(), e.c_struct_len) != 0)
        __builtin_trap();
    return 0;
}
