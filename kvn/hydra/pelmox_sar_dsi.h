/*
 * pelmox_sar_dsi.h - group 5 sub-command 5: the modem's current SAR DSI (the
 * device state index that selects the transmit-power back-off table), read
 * from the QMI SAR service with a short-lived client of its own.
 */
#ifndef PELMOX_SAR_DSI_H
#define PELMOX_SAR_DSI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The sub-command: with the shell print flag off it does nothing at all;
 * otherwise prints "SAR DSI: <value>". Returns 0. */
int pelmox_cmn_test_get_sar_dsi(int argc, char *argv[]);

/* The DSI value as the modem reported it, or -1 when the client could not be
 * opened or the request not sent. */
int32_t pelmox_get_sar_dsi(void);

#ifdef __cplusplus
}
#endif

#endif /* PELMOX_SAR_DSI_H */
