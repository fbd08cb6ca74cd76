#pragma once

// Runs the media engine's pipelines and takes what comes out of them.
// Stands on: beacon_media/source_words, source/complain.

#include "beacon_media/source_words.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

// Nothing else here knows the engine. All calls for a pipeline come from one thread; the engine's
// own threads do the work.
struct Pipeline;

// What came out: an access unit or a piece of sound. Times are nanoseconds, -1 where unknown.
struct Piece {
    const uint8_t *data = nullptr; // valid until the next piece of this pipeline
    size_t size = 0;
    bool is_key = false;
    int64_t stamp = -1;    // its time in the stream, in the order of decoding
    int64_t duration = -1; // how long it is shown
    int64_t age = -1;      // since it was captured
};

enum class PipelineState : uint8_t {
    running,
    ended,
    failed,
};

// Call it first; it does nothing when it was called before. False after a message.
bool init_engine();

// What this machine has for a source.
EngineParts find_engine_parts(const SourceWords &source);

// Builds and starts a pipeline whose last element is called `sink`, or null where nothing comes out
// of it here; `fd` is what its input reads, or -1. Null: `reason` says why.
Pipeline *start_pipeline(const PipelineWords &words, const char *sink, int fd, std::string &reason);

// Hands data to the element called `input`; it is copied. `stamp` is its time in nanoseconds.
// False: the pipeline takes no more, or more than 16 MB wait in it.
bool push_data(Pipeline &pipeline, const char *input, std::span<const uint8_t> data, int64_t stamp);

// What the element called `input` has not passed on yet.
struct Waiting {
    uint64_t bytes = 0;
    int64_t time = 0; // from its first stamp to its last, in nanoseconds
};

Waiting waiting_data(Pipeline &pipeline, const char *input);

// Nothing more comes for that element.
void end_input(Pipeline &pipeline, const char *input);

// Waits until everything has passed a pipeline whose inputs have ended. False after `wait_ns`, or
// with a `reason` when it failed.
bool drain_pipeline(Pipeline &pipeline, int64_t wait_ns, std::string &reason);

// Is somebody at the other end of the SRT element called `output`?
bool has_srt_peer(const Pipeline &pipeline, const char *output);

// Does this machine have an element of that name?
bool has_element(const char *name);

// Takes the next piece, after waiting for it. False: none came.
bool next_piece(Pipeline &pipeline, int64_t wait_ns, Piece &piece);

// Is it over? `reason` is why it failed. Ended only when all pieces have been taken.
PipelineState check_pipeline(Pipeline &pipeline, std::string &reason);

// Stops it and frees it; null is allowed.
void stop_pipeline(Pipeline *pipeline);
