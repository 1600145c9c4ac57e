#pragma once
#include <gst/gst.h>
#include <thread>

namespace vistrel::camera {

// Takes a pipeline down to NULL and frees it on a thread of its own. Closing a camera
// or a demuxer can wait on a driver or a PipeWire round trip; the main thread never
// waits for it, and one stuck pipeline cannot hold up the next.
inline void releasePipelineInBackground(GstElement *pipeline)
{
    std::thread([pipeline] {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }).detach();
}

} // namespace vistrel::camera
