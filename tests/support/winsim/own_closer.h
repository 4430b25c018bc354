// Handles that have a closing call of their own (a search, a registry key, a service, a library): CloseHandle on one is
// a breach.
#ifndef WINSIM_OWN_CLOSER_H
#define WINSIM_OWN_CLOSER_H

#include "winsim/sim.h"

namespace winsim {

struct own_closer : object {
    bool closing = false;

    void handle_closing() override {
        if (!closing) {
            breach("CloseHandle of a " + describe());
        }
    }
};

template <class T>
BOOL close_own(HANDLE handle) {
    std::shared_ptr<T> found = machine_exists() ? find_as<T>(handle) : nullptr;
    if (!found) {
        return FALSE;
    }
    found->closing = true;
    return CloseHandle(handle);
}

} // namespace winsim

#endif
