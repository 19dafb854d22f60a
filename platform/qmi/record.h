// record.h - the record of a run with $KVN_QMI_RECORD=FILE: every request
// the library sends and every response and indication it receives, on any
// transport, appended to FILE as one JSON object a line:
//   {"dir":"req"|"resp"|"ind","service":S,"msg_id":M,"txn":T,
//    "tlvs":[{"type":N,"hex":"0a0b"},...]}
// kvn-sim can play such a file back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvn_qmi {

// Appends one line for the QMI service message msg (flags, transaction,
// message id, TLV length, TLVs) when recording; nothing otherwise.
void record_message(const char *dir, uint32_t service, const std::vector<uint8_t> &msg);

// The line for msg; empty when msg is not a whole service message.
std::string record_line(const char *dir, uint32_t service, const std::vector<uint8_t> &msg);

} // namespace kvn_qmi
