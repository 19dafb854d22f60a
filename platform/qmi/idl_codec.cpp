// idl_codec.cpp - the one encoder and decoder of QMI messages. It walks the
// element tables of a service object (qmi_idl_lib.h) in both directions, so
// that no message has encode or decode code of its own.
//
// The decoder treats its input as hostile: every read checks the bytes left
// in the TLV, every write checks the room left in the C record, and all
// sizes are computed in size_t in a form that cannot wrap. A message that a
// table cannot describe exactly (a TLV longer or shorter than its fields, a
// count above an array's maximum, a missing mandatory TLV, a repeated TLV) is
// refused; unknown TLVs are skipped and TLV order is free.
#include <qmi_idl_lib.h>

#include "idl_internal.h"

#include <cstring>

namespace {

/* ---- limits and small helpers ---- */

// Nesting deeper than this can only come from a table that refers to itself.
constexpr int kMaxDepth = 8;
// A TLV value is at most this long (its length field is 16 bits).
constexpr size_t kMaxTlvValue = 0xFFFF;
constexpr size_t kTlvHeader = 3;

using Row = qmi_idl_elem_info;

bool int_width_ok(uint32_t w) { return w == 1 || w == 2 || w == 4 || w == 8; }

// Reads an unsigned little-endian integer of width bytes (1, 2, 4 or 8).
uint64_t load_le(const uint8_t *p, size_t width)
{
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i)
        v |= uint64_t(p[i]) << (8 * i);
    return v;
}

void store_le(uint8_t *p, uint64_t v, size_t width)
{
    for (size_t i = 0; i < width; ++i)
        p[i] = uint8_t(v >> (8 * i));
}

// Sign-extends the low width bytes of v to 64 bits.
uint64_t sign_extend(uint64_t v, size_t width)
{
    if (width >= 8)
        return v;
    const unsigned bits = unsigned(width * 8);
    const uint64_t sign = uint64_t(1) << (bits - 1);
    const uint64_t mask = (uint64_t(1) << bits) - 1;
    v &= mask;
    return (v ^ sign) - sign;
}

// True when n elements of size bytes starting at offset lie inside a record of
// rec_size bytes. Written as divisions so that no product or sum can wrap.
bool span_ok(size_t offset, size_t n, size_t size, size_t rec_size)
{
    if (size == 0 || offset > rec_size)
        return false;
    return n <= (rec_size - offset) / size;
}

/* ---- byte cursors ---- */

// Input cursor over one TLV value; every take() checks what is left.
struct Reader {
    const uint8_t *p;
    size_t left;

    bool take(size_t n, const uint8_t **out)
    {
        if (n > left)
            return false;
        *out = p;
        p += n;
        left -= n;
        return true;
    }
};

// Output cursor over the caller's buffer; every put checks the room left.
struct Writer {
    uint8_t *p;
    size_t cap;
    size_t used;

    bool room(size_t n) const { return n <= cap - used; }
    bool put_le(uint64_t v, size_t width)
    {
        if (!room(width))
            return false;
        store_le(p + used, v, width);
        used += width;
        return true;
    }
};

/* ---- encoding ---- */

int encode_rows(const Row *rows, const Row *end, const uint8_t *base, size_t rec_size, Writer &w,
                int depth);

// True when v (read from a C field of c_size bytes) can be written in
// wire_size bytes without losing information. Signed values must lie in the
// signed range of the wire width; unsigned ones in the unsigned range.
bool fits_wire(uint64_t v, const Row &r)
{
    if (r.wire_size >= r.c_size)
        return true;
    const unsigned bits = unsigned(r.wire_size * 8);
    if (r.data_type == QMI_IDL_SIGNED) {
        const uint64_t sv = sign_extend(v, r.c_size);
        return sign_extend(sv, r.wire_size) == sv;
    }
    return (v >> bits) == 0;
}

// Encodes n elements of row r (an integer or a nested structure).
int encode_values(const Row &r, size_t n, const uint8_t *base, size_t rec_size, Writer &w, int depth)
{
    if (!span_ok(r.offset, n, r.c_size, rec_size))
        return QMI_IDL_LIB_PARAMETER_ERROR;
    const uint8_t *first = base + r.offset;
    if (r.data_type == QMI_IDL_STRUCT) {
        if (!r.ei_array || depth >= kMaxDepth)
            return QMI_IDL_LIB_PARAMETER_ERROR;
        const Row *nend = r.ei_array;
        while (nend->data_type != QMI_IDL_EOTI)
            ++nend;
        for (size_t i = 0; i < n; ++i) {
            int rc = encode_rows(r.ei_array, nend, first + i * r.c_size, r.c_size, w, depth + 1);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
        }
        return QMI_IDL_LIB_NO_ERR;
    }
    if (r.data_type != QMI_IDL_UNSIGNED && r.data_type != QMI_IDL_SIGNED)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    if (!int_width_ok(r.c_size) || !int_width_ok(r.wire_size) || r.wire_size > r.c_size)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    if (r.wire_size == r.c_size) {
        // Same width in memory and on the wire: one bounded copy. The hosts
        // this library runs on are little-endian, like the wire.
        if (n > (w.cap - w.used) / r.wire_size)
            return QMI_IDL_LIB_BUFFER_TOO_SMALL;
        std::memcpy(w.p + w.used, first, n * r.wire_size);
        w.used += n * r.wire_size;
        return QMI_IDL_LIB_NO_ERR;
    }
    for (size_t i = 0; i < n; ++i) {
        const uint64_t v = load_le(first + i * r.c_size, r.c_size);
        if (!fits_wire(v, r))
            return QMI_IDL_LIB_PARAMETER_ERROR;
        if (!w.put_le(v, r.wire_size))
            return QMI_IDL_LIB_BUFFER_TOO_SMALL;
    }
    return QMI_IDL_LIB_NO_ERR;
}

// Encodes the rows [rows, end) of one TLV or one nested structure. A DATA_LEN
// row consumes the VAR_ARRAY row after it.
int encode_rows(const Row *rows, const Row *end, const uint8_t *base, size_t rec_size, Writer &w,
                int depth)
{
    for (const Row *r = rows; r < end; ++r) {
        if (r->data_type > QMI_IDL_STRUCT)
            return QMI_IDL_LIB_PARAMETER_ERROR;
        switch (static_cast<qmi_idl_data_type>(r->data_type)) {
        case QMI_IDL_EOTI:
        case QMI_IDL_OPT_FLAG:
            return QMI_IDL_LIB_PARAMETER_ERROR; // only valid as first row of a top-level TLV
        case QMI_IDL_DATA_LEN: {
            const Row *arr = r + 1;
            if (arr >= end || arr->array_type != QMI_IDL_VAR_ARRAY ||
                (r->wire_size != 1 && r->wire_size != 2) || !int_width_ok(r->c_size) ||
                !span_ok(r->offset, 1, r->c_size, rec_size))
                return QMI_IDL_LIB_PARAMETER_ERROR;
            const uint64_t count = load_le(base + r->offset, r->c_size);
            if (count > arr->elem_len)
                return QMI_IDL_LIB_ARRAY_TOO_BIG;
            if (count >> (8 * r->wire_size))
                return QMI_IDL_LIB_ARRAY_TOO_BIG; // cannot be stated in the wire count
            if (!w.put_le(count, r->wire_size))
                return QMI_IDL_LIB_BUFFER_TOO_SMALL;
            int rc = encode_values(*arr, size_t(count), base, rec_size, w, depth);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
            r = arr;
            break;
        }
        case QMI_IDL_UNSIGNED:
        case QMI_IDL_SIGNED:
        case QMI_IDL_STRUCT: {
            size_t n = 1;
            if (r->array_type == QMI_IDL_STATIC_ARRAY)
                n = r->elem_len;
            else if (r->array_type != QMI_IDL_NO_ARRAY)
                return QMI_IDL_LIB_PARAMETER_ERROR; // a variable array needs its DATA_LEN row
            int rc = encode_values(*r, n, base, rec_size, w, depth);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
            break;
        }
        }
    }
    return QMI_IDL_LIB_NO_ERR;
}

/* ---- decoding ---- */

int decode_rows(const Row *rows, const Row *end, Reader &in, uint8_t *base, size_t rec_size, int depth);

int decode_values(const Row &r, size_t n, Reader &in, uint8_t *base, size_t rec_size, int depth)
{
    if (!span_ok(r.offset, n, r.c_size, rec_size))
        return QMI_IDL_LIB_PARAMETER_ERROR;
    uint8_t *first = base + r.offset;
    if (r.data_type == QMI_IDL_STRUCT) {
        if (!r.ei_array || depth >= kMaxDepth)
            return QMI_IDL_LIB_PARAMETER_ERROR;
        const Row *nend = r.ei_array;
        while (nend->data_type != QMI_IDL_EOTI)
            ++nend;
        for (size_t i = 0; i < n; ++i) {
            int rc = decode_rows(r.ei_array, nend, in, first + i * r.c_size, r.c_size, depth + 1);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
        }
        return QMI_IDL_LIB_NO_ERR;
    }
    if (r.data_type != QMI_IDL_UNSIGNED && r.data_type != QMI_IDL_SIGNED)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    if (!int_width_ok(r.c_size) || !int_width_ok(r.wire_size) || r.wire_size > r.c_size)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    if (n > in.left / r.wire_size)
        return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    const uint8_t *src = nullptr;
    in.take(n * r.wire_size, &src);
    if (r.wire_size == r.c_size) {
        std::memcpy(first, src, n * r.c_size);
        return QMI_IDL_LIB_NO_ERR;
    }
    for (size_t i = 0; i < n; ++i) {
        uint64_t v = load_le(src + i * r.wire_size, r.wire_size);
        if (r.data_type == QMI_IDL_SIGNED)
            v = sign_extend(v, r.wire_size);
        store_le(first + i * r.c_size, v, r.c_size);
    }
    return QMI_IDL_LIB_NO_ERR;
}

int decode_rows(const Row *rows, const Row *end, Reader &in, uint8_t *base, size_t rec_size, int depth)
{
    for (const Row *r = rows; r < end; ++r) {
        if (r->data_type > QMI_IDL_STRUCT)
            return QMI_IDL_LIB_PARAMETER_ERROR;
        switch (static_cast<qmi_idl_data_type>(r->data_type)) {
        case QMI_IDL_EOTI:
        case QMI_IDL_OPT_FLAG:
            return QMI_IDL_LIB_PARAMETER_ERROR;
        case QMI_IDL_DATA_LEN: {
            const Row *arr = r + 1;
            if (arr >= end || arr->array_type != QMI_IDL_VAR_ARRAY ||
                (r->wire_size != 1 && r->wire_size != 2) || !int_width_ok(r->c_size) ||
                !span_ok(r->offset, 1, r->c_size, rec_size))
                return QMI_IDL_LIB_PARAMETER_ERROR;
            const uint8_t *src = nullptr;
            if (!in.take(r->wire_size, &src))
                return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
            const uint64_t count = load_le(src, r->wire_size);
            if (count > arr->elem_len)
                return QMI_IDL_LIB_ARRAY_TOO_BIG;
            store_le(base + r->offset, count, r->c_size);
            int rc = decode_values(*arr, size_t(count), in, base, rec_size, depth);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
            r = arr;
            break;
        }
        case QMI_IDL_UNSIGNED:
        case QMI_IDL_SIGNED:
        case QMI_IDL_STRUCT: {
            size_t n = 1;
            if (r->array_type == QMI_IDL_STATIC_ARRAY)
                n = r->elem_len;
            else if (r->array_type != QMI_IDL_NO_ARRAY)
                return QMI_IDL_LIB_PARAMETER_ERROR;
            int rc = decode_values(*r, n, in, base, rec_size, depth);
            if (rc != QMI_IDL_LIB_NO_ERR)
                return rc;
            break;
        }
        }
    }
    return QMI_IDL_LIB_NO_ERR;
}

/* ---- message tables ---- */

const qmi_idl_message_table_entry *find_entry(qmi_idl_service_object_type svc,
                                              qmi_idl_type_of_message_type kind, uint16_t msg_id)
{
    if (!svc || kind < QMI_IDL_REQUEST || kind >= QMI_IDL_NUM_MSG_TYPES)
        return nullptr;
    const qmi_idl_message_table_entry *t = svc->msgid_to_msg[kind];
    if (!t)
        return nullptr;
    for (uint16_t i = 0; i < svc->n_msgs[kind]; ++i)
        if (t[i].msg_id == msg_id)
            return &t[i];
    return nullptr;
}

// One top-level TLV of a message layout: its rows [first, end), and whether
// it is optional (its first row is the valid flag, then not part of the range).
struct Tlv {
    const Row *flag; // valid-flag row, null for a mandatory TLV
    const Row *first;
    const Row *end;
    uint8_t type;
};

// Walks a message layout TLV by TLV. Returns false at the end.
bool next_tlv(const Row *&cursor, Tlv &t)
{
    if (!cursor || cursor->data_type == QMI_IDL_EOTI)
        return false;
    t.type = cursor->tlv_type;
    t.flag = nullptr;
    const Row *r = cursor;
    if (r->data_type == QMI_IDL_OPT_FLAG) {
        t.flag = r;
        ++r;
    }
    t.first = r;
    while (r->data_type != QMI_IDL_EOTI && r->tlv_type == t.type)
        ++r;
    t.end = r;
    cursor = r;
    return true;
}

} // namespace

/* ---- public interface ---- */

const qmi_idl_message_table_entry *qmi_idl_find_message(qmi_idl_service_object_type svc,
                                                        qmi_idl_type_of_message_type kind, uint16_t msg_id)
{
    return find_entry(svc, kind, msg_id);
}

extern "C" int32_t qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type p_service,
                                                    qmi_idl_type_of_message_type req_resp_ind,
                                                    uint16_t message_id, uint32_t *c_struct_len)
{
    if (!p_service || !c_struct_len)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    const auto *e = find_entry(p_service, req_resp_ind, message_id);
    if (!e)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
    *c_struct_len = e->c_struct_len;
    return QMI_IDL_LIB_NO_ERR;
}

// Encodes the record TLV by TLV in table order. An optional TLV whose valid
// flag is 0 is left out. The result must fit both dst_len and the table's
// largest length for the message.
extern "C" int32_t qmi_idl_message_encode(qmi_idl_service_object_type p_service,
                                          qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                                          const void *p_src, uint32_t src_len, void *p_dst,
                                          uint32_t dst_len, uint32_t *dst_encoded_len)
{
    if (!p_service || !dst_encoded_len || (!p_dst && dst_len))
        return QMI_IDL_LIB_PARAMETER_ERROR;
    const auto *e = find_entry(p_service, req_resp_ind, message_id);
    if (!e)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
    *dst_encoded_len = 0;
    if (e->c_struct_len && (!p_src || src_len < e->c_struct_len))
        return QMI_IDL_LIB_PARAMETER_ERROR;
    const auto *base = static_cast<const uint8_t *>(p_src);
    const size_t rec_size = e->c_struct_len;

    Writer w{static_cast<uint8_t *>(p_dst), dst_len, 0};
    const Row *cursor = e->ei;
    Tlv t;
    while (next_tlv(cursor, t)) {
        if (t.flag) {
            if (t.flag->c_size != 1 || !span_ok(t.flag->offset, 1, 1, rec_size))
                return QMI_IDL_LIB_PARAMETER_ERROR;
            if (base[t.flag->offset] == 0)
                continue;
        }
        if (!w.room(kTlvHeader))
            return QMI_IDL_LIB_BUFFER_TOO_SMALL;
        const size_t hdr = w.used;
        w.used += kTlvHeader;
        int rc = encode_rows(t.first, t.end, base, rec_size, w, 0);
        if (rc != QMI_IDL_LIB_NO_ERR)
            return rc;
        const size_t value_len = w.used - hdr - kTlvHeader;
        if (value_len > kMaxTlvValue)
            return QMI_IDL_LIB_MESSAGE_TOO_LONG;
        w.p[hdr] = t.type;
        store_le(w.p + hdr + 1, value_len, 2);
    }
    if (w.used > e->max_msg_len)
        return QMI_IDL_LIB_MESSAGE_TOO_LONG;
    *dst_encoded_len = uint32_t(w.used);
    return QMI_IDL_LIB_NO_ERR;
}

// Decodes TLVs in any order into a cleared record. A repeated TLV is refused:
// a modem never sends one, and taking either copy would silently hide the
// other. Input longer than the service's largest message is refused; the
// message's own largest length is not applied here, because a newer modem
// may add TLVs this table does not know, and those are skipped, not fatal.
extern "C" int32_t qmi_idl_message_decode(qmi_idl_service_object_type p_service,
                                          qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                                          const void *p_src, uint32_t src_len, void *p_dst, uint32_t dst_len)
{
    if (!p_service || (!p_src && src_len))
        return QMI_IDL_LIB_PARAMETER_ERROR;
    const auto *e = find_entry(p_service, req_resp_ind, message_id);
    if (!e)
        return QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND;
    if (e->c_struct_len && !p_dst)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    if (dst_len < e->c_struct_len)
        return QMI_IDL_LIB_BUFFER_TOO_SMALL;
    if (src_len > p_service->max_msg_len)
        return QMI_IDL_LIB_MESSAGE_TOO_LONG;
    auto *base = static_cast<uint8_t *>(p_dst);
    const size_t rec_size = e->c_struct_len;
    if (rec_size)
        std::memset(base, 0, rec_size);

    // Index the layout's TLVs once; a message has at most 256 TLV types.
    Tlv tlvs[256];
    size_t n_tlvs = 0;
    const Row *cursor = e->ei;
    Tlv t;
    while (n_tlvs < 256 && next_tlv(cursor, t))
        tlvs[n_tlvs++] = t;
    if (cursor && cursor->data_type != QMI_IDL_EOTI)
        return QMI_IDL_LIB_PARAMETER_ERROR;
    bool seen[256] = {};

    const auto *src = static_cast<const uint8_t *>(p_src);
    size_t pos = 0;
    while (pos < src_len) {
        if (src_len - pos < kTlvHeader)
            return QMI_IDL_LIB_MESSAGE_DATA_ERROR;
        const uint8_t type = src[pos];
        const size_t len = load_le(src + pos + 1, 2);
        pos += kTlvHeader;
        if (len > src_len - pos)
            return QMI_IDL_LIB_MESSAGE_DATA_ERROR;
        Reader in{src + pos, len};
        pos += len;
        size_t i = 0;
        while (i < n_tlvs && tlvs[i].type != type)
            ++i;
        if (i == n_tlvs)
            continue; // unknown TLV: skipped
        if (seen[i])
            return QMI_IDL_LIB_MESSAGE_DATA_ERROR;
        seen[i] = true;
        const Tlv &d = tlvs[i];
        if (d.flag) {
            if (d.flag->c_size != 1 || !span_ok(d.flag->offset, 1, 1, rec_size))
                return QMI_IDL_LIB_PARAMETER_ERROR;
            base[d.flag->offset] = 1;
        }
        int rc = decode_rows(d.first, d.end, in, base, rec_size, 0);
        if (rc != QMI_IDL_LIB_NO_ERR)
            return rc;
        if (in.left != 0)
            return QMI_IDL_LIB_TLV_TOO_LONG;
    }
    for (size_t i = 0; i < n_tlvs; ++i)
        if (!tlvs[i].flag && !seen[i])
            return QMI_IDL_LIB_MISSING_TLV;
    return QMI_IDL_LIB_NO_ERR;
}
