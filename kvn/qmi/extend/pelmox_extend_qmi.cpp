/*
 * pelmox_extend_qmi.cpp - the process's single client of the vendor extend
 * service: lazy open (service-list poll, then client init), the blocking send
 * under one mutex with its shared request and response records, the indication
 * callback, and the result map used by the NV/EFS layer.
 *
 * The send's "debug" messages are plain stdout lines behind the transport's
 * own switch (on by default), not traces: scripts read them as they are.
 */
#include "pelmox_extend_qmi.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <atomic>

#include "pelmox_trace.h"

static const char k_trace_src_cmn[] = "proprietary/modem/hal/qmi/pelmox_extend_cmn";
static const char k_trace_src_nvefs[] = "proprietary/modem/hal/qmi/pelmox_extend_nvefs";

#define EXTEND_SEND_TIMEOUT_MS 3000
#define EXTEND_SERVICE_POLL_MAX 50
#define EXTEND_SERVICE_POLL_WAIT_MS 20
#define EXTEND_SERVICE_INFO_MAX 12
#define EXTEND_IND_HANDLER_NUM (PELMOX_EXTEND_IND_NUM_MAX + 1)

/* Handler of one indication number: the number, its data and their length. */
typedef void (*pelmox_extend_ind_handler)(uint32_t ind_num, const uint8_t *data, uint32_t len);
/* General handler of the record indications: message id, decoded record, its size. */
typedef void (*pelmox_extend_ind_general_cb)(unsigned int msg_id, const void *rec, uint32_t len);

/* ---- process-wide client state ---- */

static struct {
    qmi_idl_service_object_type service_obj;  /* fetched once */
    qmi_client_type client_handle;            /* null until opened; never released */
    std::atomic<uint8_t> service_obj_fetched; /* one-time fetch done (read without the lock) */
    uint8_t inited;                           /* a client was opened successfully */
    pthread_mutex_t mutex;                    /* guards the open and every send */
    pelmox_extend_msg_v01 req;                /* shared request record, cleared per send */
    pelmox_extend_msg_v01 resp;               /* shared response record, cleared per send */
    qmi_client_type notifier;                 /* notifier handle of the service-up wait */
    qmi_client_os_params os_params;           /* signal block handed to the client library */
    pelmox_extend_ind_handler ind_handlers[EXTEND_IND_HANDLER_NUM]; /* per indication number; empty */
    pelmox_extend_ind_general_cb ind_general_cb; /* record indications; none registered */
    uint8_t debug;                            /* print the send's debug lines */
} s_extend = {nullptr, nullptr, {0}, 0, PTHREAD_MUTEX_INITIALIZER, {}, {}, nullptr, {}, {}, nullptr, 1};

#define EXTEND_DEBUG(...)            \
    do {                             \
        if (s_extend.debug)          \
            printf(__VA_ARGS__);     \
    } while (0)

/* ---- client open ---- */

/* Fetches the service object once per process. The flag is read without the
 * lock; the tool sends from one thread at a time. */
static void pelmox_extend_qmi_fetch_service_obj(void)
{
    if (s_extend.service_obj_fetched.load(std::memory_order_acquire))
        return;
    memset(&s_extend.req, 0, sizeof(s_extend.req));
    memset(&s_extend.resp, 0, sizeof(s_extend.resp));
    s_extend.client_handle = nullptr;
    s_extend.inited = 0;
    pthread_mutex_lock(&s_extend.mutex);
    s_extend.service_obj = pelmox_extend_get_service_object_internal_v01(
        PELMOX_EXTEND_IDL_MAJOR_V01, PELMOX_EXTEND_IDL_MINOR_V01, PELMOX_EXTEND_IDL_TOOL_VERS_V01);
    if (!s_extend.service_obj)
        printf("QMI get service obj failed. Check .c and .h\n");
    pthread_mutex_unlock(&s_extend.mutex);
    s_extend.service_obj_fetched.store(1, std::memory_order_release);
}

qmi_client_type pelmox_extend_qmi_client_open(void)
{
    pelmox_extend_qmi_fetch_service_obj();
    if (s_extend.client_handle)
        return s_extend.client_handle;

    /* One notifier for the process: a failed open is retried by the next send
     * and must not pile up notifiers. */
    if (!s_extend.notifier)
        (void)qmi_client_notifier_init(s_extend.service_obj, &s_extend.os_params, &s_extend.notifier);

    /* Wait for the service: up to 50 polls 20 ms apart (about one second),
     * then carry on regardless and let the init report the failure. */
    unsigned int num_services = 0;
    for (int poll = 0; poll < EXTEND_SERVICE_POLL_MAX; ++poll) {
        qmi_client_error_type rc =
            qmi_client_get_service_list(s_extend.service_obj, nullptr, nullptr, &num_services);
        EXTEND_DEBUG("PELMOX_QMI_NV: qmi_client_get_service_list() returned %d num_services = %d\n", rc,
                     (int)num_services);
        if (rc == QMI_NO_ERR)
            break;
        qmi_cci_os_signal_wait(&s_extend.os_params, EXTEND_SERVICE_POLL_WAIT_MS);
    }

    qmi_service_info info[EXTEND_SERVICE_INFO_MAX];
    memset(info, 0, sizeof(info));
    unsigned int num_entries = num_services < EXTEND_SERVICE_INFO_MAX ? num_services : EXTEND_SERVICE_INFO_MAX;
    qmi_client_error_type err =
        qmi_client_get_service_list(s_extend.service_obj, info, &num_entries, &num_services);
    EXTEND_DEBUG("qmi_client_get_service_list, err = %d, num_entries = %d, num_services = %d", err,
                 (int)num_entries, (int)num_services);

    qmi_client_type handle = nullptr;
    err = qmi_client_init(&info[0], s_extend.service_obj, pelmox_extend_qmi_ind_cb, nullptr, nullptr,
                          &handle);
    EXTEND_DEBUG("qmi_client_init, err = %d, handle = %d, client_handle = %d", err,
                 (int)(uint32_t)(uintptr_t)handle, (int)(uint32_t)(uintptr_t)s_extend.client_handle);
    if (err != QMI_NO_ERR) {
        printf("%d QMI client init failed\n", err);
        return nullptr;
    }
    EXTEND_DEBUG("QMI client inited\n");
    s_extend.inited = 1;
    return handle;
}

/* ---- synchronous send ---- */

int pelmox_extend_qmi_send_sync(uint32_t cmd_id, const uint8_t *req_data, int32_t req_len,
                                uint8_t *resp_data, int32_t *resp_len)
{
    pelmox_extend_qmi_fetch_service_obj();

    /* A missing capacity pointer is a missing buffer as far as the caller's
     * contract goes. A negative request length or capacity would turn into a
     * huge copy, so both are refused like a null buffer. */
    if (!req_data || !resp_data || !resp_len || req_len < 0 || *resp_len < 0) {
        EXTEND_DEBUG("%x,  put Invalid param\n", (unsigned)(uintptr_t)req_data);
        return PELMOX_EXTEND_ERR_PARAM;
    }
    /* The message names the request length even when the capacity is what is
     * too large; scripts match this wording. */
    if (req_len > PELMOX_EXTEND_DATA_MAX_V01 || *resp_len > PELMOX_EXTEND_DATA_MAX_V01) {
        EXTEND_DEBUG("put data_len %d > max %d\n", req_len, PELMOX_EXTEND_DATA_MAX_V01);
        return PELMOX_EXTEND_ERR_PARAM;
    }

    pthread_mutex_lock(&s_extend.mutex);
    if (!s_extend.client_handle) {
        s_extend.client_handle = pelmox_extend_qmi_client_open();
        if (!s_extend.client_handle) {
            EXTEND_DEBUG("pelmox_extend_qmi_handle_req_cb result:%d\n", PELMOX_EXTEND_ERR_CLIENT);
            pthread_mutex_unlock(&s_extend.mutex);
            return PELMOX_EXTEND_ERR_CLIENT;
        }
    }

    memset(&s_extend.req, 0, sizeof(s_extend.req));
    memset(&s_extend.resp, 0, sizeof(s_extend.resp));
    s_extend.req.cmd_id = cmd_id;
    memcpy(s_extend.req.data, req_data, (size_t)req_len);
    s_extend.req.data_len = (uint32_t)req_len;
    s_extend.req.data_valid = 1;

    qmi_client_error_type err = qmi_client_send_msg_sync(
        s_extend.client_handle, PELMOX_EXTEND_MSG_ID_0002_V01, &s_extend.req, sizeof(s_extend.req),
        &s_extend.resp, sizeof(s_extend.resp), EXTEND_SEND_TIMEOUT_MS);
    if (err != QMI_NO_ERR) {
        EXTEND_DEBUG("send msg sync failed:%d\n", err);
        EXTEND_DEBUG("pelmox_extend_qmi_handle_req_cb result:%d\n", PELMOX_EXTEND_ERR_SEND);
        pthread_mutex_unlock(&s_extend.mutex);
        return PELMOX_EXTEND_ERR_SEND;
    }
    if (s_extend.resp.cmd_id != 0) {
        EXTEND_DEBUG("%d QMI service framework error. Check client\n", (int)s_extend.resp.cmd_id);
        EXTEND_DEBUG("pelmox_extend_qmi_handle_req_cb result:%d\n", PELMOX_EXTEND_ERR_SEND);
        pthread_mutex_unlock(&s_extend.mutex);
        return PELMOX_EXTEND_ERR_SEND;
    }

    /* A reply longer than the capacity is cut to it; the capacity is at most
     * 512, so the copy stays inside the record's data. */
    if ((uint32_t)*resp_len >= s_extend.resp.data_len)
        *resp_len = (int32_t)s_extend.resp.data_len;
    if (s_extend.resp.data_valid)
        memcpy(resp_data, s_extend.resp.data, (size_t)*resp_len);
    else
        *resp_len = 0;
    EXTEND_DEBUG("pelmox_extend_qmi_send_sync resp_len:%d\n", *resp_len);
    EXTEND_DEBUG("pelmox_extend_qmi_handle_req_cb result:%d\n", 0);
    pthread_mutex_unlock(&s_extend.mutex);
    return 0;
}

/* ---- indications ---- */

/* Decodes one record indication into a local record and hands it to the
 * general callback, if one is registered. */
static void pelmox_extend_qmi_ind_record(qmi_client_type user_handle, unsigned int msg_id,
                                         const void *ind_buf, unsigned int ind_buf_len, void *rec,
                                         uint32_t rec_len)
{
    qmi_client_error_type err = qmi_client_message_decode(user_handle, QMI_IDL_INDICATION, msg_id,
                                                          ind_buf, ind_buf_len, rec, rec_len);
    if (err == QMI_NO_ERR && s_extend.ind_general_cb)
        s_extend.ind_general_cb(msg_id, rec, rec_len);
}

void pelmox_extend_qmi_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf,
                              unsigned int ind_buf_len, void *ind_cb_data)
{
    (void)ind_cb_data;
    switch (msg_id) {
    case PELMOX_EXTEND_MSG_ID_0003_V01: {
        printf("PELMOX__EXTEND_QMI: Indication msg_id=0x%x buf_len=%d \n", msg_id, (int)ind_buf_len);
        pelmox_extend_msg_v01 ind;
        if (qmi_client_message_decode(user_handle, QMI_IDL_INDICATION, msg_id, ind_buf, ind_buf_len,
                                      &ind, sizeof(ind)) != QMI_NO_ERR)
            return;
        /* "Indicaion" is the wording log readers match. */
        if (ind.cmd_id > PELMOX_EXTEND_IND_NUM_MAX) {
            printf("Indicaion: %d greater than maximum known indication.", (int)ind.cmd_id);
            return;
        }
        pelmox_extend_ind_handler handler = s_extend.ind_handlers[ind.cmd_id];
        if (!handler) {
            printf("No function defined to handle indication: %d", (int)ind.cmd_id);
            return;
        }
        /* data_len comes from the modem: never hand on more than the record holds. */
        uint32_t len = ind.data_len < sizeof(ind.data) ? ind.data_len : (uint32_t)sizeof(ind.data);
        if (ind.data_valid)
            handler(ind.cmd_id, ind.data, len);
        else
            handler(ind.cmd_id, nullptr, 0);
        return;
    }
    case PELMOX_EXTEND_IND_ID_0005_V01: {
        pelmox_extend_ind_0005_v01 rec;
        pelmox_extend_qmi_ind_record(user_handle, msg_id, ind_buf, ind_buf_len, &rec, sizeof(rec));
        return;
    }
    case PELMOX_EXTEND_IND_ID_0006_V01: {
        pelmox_extend_ind_0006_v01 rec;
        pelmox_extend_qmi_ind_record(user_handle, msg_id, ind_buf, ind_buf_len, &rec, sizeof(rec));
        return;
    }
    case PELMOX_EXTEND_IND_ID_0007_V01: {
        pelmox_extend_pair_v01 rec;
        pelmox_extend_qmi_ind_record(user_handle, msg_id, ind_buf, ind_buf_len, &rec, sizeof(rec));
        return;
    }
    case PELMOX_EXTEND_IND_ID_0008_V01: {
        pelmox_extend_ind_0008_v01 rec;
        pelmox_extend_qmi_ind_record(user_handle, msg_id, ind_buf, ind_buf_len, &rec, sizeof(rec));
        return;
    }
    default:
        /* 0x0004 and anything unknown carry nothing for this tool. */
        return;
    }
}

void pelmox_qcril_qmi_client_common_empty_unsol_ind_cb(qmi_client_type user_handle,
                                                       unsigned int msg_id, void *ind_buf,
                                                       unsigned int ind_buf_len,
                                                       void *ind_cb_data)
{
    (void)user_handle;
    (void)ind_buf;
    (void)ind_buf_len;
    (void)ind_cb_data;
    PELMOX_TRACE(k_trace_src_cmn, "msg_id %d", (int)msg_id);
}

/* ---- result map ---- */

int pelmox_qmi_result_map(int result)
{
    int new_result = result;
    switch (result) {
    case PELMOX_EXTEND_ERR_PARAM:
        new_result = -101;
        break;
    case PELMOX_EXTEND_ERR_CLIENT:
        new_result = -102;
        break;
    case PELMOX_EXTEND_ERR_SEND:
        new_result = -103;
        break;
    default:
        break;
    }
    PELMOX_TRACE(k_trace_src_nvefs, "pelmox_qmi_result_map, old_result %d, new_result %d", result,
                 new_result);
    return new_result;
}
