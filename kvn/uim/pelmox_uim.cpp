/*
 * pelmox_uim.cpp - the client of the modem's QMI UIM service and the card
 * requests that run over it. One process-wide handle is created on first
 * need; a modem restart reported by the error callback, a transport result of
 * -2 or a third failed request releases it, and the next request builds a
 * fresh one. Every request runs inside the same guard (restart check, lazy
 * creation, failure count, recovery) and takes its structures from the
 * zero-filling allocator: uim_send_request() does all of that for a message
 * record that names the message, its C records and the two functions that
 * fill the request and read the answer. The wire forms are the published UIM
 * layouts (libqmi's data/qmi-service-uim.json, the Gobi API 2013 structs),
 * which the UIM service object encodes; each section names its TLVs.
 */
#include "pelmox_uim.h"

#include <string.h>

#include "pelmox_extend_qmi.h"
#include "pelmox_trace.h"
#include "qcril_memory_management.h"
#include "user_identity_module_v01.h"

static const char k_trace_src[] = "proprietary/modem/hal/qmi/pelmox_extend_cmn";

#define UIM_INIT_TIMEOUT_MS 4000
#define UIM_SEND_TIMEOUT_MS 3000
#define UIM_FAILED_CNT_RELEASE 3 /* failed requests that end in a release */

#define UIM_TRACE(...) PELMOX_TRACE(k_trace_src, __VA_ARGS__)
/* A guard line traced with the request function's name and line. */
#define UIM_TRACE_AT(func, line, ...) pelmox_trace_emit(k_trace_src, (line), (func), __VA_ARGS__)

/* The ISD-R of the eUICC, the only application the open request selects. */
static const uint8_t k_isdr_aid[16] = {0xA0, 0x00, 0x00, 0x05, 0x59, 0x10, 0x10, 0xFF,
                                       0xFF, 0xFF, 0xFF, 0x89, 0x00, 0x00, 0x01, 0x00};

static struct {
    qmi_client_type uim_qmi_client; /* the one UIM client; NULL when absent */
    uint8_t SSR_Detected;           /* 1 after the service reported a restart; stored on the library's thread */
    uint8_t failed_cnt;             /* transport failures since the last successful init; wraps at 256 */
} s_uim;

/* ---- client lifecycle ---- */

void error_cb(qmi_client_type user_handle, qmi_client_error_type error, void *err_cb_data)
{
    (void)user_handle;
    (void)err_cb_data;
    UIM_TRACE("QMI error callback %d", error);
    if (error == QMI_SERVICE_ERR) {
        UIM_TRACE("SSR Detected, set SSR_Detected 1");
        __atomic_store_n(&s_uim.SSR_Detected, 1, __ATOMIC_RELAXED);
    }
}

int init_uim_qmi_client(void)
{
    qmi_idl_service_object_type obj = uim_get_service_object_internal_v01(1, 102, 6);
    qmi_client_os_params os_params;
    memset(&os_params, 0, sizeof(os_params));
    qmi_client_type handle = NULL;
    int rc = qmi_client_init_instance(obj, QMI_CLIENT_INSTANCE_ANY,
                                      pelmox_qcril_qmi_client_common_empty_unsol_ind_cb, NULL, &os_params,
                                      UIM_INIT_TIMEOUT_MS, &handle);
    if (rc != QMI_NO_ERR) {
        UIM_TRACE("qmi_client_init UIM instance failed, qmi_client_error = %d", rc);
        s_uim.uim_qmi_client = NULL;
        return 0;
    }
    s_uim.uim_qmi_client = handle;
    UIM_TRACE("init_uim_qmi_client %p", (void *)handle);
    if (qmi_client_register_error_cb(handle, error_cb, NULL) != QMI_NO_ERR)
        UIM_TRACE("qmi_client_register_error_cb failed");
    __atomic_store_n(&s_uim.SSR_Detected, 0, __ATOMIC_RELAXED);
    s_uim.failed_cnt = 0;
    return 1;
}

void uim_qmi_client_recovery(void)
{
    UIM_TRACE("uim_qmi_client_recovery qmi_client_release %p", (void *)s_uim.uim_qmi_client);
    if (s_uim.uim_qmi_client != NULL) {
        if (qmi_client_release(s_uim.uim_qmi_client) != QMI_NO_ERR)
            UIM_TRACE("qmi_client_release failed");
    }
    /* A handle whose release failed is dropped all the same, never reused. */
    s_uim.uim_qmi_client = NULL;
    UIM_TRACE("function exit <-------------");
}

/* ---- the request guard ---- */

/*
 * Opening half of the guard, traced under the request's name (func, line)
 * with `name` in its texts (the APDU request names the close request there,
 * as log readers expect). Returns 0 with a client present, -1 when none could
 * be created (nothing else is traced then).
 */
static int uim_guard_enter(const char *func, int line, const char *name)
{
    UIM_TRACE_AT(func, line, "function entry ------------->");
    /* The flag is a single byte stored by the callback thread; an atomic
     * access keeps that store and this read well defined without a lock. */
    if (__atomic_load_n(&s_uim.SSR_Detected, __ATOMIC_RELAXED)) {
        UIM_TRACE_AT(func, line, "SSR_Detected, try recovery");
        uim_qmi_client_recovery();
    }
    if (s_uim.uim_qmi_client == NULL) {
        if (!init_uim_qmi_client()) {
            UIM_TRACE_AT(func, line, "init_uim_qmi_client failed");
            return -1;
        }
        UIM_TRACE_AT(func, line, "%s try init_uim_qmi_client %p", name, (void *)s_uim.uim_qmi_client);
    }
    UIM_TRACE_AT(func, line, "%s uim_qmi_client %p", name, (void *)s_uim.uim_qmi_client);
    return 0;
}

/* Counts a non-zero transport result. */
static void uim_count_failure(int rc)
{
    if (rc != QMI_NO_ERR)
        s_uim.failed_cnt++;
}

/* Closing half: the recovery rule (a -2, or the counter at 3 or more: the
 * counter is not cleared here, only a successful init clears it), then the
 * exit line. */
static void uim_guard_leave(const char *func, int line, int rc)
{
    if (rc == QMI_SERVICE_ERR || s_uim.failed_cnt >= UIM_FAILED_CNT_RELEASE) {
        UIM_TRACE_AT(func, line, "QMI error, try recovery");
        uim_qmi_client_recovery();
    }
    UIM_TRACE_AT(func, line, "function exit <-------------");
}

/* Both structures of one request, zero-filled; both NULL when either could
 * not be had. */
static int uim_alloc_pair(size_t req_len, size_t rsp_len, void **req, void **rsp, const char *func)
{
    *req = qcril_malloc_adv(req_len, func, __LINE__);
    *rsp = NULL;
    if (*req == NULL)
        return -1;
    *rsp = qcril_malloc_adv(rsp_len, func, __LINE__);
    if (*rsp == NULL) {
        qcril_free_adv(*req, func, __LINE__);
        *req = NULL;
        return -1;
    }
    return 0;
}

static void uim_free_pair(void *req, void *rsp, const char *func)
{
    qcril_free_adv(req, func, __LINE__);
    qcril_free_adv(rsp, func, __LINE__);
}

/* ---- one guarded request ---- */

typedef struct uim_msg uim_msg;

/*
 * One UIM message as a request function sends it. fill() sets the
 * zero-filled request record from the caller's input; done() gets the
 * transport result and the response record (read only when the result is 0)
 * and returns the request function's result, writing the caller's output.
 * Both trace under the request function's name (func).
 */
struct uim_msg {
    const char *func;       /* the request function: every trace carries its name */
    const char *guard_name; /* its name in the guard's texts */
    int32_t msg_id;         /* the UIM message sent */
    uint32_t req_len;       /* the C request record's size */
    uint32_t rsp_len;       /* the C response record's size */
    int error_shows_count;  /* the send error trace also shows failed_cnt */
    void (*fill)(const uim_msg *m, void *req, const void *in);
    int (*done)(const uim_msg *m, int rc, const void *rsp, void *out);
};

#define MSG_TRACE(m, ...) UIM_TRACE_AT((m)->func, __LINE__, __VA_ARGS__)

/*
 * The whole of one request: the guard's opening half, both records from the
 * zero-filling allocator, fill, the send (a transport failure counted and
 * traced), done, the records freed and the guard's closing half. Returns -1
 * when there is no client or no memory (nothing sent), else what done()
 * returns. line is the request function's, for the guard's traces.
 */
static int uim_send_request(const uim_msg *m, int line, const void *in, void *out)
{
    if (uim_guard_enter(m->func, line, m->guard_name) != 0)
        return -1;
    void *req;
    void *rsp;
    if (uim_alloc_pair(m->req_len, m->rsp_len, &req, &rsp, m->func) != 0) {
        UIM_TRACE_AT(m->func, line, "function exit <-------------");
        return -1;
    }
    m->fill(m, req, in);
    int rc = qmi_client_send_msg_sync(s_uim.uim_qmi_client, m->msg_id, req, m->req_len, rsp, m->rsp_len,
                                      UIM_SEND_TIMEOUT_MS);
    if (rc != QMI_NO_ERR) {
        uim_count_failure(rc);
        if (m->error_shows_count)
            MSG_TRACE(m, "send msg sync client error = %d, failed_cnt = %d", rc, s_uim.failed_cnt);
        else
            MSG_TRACE(m, "send msg sync client error = %d", rc);
    }
    int result = m->done(m, rc, rsp, out);
    uim_free_pair(req, rsp, m->func);
    uim_guard_leave(m->func, line, rc);
    return result;
}

/* ---- power: UIM 0x0030 Power Off SIM, 0x0031 Power On SIM ---- */

/* Power Off: TLV 0x01 slot (u8 on the wire). */
static void power_down_fill(const uim_msg *m, void *qreq, const void *in)
{
    const power_request *req = (const power_request *)in;
    MSG_TRACE(m, "pelmox_uim_request_uicc_power_ex power down sim");
    uim_power_down_req_msg_v01 *down = (uim_power_down_req_msg_v01 *)qreq;
    down->slot = (uim_slot_enum_v01)req->slot;
}

/* Power On: TLV 0x01 slot; TLV 0x10 ignore the hot-swap switch (Gobi API
 * 2013 and lite-qmi, not in libqmi): the eUICC is soldered in, so the switch
 * to it must not wait on the card slot's switch; TLV 0x11 card mode
 * (no published layout; u8, telecom card 0). qmicli sends the slot alone. */
static void power_up_fill(const uim_msg *m, void *qreq, const void *in)
{
    const power_request *req = (const power_request *)in;
    uim_power_up_req_msg_v01 *up = (uim_power_up_req_msg_v01 *)qreq;
    up->slot = (uim_slot_enum_v01)req->slot;
    up->ignore_hotswap_switch_valid = 1;
    up->ignore_hotswap_switch = req->ignore_hotswap != 0 ? 1 : 0;
    up->card_mode_valid = 1;
    up->card_mode = UIM_CARD_MODE_TELECOM_CARD_V01;
    MSG_TRACE(m, "pelmox_uim_request_uicc_power_ex power up sim, ignore hotswap = %d ", up->ignore_hotswap_switch);
}

/* The QMI result of the answer is not examined. */
static int power_done(const uim_msg *m, int rc, const void *rsp, void *out)
{
    (void)rsp;
    (void)out;
    MSG_TRACE(m, "uicc_power_ex res = %d, failed_cnt = %d", rc, s_uim.failed_cnt);
    return rc;
}

static const uim_msg k_power_down = {
    "pelmox_uim_request_uicc_power_ex", "pelmox_uim_request_uicc_power_ex", QMI_UIM_POWER_DOWN_REQ_V01,
    sizeof(uim_power_down_req_msg_v01), sizeof(uim_power_down_resp_msg_v01), 1, power_down_fill, power_done};
static const uim_msg k_power_up = {
    "pelmox_uim_request_uicc_power_ex", "pelmox_uim_request_uicc_power_ex", QMI_UIM_POWER_UP_REQ_V01,
    sizeof(uim_power_up_req_msg_v01), sizeof(uim_power_up_resp_msg_v01), 1, power_up_fill, power_done};

int pelmox_uim_request_uicc_power_ex(const power_request *req)
{
    return uim_send_request(req->operation == 0 ? &k_power_down : &k_power_up, __LINE__, req, NULL);
}

/* ---- card status: UIM 0x002F Get Card Status ---- */

/* TLV 0x10 = 1 asks for the extended card status, TLV 0x13 (Gobi API 2013;
 * libqmi, and so qmicli, sends no TLV and reads only the legacy TLV 0x10). */
static void card_status_fill(const uim_msg *m, void *qreq, const void *in)
{
    (void)m;
    (void)in;
    uim_get_card_status_req_msg_v01 *req = (uim_get_card_status_req_msg_v01 *)qreq;
    req->extended_card_status_valid = 1;
    req->extended_card_status = 1;
}

static int card_status_done(const uim_msg *m, int rc, const void *qrsp, void *out)
{
    if (rc != QMI_NO_ERR)
        return rc;
    const uim_get_card_status_resp_msg_v01 *rsp = (const uim_get_card_status_resp_msg_v01 *)qrsp;
    uint16_t result = 0x0303;
    if (rsp->resp.result == QMI_RESULT_SUCCESS_V01) {
        MSG_TRACE(m, "pelmox_uim_get_card_status check response");
        const uim_extended_card_status_type_v01 *ext = &rsp->extended_card_status;
        if (rsp->extended_card_status_valid && ext->card_info_len > 0) {
            /* Only the first two cards fit the 16-bit result. */
            uint32_t n = ext->card_info_len;
            if (n > QMI_UIM_EXTENDED_CARDS_MAX_V01)
                n = QMI_UIM_EXTENDED_CARDS_MAX_V01;
            for (uint32_t i = 0; i < n; ++i) {
                uint8_t state = (uint8_t)ext->card_info[i].card_state;
                if (i < 2) {
                    result = (uint16_t)(i == 0 ? (result & 0xFF00) | state : (result & 0x00FF) | (state << 8));
                }
                MSG_TRACE(m, "SIM[%d] State = %d", (int)i, state);
            }
        }
    }
    *(uint16_t *)out = result;
    return rc;
}

static const uim_msg k_card_status = {
    "pelmox_uim_get_card_status", "pelmox_uim_get_card_status", QMI_UIM_GET_CARD_STATUS_REQ_V01,
    sizeof(uim_get_card_status_req_msg_v01), sizeof(uim_get_card_status_resp_msg_v01), 0, card_status_fill,
    card_status_done};

int pelmox_uim_get_card_status(uint16_t *card_states)
{
    return uim_send_request(&k_card_status, __LINE__, NULL, card_states);
}

/* ---- EID: UIM 0x0065 Get EID (request TLV 0x01 slot u8; response TLV 0x10 u8 16 + the EID) ---- */

static void eid_fill(const uim_msg *m, void *qreq, const void *in)
{
    (void)m;
    ((uim_get_eid_req_msg_v01 *)qreq)->slot = (uim_slot_enum_v01) * (const uint8_t *)in;
}

static int eid_done(const uim_msg *m, int rc, const void *qrsp, void *out)
{
    (void)m;
    const uim_get_eid_resp_msg_v01 *rsp = (const uim_get_eid_resp_msg_v01 *)qrsp;
    /* The 16 bytes are copied whatever length the service reports: the
     * record always holds 16. */
    if (rc == QMI_NO_ERR && rsp->resp.result == QMI_RESULT_SUCCESS_V01 && rsp->eid_value_valid)
        memcpy(out, rsp->eid_value, PELMOX_UIM_EID_LEN);
    return rc;
}

static const uim_msg k_eid = {"pelmox_uim_request_eid", "pelmox_uim_request_eid", QMI_UIM_GET_EID_REQ_V01,
                              sizeof(uim_get_eid_req_msg_v01), sizeof(uim_get_eid_resp_msg_v01), 0, eid_fill,
                              eid_done};

int pelmox_uim_request_eid(const uint8_t *slot, uint8_t *eid)
{
    return uim_send_request(&k_eid, __LINE__, slot, eid);
}

/* ---- logical channels and APDUs: UIM 0x0042, 0x003F, 0x003B ---- */

/* Open Logical Channel: TLV 0x01 slot, TLV 0x10 AID (u8 n + n), TLV 0x11
 * file control information (u8); response TLV 0x10 channel id. */
static void open_fill(const uim_msg *m, void *qreq, const void *in)
{
    (void)m;
    const pelmox_uim_open_req *open_req = (const pelmox_uim_open_req *)in;
    uim_open_logical_channel_req_msg_v01 *req = (uim_open_logical_channel_req_msg_v01 *)qreq;
    req->slot = (uim_slot_enum_v01)open_req->slot;
    req->aid_valid = 1;
    req->aid_len = sizeof(k_isdr_aid);
    memcpy(req->aid, k_isdr_aid, sizeof(k_isdr_aid));
    req->file_control_information_valid = 1;
    req->file_control_information = (uim_file_control_information_enum_v01)open_req->fci;
}

static int open_done(const uim_msg *m, int rc, const void *qrsp, void *out)
{
    if (rc != QMI_NO_ERR)
        return rc;
    const uim_open_logical_channel_resp_msg_v01 *rsp = (const uim_open_logical_channel_resp_msg_v01 *)qrsp;
    if (rsp->resp.result != QMI_RESULT_SUCCESS_V01) {
        MSG_TRACE(m, "pelmox_uim_open_channel failed");
        return -1;
    }
    MSG_TRACE(m, "pelmox_uim_open_channel successfully");
    if (rsp->channel_id_valid)
        *(uint8_t *)out = rsp->channel_id;
    return rc;
}

static const uim_msg k_open = {
    "pelmox_uim_open_channel", "pelmox_uim_open_channel", QMI_UIM_OPEN_LOGICAL_CHANNEL_REQ_V01,
    sizeof(uim_open_logical_channel_req_msg_v01), sizeof(uim_open_logical_channel_resp_msg_v01), 0, open_fill,
    open_done};

int pelmox_uim_open_channel(const pelmox_uim_open_req *open_req, uint8_t *channel_id)
{
    return uim_send_request(&k_open, __LINE__, open_req, channel_id);
}

/* Logical Channel, to close one: TLV 0x01 slot, TLV 0x11 channel id, TLV
 * 0x13 terminate application (u8 bool). */
static void close_fill(const uim_msg *m, void *qreq, const void *in)
{
    (void)m;
    const pelmox_uim_close_req *close_req = (const pelmox_uim_close_req *)in;
    uim_logical_channel_req_msg_v01 *req = (uim_logical_channel_req_msg_v01 *)qreq;
    req->slot = (uim_slot_enum_v01)close_req->slot;
    req->channel_id_valid = 1;
    req->channel_id = close_req->channel_id;
    req->terminate_application_valid = 1;
    req->terminate_application = 0; /* close the channel, keep the application */
}

/* A refusal is not an error here: the caller is done with the channel
 * either way. */
static int close_done(const uim_msg *m, int rc, const void *qrsp, void *out)
{
    (void)out;
    const uim_logical_channel_resp_msg_v01 *rsp = (const uim_logical_channel_resp_msg_v01 *)qrsp;
    if (rc == QMI_NO_ERR && rsp->resp.result == QMI_RESULT_SUCCESS_V01)
        MSG_TRACE(m, "pelmox_uim_close_channel successfully");
    return rc;
}

static const uim_msg k_close = {
    "pelmox_uim_close_channel", "pelmox_uim_close_channel", QMI_UIM_LOGICAL_CHANNEL_REQ_V01,
    sizeof(uim_logical_channel_req_msg_v01), sizeof(uim_logical_channel_resp_msg_v01), 0, close_fill, close_done};

int pelmox_uim_close_channel(const pelmox_uim_close_req *close_req)
{
    return uim_send_request(&k_close, __LINE__, close_req, NULL);
}

/* Send APDU: TLV 0x01 slot, TLV 0x02 APDU (u16 n + n), TLV 0x10 channel id,
 * TLV 0x11 procedure bytes (u8); response TLV 0x10 (u16 n + n). */
static void apdu_fill(const uim_msg *m, void *qreq, const void *in)
{
    const pelmox_uim_apdu_req *apdu_req = (const pelmox_uim_apdu_req *)in;
    uim_send_apdu_req_msg_v01 *req = (uim_send_apdu_req_msg_v01 *)qreq;
    req->slot = (uim_slot_enum_v01)apdu_req->slot;
    req->channel_id_valid = 1;
    req->channel_id = apdu_req->channel_id;
    req->apdu_len = apdu_req->apdu_len;
    memcpy(req->apdu, apdu_req->apdu, apdu_req->apdu_len);
    req->procedure_bytes_valid = 1;
    req->procedure_bytes = 1; /* the final result and status words */
    req->apdu_chunk_valid = 0;
    MSG_TRACE(m, "pelmox_uim_send_apdu apdu_len = %d", (int)req->apdu_len);
}

static int apdu_done(const uim_msg *m, int rc, const void *qrsp, void *out)
{
    if (rc != QMI_NO_ERR)
        return rc;
    const uim_send_apdu_resp_msg_v01 *rsp = (const uim_send_apdu_resp_msg_v01 *)qrsp;
    if (rsp->resp.result != QMI_RESULT_SUCCESS_V01) {
        MSG_TRACE(m, "pelmox_uim_send_apdu failed");
        return -1;
    }
    MSG_TRACE(m, "pelmox_uim_send_apdu successfully");
    pelmox_uim_apdu_rsp *apdu_rsp = (pelmox_uim_apdu_rsp *)out;
    /* The codec never reports more than the record holds. */
    uint32_t n = rsp->apdu_len <= QMI_UIM_APDU_DATA_MAX_V01 ? rsp->apdu_len : QMI_UIM_APDU_DATA_MAX_V01;
    apdu_rsp->rsp_len = (uint8_t)n;
    memcpy(apdu_rsp->rsp, rsp->apdu, n);
    return rc;
}

/* The guard names the close request: log readers match on these texts. */
static const uim_msg k_apdu = {"pelmox_uim_send_apdu", "pelmox_uim_close_channel", QMI_UIM_SEND_APDU_REQ_V01,
                               sizeof(uim_send_apdu_req_msg_v01), sizeof(uim_send_apdu_resp_msg_v01), 0, apdu_fill,
                               apdu_done};

int pelmox_uim_send_apdu(const pelmox_uim_apdu_req *apdu_req, pelmox_uim_apdu_rsp *apdu_rsp)
{
    return uim_send_request(&k_apdu, __LINE__, apdu_req, apdu_rsp);
}
