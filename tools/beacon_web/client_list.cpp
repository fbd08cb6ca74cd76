#include "beacon_web/client_list.h"

#include "client/answers.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

constexpr const char *list_file = "/run/quillorbeacon/clients.json";
constexpr size_t longest_list = 4096; // of ten clients

static std::optional<RegisteredClient> parse_client(const Json &entry) {
    if (!entry.is_object()) {
        return std::nullopt;
    }
    const Json host = entry.value("host", Json());
    const Json port = entry.value("port", Json());
    const Json age_ms = entry.value("timeout", Json());
    const Json mode = entry.value("mode", Json());
    if (!host.is_string() || !port.is_number_integer() || !age_ms.is_number() ||
        !mode.is_number_integer()) {
        return std::nullopt;
    }
    return RegisteredClient{host.get<std::string>(), port.get<uint16_t>(),
                            age_ms.get<double>() / 1000, mode.get<int>() == 1};
}

std::optional<std::vector<RegisteredClient>> parse_client_list(std::string_view text) {
    std::string list(text);
    if (list.starts_with("[,")) {
        list.erase(1, 1);
    }
    const Json parsed = Json::parse(list, nullptr, false);
    if (!parsed.is_array()) {
        return std::nullopt;
    }
    std::vector<RegisteredClient> clients;
    for (const Json &entry : parsed) {
        auto client = parse_client(entry);
        if (!client) {
            return std::nullopt;
        }
        clients.push_back(std::move(*client));
    }
    return clients;
}

std::optional<std::string> read_client_list() {
    const int fd = open(list_file, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
    if (fd < 0) {
        return std::nullopt;
    }
    struct stat status {};
    std::string text(longest_list, '\0');
    const bool is_file = fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t size = is_file ? read(fd, text.data(), text.size()) : 0;
    close(fd);
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

std::string client_list_words(const std::vector<RegisteredClient> &clients) {
    std::string words;
    for (const RegisteredClient &client : clients) {
        words += (words.empty() ? "" : ", ") + client.address + ":" + std::to_string(client.port) +
                 (client.is_data_only ? " (data only)" : "");
    }
    return words.empty() ? "nobody" : words;
}
