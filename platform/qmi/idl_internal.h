// idl_internal.h - codec helpers the client library shares with the codec but
// does not publish in qmi_idl_lib.h.
#pragma once

#include <qmi_idl_lib.h>

// The table entry of one message of a service, or null when the service has
// none for that kind and id.
const qmi_idl_message_table_entry *qmi_idl_find_message(qmi_idl_service_object_type svc,
                                                        qmi_idl_type_of_message_type kind, uint16_t msg_id);
