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
// holder (the queue, the device writer, the preview) lets go, and the one given back
// longest ago is handed out first, so the buffer the writer has just finished with is
// the last to be painted over. Each buffer keeps the storage of its own shared_ptr
// bookkeeping, so steady frames cost no allocation.
//
// Threads: the pool itself (making it, createPixelBuffer, pixelFormat, bufferCount,
// destroying it) belongs to the one thread that draws frames. The buffers it hands out
// may be copied to and let go on any thread; the free list they return to is locked,
// and that lock also hands the releasing thread's pixels to the next taker. Buffers
// still held when the pool goes stay valid and are freed once the last of them is let
// go.
class PixelBufferPool
{
public:
    PixelBufferPool(int width, int height, FourCharCode pixelFormat, int bufferCount);

    // A free buffer, or nothing when every buffer is still held.
    std::shared_ptr<PixelBuffer> createPixelBuffer();

    FourCharCode pixelFormat() const { return m_pixelFormat; }
    // The buffers made so far; never more than the count the pool was made for.
    int bufferCount() const;

private:
    struct Slot;
    struct Shared;
    template<class T>
    class SlotAllocator;

    FourCharCode m_pixelFormat;
    int m_width;
    int m_height;
    // The buffers and their free list, also held by every buffer that is out.
    std::shared_ptr<Shared> m_shared;
};

} // namespace vistrel::vcam
