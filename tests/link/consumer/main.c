#include <tarnglider/tarnglider.h>

#include <string.h>

int main(void) {
    tarn_addr addr;
    char text[64];
    if (tarn_addr_parse(&addr, "[2001:db8::1]:9877", 0) != 0) return 1;
    tarn_addr_format(text, sizeof text, &addr);
    return strcmp(text, "[2001:db8::1]:9877") != 0;
}
