// The system's name service. One call that both platforms have; blocking.
#include "netsock_internal.h"

int netsock_lookup(const char *name, netsock_answer_fn answer, void *user) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM; // else every address comes once for each socket type
    addrinfo *answers = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &answers) != 0) return -1;
    for (const addrinfo *a = answers; a; a = a->ai_next) {
        answer(user, a->ai_addr, a->ai_addrlen);
    }
    freeaddrinfo(answers);
    return 0;
}
