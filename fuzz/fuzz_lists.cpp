// Device lists and endpoint texts from outside: what loads must save to a text that loads to the same, and what is an
// endpoint must print as one. Every reader gets every input.
#include <tarnglider/conn_lists.h>

#include <stdlib.h>
#include <string.h>

#include <string>

static void check(bool holds) {
    if (!holds) abort();
}

static void endpoint(const std::string &text) {
    tarn_addr a, back;
    char buf[64];
    if (tarn_addr_parse(&a, text.c_str(), 1) != 0) return check(a.family == 0 && a.port == 0);
    check((a.family == 4 || a.family == 6) && a.port != 0);
    check(tarn_addr_format(buf, sizeof buf, &a) > 0 && tarn_addr_parse(&back, buf, 2) == 0);
    check(a.family == back.family && a.port == back.port && memcmp(a.ip, back.ip, sizeof a.ip) == 0);
}

static int load(tarn_client_list *l, const char *text, size_t n) { return tarn_client_list_load(l, text, n); }
static int load(tarn_host_list *l, const char *text, size_t n) { return tarn_host_list_load(l, text, n); }
static size_t save(const tarn_client_list *l, char *buf, size_t n) {
    return tarn_client_list_save(l, buf, n);
}
static size_t save(const tarn_host_list *l, char *buf, size_t n) { return tarn_host_list_save(l, buf, n); }

// An endpoint without a port is written but not taken back.
static bool reads_back(const tarn_client_entry *) { return true; }
static bool reads_back(const tarn_host_entry *e) {
    return (e->lan_addr.family == 0 || e->lan_addr.port != 0) &&
           (e->direct_addr.family == 0 || e->direct_addr.port != 0);
}

template <class List>
static void list(const char *text, size_t size) {
    static char buf[32 * 340], again[sizeof buf];
    static List l, back;
    int result = load(&l, text, size);
    check(l.count >= 0 && l.count <= TARN_LIST_MAX);
    // What came before a bad line is as good as any list.
    bool whole = true;
    for (int i = 0; i < l.count; i++) {
        check(strnlen(l.entries[i].name, sizeof l.entries[i].name) < sizeof l.entries[i].name);
        whole = whole && reads_back(&l.entries[i]);
    }
    size_t n = save(&l, buf, sizeof buf);
    check(n > 0 && (load(&back, buf, n) == 0) == whole && (result == 0 || result == -1));
    if (whole) check(save(&back, again, sizeof again) == n && memcmp(buf, again, n) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const char *text = reinterpret_cast<const char *>(data);
    endpoint(std::string(text, size));
    list<tarn_client_list>(text, size);
    list<tarn_host_list>(text, size);
    return 0;
}
