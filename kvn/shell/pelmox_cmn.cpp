/*
 * pelmox_cmn.cpp - group 5, the common commands: a dispatcher from the
 * sub-command number to its handler. Its notes are diagnostics for a person at
 * the terminal and follow the shell print flag; the help section is printed
 * whenever a command could not be run, whatever the flag says.
 */
#include "pelmox_shell.h"

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "pelmox_sar_dsi.h"
#include "pelmox_trace.h"
#include "pelmox_uim.h"

#define PELMOX_CMN_GROUP 5

typedef int (*pelmox_cmn_handler)(int argc, char *argv[]);

/* One sub-command of group 5. */
typedef struct {
    uint32_t sub;               /* sub-command number (argument 2) */
    pelmox_cmn_handler handler; /* runs it; NULL only in the end row */
    int result_ignored;         /* 1: return at once, no error note nor help */
} pelmox_cmn_sub;

/*
 * The sub-commands, one row each, ended by a row with no handler. A number
 * without a row is an invalid second parameter; 7, 8 and 9, and everything
 * from 11 up, never get one. Rows are added here as their handlers are built
 * (0 diag send, 1-4 and 6 card commands, 5 SAR DSI query with its result
 * ignored, 10 eSIM test).
 */
static const pelmox_cmn_sub k_cmn_subs[] = {
    {1, pelmox_cmn_card_status_query, 0},
    {2, pelmox_cmn_card_status_get, 0},
    {3, pelmox_cmn_card_status_set, 0},
    {4, pelmox_cmn_card_type_query, 0},
    {5, pelmox_cmn_test_get_sar_dsi, 1},
    {6, pelmox_cmn_card_hotswap_test, 0},
    {10, pelmox_cmn_esim_test, 0},
    {0, NULL, 0}, /* end of table */
};

static const pelmox_cmn_sub *pelmox_cmn_find(uint32_t sub)
{
    for (const pelmox_cmn_sub *row = k_cmn_subs; row->handler != NULL; ++row) {
        if (row->sub == sub)
            return row;
    }
    return NULL;
}

int pelmox_test_cmn_do(int argc, char *argv[])
{
    int notes = pelmox_trace_shell_on();

    if (argc <= 2) {
        if (notes)
            printf("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(PELMOX_CMN_GROUP);
        return 0;
    }
    if (atoi(argv[1]) != PELMOX_CMN_GROUP) {
        if (notes)
            printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n",
                   PELMOX_CMN_GROUP);
        show_help(PELMOX_CMN_GROUP);
        return 0;
    }

    /* Read as unsigned so that a negative sub-command counts as a large,
     * invalid one rather than matching a row by accident. */
    uint32_t sub = (uint32_t)atoi(argv[2]);
    const pelmox_cmn_sub *row = pelmox_cmn_find(sub);
    if (row == NULL) {
        if (notes)
            printf("\nnote: the second parameters is invalid, Pls refer to the following cmd:\n");
        show_help(PELMOX_CMN_GROUP);
        return 0;
    }
    if (row->result_ignored) {
        (void)row->handler(argc, argv);
        return 0;
    }

    int ret = row->handler(argc, argv);
    if (ret != 0) {
        if (pelmox_trace_shell_on())
            printf("\nnote: Error happen! error_code(%d)\n", ret);
        show_help(PELMOX_CMN_GROUP);
    }
    return 0;
}
