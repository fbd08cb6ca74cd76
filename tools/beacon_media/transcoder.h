#pragma once

// The transcoder: encodes the source's frames again, for the second frame ring.
// Stands on: beacon_media/engine, beacon_media/picture_gate, beacon_media/ring_link,
// beacon_media/ring_reader, beacon_media/role, media/frame_ring_layout, source/clocks,
// source/complain.

// Runs until a signal stops it. Returns the program's exit status.
int run_transcoder();
