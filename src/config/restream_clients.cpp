#include "config/restream_clients.h"

#include "base/ipv4.h"
#include "base/text.h"

#include <cstdio>
#include <cstring>

void parse_restream_clients(const char *text, RestreamClients &clients) {
    clients.count = 0;
    for (Relaxed<uint64_t> &destination : clients.destinations) {
        destination = 0;
    }
    char copy[sizeof(ConfigRecord::stream_udp_clients)];
    copy_text(copy, sizeof copy, text);
    fprintf(stderr, "\nRestreaming clients:\n");
    char *rest = copy;
    int count = 0;
    while (count < restream_capacity) {
        char *item = strsep(&rest, ",");
        const char *host = strsep(&item, ":");
        const char *port_text = strsep(&item, ":");
        if (host == nullptr || port_text == nullptr) {
            break;
        }
        const int32_t port = parse_number(port_text);
        const char *address = host + strspn(host, " \t");
        clients.destinations[count] = ipv4_port(address, static_cast<uint16_t>(port));
        fprintf(stderr, "\t%d: %s:%d\n", count, host, port);
        ++count;
    }
    clients.count = count;
    fprintf(stderr, "\n");
}
