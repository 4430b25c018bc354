/* A caller in another language lays these records out by hand, so their sizes and offsets are part of the
 * interface. Also the proof that the whole library's face is C. */
#include <tarnglider/tarnglider.h>

#include <stddef.h>
#include <stdio.h>

#define AT(record, field) #record "." #field, offsetof(record, field)
#define SIZE(record) "sizeof " #record, sizeof(record)

int main(void) {
    const struct {
        const char *what;
        size_t found;
        size_t wanted;
    } rows[] = {
        {SIZE(tarn_addr), 20},         {AT(tarn_addr, port), 2},     {AT(tarn_addr, ip), 4},
        {SIZE(tarn_keypair), 64},      {SIZE(tarn_recv_info), 12},   {AT(tarn_recv_info, first), 4},
        {AT(tarn_recv_info, path), 8}, {SIZE(conn_event), 160},      {AT(conn_event, detail), 4},
        {AT(conn_event, method), 8},   {AT(conn_event, path), 12},   {AT(conn_event, server), 16},
        {AT(conn_event, session), 20}, {AT(conn_event, rtt_us), 24}, {AT(conn_event, addr), 28},
        {AT(conn_event, key), 48},     {AT(conn_event, key_id), 80}, {AT(conn_event, name), 96},
    };
    int wrong = 0;
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; i++) {
        if (rows[i].found == rows[i].wanted) continue;
        printf("%s is %u, not %u\n", rows[i].what, (unsigned)rows[i].found, (unsigned)rows[i].wanted);
        wrong = 1;
    }
    return wrong;
}
