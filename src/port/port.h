// The port record: one player channel. It holds the port's source (its
// operations and state, opaque here), its pipeline, and voice talk.
#pragma once

#include <cstdint>

#include "audio/port_voice.h"
#include "pipeline/pipeline.h"
#include "source/source.h"

struct PortRecord : Pipeline {
    SOURCE source;
    PortVoice voice;
};
