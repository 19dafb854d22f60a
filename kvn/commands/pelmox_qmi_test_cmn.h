/*
 * pelmox_qmi_test_cmn.h - group 5 sub-command 0: one raw diag command sent to
 * the modem through the diag library, with the reply bytes printed.
 */
#ifndef PELMOX_QMI_TEST_CMN_H
#define PELMOX_QMI_TEST_CMN_H

/* `kvn 5 0 mode type time_out byte...`. Returns 0, or the diag library's
 * non-zero code when the send failed (the dispatcher reports it). */
int pelmox_cmn_diag_cmd_send(int argc, char *argv[]);

#endif /* PELMOX_QMI_TEST_CMN_H */
