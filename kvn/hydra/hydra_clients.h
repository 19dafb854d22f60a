/*
 * hydra_clients.h - the SAR and NAS service clients of the hydra modem API:
 * one family (sar, nas_0, nas_1) that connects with up to ten tries and
 * survives a modem restart by releasing its client on a short-lived suspend
 * thread and reconnecting on a short-lived resume thread.
 */
#ifndef HYDRA_CLIENTS_H
#define HYDRA_CLIENTS_H

#include <stdint.h>

#include "modem_api.h"
#include "qmi_client.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The same set of functions for each member; shown once per member. */
#define HYDRA_FAMILY_DECLARE(p)                                                                                    \
    void p##_init(void);                                                                                           \
    void p##_client_set_operational_status_callback(modem_api_operational_status_cb_type cb);                      \
    bool p##_client_init(modem_api_event_cb_type event_cb);                                                        \
    bool p##_client_init_client_handles(void);                                                                     \
    bool p##_client_release(void);                                                                                 \
    void p##_client_unsol_ind_cb(qmi_client_type user_handle, unsigned int msg_id, void *ind_buf,                  \
                                 unsigned int ind_buf_len, void *ind_cb_data);                                     \
    void p##_client_service_down_event(qmi_client_type user_handle, qmi_client_error_type error, void *cb_data);   \
    void *p##_client_release_qmi_client_thread(void *arg);                                                         \
    void p##_client_service_up_event(qmi_client_type user_handle, qmi_idl_service_object_type service_obj,         \
                                     qmi_client_notify_event_type service_event, void *cb_data);                  \
    void *p##_client_resume_qmi_client_thread(void *arg);                                                          \
    void p##_client_command_cb(qmi_client_type user_handle, unsigned int msg_id, void *resp, unsigned int resp_len, \
                               void *cb_data, int transp_err);

HYDRA_FAMILY_DECLARE(sar)
HYDRA_FAMILY_DECLARE(nas_0)
HYDRA_FAMILY_DECLARE(nas_1)

/* Synchronous sends of the NAS members (30 s); the libqmi_cci result. */
int nas_0_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len);
int nas_1_client_send_msg_sync(uint32_t msg_id, void *req, uint32_t req_len, void *resp, uint32_t resp_len);

/* Sends the NAS indication registration (TLV 0x13 = 0) on nas_0 (instance 0)
 * or nas_1 (instance 1); the libqmi_cci result. */
int nas_client_set_networking_indications(int32_t instance, qmi_response_type_v01 *resp);

#ifdef __cplusplus
}
#endif

#endif /* HYDRA_CLIENTS_H */
