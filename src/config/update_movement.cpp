#include "config/update_movement.h"

#include "automove/movement_list.h"
#include "automove/movement_runner.h"
#include "base/json_command.h"
#include "base/text.h"
#include "config/config.h"
#include "config/writer.h"

void then_automovement_params(const cJSON * /*command*/) {
    const ConfigRecord &config = config_record();
    if (set_movement_list(config.automove_list)) {
        movement_list_changed();
    }
    save_config();
    set_automove_state(config.automove_enabled);
}

void then_move(const cJSON *command) {
    run_movement(parse_number(member_or_empty(command, "value2")));
}

void then_move_next(const cJSON * /*command*/) {
    move_next();
}

void then_move_previous(const cJSON * /*command*/) {
    move_prev();
}

void then_set_movement_state(const cJSON *command) {
    set_automove_state(parse_number(member_or_empty(command, "value2")));
}
