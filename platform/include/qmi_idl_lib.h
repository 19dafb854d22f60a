/*
 * qmi_idl_lib.h - the IDL runtime of the QMI client library: service objects
 * and the layout descriptors that one table-driven codec interprets.
 *
 * A service object is constant data: the service id, its IDL versions, the
 * largest message, and per message kind (request, response, indication) a
 * table of {message id, largest encoded TLV payload, C record length, layout}.
 * A layout is an array of element rows ending in a QMI_IDL_EOTI row, in the
 * manner of the Linux kernel's struct qmi_elem_info, with one addition: every
 * row states its C width and its wire width separately, because IDL-style C
 * records widen enums, counts and result codes to 32 bits while the wire keeps
 * them at one or two bytes.
 */
#ifndef QMI_IDL_LIB_H
#define QMI_IDL_LIB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- message kinds ---- */
typedef enum {
    QMI_IDL_REQUEST = 0,
    QMI_IDL_RESPONSE = 1,
    QMI_IDL_INDICATION = 2,
    QMI_IDL_NUM_MSG_TYPES = 3
} qmi_idl_type_of_message_type;

/* ---- IDL runtime error numbers (returned by the codec and passed through by
 * qmi_client_send_msg_sync / qmi_client_message_decode) ---- */
#define QMI_IDL_LIB_NO_ERR 0
#define QMI_IDL_LIB_ARRAY_TOO_BIG (-51)        /* count above the array maximum */
#define QMI_IDL_LIB_MESSAGE_DATA_ERROR (-52)   /* TLV runs past the end / malformed */
#define QMI_IDL_LIB_MISSING_TLV (-53)          /* a mandatory TLV is absent */
#define QMI_IDL_LIB_TLV_TOO_LONG (-54)         /* TLV longer than its field(s) */
#define QMI_IDL_LIB_LENGTH_INCONSISTENCY (-55) /* TLV shorter than its field(s) */
#define QMI_IDL_LIB_BUFFER_TOO_SMALL (-56)     /* output buffer / C record too small */
#define QMI_IDL_LIB_MESSAGE_ID_NOT_FOUND (-57) /* no table entry for the message id */
#define QMI_IDL_LIB_MESSAGE_TOO_LONG (-58)     /* encoded above the table's largest length */
#define QMI_IDL_LIB_PARAMETER_ERROR (-59)      /* null pointer, bad descriptor */

/* ---- layout descriptors ---- */
typedef enum {
    QMI_IDL_EOTI = 0,     /* end of table */
    QMI_IDL_OPT_FLAG,     /* u8 valid flag of an optional TLV (C only, never on the wire) */
    QMI_IDL_DATA_LEN,     /* C count of the variable array in the next row; wire_size 1 or 2 */
    QMI_IDL_UNSIGNED,     /* unsigned integer (enums included): zero-extended on decode */
    QMI_IDL_SIGNED,       /* signed integer: sign-extended on decode */
    QMI_IDL_STRUCT        /* nested structure described by ei_array */
} qmi_idl_data_type;

typedef enum {
    QMI_IDL_NO_ARRAY = 0,
    QMI_IDL_STATIC_ARRAY, /* exactly elem_len elements on the wire */
    QMI_IDL_VAR_ARRAY     /* count from the preceding QMI_IDL_DATA_LEN row */
} qmi_idl_array_type;

/*
 * One element row. At the top level of a message, consecutive rows with the
 * same tlv_type form one TLV; a TLV whose first row is QMI_IDL_OPT_FLAG is
 * optional, any other TLV is mandatory. Inside a nested table tlv_type is 0.
 *
 *   c_size     C width of one element: 1, 2, 4 or 8 (integers, counts, flags);
 *              sizeof the nested record for QMI_IDL_STRUCT
 *   wire_size  wire width of one element: 1, 2, 4 or 8 (0 for structs/flags)
 *   elem_len   arrays: the maximum (variable) or exact (static) element count
 *   offset     offsetof() the element (or first array element) in its record
 */
typedef struct qmi_idl_elem_info {
    uint8_t data_type;  /* qmi_idl_data_type */
    uint8_t array_type; /* qmi_idl_array_type */
    uint8_t tlv_type;
    uint8_t wire_size;
    uint32_t c_size;
    uint32_t elem_len;
    uint32_t offset;
    const struct qmi_idl_elem_info *ei_array;
} qmi_idl_elem_info;

typedef struct {
    uint16_t msg_id;
    uint16_t max_msg_len;          /* largest encoded TLV payload, bytes */
    uint32_t c_struct_len;         /* sizeof the C record */
    const qmi_idl_elem_info *ei;   /* layout; null for a message with no TLVs */
} qmi_idl_message_table_entry;

struct qmi_idl_service_object {
    uint32_t library_version;
    uint32_t idl_version;          /* IDL major version */
    uint32_t service_id;
    uint32_t max_msg_len;          /* largest message on the wire */
    uint16_t n_msgs[QMI_IDL_NUM_MSG_TYPES];   /* entries in each table below */
    const qmi_idl_message_table_entry *msgid_to_msg[QMI_IDL_NUM_MSG_TYPES];
    uint32_t idl_minor_version;
    /* Messages of each kind the service defines (its header counts). A host
     * service object may describe only some of them in its tables; a message
     * without a table entry cannot be encoded or decoded. */
    uint16_t n_msgs_declared[QMI_IDL_NUM_MSG_TYPES];
};
typedef const struct qmi_idl_service_object *qmi_idl_service_object_type;

/* Looks up the C record length of one message of a service. Returns
 * QMI_IDL_LIB_NO_ERR and fills *c_struct_len, or a QMI_IDL_LIB_* error. */
int32_t qmi_idl_get_message_c_struct_len(qmi_idl_service_object_type p_service,
                                         qmi_idl_type_of_message_type req_resp_ind,
                                         uint16_t message_id, uint32_t *c_struct_len);

/* Encodes a C record into TLVs (no QMI header). On success returns
 * QMI_IDL_LIB_NO_ERR and sets *dst_len to the bytes written. */
int32_t qmi_idl_message_encode(qmi_idl_service_object_type p_service,
                               qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                               const void *p_src, uint32_t src_len, void *p_dst, uint32_t dst_len,
                               uint32_t *dst_encoded_len);

/* Decodes TLVs (no QMI header) into a C record, which is cleared first. Never
 * writes outside [p_dst, p_dst + dst_len). */
int32_t qmi_idl_message_decode(qmi_idl_service_object_type p_service,
                               qmi_idl_type_of_message_type req_resp_ind, uint16_t message_id,
                               const void *p_src, uint32_t src_len, void *p_dst, uint32_t dst_len);

#ifdef __cplusplus
}
#endif

#endif /* QMI_IDL_LIB_H */
