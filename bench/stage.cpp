#include "stage.h"

#include <cstdio>
#include <cstdlib>

Stage set_up(const char *daemon_path, const Setup &setup) {
    const DaemonPlan daemon{daemon_path, setup.mode};
    Stage stage{start_subject(setup.kind, daemon, setup.clients, setup.load),
                open_wire(setup.clients, setup.buffers)};
    if (!connect_wire(stage.wire, stage.subject)) {
        fprintf(stderr, "relay_bench: %s does not relay\n", subject_name(setup.kind));
        stop_subject(stage.subject);
        exit(EXIT_FAILURE);
    }
    return stage;
}

void tear_down(Stage &stage) {
    stop_subject(stage.subject);
    close_wire(stage.wire);
}
