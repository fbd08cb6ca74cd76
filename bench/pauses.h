#pragma once

// What a pause of two microseconds really takes, in time and in processor time, by the ways there
// are to make it. Prints a table.
void print_pauses();
