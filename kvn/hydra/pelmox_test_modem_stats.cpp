/*
 * pelmox_test_modem_stats.cpp - command group 9: opens a vendor statistics
 * client, switches the modem's statistics feature on, requests one statistic
 * and prints it as one line, then frees the client. The statistic's bytes are
 * read field by field with a bounds-checked cursor; each statistic's layout
 * is a table of fields, and the line is printed only once every field was
 * read.
 */
#include "pelmox_test_modem_stats.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pelmox_shell.h"
#include "pelmox_trace.h"

#define MODEM_STATS_GROUP 9
#define MODEM_STATS_NO_CLIENT 0xFFFFFFFFu
#define MODEM_STATS_SUBS 2

/* The group's process-wide state. */
static struct {
    uint32_t g_hydra_client_id;           /* open client, MODEM_STATS_NO_CLIENT when none */
    uint32_t number;                      /* request counter; the first request sends 1 */
    uint8_t data[MODEM_STATS_DATA_MAX];   /* bytes of the statistic last loaded */
    int32_t g_hydra_data_left;            /* bytes of data not yet consumed */
    int32_t g_pK_DATA_CNT;                /* cursor: next unread byte */
    uint32_t id;                          /* statistic in data, for the error lines */
} s_stats = {MODEM_STATS_NO_CLIENT, 0, {0}, 0, 0, 0};

/* ---- layouts ---- */

typedef enum { FIELD_U8, FIELD_U16, FIELD_U32, FIELD_I32, FIELD_F32 } modem_stats_field_kind;

/* One field: its name for the error lines, how it is stored, and its piece
 * of the printed line ("rsrp_rx0: %.2f"), or NULL for a skipped field. */
typedef struct {
    const char *name;
    modem_stats_field_kind kind;
    const char *piece;
} modem_stats_field;

typedef struct {
    const char *head;   /* start of the line */
    const char *sep;    /* between pieces */
    const modem_stats_field *fields;
    size_t n_fields;
} modem_stats_layout;

#define F32(name, label) {name, FIELD_F32, label ": %.2f"}
#define RX4(n) F32("rsrp_rx" #n, "rsrp_rx" #n), F32("rsrq_rx" #n, "rsrq_rx" #n), \
               F32("rssi_rx" #n, "rssi_rx" #n), F32("snr_rx" #n, "snr_rx" #n)
#define ANT(name) {name, FIELD_U8, name " = %u"}
#define LAYOUT(head, sep, f) {head, sep, f, sizeof(f) / sizeof((f)[0])}

/* 4G receive diversity, 75 bytes, packed: earfcn at offset 2. */
static const modem_stats_field k_4g_fields[] = {
    {"version", FIELD_U8, NULL},     {"version_ssmr", FIELD_U8, NULL}, {"earfcn", FIELD_I32, "earfcn: %d"},
    {"pci", FIELD_U16, "pci: %u"},   {"is_srv_cell", FIELD_U8, NULL},  {"rx_valid", FIELD_U16, "rx_valid: %u"},
    RX4(0), RX4(1), RX4(2), RX4(3),
};

/* The 5G statistics carry a 32-bit version; the others an 8-bit one. */
/* 5G RSSI and SNR share a shape: a version, then one float per receive path
 * ("rssi0" printed as "rssi_rx0: %.2f", ...). */
#define PER_RX(name, label) F32(name "0", label "0"), F32(name "1", label "1"), \
                            F32(name "2", label "2"), F32(name "3", label "3")
static const modem_stats_field k_5g_rssi_fields[] = {{"version", FIELD_U32, NULL}, PER_RX("rssi", "rssi_rx")};
static const modem_stats_field k_5g_snr_fields[] = {{"version", FIELD_U32, NULL}, PER_RX("snr", "snr_rx")};

static const modem_stats_field k_5g_ant_fields[] = {
    {"version", FIELD_U32, NULL}, ANT("ant_rx_0_old"), ANT("ant_rx_0_new"), ANT("ant_rx_1_old"),
    ANT("ant_rx_1_new"),          ANT("ant_rx_2_old"), ANT("ant_rx_2_new"), ANT("ant_rx_3_old"),
    ANT("ant_rx_3_new"),          ANT("ant_tx_0_old"), ANT("ant_tx_0_new"), ANT("ant_tx_1_old"),
    ANT("ant_tx_1_new"),
};

static const modem_stats_field k_5g_rsrp_fields[] = {
    {"version", FIELD_U32, NULL}, F32("rsrp_rx0", "rsrp_rx0"), F32("rsrp_rx1", "rsrp_rx1"),
    F32("rsrp_rx2", "rsrp_rx2"),  F32("rsrp_rx3", "rsrp_rx3"), F32("rsrq", "rsrq"),
};

static const modem_stats_field k_wcdma_fields[] = {
    {"version", FIELD_U8, NULL}, F32("rx_agc_0", "rx_agc_0"), F32("rx_agc_1", "rx_agc_1"),
};

static const modem_stats_field k_gsm_fields[] = {
    {"version", FIELD_U8, NULL}, F32("rx_prx", "rx_prx"), F32("rx_drx", "rx_drx"),
};

static const modem_stats_field k_ant_info_fields[] = {
    {"version", FIELD_U8, NULL},
    {"ant_number", FIELD_U8, "ant_num: %u"},
    {"ant_switch_path", FIELD_U16, "ant_path: %u"},
    {"sig_path", FIELD_U16, "sig_path: %u"},
    {"old_config", FIELD_U8, "old_config: %u"},
    {"new_config", FIELD_U8, "new_config: %u"},
};

/* The layout table: one row per statistic layout, each with its printer
 * (pelmox_test_qmi_modem_stats_<printer>), line head and fields. The enum,
 * the layouts and the printers below are all made from these rows. */
#define MODEM_STATS_LAYOUTS(ROW)                                                                                   \
    ROW(4g_rssi, "ASDIV DATA: ", k_4g_fields)                                                                       \
    ROW(5g_rssi, "ASDIV DATA: ", k_5g_rssi_fields)                                                                  \
    ROW(5g_snr, "ASDIV DATA: ", k_5g_snr_fields)                                                                    \
    ROW(5g_ant_diversity, "ASDIV DATA: ", k_5g_ant_fields)                                                          \
    ROW(5g_rsrp, "ASDIV DATA: ", k_5g_rsrp_fields)                                                                  \
    ROW(wcdma_rssi, "ASDIV DATA: ", k_wcdma_fields)                                                                 \
    ROW(gsm_rssi, "ASDIV DATA: ", k_gsm_fields)                                                                     \
    ROW(ant_info, "ANT INFO: ", k_ant_info_fields)

#define LAYOUT_ENUM(printer, head, fields) LAYOUT_##printer,
typedef enum { MODEM_STATS_LAYOUTS(LAYOUT_ENUM) LAYOUT_COUNT } modem_stats_layout_row;
#undef LAYOUT_ENUM

#define LAYOUT_ROW(printer, head, fields) LAYOUT(head, ", ", fields),
static const modem_stats_layout k_layouts[LAYOUT_COUNT] = {MODEM_STATS_LAYOUTS(LAYOUT_ROW)};
#undef LAYOUT_ROW

/* ---- the cursor ---- */

static int32_t field_width(modem_stats_field_kind kind)
{
    switch (kind) {
    case FIELD_U8:
        return 1;
    case FIELD_U16:
        return 2;
    case FIELD_U32:
    case FIELD_I32:
    case FIELD_F32:
        return 4;
    }
    return 4;
}

/* One decoded value, kept until the whole line can be printed. */
typedef union {
    unsigned int u;
    int i;
    double f;
} modem_stats_value;

/* Reads one field at the cursor. On a short buffer (or a negative cursor)
 * prints the error and its newline and returns 1. */
static int read_field(const modem_stats_field *f, modem_stats_value *out)
{
    int32_t width = field_width(f->kind);
    if (s_stats.g_pK_DATA_CNT < 0) {
        printf("g_pK_DATA_CNT(%d) is can not < 0 for %s, id(0x%x)", s_stats.g_pK_DATA_CNT, f->name, s_stats.id);
        printf("\n");
        return 1;
    }
    if (s_stats.g_hydra_data_left < width) {
        printf("g_hydra_data_left(%d) is not enough for %s, id(0x%x)", s_stats.g_hydra_data_left, f->name,
               s_stats.id);
        printf("\n");
        return 1;
    }
    const uint8_t *p = s_stats.data + s_stats.g_pK_DATA_CNT;
    uint32_t raw = 0;
    for (int32_t b = 0; b < width; ++b)
        raw |= (uint32_t)p[b] << (8 * b);
    switch (f->kind) {
    case FIELD_U8:
    case FIELD_U16:
    case FIELD_U32:
        out->u = raw;
        break;
    case FIELD_I32:
        out->i = (int32_t)raw;
        break;
    case FIELD_F32: {
        float v;
        memcpy(&v, &raw, sizeof(v));
        out->f = v;
        break;
    }
    }
    s_stats.g_pK_DATA_CNT += width;
    s_stats.g_hydra_data_left -= width;
    return 0;
}

/* Reads every field of the layout from the loaded data; prints the line when
 * all were there. */
static int print_layout(const modem_stats_layout *l)
{
    modem_stats_value values[32];
    for (size_t i = 0; i < l->n_fields; ++i)
        if (read_field(&l->fields[i], &values[i]) != 0)
            return 1;
    printf("%s", l->head);
    int first = 1;
    for (size_t i = 0; i < l->n_fields; ++i) {
        const modem_stats_field *f = &l->fields[i];
        if (f->piece == NULL)
            continue;
        if (!first)
            printf("%s", l->sep);
        first = 0;
        switch (f->kind) {
        case FIELD_U8:
        case FIELD_U16:
        case FIELD_U32:
            printf(f->piece, values[i].u);
            break;
        case FIELD_I32:
            printf(f->piece, values[i].i);
            break;
        case FIELD_F32:
            printf(f->piece, values[i].f);
            break;
        }
    }
    printf("\n");
    return 0;
}

static const modem_stats_layout *layout_of(uint32_t id)
{
    switch (id) {
    case MODEM_STATS_4G_ASDIV_PCC:
    case MODEM_STATS_4G_ASDIV_SCC1:
    case MODEM_STATS_4G_ASDIV_SCC2:
    case MODEM_STATS_4G_ASDIV_SCC3:
    case MODEM_STATS_4G_ASDIV_SCC4:
    case MODEM_STATS_4G_ASDIV_SCC5:
    case MODEM_STATS_4G_ASDIV_SCC6:
        return &k_layouts[LAYOUT_4g_rssi];
    case MODEM_STATS_5G_RSSI:
        return &k_layouts[LAYOUT_5g_rssi];
    case MODEM_STATS_5G_SNR:
        return &k_layouts[LAYOUT_5g_snr];
    case MODEM_STATS_5G_ANT_SWITCH:
        return &k_layouts[LAYOUT_5g_ant_diversity];
    case MODEM_STATS_5G_RSRP_PCC:
    case MODEM_STATS_5G_RSRP_SCC1:
    case MODEM_STATS_5G_RSRP_SCC2:
        return &k_layouts[LAYOUT_5g_rsrp];
    case MODEM_STATS_WCDMA_RX_AGC:
        return &k_layouts[LAYOUT_wcdma_rssi];
    case MODEM_STATS_GSM_RX_LEVEL:
        return &k_layouts[LAYOUT_gsm_rssi];
    case MODEM_STATS_ANT_INFO:
        return &k_layouts[LAYOUT_ant_info];
    default:
        return NULL;
    }
}

/* Loads bytes as a successful request does. */
static void load_data(uint32_t id, const uint8_t *data, size_t len)
{
    if (len > sizeof(s_stats.data))
        len = sizeof(s_stats.data);
    if (len > 0)
        memcpy(s_stats.data, data, len);
    s_stats.g_hydra_data_left = (int32_t)len;
    s_stats.g_pK_DATA_CNT = 0;
    s_stats.id = id;
}

int pelmox_test_qmi_modem_stats_print_data(modem_stats_data_id_e_type id, const uint8_t *data, size_t len)
{
    const modem_stats_layout *l = layout_of(id);
    if (l == NULL)
        return 1;
    load_data(id, data, len);
    return print_layout(l);
}

/* ---- one request ---- */

static void event_cb(uint32_t event_id, void *record, uint32_t record_len)
{
    (void)event_id;
    (void)record;
    (void)record_len;
}

static void status_cb(int code, int client_type)
{
    (void)code;
    (void)client_type;
}

int pelmox_test_qmi_modem_stats_get(int sub, modem_stats_data_id_e_type id)
{
    s_stats.g_hydra_data_left = 0;
    if (s_stats.g_hydra_client_id == MODEM_STATS_NO_CLIENT) {
        printf("hydra qmi is not yet inited\n");
        return 1;
    }
    /* Unsigned, so a negative subscription is refused too. */
    if ((uint32_t)sub >= MODEM_STATS_SUBS) {
        printf("modem_api_get_stats_parameter, sub(%d) is invalid\n", sub);
        return 1;
    }
    s_stats.number++;
    uint32_t ids[1] = {(uint32_t)id};
    static modem_stats_param_result result;
    memset(&result, 0, sizeof(result));
    uint32_t ret = modem_api_get_stats_parameter((int32_t)s_stats.g_hydra_client_id, (uint16_t)sub,
                                                 (uint16_t)s_stats.number, 1, ids, &result);
    int number = (int)s_stats.number;
    if (ret != MODEM_API_SUCCESS) {
        printf("Fail to get data fail, number = %d, ret = %d, sub = %d, id = %d\n", number, (int)ret, sub, (int)id);
        return 1;
    }
    if (result.id_num == 0) {
        printf("Fail to get data, empty, number = %d, sub = %d, ret id_num = %d, id = %d\n", number, sub,
               (int)result.id_num, (int)id);
        return 1;
    }
    if (result.id_num > 1) {
        printf("Fail to get data, id num error, number = %d, sub = %d, ret id_num = %d, id = %d\n", number, sub,
               (int)result.id_num, (int)id);
        return 1;
    }
    const modem_stats_param_entry *e = &result.entries[0];
    if (e->id != (uint32_t)id) {
        printf("Fail to get data, ret_id(%d) is invalid, number = %d, sub = %d, ret id_num = %d, id = %d\n",
               (int)e->id, number, sub, 1, (int)id);
        return 1;
    }
    if (e->sub != (uint32_t)sub) {
        printf("Fail to get data, ret_sub(%d) is invalid, number = %d, sub = %d, ret id_num = %d, id = %d\n",
               (int)e->sub, number, sub, 1, (int)e->id);
        return 1;
    }
    if (e->data_len < 1 || e->data_len > MODEM_STATS_DATA_MAX) {
        printf("Fail to get data, data_len(%d) is invalid, should be in (0, %d], number = %d, sub = %d, "
               "ret id_num = %d, id = %d\n",
               (int)e->data_len, MODEM_STATS_DATA_MAX, number, sub, 1, (int)e->id);
        return 1;
    }
    printf("Success to get data, number = %d, sub = %d, ret id_num = %d, id = %d, data_len = %d\n", number, sub,
           (int)result.id_num, (int)e->id, (int)e->data_len);
    load_data(e->id, e->data, e->data_len);
    return 0;
}

/* ---- printers ---- */

static void request_and_print(int sub, modem_stats_data_id_e_type id, const modem_stats_layout *l)
{
    if (pelmox_test_qmi_modem_stats_get(sub, id) == 0)
        (void)print_layout(l);
}

/* One printer per row of the layout table. */
#define LAYOUT_PRINTER(printer, head, fields)                                                                      \
    void pelmox_test_qmi_modem_stats_##printer(int sub, modem_stats_data_id_e_type id)                             \
    {                                                                                                              \
        request_and_print(sub, id, &k_layouts[LAYOUT_##printer]);                                                  \
    }
MODEM_STATS_LAYOUTS(LAYOUT_PRINTER)
#undef LAYOUT_PRINTER

/* ---- the command ---- */

typedef void (*modem_stats_printer)(int sub, modem_stats_data_id_e_type id);

/* The options of group 9, one row each. */
typedef struct {
    int opt;
    modem_stats_printer printer;
    modem_stats_data_id_e_type id;
    int fixed_sub; /* the subscription always asked, or -1 for the given one */
} modem_stats_option;

static const modem_stats_option k_options[] = {
    {0, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_PCC, -1},
    {1, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC1, -1},
    {2, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC2, -1},
    {3, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC3, -1},
    {4, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC4, -1},
    {5, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC5, -1},
    {6, pelmox_test_qmi_modem_stats_4g_rssi, MODEM_STATS_4G_ASDIV_SCC6, -1},
    {7, pelmox_test_qmi_modem_stats_5g_rssi, MODEM_STATS_5G_RSSI, -1},
    {8, pelmox_test_qmi_modem_stats_5g_snr, MODEM_STATS_5G_SNR, -1},
    {9, pelmox_test_qmi_modem_stats_5g_ant_diversity, MODEM_STATS_5G_ANT_SWITCH, -1},
    {10, pelmox_test_qmi_modem_stats_5g_rsrp, MODEM_STATS_5G_RSRP_PCC, -1},
    {11, pelmox_test_qmi_modem_stats_5g_rsrp, MODEM_STATS_5G_RSRP_SCC1, -1},
    {12, pelmox_test_qmi_modem_stats_5g_rsrp, MODEM_STATS_5G_RSRP_SCC2, -1},
    {20, pelmox_test_qmi_modem_stats_wcdma_rssi, MODEM_STATS_WCDMA_RX_AGC, -1},
    {21, pelmox_test_qmi_modem_stats_gsm_rssi, MODEM_STATS_GSM_RX_LEVEL, -1},
    {30, pelmox_test_qmi_modem_stats_ant_info, MODEM_STATS_ANT_INFO, 0},
};

void pelmox_test_qmi_modem_stats_hdl(int opt, int sub)
{
    for (size_t i = 0; i < sizeof(k_options) / sizeof(k_options[0]); ++i) {
        const modem_stats_option *o = &k_options[i];
        if (o->opt == opt) {
            o->printer(o->fixed_sub >= 0 ? o->fixed_sub : sub, o->id);
            return;
        }
    }
    printf("pelmox_test_qmi_modem_stats_hdl: Unknown opt(%d), sub(%d)\n", opt, sub);
}

int pelmox_qmi_modem_stats_api_init(void)
{
    if (s_stats.g_hydra_client_id != MODEM_STATS_NO_CLIENT) {
        modem_api_free_client((int32_t)s_stats.g_hydra_client_id);
        s_stats.g_hydra_client_id = MODEM_STATS_NO_CLIENT;
    }
    modem_api_release();
    modem_api_init();
    return (int)modem_api_init_client(MODEM_API_CLIENT_VS, event_cb, status_cb, &s_stats.g_hydra_client_id);
}

int pelmox_qmi_modem_stats_api_deinit(void)
{
    if (s_stats.g_hydra_client_id != MODEM_STATS_NO_CLIENT) {
        modem_api_free_client((int32_t)s_stats.g_hydra_client_id);
        s_stats.g_hydra_client_id = MODEM_STATS_NO_CLIENT;
    }
    return (int)modem_api_release();
}

void pelmox_test_qmi_modem_stats_start(void)
{
    uint32_t result = modem_api_set_hydra_feature_status((int32_t)s_stats.g_hydra_client_id, 2, 1, 1, 1);
    if (result != MODEM_API_SUCCESS)
        printf("modem_api_set_hydra_feature_status, start fail, result = %d\n", (int)result);
}

int pelmox_test_qmi_modem_stats_do(int argc, char *argv[])
{
    int notes = pelmox_trace_shell_on();
    if (argc < 4) {
        if (notes)
            puts("\nnote: Too few parameters, Pls refer to the following cmd:");
        show_help(MODEM_STATS_GROUP);
        return 0;
    }
    if (atoi(argv[1]) != MODEM_STATS_GROUP) {
        if (notes)
            printf("\nnote: the first parameters should be %d, Pls refer to the following cmd:\n", MODEM_STATS_GROUP);
        show_help(MODEM_STATS_GROUP);
        return 0;
    }
    int opt = atoi(argv[2]);
    int sub = atoi(argv[3]);
    /* A failed init is not checked: the id stays unset and the request
     * reports it. */
    (void)pelmox_qmi_modem_stats_api_init();
    pelmox_test_qmi_modem_stats_start();
    printf("opt = %d, sub = %d, g_hydra_client_id = %d\n", opt, sub, (int)s_stats.g_hydra_client_id);
    pelmox_test_qmi_modem_stats_hdl(opt, sub);
    return pelmox_qmi_modem_stats_api_deinit();
}
