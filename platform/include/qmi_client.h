/*
 * qmi_client.h - the QMI common client interface (libqmi_cci) as the tool
 * uses it. On a handset the vendor's library provides these calls; on a host
 * platform/qmi implements them over a Unix-domain socket to kvn-sim.
 *
 * Callbacks (indications, errors, service notifications) run on the library's
 * own threads, never on the caller's.
 */
#ifndef QMI_CLIENT_H
#define QMI_CLIENT_H

#include <pthread.h>
#include <stdint.h>

#include "qmi_idl_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- error numbers ---- */
typedef int qmi_client_error_type;
#define QMI_NO_ERR 0
#define QMI_INTERNAL_ERR (-1)
#define QMI_SERVICE_ERR (-2)       /* service absent or gone away */
#define QMI_TIMEOUT_ERR (-3)
#define QMI_EXTENDED_ERR (-4)
#define QMI_PORT_NOT_OPEN_ERR (-5)

/* ---- service events handed to a notify callback ---- */
typedef enum {
    QMI_CLIENT_SERVICE_COUNT_INC = 0, /* a service of the watched kind came up */
    QMI_CLIENT_SERVICE_COUNT_DEC = 1
} qmi_client_notify_event_type;

/* Service instance; QMI_CLIENT_INSTANCE_ANY accepts whichever instance is up. */
typedef uint16_t qmi_service_instance;
#define QMI_CLIENT_INSTANCE_ANY 0xFFFF

/* Opaque client handle. */
typedef struct qmi_client_struct *qmi_client_type;

/* One entry of qmi_client_get_service_list: where a service can be reached. */
typedef struct {
    uint32_t service_id;
    uint32_t instance;
    uint32_t reserved[4];
} qmi_service_info;

/*
 * OS parameter block. The caller provides it zero-filled; the library
 * initialises it on first use. A notifier signals it when a service of its
 * kind comes up; qmi_cci_os_signal_wait waits for that signal or a timeout.
 */
typedef struct {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    int inited; /* set by the library once mutex and cond are initialised */
    int sig_set;
    int timed_out;
} qmi_cci_os_signal_type;
typedef qmi_cci_os_signal_type qmi_client_os_params;

typedef void (*qmi_client_ind_cb)(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf,
                                  unsigned int ind_buf_len, void *ind_cb_data);
typedef void (*qmi_client_error_cb)(qmi_client_type user_handle, qmi_client_error_type error,
                                    void *err_cb_data);
typedef void (*qmi_client_notify_cb)(qmi_client_type user_handle,
                                     qmi_idl_service_object_type service_obj,
                                     qmi_client_notify_event_type service_event,
                                     void *notify_cb_data);

/* Creates a notifier handle for the service: it watches the service come and
 * go and signals os_params whenever it comes up. Release it with
 * qmi_client_release. */
qmi_client_error_type qmi_client_notifier_init(qmi_idl_service_object_type service_obj,
                                               qmi_client_os_params *os_params,
                                               qmi_client_type *user_handle);

/* With service_info_array null: sets *num_services to the number of instances
 * of the service that are up. Otherwise also fills at most *num_entries
 * entries and sets *num_entries to the number filled. Returns QMI_NO_ERR when
 * at least one instance is up, QMI_SERVICE_ERR otherwise. */
qmi_client_error_type qmi_client_get_service_list(qmi_idl_service_object_type service_obj,
                                                  qmi_service_info *service_info_array,
                                                  unsigned int *num_entries,
                                                  unsigned int *num_services);

/* Waits until os_params is signalled or timeout_ms passes, then clears the
 * signal. */
void qmi_cci_os_signal_wait(qmi_client_os_params *os_params, unsigned int timeout_ms);

/* Opens a client to the service instance named by service_info. */
qmi_client_error_type qmi_client_init(qmi_service_info *service_info,
                                      qmi_idl_service_object_type service_obj,
                                      qmi_client_ind_cb ind_cb, void *ind_cb_data,
                                      qmi_client_os_params *os_params,
                                      qmi_client_type *user_handle);

/* Opens a client to the given instance (or any), waiting up to timeout_ms for
 * it to come up. */
qmi_client_error_type qmi_client_init_instance(qmi_idl_service_object_type service_obj,
                                               qmi_service_instance instance_id,
                                               qmi_client_ind_cb ind_cb, void *ind_cb_data,
                                               qmi_client_os_params *os_params,
                                               uint32_t timeout_ms,
                                               qmi_client_type *user_handle);

/* Encodes the request, sends it, waits up to timeout_msecs for the response
 * with the same transaction id and decodes it into resp_c_struct. */
qmi_client_error_type qmi_client_send_msg_sync(qmi_client_type user_handle, unsigned int msg_id,
                                               void *req_c_struct, unsigned int req_c_struct_len,
                                               void *resp_c_struct,
                                               unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs);

/* Closes a client or notifier. No callback of the handle runs after it
 * returns. */
qmi_client_error_type qmi_client_release(qmi_client_type user_handle);

qmi_client_error_type qmi_client_register_error_cb(qmi_client_type user_handle,
                                                   qmi_client_error_cb err_cb,
                                                   void *err_cb_data);

/* Registers a service-event callback on a notifier. When the service is up
 * at registration, the callback runs once at once (on the library's thread)
 * with QMI_CLIENT_SERVICE_COUNT_INC. */
qmi_client_error_type qmi_client_register_notify_cb(qmi_client_type user_handle,
                                                    qmi_client_notify_cb notify_cb,
                                                    void *notify_cb_data);

/* Decodes an encoded message (TLVs, as handed to an indication callback) of
 * the handle's service into a C record. */
qmi_client_error_type qmi_client_message_decode(qmi_client_type user_handle,
                                                qmi_idl_type_of_message_type req_resp_ind,
                                                unsigned int message_id, const void *msg_buf,
                                                unsigned int msg_buf_len, void *msg_c_struct,
                                                unsigned int msg_c_struct_len);

#ifdef __cplusplus
}
#endif

#endif /* QMI_CLIENT_H */
