#pragma once

// A step of a receiver's calibration, for the job queue.
// Stands on: beacon_web/http_reply, beacon_web/job_queue, client/rc_channels.

#include "beacon_web/job_queue.h"
#include "client/rc_channels.h"

// Asks for the receiver, 1 or 2; refuses the step with status 409 unless the receiver is heard and
// the step is the next one. Then sends its command until the receiver's answer shows that it was
// taken; with status 504 it never did.
Job calibration_job(CalibrationStep step, int receiver);
