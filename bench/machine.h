#pragma once

// The machine that the measurement runs on, and our place on it.

// Chooses the core of the subjects and the core of the one thread that makes and checks the
// traffic, and moves the caller to the latter. False when there are not two cores.
bool take_cores();
// Moves the caller, a subject about to start, to the subjects' core.
void use_subject_core();

// Puts this process and all that it starts before others of this machine. Timer slack stays the
// kernel's default, which a real-time priority would remove.
void come_first();

// How much of the machine's processor time went to others since the machine was looked at first:
// the share that was neither idle nor ours. Counts subjects that have ended.
void start_watching_others();
double share_of_others();
