/*
 * pelmox_uim.h - the SIM layer: one client of the modem's QMI UIM service
 * (created on demand, rebuilt after a modem restart or repeated failures),
 * the card requests that run over it (power, card status, EID, logical
 * channels, APDUs), the eSIM switch test and the card commands of group 5,
 * which go over vendor command 4 instead.
 */
#ifndef PELMOX_UIM_H
#define PELMOX_UIM_H

#include <stdint.h>

#include "qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- records the callers build ---- */

/* Power request: operation 0 powers the slot down, anything else up. */
typedef struct {
    int32_t operation;
    int32_t slot;           /* 1 or 2 */
    int32_t ignore_hotswap; /* power up only: non-zero ignores the slot's hot-swap switch */
} power_request;

#define PELMOX_UIM_EID_LEN 16
#define PELMOX_UIM_APDU_MAX 255       /* command APDU bytes a request carries */
#define PELMOX_UIM_APDU_RSP_MAX 1024  /* response APDU bytes the service can return */

typedef struct {
    uint8_t slot;
    uint8_t fci; /* file control information choice, passed to the service */
} pelmox_uim_open_req;

typedef struct {
    uint8_t slot;
    uint8_t channel_id;
} pelmox_uim_close_req;

typedef struct {
    uint8_t slot;
    uint8_t channel_id;
    uint8_t apdu_len;
    uint8_t apdu[PELMOX_UIM_APDU_MAX];
} pelmox_uim_apdu_req;

/* The length byte holds the response length modulo 256; the bytes are the
 * whole response, status word last. */
typedef struct {
    uint8_t rsp_len;
    uint8_t rsp[PELMOX_UIM_APDU_RSP_MAX];
} pelmox_uim_apdu_rsp;

/* ---- client lifecycle ---- */

/* Creates the UIM client (instance any, 4000 ms) and registers error_cb;
 * clears the restart flag and the failure counter. 1 on success, 0 on failure. */
int init_uim_qmi_client(void);

/* Releases the client (a failed release is logged) and forgets the handle. */
void uim_qmi_client_recovery(void);

/* Error callback of the client: code -2 (service gone) raises the restart
 * flag, which the next request acts on. Runs on the QMI library's thread. */
void error_cb(qmi_client_type user_handle, qmi_client_error_type error, void *err_cb_data);

/* ---- requests (each inside the request guard) ---- */

/* Transport result of the power down or up of req->slot; -1 when the client
 * or memory is missing. The QMI result of the answer is not examined. */
int pelmox_uim_request_uicc_power_ex(const power_request *req);

/* Writes the card states (low byte card 1, high byte card 2; 0 absent,
 * 1 present, 2 error, 3 unknown) read from the extended card status, and
 * returns the transport result; -1 as above. Not written on a transport
 * failure. */
int pelmox_uim_get_card_status(uint16_t *card_states);

/* Copies the 16 EID bytes of *slot into eid when the service returns them;
 * eid is left as it was otherwise. Transport result, or -1 as above. */
int pelmox_uim_request_eid(const uint8_t *slot, uint8_t *eid);

/* Opens a channel to the ISD-R on req->slot; *channel_id is written only when
 * the service names one. 0, -1 for a refusal (or no client/memory), or the
 * transport error. */
int pelmox_uim_open_channel(const pelmox_uim_open_req *req, uint8_t *channel_id);

/* Closes a channel. The transport result: a refusal still returns 0. */
int pelmox_uim_close_channel(const pelmox_uim_close_req *req);

/* Sends a command APDU on a channel and copies the response into rsp. 0, -1
 * for a refusal (or no client/memory), or the transport error. */
int pelmox_uim_send_apdu(const pelmox_uim_apdu_req *req, pelmox_uim_apdu_rsp *rsp);

/* ---- eSIM switch test (group 5 sub-command 10) ---- */

/* `kvn 5 10 esim_on debug_on`: -1 with fewer than five arguments, else 0;
 * the outcome is the printed result line. */
int pelmox_cmn_esim_test(int argc, char *argv[]);

/* ISO 7064 MOD 97-10 over the 32 characters, each counted as c - '0'. */
int is_eid_valid(const char *eid_text);

/* ---- card commands over vendor command 4 (group 5 sub-commands 1-4, 6) ---- */

/* Sends common command `type` with `length` parameter bytes (none when data
 * is null or length is 492 or more) and prints the answer. Returns the
 * vendor send's result. */
int pelmox_cmn_cmd_send(int32_t type, uint32_t length, const uint8_t *data);

/* Dumps the answer block of a card command reply: "data len" is the claimed
 * block length + 8, the bytes stop at the received length. */
void pelmox_cmn_dump_block(const uint8_t *rsp, int32_t received);

/* Checks that exactly count + 3 arguments were given (else a note and
 * PELMOX_ERR_INVALID_ARGS), prints the parameters and sends them: the plain
 * form as their atoi values, the boolean form as 1 for non-zero, else 0. */
int pelmox_cmn_card_status_cmd(int32_t type, int count, int argc, char *argv[]);
int pelmox_cmn_card_status_cmd_ex(int32_t type, int count, int argc, char *argv[]);

/* The handlers of sub-commands 1, 2, 3, 4 and 6. */
int pelmox_cmn_card_status_query(int argc, char *argv[]);
int pelmox_cmn_card_status_get(int argc, char *argv[]);
int pelmox_cmn_card_status_set(int argc, char *argv[]);
int pelmox_cmn_card_type_query(int argc, char *argv[]);
int pelmox_cmn_card_hotswap_test(int argc, char *argv[]);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_UIM_H */
