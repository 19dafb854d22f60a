/*
 * cutils/properties.h - Android system properties. On a host they are kept by
 * kvn-sim's property service; with no simulated handset running property_get
 * answers the default and property_set fails.
 */
#ifndef CUTILS_PROPERTIES_H
#define CUTILS_PROPERTIES_H

#ifdef __cplusplus
extern "C" {
#endif

#define PROPERTY_KEY_MAX 65
#define PROPERTY_VALUE_MAX 92

/* Copies the value of key (or default_value when unset; "" when that is null)
 * into value, at most PROPERTY_VALUE_MAX - 1 characters plus a terminator.
 * Returns the length of the value copied. */
int property_get(const char *key, char *value, const char *default_value);

/* Sets key to value. Returns 0 on success, a negative number on failure. */
int property_set(const char *key, const char *value);

#ifdef __cplusplus
}
#endif

#endif /* CUTILS_PROPERTIES_H */
