/*
 * pelmox_test_modem_stats.h - command group 9: one live radio statistic read
 * over the hydra modem API and printed as one line.
 */
#ifndef PELMOX_TEST_MODEM_STATS_H
#define PELMOX_TEST_MODEM_STATS_H

#include <stddef.h>
#include <stdint.h>

#include "modem_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Entry of group 9: kvn 9 <option> <subscription>. Returns 0. */
int pelmox_test_qmi_modem_stats_do(int argc, char *argv[]);

int pelmox_qmi_modem_stats_api_init(void);
int pelmox_qmi_modem_stats_api_deinit(void);
void pelmox_test_qmi_modem_stats_start(void);
void pelmox_test_qmi_modem_stats_hdl(int opt, int sub);
/* One request; 0 with the data loaded for the printers, else 1. */
int pelmox_test_qmi_modem_stats_get(int sub, modem_stats_data_id_e_type id);

/* The printers: request the statistic, then decode and print it. */
void pelmox_test_qmi_modem_stats_4g_rssi(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_5g_rssi(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_5g_snr(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_5g_ant_diversity(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_5g_rsrp(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_wcdma_rssi(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_gsm_rssi(int sub, modem_stats_data_id_e_type id);
void pelmox_test_qmi_modem_stats_ant_info(int sub, modem_stats_data_id_e_type id);

/* Decodes and prints len bytes as the layout of id, exactly as a printer does
 * after a successful request (the not-enough line when they run short).
 * Returns 0 when the summary line was printed, 1 otherwise (also for an id
 * without a layout). For checks and fuzzing of the layouts. */
int pelmox_test_qmi_modem_stats_print_data(modem_stats_data_id_e_type id, const uint8_t *data, size_t len);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_TEST_MODEM_STATS_H */
