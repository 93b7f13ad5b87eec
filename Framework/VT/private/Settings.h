// The levels that the process's configuration gives to channels and trace objects.
//
// They are read from VT_LEVELS on the first use and changed by VT_setLevel. Readers take no lock:
// a setting, once made, stays where it is until the process ends, and only its level changes.
#ifndef VT_PRIVATE_SETTINGS_H
#define VT_PRIVATE_SETTINGS_H

#include <cstdint>

namespace vt {

// The level set for `name`, else the one set for "*", else `unset`.
int32_t levelFor(const char* name, int32_t unset);

// Sets the level for `name`, which is neither NULL nor empty. Without memory for a new setting
// nothing changes.
void setLevel(const char* name, int32_t level);

} // namespace vt

#endif // VT_PRIVATE_SETTINGS_H
