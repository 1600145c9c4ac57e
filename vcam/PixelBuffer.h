#pragma once
#include "vcam/FourCharCode.h"

#include <QImage>
#include <cstdint>
#include <memory>
#include <vector>

namespace vistrel::vcam {

// One frame's pixels: 32-bit BGRA with premultiplied alpha, rows of bytesPerRow bytes.
// image() paints straight into that memory (QImage's ARGB32_Premultiplied has this
// very layout on little-endian machines).
class PixelBuffer
{
public:
    PixelBuffer(int width, int height);
    PixelBuffer(const PixelBuffer &) = delete;
    PixelBuffer &operator=(const PixelBuffer &) = delete;

    int width() const { return m_image.width(); }
    int height() const { return m_image.height(); }
    qsizetype bytesPerRow() const { return m_image.bytesPerLine(); }
    std::uint8_t *baseAddress() { return m_memory.get(); }
    const std::uint8_t *baseAddress() const { return m_memory.get(); }
    QImage &image() { return m_image; }
    const QImage &image() const { return m_image; }

private:
    struct FreeMemory
    {
        void operator()(std::uint8_t *memory) const;
    };
    std::unique_ptr<std::uint8_t, FreeMemory> m_memory;
    QImage m_image;
};

// At most bufferCount equal pixel buffers, each made the first time no other is free
// and kept from then on. A buffer handed out comes back to the pool when its last
// holder (the queue, the device writer, the preview) lets go, so steady frames cost no
// allocation.
class PixelBufferPool
{
public:
    PixelBufferPool(int width, int height, FourCharCode pixelFormat, int bufferCount);

    // A free buffer, or nothing when every buffer is still held.
    std::shared_ptr<PixelBuffer> createPixelBuffer();

    FourCharCode pixelFormat() const { return m_pixelFormat; }
    // The buffers made so far; never more than the count the pool was made for.
    int bufferCount() const { return static_cast<int>(m_buffers.size()); }

private:
    FourCharCode m_pixelFormat;
    int m_width;
    int m_height;
    int m_bufferCount;
    std::vector<std::shared_ptr<PixelBuffer>> m_buffers;
    std::size_t m_next = 0;
};

} // namespace vistrel::vcam
