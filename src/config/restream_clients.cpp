#include "config/restream_clients.h"

#include "base/board_address.h"
#include "base/ipv4.h"
#include "base/own_ports.h"
#include "base/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

// Returns where frames for `address` go; 0 when the daemon itself would get them.
static Ipv4Port allowed_destination(Ipv4Port address) {
    const bool is_own = is_own_port(port_of(address)) && is_board_host(host_of(address));
    return is_own ? 0 : address;
}

void parse_restream_clients(const char *text, RestreamClients &clients) {
    clients.count = 0;
    for (int i = 0; i < restream_capacity; ++i) {
        clients.addresses[i] = 0;
        clients.destinations[i] = 0;
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
        clients.addresses[count] = ipv4_port(address, static_cast<uint16_t>(port));
        clients.destinations[count] = allowed_destination(clients.addresses[count]);
        fprintf(stderr, "\t%d: %s:%d\n", count, host, port);
        ++count;
    }
    clients.count = count;
    fprintf(stderr, "\n");
}

static int entry_count(const RestreamClients &clients) {
    return std::min<int>(clients.count, restream_capacity);
}

static void report_refusal(Ipv4Port address) {
    char host[ipv4_text_size];
    fprintf(stderr, "Restreaming to %s:%d is refused: it is the daemon's own port\n",
            host_text(address, host), port_of(address));
}

static void report_bad_hosts(const RestreamClients &clients) {
    std::string entries;
    for (int i = 0; i < entry_count(clients); ++i) {
        if (clients.addresses[i] == 0) {
            entries += (entries.empty() ? "" : ", ") + std::to_string(i);
        }
    }
    if (!entries.empty()) {
        fprintf(stderr, "Restreaming sends nothing to receiver %s: the host is not an address\n",
                entries.c_str());
    }
}

void report_restreaming(const ConfigRecord &config) {
    if (config.stream_udp_enabled == 0) {
        return;
    }
    const int32_t block_size = config.stream_udp_blocksize;
    if (block_size <= 0) {
        fprintf(stderr, "Restreaming sends nothing: the block size is %d\n", block_size);
    }
    const RestreamClients &clients = config.restream_clients;
    report_bad_hosts(clients);
    for (int i = 0; i < entry_count(clients); ++i) {
        if (clients.addresses[i] != 0 && clients.destinations[i] == 0) {
            report_refusal(clients.addresses[i]);
        }
    }
}

void recheck_restream_clients(ConfigRecord &config) {
    RestreamClients &clients = config.restream_clients;
    for (int i = 0; i < entry_count(clients); ++i) {
        const Ipv4Port address = clients.addresses[i];
        const Ipv4Port destination = allowed_destination(address);
        const bool is_newly_refused = destination == 0 && clients.destinations[i] != 0;
        clients.destinations[i] = destination;
        if (is_newly_refused && config.stream_udp_enabled != 0) {
            report_refusal(address);
        }
    }
}
