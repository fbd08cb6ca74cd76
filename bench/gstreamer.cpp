#include "gstreamer.h"

#include "net/relay_packet.h"
#include "ports.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

constexpr const char *launcher = "/usr/bin/gst-launch-1.0";

bool gstreamer_is_installed() {
    return access(launcher, X_OK) == 0;
}

static std::string text_of(const sockaddr_in &address) {
    char host[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(address.sin_port));
}

static std::string receivers(LoadKind load, int clients) {
    std::string list;
    for (int i = 0; i < clients; ++i) {
        list += (i != 0 ? "," : "") + text_of(client_address(i));
    }
    return load == LoadKind::data ? list + "," + text_of(board_address(display_port)) : list;
}

void become_gstreamer(LoadKind load, int clients, int stream) {
    fcntl(stream, F_SETFD, 0);
    const std::string to = "clients=" + receivers(load, clients);
    const std::string bind_port = "bind-port=" + std::to_string(control_port);
    const std::string port = "port=" + std::to_string(data_port);
    const std::string block =
        "blocksize=" + std::to_string(relay_header_size + relay_video_block_size);
    const std::string descriptor = "fd=" + std::to_string(stream);
    std::vector<const char *> arguments = {launcher, "-q"};
    if (load == LoadKind::data) {
        arguments.insert(arguments.end(), {"udpsrc", port.c_str(), "address=127.0.0.1",
                                           "buffer-size=10000000", "mtu=65507"});
    } else {
        arguments.insert(arguments.end(), {"fdsrc", descriptor.c_str(), block.c_str()});
    }
    arguments.insert(arguments.end(),
                     {"!", "multiudpsink", "sync=false", "async=false", "bind-address=0.0.0.0",
                      bind_port.c_str(), "buffer-size=10000000", to.c_str(), nullptr});
    execv(launcher, const_cast<char **>(arguments.data()));
    _exit(EXIT_FAILURE);
}
