#include "beacon_media/audio_source.h"
#include "beacon_media/options.h"
#include "beacon_media/raspivid.h"
#include "beacon_media/recorder.h"
#include "beacon_media/rtmp.h"
#include "beacon_media/rtsp.h"
#include "beacon_media/source_file.h"
#include "beacon_media/source_run.h"
#include "beacon_media/srt.h"
#include "beacon_media/transcoder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

// The program does what its name says: the daemon signals its helpers by their names.
struct NamedRole {
    const char *name;
    int (*run)();
};
constexpr NamedRole roles[] = {
    {"gst-audio-src", run_audio_source},      {"recorder", run_recorder},
    {"rtmp-restreamer", run_rtmp_restreamer}, {"rtsp-server-manager", run_rtsp_server},
    {"srt-restreamer", run_srt_restreamer},   {"transcoder", run_transcoder},
};

static int run_as_source(int argc, char **argv) {
    // Not among the other options: they would be in the file.
    constexpr int words_of_from = 3;
    if (argc == words_of_from && strcmp(argv[1], "--from") == 0) {
        return run_source_from(argv[2]);
    }
    Options options;
    int status = 0;
    return parse_options(argc, argv, options, status) ? run_source(options) : status;
}

static int run_by_name(int argc, char **argv) {
    for (const NamedRole &role : roles) {
        if (strcmp(role.name, program_invocation_short_name) == 0) {
            return role.run();
        }
    }
    if (strcmp(program_invocation_short_name, "raspivid") == 0) {
        return run_raspivid(argc, argv);
    }
    return run_as_source(argc, argv);
}

int main(int argc, char **argv) {
    // A line should be seen at once, also in a file or a pipe.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int status = run_by_name(argc, argv);
    // The engine's threads may still run: no destructors beside them.
    fflush(nullptr);
    _exit(status);
}
