/*
 * modem_stats_parse.h - the cell-information record parser (a bit-packed diag
 * log record into a fixed 38-byte little-endian record) and the self-test of
 * command group 7, sub-command 0, which runs it over a built-in sample.
 */
#ifndef MODEM_STATS_PARSE_H
#define MODEM_STATS_PARSE_H

#include <stdint.h>

#include "modem_api.h" /* modem_stats_data_id_e_type, the statistic identifier */

#ifdef __cplusplus
extern "C" {
#endif

#define MODEM_STATS_SINGLE_DATA_LEN 700 /* one statistics entry's data */
#define MODEM_STATS_CELL_RECORD_LEN 38  /* valid bytes of a parsed cell record */
#define MODEM_STATS_SAMPLE_LEN 48       /* bytes of the built-in sample */

/* A parsed record: the record bytes and how many of them are valid. */
typedef struct {
    uint8_t *data; /* the parser's static 700-byte record */
    uint32_t len;  /* valid bytes (38) */
} modem_stats_single_data_common_type;

/*
 * Parses the payload set up in the unpack state (modem_stats_unpk_reset).
 * Versions 4, 0x30000, 0x30001 and 0x30002 are known; any other adds 1 to the
 * not-supported count. On success prints the two summary lines, fills the
 * static record and, when out is not null, points *out at the common type.
 * Returns 0, or -1 when the parse failed (record and common type untouched).
 * The i32 argument and the id are not used: the id printed is the state's.
 */
int modem_stats_parse_xxxx_diag_xxxx(int32_t unused, modem_stats_data_id_e_type *id,
                                     modem_stats_single_data_common_type **out);

/* Sets up the unpack state for payload (size readable bytes, at least 16 of
 * them zero padding after the record) under id and parses it. A null payload
 * prints the "payload is NULL" line and parses nothing. */
void pelmox_test_modem_stats_parsing_process_do(uint32_t id, const uint8_t *payload, uint32_t size);

/* Group 7, sub-command 0: `kvn 7 0 print`. Parses the built-in sample with
 * atoi(print) as the unpacker's print flag (the whole value, not its low
 * byte). Never touches the modem. Returns 1 when it ran, 0 when the print
 * argument was missing. */
int pelmox_test_modem_stats_parsing_process(int argc, char *argv[]);

/* The last record parsed successfully (zero before the first). */
const modem_stats_single_data_common_type *modem_stats_parse_last(void);

#ifdef __cplusplus
}
#endif

#endif /* MODEM_STATS_PARSE_H */
