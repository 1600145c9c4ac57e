#pragma once
#include <QByteArray>
#include <cstddef>
#include <linux/videodev2.h>
#include <memory>
#include <sys/types.h>

namespace vistrel::vcam {

// Every call the loopback backend makes on a device node, one function per request it
// uses. kernel() makes them for real; tests stand in for a v4l2loopback module the
// machine may not have, behaving as one release or another (or misbehaving: a write
// that fails, or never returns). Each call answers as the system call does: -1 with
// errno set on failure; the ioctl-based ones are retried on EINTR. Calls may come from
// any thread.
class VideoDeviceIo
{
public:
    virtual ~VideoDeviceIo() = default;

    virtual int open(const QByteArray &path, int flags) = 0;
    virtual int queryCapabilities(int fd, v4l2_capability &capability) = 0; // VIDIOC_QUERYCAP
    virtual int setParameters(int fd, v4l2_streamparm &parameters) = 0;     // VIDIOC_S_PARM
    virtual int setFormat(int fd, v4l2_format &format) = 0;                 // VIDIOC_S_FMT
    // The output stream: VIDIOC_STREAMON / VIDIOC_STREAMOFF.
    virtual int streamOn(int fd) = 0;
    virtual int streamOff(int fd) = 0;
    virtual int subscribeEvent(int fd, v4l2_event_subscription &subscription) = 0; // VIDIOC_SUBSCRIBE_EVENT
    virtual int dequeueEvent(int fd, v4l2_event &event) = 0;                       // VIDIOC_DQEVENT
    virtual ssize_t write(int fd, const void *data, std::size_t size) = 0;
    virtual int close(int fd) = 0;

    static std::shared_ptr<VideoDeviceIo> kernel();
};

} // namespace vistrel::vcam
