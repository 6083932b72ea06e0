// System properties, with the mask that hides the device's identity from applications.
#ifndef TARNIX_CONFIG_PROPERTIES_H
#define TARNIX_CONFIG_PROPERTIES_H

// Bytes of a value's buffer, its NUL included: the platform's limit.
constexpr int property_value_max = 92;

// Reads the property `key` into `value`, a buffer of property_value_max bytes. An unset or empty
// property gives `default_value`, cut to 91 characters, or the empty string when that is null.
// Returns the length of the string in `value`. A caller with an application's uid reads "unknown"
// under each name that identifies the device, also where that is unset.
int property_get(const char *key, char *value, const char *default_value);

// Sets the property `key`; returns the platform's own result, 0 on success.
int property_set(const char *key, const char *value);

#endif
