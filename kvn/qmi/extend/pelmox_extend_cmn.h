/*
 * pelmox_extend_cmn.h - the two framings of vendor command 4 (a typed request
 * in the 512-byte payload of the extend service) and command group 6, which
 * sends any vendor command with bytes given on the command line.
 */
#ifndef PELMOX_EXTEND_CMN_H
#define PELMOX_EXTEND_CMN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELMOX_CMN_CMD_ID 4        /* vendor command of both framings */
#define PELMOX_CMN_RSP_LEN 508     /* reply capacity both framings offer; rsp holds at least this */
#define PELMOX_CMN_REQ_VALUE_MAX 499 /* largest l of pelmox_common_qmi_req */
#define PELMOX_CMN_MSG_VALUE_MAX 491 /* largest l of pelmox_send_common_qmi_msg */
#define PELMOX_CMN_MSG_REQ_TYPE 2  /* request type of the common message */

/*
 * Sends request type t with l value bytes v (at offset 8, the rest zero)
 * under command 4, the reply going to rsp (capacity 508, cleared first).
 * Returns the send's result (0, -1, -2, -3) unmapped, or
 * PELMOX_ERR_INVALID_ARGS for a null rsp, l of 500 or more, or a null v with
 * a non-zero l.
 */
int pelmox_common_qmi_req(uint32_t t, uint32_t l, const uint8_t *v, uint8_t *rsp);

/*
 * The common message: request type 2, message type t at offset 8, l at 12 and
 * the l value bytes v at 16. Same results as pelmox_common_qmi_req, with l
 * limited to 491.
 */
int pelmox_send_common_qmi_msg(uint32_t t, uint32_t l, const uint8_t *v, uint8_t *rsp);

/* Group 6: `kvn 6 qmi_id data...` sends vendor command qmi_id (0 to 5) with
 * up to 500 data bytes. Always returns 0. */
int pelmox_test_qmi_send_data_do(int argc, char *argv[]);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_EXTEND_CMN_H */
