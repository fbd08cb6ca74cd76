#pragma once

// The machine that the measurement runs on: its cores, and its other processes.

// Chooses a core for the subjects and one for the thread that makes and checks the traffic, and
// moves the caller to the latter. Returns false when there are not two cores.
bool take_cores();
// Moves the caller, a subject about to start, to the subjects' core.
void use_subject_core();

// A thread that runs on the subjects' core whenever nobody else wants it. Without it a virtual
// machine's host gives the core to others while the subject sleeps, and hands it back late.
// let_subject_core_sleep() ends the thread.
void keep_subject_core_awake();
void let_subject_core_sleep();

// Gives this process and all that it starts priority over others on this machine. The timer slack
// stays at the kernel's default, which a real-time priority would remove.
void come_first();

// share_of_others() is the share of the machine's processor time since start_watching_others() that
// was neither idle nor ours. Subjects that have ended count as ours.
void start_watching_others();
double share_of_others();
