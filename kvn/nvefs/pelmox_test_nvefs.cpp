/*
 * pelmox_test_nvefs.cpp - command group 4: parses the sub-command and its
 * arguments, calls one NV or EFS access function and prints the data read as
 * hexadecimal bytes. Its notes are printed whatever the print flags say.
 */
#include "pelmox_test_nvefs.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pelmox_extend_nvefs.h"
#include "pelmox_shell.h"

#define NVEFS_GROUP 4
#define NVEFS_EXACT_ARGC 5     /* kvn 4 <cmd> <sub> <item> */
#define NVEFS_ARG_DATA 5       /* first data argument of a write */
#define NVEFS_CLI_BUF_LEN 365  /* read capacity and data bytes converted for a write */

/* Handler of one sub-command: the argument vector as main received it. */
typedef int (*nvefs_handler)(int argc, char *argv[]);

/* The subscription argument as a flag: 0 when it reads as 0, else 1 (so 2 and
 * -1 both mean subscription 1). */
static uint32_t nvefs_arg_sub(const char *arg)
{
    return atoi(arg) == 0 ? 0 : 1;
}

static int nvefs_need_exact(int argc)
{
    if (argc == NVEFS_EXACT_ARGC)
        return 0;
    printf("\nnote: need %d inputs, Pls refer to the following cmd:\n", NVEFS_EXACT_ARGC);
    return PELMOX_ERR_INVALID_ARGS;
}

static int nvefs_need_data(int argc)
{
    if (argc > NVEFS_EXACT_ARGC)
        return 0;
    printf("\nnote: Too few inputs, Pls refer to the following cmd:\n");
    return PELMOX_ERR_INVALID_ARGS;
}

/* The same failure line serves NV and EFS alike; scripts match it. */
static void nvefs_print_fail(void)
{
    printf("pelmox_extend_qmi_send_sync fail, REQUEST_ID_EFS\n");
}

static void nvefs_print_data(const uint8_t *buf, uint32_t len)
{
    printf("\ndata len(%d)\ndata: ", (int)len);
    for (uint32_t i = 0; i < len; ++i)
        printf(" %02X", buf[i]);
    printf("\n");
}

/* Converts the data arguments (decimal, cut to 8 bits) into buf, at most
 * NVEFS_CLI_BUF_LEN of them; returns how many were given in all. */
static uint32_t nvefs_convert_data(int argc, char *argv[], uint8_t *buf)
{
    uint32_t given = (uint32_t)(argc - NVEFS_ARG_DATA);
    uint32_t n = given < NVEFS_CLI_BUF_LEN ? given : NVEFS_CLI_BUF_LEN;
    for (uint32_t i = 0; i < n; ++i)
        buf[i] = (uint8_t)atoi(argv[NVEFS_ARG_DATA + i]);
    return given;
}

/* ---- sub-command handlers ---- */

static int pelmox_nvefs_test_nv_read(int argc, char *argv[])
{
    int result = nvefs_need_exact(argc);
    if (result != 0)
        return result;
    uint8_t buf[NVEFS_CLI_BUF_LEN];
    uint32_t len = sizeof(buf);
    result = pelmox_nv_read(nvefs_arg_sub(argv[3]), (uint32_t)atoi(argv[4]), buf, &len);
    if (result != 0) {
        nvefs_print_fail();
        return result;
    }
    nvefs_print_data(buf, len);
    return 0;
}

static int pelmox_nvefs_test_nv_write(int argc, char *argv[])
{
    int result = nvefs_need_data(argc);
    if (result != 0)
        return result;
    /* The declared length is the number of data arguments, though only the
     * first 365 are converted: the rest of the item goes out as zeros. The
     * buffer covers the longest item the write accepts, so the declared
     * length never reads past it (a longer one is refused before any read). */
    uint8_t buf[PELMOX_NV_DATA_MAX];
    memset(buf, 0, sizeof(buf));
    uint32_t declared = nvefs_convert_data(argc, argv, buf);
    result = pelmox_nv_write_ex(nvefs_arg_sub(argv[3]), (uint32_t)atoi(argv[4]), buf, declared);
    if (result != 0)
        nvefs_print_fail();
    return result;
}

static int pelmox_nvefs_test_nv_delete(int argc, char *argv[])
{
    int result = nvefs_need_exact(argc);
    if (result != 0)
        return result;
    result = pelmox_nv_delete(nvefs_arg_sub(argv[3]), (uint32_t)atoi(argv[4]));
    if (result != 0)
        nvefs_print_fail();
    return result;
}

static int pelmox_nvefs_test_efs_read(int argc, char *argv[])
{
    int result = nvefs_need_exact(argc);
    if (result != 0)
        return result;
    uint8_t buf[NVEFS_CLI_BUF_LEN];
    uint32_t len = sizeof(buf);
    result = pelmox_efs_read(nvefs_arg_sub(argv[3]), argv[4], (uint32_t)strlen(argv[4]), buf, &len);
    if (result != 0) {
        nvefs_print_fail();
        return result;
    }
    nvefs_print_data(buf, len);
    return 0;
}

static int pelmox_nvefs_test_efs_write(int argc, char *argv[])
{
    int result = nvefs_need_data(argc);
    if (result != 0)
        return result;
    /* Unlike the NV write, the EFS write declares only the bytes converted. */
    uint8_t buf[NVEFS_CLI_BUF_LEN];
    uint32_t given = nvefs_convert_data(argc, argv, buf);
    uint32_t len = given < NVEFS_CLI_BUF_LEN ? given : NVEFS_CLI_BUF_LEN;
    result = pelmox_efs_write(nvefs_arg_sub(argv[3]), argv[4], (uint32_t)strlen(argv[4]), buf, len);
    if (result != 0)
        nvefs_print_fail();
    return result;
}

static int pelmox_nvefs_test_efs_delete(int argc, char *argv[])
{
    int result = nvefs_need_exact(argc);
    if (result != 0)
        return result;
    result = pelmox_efs_delete(nvefs_arg_sub(argv[3]), argv[4], (uint32_t)strlen(argv[4]));
    if (result != 0)
        nvefs_print_fail();
    return result;
}

/* Sub-commands 1 to 6, in order. */
static const nvefs_handler k_nvefs_handlers[] = {
    pelmox_nvefs_test_nv_read,  pelmox_nvefs_test_nv_write,  pelmox_nvefs_test_nv_delete,
    pelmox_nvefs_test_efs_read, pelmox_nvefs_test_efs_write, pelmox_nvefs_test_efs_delete,
};

/* ---- dispatcher ---- */

int pelmox_test_nvefs_do(int argc, char *argv[])
{
    if (argc >= 2 && atoi(argv[1]) != NVEFS_GROUP) {
        printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", NVEFS_GROUP);
        show_help(NVEFS_GROUP);
        return 0;
    }
    if (argc < 3) {
        printf("\nnote: Too few parameters, Pls refer to the following cmd:\n");
        show_help(NVEFS_GROUP);
        return 0;
    }
    int sub_cmd = atoi(argv[2]);
    const int n_handlers = (int)(sizeof(k_nvefs_handlers) / sizeof(k_nvefs_handlers[0]));
    if (sub_cmd < 1 || sub_cmd > n_handlers) {
        printf("\nnote: the second parameters is invalid, Pls refer to the following cmd:\n");
        show_help(NVEFS_GROUP);
        return 0;
    }
    int result = k_nvefs_handlers[sub_cmd - 1](argc, argv);
    if (result != 0) {
        printf("\nnote: Error happen! error_code(%d)\n", result);
        show_help(NVEFS_GROUP);
    }
    return 0;
}
