#pragma once
#include "vcam/FourCharCode.h"
#include "vcam/VirtualCameraSystem.h"

#include <cstdint>
#include <memory>

namespace vistrel::vcam {

class PixelBuffer;

// The one format of every frame sent to the virtual camera.
struct VideoFormatDescription
{
    FourCharCode codecType;
    std::int32_t width;
    std::int32_t height;
};

// A frame on its way to the virtual camera.
struct SampleBuffer
{
    std::shared_ptr<PixelBuffer> imageBuffer;
    std::shared_ptr<const VideoFormatDescription> formatDescription;
    std::int64_t presentationTimeNs = 0; // host clock (CLOCK_MONOTONIC)
};

// A bounded queue of frames between the app and the virtual camera's consumer.
// Enqueue never blocks; the producer checks count against capacity first.
class SimpleQueue
{
public:
    virtual ~SimpleQueue() = default;
    virtual int count() const = 0;
    virtual int capacity() const = 0;
    virtual Status enqueue(SampleBuffer sample) = 0;
    // Whether the consumer is gone for good (the device behind it vanished): nothing
    // enqueued will be taken any more, and frames need a new connection.
    virtual bool isLost() const { return false; }
};

// Nanoseconds of the host clock (CLOCK_MONOTONIC), the time base of presentation times.
std::int64_t hostTimeNanoseconds();

} // namespace vistrel::vcam
