/*
 * pelmox_test_stats_parse.h - command group 7: the parser self-test and the
 * statistics debug-info command, which asks the modem for its statistics
 * module's debug block (common request 20) and prints it section by section,
 * or judges it and lists the diag logs to upgrade (common request 27).
 */
#ifndef PELMOX_TEST_STATS_PARSE_H
#define PELMOX_TEST_STATS_PARSE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define PELMOX_MODEM_STATS_GROUP 7
#define PELMOX_REQ_STATS_DEBUG_INFO 20   /* common request: the debug block */
#define PELMOX_REQ_STATS_NOT_SUPPORT 27  /* common request: log ids to upgrade */

/* Group 7 dispatcher. Shows the group help unless a sub-command succeeded. */
int pelmox_test_modem_stats_do(int argc, char *argv[]);

/* `kvn 7 1 type`: 1 when the type argument was present (whatever the modem
 * answered), else 0. */
int pelmox_test_modem_stats_get_debug_info(int argc, char *argv[]);

/* Requests the debug block; type 0 runs the check, any other prints it. */
void pelmox_test_modem_stats_get_debug_info_do(uint32_t type);

/* The check over a debug-block payload: SUCCES, CLOSED, or FAIL with the
 * list of log ids from a second request. */
void pelmox_modem_stats_support_status_check(const uint8_t *payload);

/* Prints a debug block: the version, then the main, diag, cm and uim
 * sections between marker lines whose "cnt" is the running 8-bit cursor
 * (starting at 1). payload must hold at least 500 readable bytes, as the
 * reply's payload does. */
void pelmox_modem_stats_debug_info_print(const uint8_t *payload);

/* Section printers: print each field as "UNPK[size:%d], %s = %lu" and return
 * the section's length for the block version (0 and "ptr is null" for a null
 * pointer). The cm and uim sections are the same in every version. */
uint32_t pelmox_modem_stats_main_info_unpk(const uint8_t *p, uint8_t version);
uint32_t pelmox_modem_stats_diag_info_unpk(const uint8_t *p, uint8_t version);
uint32_t pelmox_modem_stats_cm_info_unpk(const uint8_t *p);
uint32_t pelmox_modem_stats_uim_info_unpk(const uint8_t *p);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_TEST_STATS_PARSE_H */
