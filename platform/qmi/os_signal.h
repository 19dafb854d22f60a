// os_signal.h - setting the OS parameter block that qmi_cci_os_signal_wait
// waits on (the wait itself is part of qmi_client.h).
#pragma once

#include <qmi_client.h>

namespace kvn_qmi {

// Sets the signal and wakes every waiter; a null block is ignored.
void os_signal_set(qmi_cci_os_signal_type *p);

// Starts the notifiers that signal os (they connect only once someone waits
// on them or registers a callback); defined with the client handles.
void notifiers_wanted(qmi_client_os_params *os);

} // namespace kvn_qmi
