#pragma once

// All that the console knows, and what it does with packets and requests.
// Stands on: beacon_web/api, beacon_web/block_joiner, beacon_web/board_link, beacon_web/board_view,
// beacon_web/gimbal_hold, beacon_web/http_reply, beacon_web/job_queue,
// beacon_web/jpeg_maker, beacon_web/login, beacon_web/metrics, beacon_web/picture_ring,
// beacon_web/recordings_api, beacon_web/request_check, beacon_web/sound, beacon_web/video_track,
// client/mount_list, client/packet, client/sequence_count.

#include "beacon_web/board_link.h"
#include "beacon_web/board_view.h"
#include "beacon_web/gimbal_hold.h"
#include "beacon_web/http_reply.h"
#include "beacon_web/job_queue.h"
#include "beacon_web/jpeg_maker.h"
#include "beacon_web/login.h"
#include "beacon_web/picture_ring.h"
#include "beacon_web/recordings_api.h"
#include "beacon_web/request_check.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A request that waits for a picture.
struct JpegWait {
    uint64_t job = 0;
    uint64_t after = 0;     // the number of a picture that is too old for it
    TimePoint until{};      // when it is given up
    bool is_stream = false; // it wants those that follow, too
};
constexpr size_t most_jpeg_waits = 20;

// Knows nothing of the HTTP library. One thread uses it.
struct Console {
    BoardLink link;
    BoardView view;
    uint32_t video_sequence = 0; // the number of the last packet of video
    uint32_t video_dropped = 0;  // Link::dropped then
    BlockJoiner joiner;
    VideoTrack track;
    PictureRing ring;
    GimbalHold gimbal;
    Login login;
    JpegMaker jpegs;
    std::vector<JpegWait> jpeg_waits;
    int jpeg_viewers = 0; // of streams
    JobQueue jobs;
    std::vector<FinishedJob> late_replies; // to requests for files and JPEGs
    DiskWaits disks;
    TimePoint next_client_list{};    // when it is read again, and the mounts
    std::vector<std::string> names;  // allowed_names()
    bool has_camera_options = false; // --allow-camera-options
    int viewers = 0;                 // browsers that are connected
};

// What a packet of the daemon, which has been noted in the view, brought.
struct PacketNews {
    bool has_pictures = false;                // in the ring
    std::shared_ptr<const std::string> sound; // a message for those who want it; null: none
    std::optional<FinishedJob> finished;
};
PacketNews take_board_packet(Console &console, const PacketView &packet, TimePoint now);

// Does what is due: call it twenty times a second. Returns the jobs that are over.
std::vector<FinishedJob> step_console(Console &console, TimePoint now);

// Answers a request that may be served.
// With status 0 the reply comes when the job of that number is over.
HttpReply answer_request(Console &console, const RequestHead &head, const std::string &body,
                         TimePoint now);

// Makes JPEGs, if somebody wants them: call it when there are new pictures and when the link's
// descriptor is readable. True: there is a new one.
bool make_jpegs(Console &console, TimePoint now);

// A message of a viewer's page.
void take_page_message(Console &console, const void *viewer, std::string_view message,
                       TimePoint now);

// A viewer is gone.
void forget_viewer(Console &console, const void *viewer);
