// The platform's property calls, for a machine that lacks them. See host/host_properties.cpp.
#ifndef TARNIX_HOST_SYS_SYSTEM_PROPERTIES_H
#define TARNIX_HOST_SYS_SYSTEM_PROPERTIES_H

// Bytes of a value's buffer, its NUL included.
#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value of `name` into `value` (PROP_VALUE_MAX bytes) and returns its length; an empty
// string and 0 when there is no such property.
int __system_property_get(const char *name, char *value);

// Sets `name` to `value`. 0 on success; -1 when the name cannot be a property's, the value is
// longer than PROP_VALUE_MAX - 1, or it could not be stored.
int __system_property_set(const char *name, const char *value);

#ifdef __cplusplus
}
#endif

#endif
