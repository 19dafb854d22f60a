/*
 * modem_stats_unpk.h - the bit-field unpacker of the statistics records the
 * modem writes into its diag log packets: primitives that cut little-endian
 * bit fields out of a payload, on one process-wide unpack state, checking
 * every position and bit number and tracing each step when printing is on.
 */
#ifndef MODEM_STATS_UNPK_H
#define MODEM_STATS_UNPK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define MODEM_STATS_UNPK_READ_LIMIT 2000 /* literal bound of every UNPK_I position */
#define MODEM_STATS_UNPK_PAD 16          /* zero bytes a payload buffer carries after its data */
#define MODEM_STATS_UNPK_HEX_LEN 50      /* size of each hex rendering buffer */

/* The unpack state: one per process, reset by the caller before each parse
 * and then only moved forward by the primitives. The names are the ones the
 * modem-side implementation uses for the same counters. */
typedef struct {
    const uint8_t *g_unpk_data_ptr;          /* payload being parsed; null means no data */
    uint32_t g_unpk_data_size;               /* readable bytes at the pointer; loads past them read 0 */
    int32_t g_unpk_data_len;                 /* upper bound of UNPK_SET_BIT positions (caller sets 2000) */
    int32_t g_unpk_data_base;                /* byte index of the current base */
    int32_t g_unpk_data_base_bit;            /* bit index of the current base */
    int32_t g_unpk_data_cnt;                 /* byte cursor relative to the base */
    uint32_t g_unpk_id;                      /* id of the record being parsed (printed only) */
    int32_t g_unpk_print_flag;               /* non-zero: trace every step */
    int32_t g_unpk_low;                      /* 1-based first window bit of the field (PRINT_CNT) */
    int32_t g_unpk_high;                     /* 1-based last window bit of the field (PRINT_CNT) */
    uint64_t g_unpk_tmp1;                    /* window bits 1..64 */
    uint64_t g_unpk_tmp2;                    /* window bits 65..128 */
    uint64_t g_unpk_old_val;                 /* value before the last step (trace) */
    uint64_t g_unpk_new_val;                 /* value after the last step (trace) */
    uint64_t g_unpk_mask_max;                /* all-ones mask of the last UNPK_LOW destination */
    uint64_t g_unpk_version_not_support_num; /* records of unknown version; never reset */
    char g_unpk_hex_i[MODEM_STATS_UNPK_HEX_LEN];  /* hex text of the last UNPK_I value */
    char g_unpk_hex_at[MODEM_STATS_UNPK_HEX_LEN]; /* hex text of the last UNPK_AT value */
} modem_stats_unpk_state;

/* The process's unpack state. */
modem_stats_unpk_state *modem_stats_unpk_get_state(void);

/* Points the state at a payload of size readable bytes (data and padding) and
 * restarts it: id, length limit 2000, base, base bit and cursor 0. The print
 * flag and the not-supported count are left as they are. */
void modem_stats_unpk_reset(uint32_t id, const uint8_t *payload, uint32_t size);

/* Renders v into buf (at least 50 bytes) as the trace shows it: "0x", the
 * eight bytes of v least significant first as %02X, then every trailing "00"
 * pair cut (at most 8). Returns buf. */
const char *modem_stats_unpk_hex(uint64_t v, char *buf);

/*
 * The primitives. Each returns 0, or -1 after printing its error line (the
 * error lines end without a line end: the parser adds one). Errors print
 * whatever the print flag says; the trace lines only when it is non-zero.
 */

/* Loads size (4 or 8) bytes at base + cursor into dest and advances the
 * cursor. Fails on a null payload and on a position of 2000 or more. */
int UNPK_I(const char *name, void *dest, int size);

/* Moves the base forward by bit bits and restarts the cursor. */
void BASE_WITH_BIT(int32_t bit);

/* Points the cursor at the byte holding bit `bit` counted from the base;
 * fails when that is outside [0, g_unpk_data_len). */
int UNPK_SET_BIT(int32_t bit);

/* Sets g_unpk_low and g_unpk_high to the 1-based window range of a field of
 * width bits starting at `bit`. Checks nothing. */
void PRINT_CNT(int32_t bit, int32_t width, const char *name);

/* Takes the window bits low..high into a destination of size bytes; the
 * result is left in g_unpk_new_val. */
int UNPK_MID(int32_t low, int32_t high, const char *name, int size);

/* A whole field: UNPK_SET_BIT, PRINT_CNT, the two 8-byte window loads and
 * UNPK_MID; the value is stored in dest, truncated to size bytes. */
int UNPK_AT(const char *name, int32_t bit_start, int32_t bit_num, void *dest, int size);

#ifdef __cplusplus
}
#endif

#endif /* MODEM_STATS_UNPK_H */
