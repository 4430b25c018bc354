// The status numbers of rendezvous servers in plain words.
#include "common/server_text.h"

#include "common/text.h"

namespace app {

std::string server_error_text(int status) {
    switch (status) {
    case 1:
        return "no host with this key is registered there";
    case 2:
        return "it wants a new registration";
    case 3:
        return "several hosts there have this key code";
    case 4:
        return "it is full; try again later";
    case 5:
        return "it doesn't accept this host's proof";
    case 6:
        return "it doesn't accept this host's key";
    default:
        return format("status %d", status);
    }
}

} // namespace app
