#pragma once

// The runner plays the movement list: directly, by position commands to the data source, or
// smoothly, by steering the gimbal until the camera looks where the movement wants it.

// Maps the shared camera state and starts the movement thread. Start-up, once.
void init_automove();

// Starts (any number but 0) or stops playing, and notes that in a state file. Any thread.
void set_automove_state(int on);

// Plays one movement: in direct mode all of it, on the caller's thread, with its waits; in smooth
// mode one pass of it, after which the movement thread goes on. Nothing for a number that is not in
// the list. Any thread.
void run_movement(int number);
void move_next();
void move_prev();

// What the status record tells. Any thread.
bool automove_running();
int automove_index();   // of the current movement
int automove_nearest(); // of the movement nearest to the camera's position
