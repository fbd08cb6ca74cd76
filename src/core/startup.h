#pragma once

// Brings the daemon up, step by step in a fixed order. Returns when everything runs; a server that
// cannot be started ends the process with status 1. Main thread, once.
void start_up();
