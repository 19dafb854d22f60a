/*
 * modem_api.cpp - the hydra modem API: the client table with its reference
 * count, opening and freeing clients, status propagation from the service
 * clients, the error map and the two statistics operations.
 *
 * The service clients report status changes on libqmi_cci's threads and on
 * their suspend and resume workers while the caller may be opening or freeing
 * a client. Neither the status walk nor the slot assignment takes the table
 * mutex: free holds it while the service client's release joins the
 * library's threads, and a walk on one of those threads waiting for it would
 * never end. The slot pointers and the recorded status are read and written
 * with atomic loads and stores. What keeps a walk from reading a record that
 * free has just freed is the record mutex: a record about to be freed leaves
 * its slot under it, and the walk reads a record's fields only under it. It
 * is held for those few loads and stores, never while calling out of the
 * module (release, callbacks), so it cannot take part in a wait on a thread.
 */
#include "modem_api.h"

#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "hydra_clients.h"
#include "hydra_log.h"
#include "vs_client.h"
#include "vs_service_v01.h"

/* The API's process-wide state. */
static struct {
    modem_api_client *clients[MODEM_API_MAX_CLIENTS]; /* slot = client id; null when empty */
    int32_t ref_count;                                /* modem_api_init calls not yet released (0 or 1) */
    pthread_mutex_t table_mutex;                      /* taken by free and release */
    pthread_mutex_t ref_mutex;                        /* guards ref_count */
    pthread_mutex_t record_mutex;                     /* held to empty a slot whose record is then freed, and
                                                         by the status walk while it reads a record */
} s_modem_api = {{NULL}, 0, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER};

/* ---- slot and status access ---- */

static modem_api_client *slot_get(int i) { return __atomic_load_n(&s_modem_api.clients[i], __ATOMIC_ACQUIRE); }

static void slot_set(int i, modem_api_client *c) { __atomic_store_n(&s_modem_api.clients[i], c, __ATOMIC_RELEASE); }

static uint32_t status_get(const modem_api_client *c)
{
    return __atomic_load_n(&c->operational_status, __ATOMIC_ACQUIRE);
}

/* Empties a slot whose record the caller frees next: once this returns, no
 * status walk holds or can find the record. */
static void slot_retire(int i)
{
    pthread_mutex_lock(&s_modem_api.record_mutex);
    slot_set(i, NULL);
    pthread_mutex_unlock(&s_modem_api.record_mutex);
}

static void clear_slots(void)
{
    for (int i = 0; i < MODEM_API_MAX_CLIENTS; ++i)
        slot_set(i, NULL);
}

/* The operational record of a type-0 client, or null (unexpected condition). */
static modem_api_client *operational_vs_client(int32_t client_id)
{
    if (client_id < 0 || client_id >= MODEM_API_MAX_CLIENTS)
        return NULL;
    modem_api_client *c = slot_get(client_id);
    if (c == NULL || c->type != MODEM_API_CLIENT_VS || status_get(c) != MODEM_API_STATUS_OPERATIONAL)
        return NULL;
    return c;
}

/* ---- per-type service client calls ---- */

typedef struct {
    void (*set_status_cb)(modem_api_operational_status_cb_type cb);
    bool (*init)(modem_api_event_cb_type event_cb);
    bool (*release)(void);
    const char *already_text; /* another client of the type is operational */
    const char *another_text; /* another client of the type is not */
} modem_api_type_ops;

/* The NAS second instance logs with the first instance's texts. */
static const modem_api_type_ops k_type_ops[MODEM_API_CLIENT_TYPES] = {
    {vs_client_set_operational_status_callback, vs_client_init, vs_client_release,
     "Already another client init vs client successfully", "Another client init vs client with operational status %d"},
    {sar_client_set_operational_status_callback, sar_client_init, sar_client_release,
     "Already another client init sar client successfully",
     "Another client init sar client with operational status %d"},
    {nas_0_client_set_operational_status_callback, nas_0_client_init, nas_0_client_release,
     "Already another client init nas client successfully",
     "Another client init nas 0 client with operational status %d"},
    {nas_1_client_set_operational_status_callback, nas_1_client_init, nas_1_client_release,
     "Already another client init nas client successfully",
     "Another client init nas 0 client with operational status %d"},
};

/* ---- lifecycle ---- */

uint32_t modem_api_init(void)
{
    HYDRA_LOG(HYDRA_LOG_PROGRESS, "function entry");
    pthread_mutex_lock(&s_modem_api.ref_mutex);
    if (s_modem_api.ref_count == 0) {
        pthread_mutex_init(&s_modem_api.table_mutex, NULL);
        clear_slots();
        s_modem_api.ref_count = 1;
    }
    pthread_mutex_unlock(&s_modem_api.ref_mutex);
    vs_init();
    sar_init();
    nas_0_init();
    nas_1_init();
    HYDRA_LOG(HYDRA_LOG_PROGRESS, "function exit");
    return MODEM_API_SUCCESS;
}

uint32_t modem_api_release(void)
{
    pthread_mutex_lock(&s_modem_api.ref_mutex);
    if (s_modem_api.ref_count >= 1) {
        pthread_mutex_init(&s_modem_api.table_mutex, NULL);
        clear_slots();
        s_modem_api.ref_count--;
    }
    pthread_mutex_unlock(&s_modem_api.ref_mutex);
    return MODEM_API_SUCCESS;
}

static uint32_t init_client_exit(uint32_t ret)
{
    hydra_log_named(HYDRA_LOG_PROGRESS, "modem_api_init_client", "function exit with ret %ld", (long)ret);
    return ret;
}

uint32_t modem_api_init_client(uint32_t type, modem_api_event_cb_type event_cb, modem_api_status_cb_type status_cb,
                               uint32_t *client_id)
{
    HYDRA_LOG(HYDRA_LOG_PROGRESS, "function entry");
    modem_api_client *rec = (modem_api_client *)HYDRA_MALLOC(sizeof(modem_api_client));
    if (rec == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "could not allocate memory");
        return init_client_exit(MODEM_API_NO_MEMORY);
    }
    if (type >= MODEM_API_CLIENT_TYPES) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "modem api client type %d not supported", (int)type);
        HYDRA_FREE(rec);
        return init_client_exit(MODEM_API_NOT_SUPPORTED);
    }
    const modem_api_type_ops *ops = &k_type_ops[type];

    for (int i = 0; i < MODEM_API_MAX_CLIENTS; ++i) {
        modem_api_client *other = slot_get(i);
        if (other == NULL || other->type != type)
            continue;
        uint32_t st = status_get(other);
        HYDRA_FREE(rec);
        if (st == MODEM_API_STATUS_OPERATIONAL) {
            HYDRA_LOG(HYDRA_LOG_RESULT, "%s", ops->already_text);
            return init_client_exit(MODEM_API_CLIENT_EXISTS);
        }
        hydra_log_named(HYDRA_LOG_RESULT, __func__, ops->another_text, (int)st);
        return init_client_exit(MODEM_API_CLIENT_NOT_READY);
    }

    int slot = -1;
    for (int i = 0; i < MODEM_API_MAX_CLIENTS && slot < 0; ++i)
        if (slot_get(i) == NULL)
            slot = i;
    if (slot < 0) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "no more client can be added");
        HYDRA_FREE(rec);
        return init_client_exit(MODEM_API_TABLE_FULL);
    }

    /* In the slot before the service client starts: its first status
     * reports arrive during the start and must find the record. */
    rec->type = type;
    rec->pid = (uint32_t)getpid();
    rec->operational_status = MODEM_API_STATUS_RELEASED;
    memset(rec->reserved, 0, sizeof(rec->reserved));
    rec->event_cb = event_cb;
    rec->status_cb = status_cb;
    slot_set(slot, rec);

    ops->set_status_cb(modem_api_operational_status_cb);
    if (!ops->init(event_cb)) {
        slot_retire(slot);
        HYDRA_FREE(rec);
        return init_client_exit(MODEM_API_GENERAL_FAILURE);
    }
    *client_id = (uint32_t)slot;
    HYDRA_LOG(HYDRA_LOG_RESULT, "new client: type %d, id %d", (int)type, slot);
    if (type == MODEM_API_CLIENT_NAS_0 || type == MODEM_API_CLIENT_NAS_1) {
        uint32_t r = modem_api_util_enable_networking_indications(slot, type == MODEM_API_CLIENT_NAS_0 ? 0 : 1);
        HYDRA_LOG(HYDRA_LOG_RESULT, "enable networking indications result %d", (int)r);
    }
    return init_client_exit(MODEM_API_SUCCESS);
}

uint32_t modem_api_free_client(int32_t client_id)
{
    if (client_id < 0)
        return MODEM_API_UNEXPECTED;
    if (client_id >= MODEM_API_MAX_CLIENTS) {
        /* No slot of that number: nothing to free, like an empty one. */
        HYDRA_LOG(HYDRA_LOG_ERROR, "client already freed");
        return MODEM_API_SUCCESS;
    }
    pthread_mutex_lock(&s_modem_api.table_mutex);
    modem_api_client *c = slot_get(client_id);
    if (c == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "client already freed");
    } else {
        k_type_ops[c->type].release();
        slot_retire(client_id);
        HYDRA_FREE(c);
    }
    pthread_mutex_unlock(&s_modem_api.table_mutex);
    return MODEM_API_SUCCESS;
}

void modem_api_operational_status_cb(uint32_t client_type, uint32_t status)
{
    for (int i = 0; i < MODEM_API_MAX_CLIENTS; ++i) {
        /* The record is read under the record mutex; what the rest needs of
         * it is copied, so the log line and the caller's callback run
         * without the mutex and after a free of the record is harmless. */
        pthread_mutex_lock(&s_modem_api.record_mutex);
        modem_api_client *c = slot_get(i);
        bool match = c != NULL && c->type == client_type;
        modem_api_status_cb_type status_cb = NULL;
        if (match) {
            __atomic_store_n(&c->operational_status, status, __ATOMIC_RELEASE);
            status_cb = c->status_cb;
        }
        pthread_mutex_unlock(&s_modem_api.record_mutex);
        if (!match)
            continue;
        HYDRA_LOG(HYDRA_LOG_RESULT, "client type %d, client id %d, operational_status %d", (int)client_type, i,
                  (int)status);
        if (status_cb == NULL)
            continue;
        if (status == MODEM_API_STATUS_OPERATIONAL)
            status_cb(MODEM_API_EVENT_SERVICE_UP, (int)client_type);
        else if (status == MODEM_API_STATUS_DOWN)
            status_cb(MODEM_API_EVENT_SERVICE_DOWN, (int)client_type);
    }
}

int32_t modem_api_client_status(int32_t client_id)
{
    if (client_id < 0 || client_id >= MODEM_API_MAX_CLIENTS)
        return -1;
    modem_api_client *c = slot_get(client_id);
    return c ? (int32_t)status_get(c) : -1;
}

/* ---- error map ---- */

uint32_t modem_api_map_qmi_error_to_modem_api(int32_t qmi_error, const qmi_response_type_v01 *resp)
{
    switch (qmi_error) {
    case QMI_NO_ERR:
    case QMI_SERVICE_ERR:
        break;
    case QMI_PORT_NOT_OPEN_ERR:
    case QMI_INTERNAL_ERR:
        return MODEM_API_INTERNAL;
    case QMI_TIMEOUT_ERR:
        return MODEM_API_TIMEOUT;
    default: /* -4 extended error, and anything outside -5..0 (decode errors) */
        return MODEM_API_GENERAL_FAILURE;
    }
    if (resp == NULL)
        return MODEM_API_GENERAL_FAILURE;
    if (resp->result == QMI_RESULT_SUCCESS_V01)
        return MODEM_API_SUCCESS;
    if (resp->result != QMI_RESULT_FAILURE_V01)
        return MODEM_API_GENERAL_FAILURE;
    switch ((uint32_t)resp->error) {
    case 0x00:
    case 0x1A: /* no effect: the modem is already where it was asked to be */
        return MODEM_API_SUCCESS;
    case 0x04:
        return MODEM_API_ABORTED;
    case 0x11:
    case 0x13:
    case 0x30:
    case 0x31:
        return MODEM_API_INVALID_ARG;
    case 0x18:
    case 0x2A:
    case 0x4D:
    case 0x5E:
        return MODEM_API_NOT_SUPPORTED;
    case 0x34:
        return MODEM_API_DEVICE_NOT_READY;
    default:
        return MODEM_API_GENERAL_FAILURE;
    }
}

/* ---- operations ---- */

uint32_t modem_api_util_enable_networking_indications(int32_t client_id, int32_t instance)
{
    modem_api_client *c =
        client_id >= 0 && client_id < MODEM_API_MAX_CLIENTS ? slot_get(client_id) : NULL;
    uint32_t want = instance == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1;
    if (c == NULL || (instance != 0 && instance != 1) || c->type != want) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected condition, return error %d!", MODEM_API_UNEXPECTED);
        return MODEM_API_UNEXPECTED;
    }
    qmi_response_type_v01 resp;
    memset(&resp, 0, sizeof(resp));
    int err = nas_client_set_networking_indications(instance, &resp);
    uint32_t ret = modem_api_map_qmi_error_to_modem_api(err, &resp);
    HYDRA_LOG(HYDRA_LOG_RESULT, "result %d", (int)ret);
    return ret;
}

uint32_t modem_api_set_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t enable_1, uint8_t enable_2,
                                            uint8_t enable_3)
{
    if (operational_vs_client(client_id) == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected condition, return error %d!", MODEM_API_UNEXPECTED);
        return MODEM_API_UNEXPECTED;
    }
    vs_set_feature_status_req_msg_v01 req;
    vs_set_feature_status_resp_msg_v01 resp;
    memset(&req, 0, sizeof(req));
    memset(&resp, 0, sizeof(resp));
    /* The three switches lie over TLV 0x02, the valid flag of TLV 0x10 and
     * its value, as the caller's bytes are passed through unchanged. */
    req.feature = feature;
    req.enable = enable_1;
    req.extra_valid = enable_2;
    req.extra = enable_3;
    int err = vs_client_send_msg_sync(VS_SET_FEATURE_STATUS_MSG_V01, &req, sizeof(req), &resp, sizeof(resp));
    uint32_t ret = modem_api_map_qmi_error_to_modem_api(err, &resp.resp);
    HYDRA_LOG(HYDRA_LOG_RESULT, "result %d", (int)ret);
    return ret;
}

uint32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t number, int32_t id_num,
                                       const uint32_t *ids, modem_stats_param_result *result)
{
    if (operational_vs_client(client_id) == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected condition, return error %d!", MODEM_API_UNEXPECTED);
        return MODEM_API_UNEXPECTED;
    }
    if (id_num < 1 || id_num > MODEM_STATS_MAX_IDS) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected condition, return error %d!", MODEM_API_INVALID_ARG);
        return MODEM_API_INVALID_ARG;
    }
    if (ids == NULL || result == NULL) {
        HYDRA_LOG(HYDRA_LOG_ERROR, "Unexpected NULL pointer, return error %d!", MODEM_API_INVALID_ARG);
        return MODEM_API_INVALID_ARG;
    }

    vs_get_stats_param_req_msg_v01 req;
    memset(&req, 0, sizeof(req));
    req.sub = sub;
    req.number = number;
    req.id_num = (uint32_t)id_num;
    memcpy(req.ids, ids, sizeof(uint32_t) * (size_t)id_num);

    vs_get_stats_param_resp_msg_v01 *resp =
        (vs_get_stats_param_resp_msg_v01 *)HYDRA_MALLOC(sizeof(vs_get_stats_param_resp_msg_v01));
    if (resp == NULL)
        return MODEM_API_NO_MEMORY;
    memset(resp, 0, sizeof(*resp));
    int err = vs_client_send_msg_sync(VS_GET_STATS_PARAM_MSG_V01, &req, sizeof(req), resp, sizeof(*resp));
    uint32_t ret = modem_api_map_qmi_error_to_modem_api(err, &resp->resp);
    if (ret == MODEM_API_SUCCESS && resp->records_valid != 1)
        ret = MODEM_API_GENERAL_FAILURE;
    if (ret == MODEM_API_SUCCESS) {
        /* The codec already refuses a count above 10 or data above 700
         * bytes; the clamps keep the copy in bounds whatever decoded it. */
        uint32_t n = resp->records_len > MODEM_STATS_MAX_IDS ? MODEM_STATS_MAX_IDS : resp->records_len;
        result->id_num = n;
        for (uint32_t i = 0; i < n; ++i) {
            const vs_stats_record_v01 *r = &resp->records[i];
            modem_stats_param_entry *e = &result->entries[i];
            uint32_t len = r->data_len > MODEM_STATS_DATA_MAX ? MODEM_STATS_DATA_MAX : r->data_len;
            e->sub = r->sub;
            e->id = r->id;
            e->data_len = len;
            memcpy(e->data, r->data, len);
        }
    }
    HYDRA_FREE(resp);
    return ret;
}

/* ---- asynchronous responses ---- */

void modem_api_process_response(uint32_t msg_id, void *resp, uint32_t resp_len, modem_api_async_cb_data *cb_data,
                                int32_t transp_err)
{
    if (cb_data != NULL && cb_data->callback != NULL) {
        modem_api_async_cb_type cb = cb_data->callback;
        void *user = cb_data->user_data;
        uint32_t code = resp == NULL || resp_len == 0
                            ? MODEM_API_NO_MEMORY
                            : modem_api_map_qmi_error_to_modem_api(transp_err, (const qmi_response_type_v01 *)resp);
        /* Message 0's payload: a u32 length after the result pair, then the
         * bytes; a length beyond the response is a general failure. */
        const size_t head = sizeof(qmi_response_type_v01) + sizeof(uint32_t);
        uint32_t len = 0;
        if (code == MODEM_API_SUCCESS && msg_id == 0) {
            if (resp_len < head)
                code = MODEM_API_GENERAL_FAILURE;
            else {
                memcpy(&len, (const uint8_t *)resp + sizeof(qmi_response_type_v01), sizeof(len));
                if (len > resp_len - head)
                    code = MODEM_API_GENERAL_FAILURE;
            }
        }
        if (code != MODEM_API_SUCCESS) {
            cb(NULL, 0, user, code);
        } else {
            if (msg_id == 0) {
                void *copy = hydra_malloc_adv(len ? len : 1, "modem_api_common_command_cb_handler", __LINE__);
                if (copy == NULL) {
                    cb(NULL, 0, user, MODEM_API_NO_MEMORY);
                } else {
                    memcpy(copy, (const uint8_t *)resp + head, len);
                    cb(copy, len, user, MODEM_API_SUCCESS);
                }
            }
            cb(NULL, 0, user, 2); /* end mark */
        }
    }
    HYDRA_FREE(resp);
    HYDRA_FREE(cb_data);
}
