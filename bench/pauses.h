#pragma once

// Prints a table of what a pause of two microseconds really takes, in time and in processor time,
// for each way to make it.
void print_pauses();
