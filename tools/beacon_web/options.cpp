#include "beacon_web/options.h"

#include <CLI/CLI.hpp>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>

static bool parse_port(std::string_view text, uint16_t &port) {
    const char *end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && stopped == end;
}

// "192.168.1.10" or "192.168.1.10:5252"
static void take_board(const std::string &text, Options &options) {
    const size_t colon = text.rfind(':');
    options.board = text.substr(0, colon);
    const bool is_port_good =
        colon == std::string::npos ||
        (parse_port(text.substr(colon + 1), options.board_port) && options.board_port != 0);
    if (options.board.empty() || !is_port_good) {
        throw CLI::ValidationError("--board", "not a host or HOST:PORT: " + text);
    }
}

static void take_listen(const std::string &text, Options &options) {
    const size_t colon = text.rfind(':');
    options.address = text.substr(0, colon);
    in_addr parsed{};
    if (colon == std::string::npos || inet_pton(AF_INET, options.address.c_str(), &parsed) != 1 ||
        !parse_port(text.substr(colon + 1), options.port)) {
        throw CLI::ValidationError("--listen", "not an IPv4 address and port such as "
                                               "0.0.0.0:8080: " +
                                                   text);
    }
}

static void add_options(CLI::App &app, Options &options) {
    app.add_option_function<std::string>(
           "--board", [&options](const std::string &text) { take_board(text, options); },
           "where the daemon runs (127.0.0.1:5252)")
        ->type_name("HOST[:PORT]");
    app.add_option_function<std::string>(
           "--listen", [&options](const std::string &text) { take_listen(text, options); },
           "where browsers reach the console (127.0.0.1:8080); 0.0.0.0: on every network of this "
           "machine")
        ->type_name("ADDRESS:PORT");
    app.add_option("--allow-host", options.allowed_hosts,
                   "one more name under which browsers may reach it")
        ->type_name("NAME")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--password-file", options.password_file,
                   "ask browsers for the password in the first line of this file")
        ->type_name("FILE");
    auto *certificate =
        app.add_option("--cert", options.certificate, "serve https with this certificate, in PEM");
    auto *key = app.add_option("--key", options.key, "the certificate's key, in PEM");
    certificate->type_name("FILE")->needs(key);
    key->type_name("FILE")->needs(certificate);
    app.add_flag("--allow-camera-options", options.has_camera_options,
                 "also offer the options of the board's own camera, which run in a shell there");
}

bool parse_options(int argc, char **argv, Options &options, int &status) {
    CLI::App app("Serves a console for a camera board to browsers. See beacon-web(1).",
                 "beacon-web");
    app.set_version_flag("--version", "beacon-web " BEACON_WEB_VERSION);
    try {
        add_options(app, options);
        app.parse(argc, argv);
        return true;
    } catch (const CLI::Success &asked) {
        status = app.exit(asked);
    } catch (const CLI::ParseError &error) {
        fprintf(stderr, "beacon-web: %s\n", error.what());
        status = 2;
    }
    return false;
}
