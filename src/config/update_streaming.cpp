#include "config/update_streaming.h"

#include "config/config.h"
#include "config/restream_clients.h"
#include "config/writer.h"
#include "core/process_control.h"
#include "media/video_source.h"

void then_streaming_udp(const cJSON * /*command*/) {
    ConfigRecord &config = config_record();
    parse_restream_clients(config.stream_udp_clients, config.restream_clients);
    report_restreaming(config);
    save_config();
}

void then_streaming_rtmp(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rtmp-restreamer");
    kill_process_by_name("gst-rtmp");
}

void then_streaming_rtsp(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rtsp-server-manager");
}

static void kill_srt_processes() {
    kill_process_by_name("srt-restreamer");
    kill_process_by_name("srt-live-transmit");
    kill_process_by_name("gst-srt");
}

void then_streaming_srt(const cJSON * /*command*/) {
    save_config();
    kill_srt_processes();
}

void then_transcoding(const cJSON * /*command*/) {
    reinit_frame_rings();
    save_config();
    kill_process_by_name("transcoder");
    kill_srt_processes();
    kill_process_by_name("rtsp-server-manager");
}

void then_audio(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("gst-audio-src");
    kill_process_by_name("gst-rtmp");
    kill_process_by_name("rtsp-server-manager");
}
