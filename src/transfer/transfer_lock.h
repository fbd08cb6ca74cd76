#pragma once

// The one mutex of the file transfer.
// Stands on: nothing else of ours.

// It guards the download state and the transport's control block. Any thread.
void lock_transfer();
void unlock_transfer();
