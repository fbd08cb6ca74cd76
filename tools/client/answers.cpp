#include "client/answers.h"

#include "client/mend.h"

#include "net/relay_packet.h"

#include <nlohmann/json.hpp>

std::optional<Json> parse_answer(std::string_view text) {
    Json parsed = Json::parse(mend_answer(text), nullptr, false);
    return parsed.is_object() ? std::optional(std::move(parsed)) : std::nullopt;
}

std::optional<std::string> answer_text(const PacketView &packet, std::string_view cmd) {
    const std::string beginning = R"({"cmd":")" + std::string(cmd) + "\"";
    const std::string_view text = payload_text(packet);
    return packet.type == relay_type_data && text.starts_with(beginning)
               ? std::optional<std::string>(text)
               : std::nullopt;
}

std::string value_text(const Json &value) {
    if (value.is_string()) {
        return value.get<std::string>();
    }
    if (!value.is_array()) {
        return value.dump();
    }
    std::string list;
    for (const Json &element : value) {
        list += (list.empty() ? "" : ", ") + value_text(element);
    }
    return list.empty() ? "(none)" : list;
}

std::string json_text(const Json &value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}
