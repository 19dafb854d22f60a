/*
 * main.cpp - entry of the kvn tool: reads the command group from the first
 * argument and hands the whole argument vector to that group's handler. The
 * exit status is 0 whatever happened; outcomes are reported only as text.
 */
#include <stdio.h>
#include <stdlib.h>

#include "pelmox_extend_cmn.h"
#include "pelmox_shell.h"
#include "pelmox_test_mbn.h"
#include "pelmox_test_modem_stats.h"
#include "pelmox_test_nvefs.h"

typedef int (*pelmox_group_handler)(int argc, char *argv[]);

/* One command group. */
typedef struct {
    int group;                    /* number given as argument 1 */
    pelmox_group_handler handler; /* runs the group */
} pelmox_group;

/* Groups 1 and 2 are documented in the help but not offered by this tool. */
static int pelmox_group_not_supported(int argc, char *argv[])
{
    (void)argc;
    (void)argv;
    printf("Not support\n");
    return 0;
}

/* The command groups, one row each. A number without a row prints the full
 * help. */
static const pelmox_group k_groups[] = {
    {1, pelmox_group_not_supported},
    {2, pelmox_group_not_supported},
    {4, pelmox_test_nvefs_do},
    {5, pelmox_test_cmn_do},
    {6, pelmox_test_qmi_send_data_do},
    {9, pelmox_test_qmi_modem_stats_do},
    {10, pelmox_test_mbn_do},
};

int main(int argc, char *argv[])
{
    if (argc >= 2) {
        /* atoi by design: "4x" is 4 and "abc" is 0 (an unknown group). */
        int group = atoi(argv[1]);
        for (size_t i = 0; i < sizeof(k_groups) / sizeof(k_groups[0]); ++i) {
            if (k_groups[i].group == group) {
                (void)k_groups[i].handler(argc, argv);
                return 0;
            }
        }
    }
    show_help(0);
    return 0;
}
