/*
 * hydra_clients.cpp - the SAR and NAS service clients (sar, nas_0, nas_1):
 * one pattern written once over a member descriptor, and each member's
 * public functions, which carry the member's own state record.
 *
 * When the service goes down (a libqmi_cci callback), a suspend thread
 * releases the client and arms a service notifier; when the service comes
 * back, a resume thread drops the notifier and reconnects, so that
 * qmi_client_release and qmi_client_init_instance never run inside a
 * libqmi_cci callback. Both threads are started joinable and never joined:
 * the thread attribute prepared as detached is not passed to the creation,
 * as the handset's tool does it. The state is not locked (down and up events
 * come one after the other with the service's life cycle); its fields are
 * read and written atomically so that the hand-over between threads is
 * well defined.
 */
#include "hydra_clients.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "hydra_log.h"
#include "network_access_service_v01.h"
#include "specific_absorption_rate_v01.h"

#define HYDRA_CLIENT_PORT 65535 /* every client asks for any instance */
#define HYDRA_CLIENT_TRIES 10
#define HYDRA_CLIENT_INIT_TIMEOUT 4
#define HYDRA_CLIENT_SEND_TIMEOUT_MS 30000

typedef void (*hydra_command_cb_type)(qmi_client_type, unsigned int, void *, unsigned int, void *, int);

/* One member's process-wide state. */
typedef struct {
    qmi_idl_service_object_type service_object;     /* SAR 1.14.6 or NAS 1.378.6 */
    qmi_client_type client;                         /* the open client, or null */
    qmi_client_os_params os_params;                 /* handed to the library */
    qmi_client_type notifier;                       /* armed while suspended, or null */
    hydra_command_cb_type command_cb;               /* the member's command callback */
    modem_api_event_cb_type event_cb;               /* caller's event callback (never called) */
    modem_api_operational_status_cb_type status_cb; /* receives (type, status) */
    uint32_t initialized;                           /* set while connected */
} hydra_family_state;

/* What tells the members apart. */
typedef struct {
    const char *prefix;       /* "sar", "nas_0", "nas_1": module prefix and log names */
    uint32_t type;            /* client type reported with every status */
    int nas_sub;              /* subscription bound to, -1 for sar */
    hydra_family_state *state;
    qmi_idl_service_object_type (*service_object)(void);
    qmi_client_ind_cb ind_cb;
    qmi_client_error_cb down_cb;
    qmi_client_notify_cb up_cb;
    void *(*suspend_thread)(void *);
    void *(*resume_thread)(void *);
    hydra_command_cb_type command_cb;
} hydra_family_member;

/* ---- atomic field access ---- */

#define LOAD(field) __atomic_load_n(&(field), __ATOMIC_ACQUIRE)
#define STORE(field, v) __atomic_store_n(&(field), (v), __ATOMIC_RELEASE)

/* A log line under "<prefix><suffix>", e.g. "sar" "_client_enter_suspend". */
#define MEMBER_LOG(m, level, suffix, ...)                                                                        \
    do {                                                                                                         \
        char name_[64];                                                                                          \
        snprintf(name_, sizeof(name_), "%s%s", (m)->prefix, (suffix));                                          \
        hydra_log_named((level), name_, __VA_ARGS__);                                                            \
    } while (0)

static void member_report(const hydra_family_member *m, uint32_t status)
{
    modem_api_operational_status_cb_type cb = LOAD(m->state->status_cb);
    if (cb)
        cb(m->type, status);
}

/* ---- the pattern ---- */

static void family_init(const hydra_family_member *m)
{
    hydra_family_state *s = m->state;
    memset(s, 0, sizeof(*s));
    s->command_cb = m->command_cb;
    s->service_object = m->service_object();
}

/* Sends one NAS request on the member's current handle (which may be null
 * after failed tries: the library then refuses it). */
static int nas_send(const hydra_family_member *m, uint32_t msg_id, void *req, uint32_t req_len,
                    qmi_response_type_v01 *resp)
{
    return qmi_client_send_msg_sync(LOAD(m->state->client), msg_id, req, req_len, resp, sizeof(*resp),
                                    HYDRA_CLIENT_SEND_TIMEOUT_MS);
}

static void nas_bind(const hydra_family_member *m)
{
    nas_bind_subscription_req_msg_v01 req;
    qmi_response_type_v01 resp;
    memset(&req, 0, sizeof(req));
    memset(&resp, 0, sizeof(resp));
    req.subs_type = (nas_subs_type_enum_v01)m->nas_sub;
    (void)nas_send(m, QMI_NAS_BIND_SUBSCRIPTION_REQ_MSG_V01, &req, sizeof(req), &resp);
}

static int nas_register_indications(const hydra_family_member *m, qmi_response_type_v01 *resp)
{
    nas_indication_register_req_msg_v01 req;
    memset(&req, 0, sizeof(req));
    req.req_serving_system_valid = 1;
    req.req_serving_system = 0;
    return nas_send(m, QMI_NAS_INDICATION_REGISTER_REQ_MSG_V01, &req, sizeof(req), resp);
}

static bool family_connect(const hydra_family_member *m)
{
    hydra_family_state *s = m->state;
    MEMBER_LOG(m, HYDRA_LOG_PROGRESS, "_client_get_master_port", "using port %d", HYDRA_CLIENT_PORT);
    int rc = QMI_INTERNAL_ERR;
    for (int attempt = 0; attempt < HYDRA_CLIENT_TRIES; ++attempt) {
        if (attempt > 0)
            sleep(1);
        MEMBER_LOG(m, HYDRA_LOG_PROGRESS, "_client_init_client_handles",
                   "Trying qmi_client_init_instance() try # %d port[%d]", attempt, HYDRA_CLIENT_PORT);
        qmi_client_type handle = LOAD(s->client);
        rc = qmi_client_init_instance(s->service_object, QMI_CLIENT_INSTANCE_ANY, m->ind_cb, NULL, &s->os_params,
                                      HYDRA_CLIENT_INIT_TIMEOUT, &handle);
        STORE(s->client, handle);
        if (m->nas_sub >= 0)
            nas_bind(m); /* after every try, whatever it gave */
        if (rc == QMI_NO_ERR)
            break;
    }
    MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_init_client_handles", "qmi_client_init_instance returned (%d)", rc);
    if (rc != QMI_NO_ERR) {
        MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_init_client_handles", "qmi_client_init_instance returned failure(%d)",
                   rc);
        return false;
    }
    if (m->nas_sub >= 0) {
        qmi_response_type_v01 resp;
        memset(&resp, 0, sizeof(resp));
        int r = nas_register_indications(m, &resp);
        MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_set_networking_indications", "enable_indication result: %d", r);
    }
    qmi_client_register_error_cb(LOAD(s->client), m->down_cb, NULL);
    STORE(s->initialized, 1u);
    return true;
}

static bool family_client_init(const hydra_family_member *m, modem_api_event_cb_type event_cb)
{
    STORE(m->state->event_cb, event_cb);
    MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_init", "Client connecting to QMI FW");
    member_report(m, MODEM_API_STATUS_CONNECTING);
    bool ok = family_connect(m);
    member_report(m, ok ? MODEM_API_STATUS_OPERATIONAL : MODEM_API_STATUS_FAILED);
    return ok;
}

static bool family_release(const hydra_family_member *m)
{
    hydra_family_state *s = m->state;
    member_report(m, MODEM_API_STATUS_RELEASED);
    STORE(s->initialized, 0u);
    qmi_client_type c = LOAD(s->client);
    if (c) {
        qmi_client_release(c);
        STORE(s->client, (qmi_client_type)NULL);
    }
    return true;
}

/* No indication of these services becomes an event: each is decoded when the
 * service object knows it, logged and dropped. */
static void family_indication(const hydra_family_member *m, qmi_client_type user_handle, unsigned int msg_id,
                              void *buf, unsigned int len)
{
    hydra_family_state *s = m->state;
    if (LOAD(s->event_cb) == NULL) {
        MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_unsol_ind_cb", "Unexpected NULL pointer!");
        return;
    }
    uint32_t decoded_len = 0;
    if (msg_id > 0xFFFF || qmi_idl_get_message_c_struct_len(s->service_object, QMI_IDL_INDICATION,
                                                            (uint16_t)msg_id, &decoded_len) != QMI_IDL_LIB_NO_ERR)
        decoded_len = 0;
    if (decoded_len == 0) {
        MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_unsol_ind_cb", "decoded_payload_len(%d) can not <= 0",
                   (int)decoded_len);
        return;
    }
    void *decoded = HYDRA_MALLOC(decoded_len);
    if (decoded == NULL)
        return;
    int rc = qmi_client_message_decode(user_handle, QMI_IDL_INDICATION, msg_id, buf, len, decoded, decoded_len);
    if (rc != QMI_NO_ERR) {
        MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_unsol_ind_cb", "Indication decode failed for msg 0x%x with error %d",
                   msg_id, rc);
    } else {
        MEMBER_LOG(m, HYDRA_LOG_PROGRESS, "_client_ind_hdlr", "Handling indication msg 0x%x", msg_id);
        MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_ind_hdlr", "Unknown indication msg %0x", msg_id);
    }
    HYDRA_FREE(decoded);
}

/* Starts a worker the way the family always has: the detached attribute is
 * prepared but not passed, so the thread is joinable and never joined. */
static bool family_start_worker(void *(*body)(void *))
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t tid;
    int rc = pthread_create(&tid, NULL, body, NULL);
    pthread_attr_destroy(&attr);
    return rc == 0;
}

static void family_service_down(const hydra_family_member *m, int error)
{
    MEMBER_LOG(m, HYDRA_LOG_ERROR, "_client_service_down_event", "service down with error %d", error);
    MEMBER_LOG(m, HYDRA_LOG_PROGRESS, "_client_enter_suspend", "function entry");
    member_report(m, MODEM_API_STATUS_DOWN);
    if (!family_start_worker(m->suspend_thread))
        member_report(m, MODEM_API_STATUS_RELEASED);
}

static void family_suspend_thread(const hydra_family_member *m)
{
    hydra_family_state *s = m->state;
    STORE(s->initialized, 0u);
    qmi_client_type c = LOAD(s->client);
    if (c)
        qmi_client_release(c);
    STORE(s->client, (qmi_client_type)NULL);
    member_report(m, MODEM_API_STATUS_SUSPENDED);
    if (LOAD(s->notifier) == NULL) {
        qmi_client_type n = NULL;
        int rc = qmi_client_notifier_init(s->service_object, &s->os_params, &n);
        MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_release_qmi_client_thread", "qmi_client_notifier_init return %d",
                   rc);
        if (rc != QMI_NO_ERR)
            return;
        STORE(s->notifier, n);
    }
    int rc = qmi_client_register_notify_cb(LOAD(s->notifier), m->up_cb, NULL);
    MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_release_qmi_client_thread", "qmi_client_register_notify_cb %d", rc);
}

static void family_service_up(const hydra_family_member *m, qmi_client_notify_event_type event)
{
    if (event != QMI_CLIENT_SERVICE_COUNT_INC)
        return;
    MEMBER_LOG(m, HYDRA_LOG_PROGRESS, "_client_enter_resume", "function entry");
    member_report(m, MODEM_API_STATUS_RESUMING);
    if (!family_start_worker(m->resume_thread))
        member_report(m, MODEM_API_STATUS_RESUME_FAIL);
}

static void family_resume_thread(const hydra_family_member *m)
{
    hydra_family_state *s = m->state;
    qmi_client_type n = LOAD(s->notifier);
    if (n)
        qmi_client_release(n);
    STORE(s->notifier, (qmi_client_type)NULL);
    bool ok = family_connect(m);
    MEMBER_LOG(m, HYDRA_LOG_RESULT, "_client_resume_qmi_client_thread", "reconnect %s", ok ? "done" : "failed");
    member_report(m, ok ? MODEM_API_STATUS_OPERATIONAL : MODEM_API_STATUS_RESUME_FAIL);
}

/* ---- the members ---- */

static qmi_idl_service_object_type sar_object(void)
{
    return sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
}

static qmi_idl_service_object_type nas_object(void)
{
    return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

/* Defines one member: its state record, descriptor and public functions. */
#define HYDRA_FAMILY_MEMBER(p, client_type, sub, object)                                                          \
    static hydra_family_state s_##p;                                                                              \
    static const hydra_family_member k_##p = {#p,                                                                 \
                                              (client_type),                                                      \
                                              (sub),                                                              \
                                              &s_##p,                                                             \
                                              object,                                                             \
                                              p##_client_unsol_ind_cb,                                            \
                                              p##_client_service_down_event,                                      \
                                              p##_client_service_up_event,                                        \
                                              p##_client_release_qmi_client_thread,                               \
                                              p##_client_resume_qmi_client_thread,                                \
                                              p##_client_command_cb};                                             \
    void p##_init(void) { family_init(&k_##p); }                                                                  \
    void p##_client_set_operational_status_callback(modem_api_operational_status_cb_type cb)                      \
    {                                                                                                             \
        STORE(s_##p.status_cb, cb);                                                                               \
    }                                                                                                             \
    bool p##_client_init(modem_api_event_cb_type event_cb) { return family_client_init(&k_##p, event_cb); }       \
    bool p##_client_init_client_handles(void) { return family_connect(&k_##p); }                                  \
    bool p##_client_release(void) { return family_release(&k_##p); }                                              \
    void p##_client_unsol_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf,                 \
                                 unsigned int ind_buf_len, void *ind_cb_data)                                     \
    {                                                                                                             \
        (void)ind_cb_data;                                                                                        \
        family_indication(&k_##p, user_handle, msg_id, ind_buf, ind_buf_len);                                     \
    }                                                                                                             \
    void p##_client_service_down_event(qmi_client_type user_handle, qmi_client_error_type error, void *cb_data)   \
    {                                                                                                             \
        (void)user_handle;                                                                                        \
        (void)cb_data;                                                                                            \
        family_service_down(&k_##p, error);                                                                       \
    }                                                                                                             \
    void *p##_client_release_qmi_client_thread(void *arg)                                                         \
    {                                                                                                             \
        (void)arg;                                                                                                \
        family_suspend_thread(&k_##p);                                                                            \
        return NULL;                                                                                              \
    }                                                                                                             \
    void p##_client_service_up_event(qmi_client_type user_handle, qmi_idl_service_object_type service_obj,        \
                                     qmi_client_notify_event_type service_event, void *cb_data)                  \
    {                                                                                                             \
        (void)user_handle;                                                                                        \
        (void)service_obj;                                                                                        \
        (void)cb_data;                                                                                            \
        family_service_up(&k_##p, service_event);                                                                 \
    }                                                                                                             \
    void *p##_client_resume_qmi_client_thread(void *arg)                                                          \
    {                                                                                                             \
        (void)arg;                                                                                                \
        family_resume_thread(&k_##p);                                                                             \
        return NULL;                                                                                              \
    }                                                                                                             \
    void p##_client_command_cb(qmi_client_type user_handle, unsigned int msg_id, void *resp,                      \
                               unsigned int resp_len, void *cb_data, int transp_err)                             \
    {                                                                                                             \
        (void)user_handle;                                                                                        \
        modem_api_process_response(msg_id, resp, resp_len, (modem_api_async_cb_data *)cb_data, transp_err);       \
    }

HYDRA_FAMILY_MEMBER(sar, MODEM_API_CLIENT_SAR, -1, sar_object)
HYDRA_FAMILY_MEMBER(nas_0, MODEM_API_CLIENT_NAS_0, 0, nas_object)
HYDRA_FAMILY_MEMBER(nas_1, MODEM_API_CLIENT_NAS_1, 1, nas_object)

int nas_0_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len)
{
    return qmi_client_send_msg_sync(LOAD(s_nas_0.client), msg_id, req, req_len, resp, resp_len,
                                    HYDRA_CLIENT_SEND_TIMEOUT_MS);
}

int nas_1_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len)
{
    return qmi_client_send_msg_sync(LOAD(s_nas_1.client), msg_id, req, req_len, resp, resp_len,
                                    HYDRA_CLIENT_SEND_TIMEOUT_MS);
}

int nas_client_set_networking_indications(int32_t instance, qmi_response_type_v01 *resp)
{
    return nas_register_indications(instance == 0 ? &k_nas_0 : &k_nas_1, resp);
}
