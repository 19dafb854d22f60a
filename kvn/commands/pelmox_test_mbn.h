/*
 * pelmox_test_mbn.h - command group 10, tests of the modem's configuration
 * files (MBN) through the persistent device configuration (PDC) service.
 */
#ifndef PELMOX_TEST_MBN_H
#define PELMOX_TEST_MBN_H

#include <stdint.h>

/* Group 10 handler: `kvn 10 <x> <sub_mask>`. Checks the arguments, tries PDC
 * initialisation and always ends with the group-10 help. Returns 0. */
int pelmox_test_mbn_do(int argc, char *argv[]);

/* Brings up the PDC service for MBN work. PDC is not available to this tool,
 * so it reports the failure and returns -1 (not initialised) every time. */
int pelmox_test_mbn_pdc_init(uint8_t force_init);

#endif /* PELMOX_TEST_MBN_H */
