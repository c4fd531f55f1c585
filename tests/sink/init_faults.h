// Every call of Init that makes it fail when it fails.
#pragma once

#include "failing_calls.h"

#include <array>

struct InitFault
{
    const char* name;
    const char* function;
    int skip = 0;
    int count = 1;
};

constexpr std::array kInitFaults = {
    InitFault{"no memory for the queue", kAllocation, 0},
    InitFault{"no memory for the stream's listener", kAllocation, 1},
    InitFault{"no memory for the core's listener", kAllocation, 2},
    InitFault{"no loop", "pw_thread_loop_new"},
    InitFault{"no context in either configuration", "pw_context_new", 0, 2},
    InitFault{"no timer", "pw_loop_add_timer", 1}, // the context asks for the loop before
    InitFault{"no thread for the loop", "pw_thread_loop_start"},
    InitFault{"no connection", "pw_context_connect"},
    InitFault{"no properties for the stream", "pw_properties_new",
              1}, // the context has some before
    InitFault{"no stream", "pw_stream_new"},
    InitFault{"no connection of the stream", "pw_stream_connect"},
    InitFault{"no answer of the daemon", "pw_thread_loop_timed_wait_full"},
    InitFault{"the stream is refused", kStreamError},
};
