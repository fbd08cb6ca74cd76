#pragma once

// Plays the movement list.
// Stands on: automove/camera_state_layout, automove/movement_list, automove/movement_steps,
// config/config, media/data_source, rc/rc_block.

// In direct mode it sends position commands to the data source. In smooth mode it steers the gimbal
// until the camera points where the movement says.

// Maps the shared camera state and starts the movement thread. Returns 0, or -1 when the thread
// cannot be started. Start-up, once.
int init_automove();

// Starts (any number but 0) or stops (0) playing, and writes the number to a state file. Any
// thread.
void set_automove_state(int on);

// Plays one movement. In direct mode the commands are sent, with their short waits, on the caller's
// thread; the movement thread waits the delay, takes the photo and plays on. In smooth mode it does
// one pass, and the movement thread does the rest. Ignores a number that is not in the list. Any
// thread.
//
// It ends the delay of the movement before, which then takes no photo any more. So do stopping and
// movement_list_changed.
void run_movement(int number);
void move_next();
void move_prev();

// Call after the list has been replaced by another. Any thread.
void movement_list_changed();

// For the status record. Any thread.
bool automove_running();
int automove_index();   // of the current movement
int automove_nearest(); // of the movement nearest to where the camera points
