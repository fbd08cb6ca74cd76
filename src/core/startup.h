#pragma once

// Brings the daemon up.
// Stands on: automove/movement_list, automove/movement_runner, config/boot_turn, config/config,
// config/loader, config/restream_clients, config/wired_address, config/writer, core/gpio,
// core/storage, media/audio_source, media/data_source, media/internal_camera, media/video_source,
// net/control_server, net/dispatcher, net/display_process, net/tcp_server, rc/rc_block, rc/rc_loop,
// transfer/file_download.

// Starts everything, in a fixed order, and returns when it all runs. A server that cannot be
// started ends the process with status 1. Main thread, once.
void start_up();
