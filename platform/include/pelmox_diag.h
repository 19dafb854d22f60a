/*
 * pelmox_diag.h - the maker's diag library: sends one raw diag request to the
 * modem, either through the diag callback interface or through a DCI client,
 * and, in the "with result" forms, waits for the modem's reply.
 *
 * Every function returns 0 on success and a non-zero PELMOX_DIAG_ERR_* code on
 * failure. cmd holds cmd_len request bytes; the "with result" forms wait at
 * most time_out_ms for the reply, copy at most *rsp_len bytes of it into rsp
 * and set *rsp_len to the number of bytes copied.
 */
#ifndef PELMOX_DIAG_H
#define PELMOX_DIAG_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELMOX_DIAG_ERR_PARAM 1       /* null buffer or a zero length */
#define PELMOX_DIAG_ERR_UNAVAILABLE 2 /* the diag channel could not be reached */
#define PELMOX_DIAG_ERR_TIMEOUT 3     /* no reply within the time-out */
#define PELMOX_DIAG_ERR_REFUSED 4     /* the modem side refused the request */

int pelmox_diag_cmd_send_with_result_by_callback_mode(const uint8_t *cmd, uint32_t cmd_len, uint32_t time_out_ms,
                                                      uint8_t *rsp, uint32_t *rsp_len);
int pelmox_diag_cmd_send_without_result_by_callback_mode(const uint8_t *cmd, uint32_t cmd_len);
int pelmox_diag_cmd_send_with_result_by_dci_mode(const uint8_t *cmd, uint32_t cmd_len, uint32_t time_out_ms,
                                                 uint8_t *rsp, uint32_t *rsp_len);
int pelmox_diag_cmd_send_without_result_by_dci_mode(const uint8_t *cmd, uint32_t cmd_len);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_DIAG_H */
