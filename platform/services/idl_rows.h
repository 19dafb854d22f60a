// idl_rows.h - shorthand for the element rows of the service objects' layout
// tables (qmi_idl_lib.h). Each helper builds one row; widths are stated as
// C width and wire width, in that order.
#pragma once

#include <qmi_idl_lib.h>

#include <cstddef>
#include <cstdint>

namespace qmi_rows {

using Row = qmi_idl_elem_info;

// Valid flag of an optional TLV (u8 in C, never on the wire).
constexpr Row opt(uint8_t tlv, size_t off)
{
    return {QMI_IDL_OPT_FLAG, QMI_IDL_NO_ARRAY, tlv, 0, 1, 0, uint32_t(off), nullptr};
}

// One unsigned integer (enums included).
constexpr Row u(uint8_t tlv, uint32_t c_size, uint8_t wire, size_t off)
{
    return {QMI_IDL_UNSIGNED, QMI_IDL_NO_ARRAY, tlv, wire, c_size, 0, uint32_t(off), nullptr};
}

// One signed integer.
constexpr Row s(uint8_t tlv, uint32_t c_size, uint8_t wire, size_t off)
{
    return {QMI_IDL_SIGNED, QMI_IDL_NO_ARRAY, tlv, wire, c_size, 0, uint32_t(off), nullptr};
}

// The 32-bit C count of the variable array in the next row; wire 1 or 2 bytes.
constexpr Row count(uint8_t tlv, uint8_t wire, size_t off)
{
    return {QMI_IDL_DATA_LEN, QMI_IDL_NO_ARRAY, tlv, wire, 4, 0, uint32_t(off), nullptr};
}

// Variable array of unsigned integers (after a count row).
constexpr Row var_u(uint8_t tlv, uint32_t c_size, uint8_t wire, uint32_t max, size_t off)
{
    return {QMI_IDL_UNSIGNED, QMI_IDL_VAR_ARRAY, tlv, wire, c_size, max, uint32_t(off), nullptr};
}

// Fixed array of unsigned integers.
constexpr Row fixed_u(uint8_t tlv, uint32_t c_size, uint8_t wire, uint32_t n, size_t off)
{
    return {QMI_IDL_UNSIGNED, QMI_IDL_STATIC_ARRAY, tlv, wire, c_size, n, uint32_t(off), nullptr};
}

// One nested structure.
constexpr Row st(uint8_t tlv, const Row *ei, size_t size, size_t off)
{
    return {QMI_IDL_STRUCT, QMI_IDL_NO_ARRAY, tlv, 0, uint32_t(size), 0, uint32_t(off), ei};
}

// Variable array of nested structures (after a count row).
constexpr Row var_st(uint8_t tlv, const Row *ei, size_t size, uint32_t max, size_t off)
{
    return {QMI_IDL_STRUCT, QMI_IDL_VAR_ARRAY, tlv, 0, uint32_t(size), max, uint32_t(off), ei};
}

constexpr Row end() { return {QMI_IDL_EOTI, QMI_IDL_NO_ARRAY, 0, 0, 0, 0, 0, nullptr}; }

// The result pair of every response: two 32-bit C values, u16 + u16 in TLV 0x02.
constexpr Row result_row(size_t off) { return u(0x02, 4, 2, off); }
constexpr Row error_row(size_t off) { return u(0x02, 4, 2, off + 4); }

} // namespace qmi_rows
