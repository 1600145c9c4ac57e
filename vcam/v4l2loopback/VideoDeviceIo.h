#pragma once
#include <QByteArray>
#include <cstddef>
#include <memory>
#include <sys/types.h>

namespace vistrel::vcam {

// The system calls the loopback sink makes on its device node. kernel() makes them for
// real; tests stand in for a v4l2loopback module the machine may not have (or one that
// misbehaves: a write that fails, or never returns). Each call answers as the system
// call does: -1 with errno set on failure. Calls may come from any thread.
class VideoDeviceIo
{
public:
    virtual ~VideoDeviceIo() = default;

    virtual int open(const QByteArray &path, int flags) = 0;
    virtual int ioctl(int fd, unsigned long request, void *argument) = 0;
    virtual ssize_t write(int fd, const void *data, std::size_t size) = 0;
    virtual int close(int fd) = 0;

    static std::shared_ptr<VideoDeviceIo> kernel();
};

} // namespace vistrel::vcam
