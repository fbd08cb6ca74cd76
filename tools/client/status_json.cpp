#include "client/status_json.h"

#include "client/answers.h"
#include "client/status_record.h"

#include <nlohmann/json.hpp>

std::string status_json(const StatusRecord &record) {
    return json_text({
        {"app_type", record.app_type},
        {"clients", record.client_count},
        {"access_point", record.access_point},
        {"wifi", record.wifi},
        {"camera_network", record.camera_network},
        {"recording", record.is_recording},
        {"udp", record.udp},
        {"rtmp", record.rtmp},
        {"srt", record.srt},
        {"rtsp", record.rtsp},
        {"recorder_number", record.recorder_number},
        {"rtmp_number", record.rtmp_number},
        {"rtsp_number", record.rtsp_number},
        {"srt_seconds", record.srt_seconds},
        {"osd", record.osd},
        {"osd_borders", record.osd_borders},
        {"temperature", record.temperature},
        {"storage_place", record.storage_place},
        {"free_megabytes", record.free_megabytes},
        {"rc1_state", record.rc_state[0]},
        {"rc2_state", record.rc_state[1]},
        {"movement_running", record.movement_running},
        {"movement_index", record.movement_index},
        {"movement_count", record.movement_count},
        {"movement_nearest", record.movement_nearest},
        {"data_source", record.data_source},
        {"video", record.video},
        {"version", std::to_string(record.version[0]) + "." + std::to_string(record.version[1]) +
                        "." + std::to_string(record.version[2])},
    });
}
