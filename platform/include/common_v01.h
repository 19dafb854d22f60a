/*
 * common_v01.h - types shared by every standard QMI service record: the
 * result pair that each response carries in TLV 0x02 (32 bits each in C,
 * u16 + u16 on the wire).
 */
#ifndef COMMON_V01_H
#define COMMON_V01_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    QMI_RESULT_TYPE_MIN_ENUM_VAL_V01 = -2147483647,
    QMI_RESULT_SUCCESS_V01 = 0,
    QMI_RESULT_FAILURE_V01 = 1,
    QMI_RESULT_TYPE_MAX_ENUM_VAL_V01 = 2147483647
} qmi_result_type_v01;
typedef enum {
    QMI_ERROR_TYPE_MIN_ENUM_VAL_V01 = -2147483647,
    QMI_ERR_NONE_V01 = 0x0000,
    QMI_ERR_MALFORMED_MSG_V01 = 0x0001,
    QMI_ERR_INTERNAL_V01 = 0x0003,
    QMI_ERR_NO_EFFECT_V01 = 0x001A,
    QMI_ERR_INVALID_ARG_V01 = 0x0030,
    QMI_ERR_DEVICE_NOT_READY_V01 = 0x0034,
    QMI_ERR_NOT_SUPPORTED_V01 = 0x005E,
    QMI_ERROR_TYPE_MAX_ENUM_VAL_V01 = 2147483647
} qmi_error_type_v01;
typedef struct {
    qmi_result_type_v01 result;
    qmi_error_type_v01 error;
} qmi_response_type_v01;

#ifdef __cplusplus
}
#endif

#endif /* COMMON_V01_H */
