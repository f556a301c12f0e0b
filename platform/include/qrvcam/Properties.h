// System properties of the camera stack.
//
// A read returns, in this order: a value set in this process with property_set; else the value
// in the file named by $QRVCAM_PROPERTIES (read once, at the first read of the process); else the
// caller's default. An empty value reads as unset. Safe from any thread.
#pragma once

#include <stdint.h>

#ifndef PROPERTY_VALUE_MAX
#define PROPERTY_VALUE_MAX 92
#endif

namespace NSCam {
namespace Utils {
namespace Properties {

// Copies the value (at most PROPERTY_VALUE_MAX - 1 characters) or the default into `value`,
// which must hold PROPERTY_VALUE_MAX bytes. Returns the length copied.
int property_get(char const* key, char* value, char const* default_value);

// 1/y/yes/on/true and 0/n/no/off/false (exactly, lower case); anything else gives the default.
int8_t property_get_bool(char const* key, int8_t default_value);

// Decimal or 0x hexadecimal, with an optional sign, and nothing else (no blanks; leading zeros are
// decimal); unparsable or out of range gives the default.
int32_t property_get_int32(char const* key, int32_t default_value);
int64_t property_get_int64(char const* key, int64_t default_value);

// Host addition: sets a value for this process, over the file's. An empty value makes the key
// read as unset (the file's value stays hidden). Returns 0, or -1 for a null key or value.
int property_set(char const* key, char const* value);

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
