#include "net/client_registry.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

// An address in printable form, such as "192.168.1.2" and 40000.
struct ClientName {
    char host[ipv4_text_size];
    int port;
};

static ClientName name_of(uint64_t client) {
    const Ipv4Port address = client & ~client_data_only;
    ClientName name{};
    host_text(address, name.host);
    name.port = port_of(address);
    return name;
}

static bool holds(const ClientSlot &slot, Ipv4Port address) {
    return slot_destination(slot, false) == address;
}

static ClientSlot *find_slot(ClientRegistry &registry, Ipv4Port address) {
    for (ClientSlot &slot : registry.slots) {
        if (holds(slot, address)) {
            return &slot;
        }
    }
    return nullptr;
}

static void occupy(ClientRegistry &registry, ClientSlot &slot, Ipv4Port address, bool data_only,
                   uint32_t now) {
    const uint64_t client = address | (data_only ? client_data_only : 0);
    slot.last_seen_ms = now;
    if (slot.client.exchange(client, std::memory_order_acq_rel) != client) {
        registry.version.fetch_add(1, std::memory_order_release);
    }
}

void register_client(ClientRegistry &registry, Ipv4Port address, bool data_only, uint32_t now) {
    if (!has_host(address)) {
        return;
    }
    ClientSlot *known = find_slot(registry, address);
    if (known != nullptr) {
        occupy(registry, *known, address, data_only, now);
        return;
    }
    ClientSlot *free_slot = find_slot(registry, 0);
    if (free_slot == nullptr) {
        return;
    }
    occupy(registry, *free_slot, address, data_only, now);
    const ClientName name = name_of(address);
    fprintf(stderr, "UDP server: New client connected from %s:%d %s\n", name.host, name.port,
            data_only ? "(no video/audio)" : " ");
}

void remove_client(ClientRegistry &registry, Ipv4Port address) {
    ClientSlot *slot = has_host(address) ? find_slot(registry, address) : nullptr;
    if (slot == nullptr) {
        return;
    }
    slot->client.store(0, std::memory_order_release);
    registry.version.fetch_add(1, std::memory_order_release);
    const ClientName name = name_of(address);
    fprintf(stderr, "UDP server: Client %s:%d removed\n", name.host, name.port);
}

// Appends to the list, truncated to the buffer; ten entries always fit.
__attribute__((format(printf, 2, 3))) static void append(char *json, const char *format, ...) {
    const size_t used = strlen(json);
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(json + used, clients_json_capacity - used, format, arguments);
    va_end(arguments);
}

// Frees a slot, unless its client has changed meanwhile.
static void drop(ClientRegistry &registry, ClientSlot &slot, uint64_t client) {
    const ClientName name = name_of(client);
    fprintf(stderr, "UDP server: Client %s:%d lost\n", name.host, name.port);
    if (slot.client.compare_exchange_strong(client, 0, std::memory_order_acq_rel)) {
        registry.version.fetch_add(1, std::memory_order_release);
    }
}

void sweep_clients(ClientRegistry &registry, uint32_t (*clock)(), char *json) {
    strcpy(json, "["); // NOLINT(clang-analyzer-security.insecureAPI.strcpy): it fits
    uint8_t count = 0;
    for (int i = 0; i < client_capacity; ++i) {
        ClientSlot &slot = registry.slots[i];
        const uint64_t client = slot.client.load(std::memory_order_acquire);
        if (client == 0) {
            continue;
        }
        // Read this before the clock: a client that registers in between must not look 49 days old.
        const uint32_t last_seen_ms = slot.last_seen_ms;
        const uint32_t age = clock() - last_seen_ms;
        if (age > client_timeout_ms) {
            drop(registry, slot, client);
            continue;
        }
        const ClientName name = name_of(client);
        // Every slot but the first gets a comma, even when no entry precedes it.
        append(json, "%s{\"host\":\"%s\",\"port\":%d,\"timeout\":%u,\"mode\":%d}",
               i != 0 ? "," : "", name.host, name.port, age,
               (client & client_data_only) != 0 ? 1 : 0);
        ++count;
    }
    append(json, "]");
    registry.count = count;
}
