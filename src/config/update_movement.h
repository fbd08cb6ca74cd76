#pragma once

// Carries out the commands of automatic movement.
// Stands on: automove/movement_list, automove/movement_runner, config/config, config/writer.

// Each function is called after the settings of its command have been stored in the record. It runs
// on the command's thread; a direct movement blocks that thread for its short waits, a few seconds
// at most, but not for its delay.

#include <cjson/cJSON.h>

// Parses the new list, saves, then starts or stops playing.
void then_automovement_params(const cJSON *command);

// Play one movement: number "value2", counted from 0, the next one or the previous one. Nothing is
// saved.
void then_move(const cJSON *command);
void then_move_next(const cJSON *command);
void then_move_previous(const cJSON *command);

// Starts or stops playing, as "value2" says. Nothing is saved.
void then_set_movement_state(const cJSON *command);
