#include "vcam/PixelBuffer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace vistrel::vcam {

namespace {
// Cache-line aligned rows suit the vectorised conversions that read these buffers.
constexpr std::size_t kAlignment = 64;

std::size_t alignedRowBytes(int width)
{
    const std::size_t bytes = static_cast<std::size_t>(width) * 4;
    return (bytes + kAlignment - 1) / kAlignment * kAlignment;
}
} // namespace

void PixelBuffer::FreeMemory::operator()(std::uint8_t *memory) const
{
    std::free(memory);
}

PixelBuffer::PixelBuffer(int width, int height)
{
    const std::size_t rowBytes = alignedRowBytes(width);
    const std::size_t size = rowBytes * static_cast<std::size_t>(height);
    auto *memory = static_cast<std::uint8_t *>(std::aligned_alloc(kAlignment, size));
    if (!memory)
        throw std::bad_alloc();
    m_memory.reset(memory);
    m_image = QImage(memory, width, height, static_cast<qsizetype>(rowBytes), QImage::Format_ARGB32_Premultiplied);
    m_image.fill(Qt::black);
}

PixelBufferPool::PixelBufferPool(int width, int height, FourCharCode pixelFormat, int bufferCount)
    : m_pixelFormat(pixelFormat), m_width(width), m_height(height), m_bufferCount(std::max(bufferCount, 0))
{
    m_buffers.reserve(static_cast<std::size_t>(m_bufferCount));
}

std::shared_ptr<PixelBuffer> PixelBufferPool::createPixelBuffer()
{
    // A buffer only the pool holds is free. Round-robin so the buffer just released by
    // the writer is the last to be reused.
    for (std::size_t tried = 0; tried < m_buffers.size(); ++tried) {
        const std::size_t index = (m_next + tried) % m_buffers.size();
        if (m_buffers[index].use_count() == 1) {
            // Pairs with the release of the last other holder: its reads of the pixels
            // are finished before we paint over them.
            std::atomic_thread_fence(std::memory_order_acquire);
            m_next = (index + 1) % m_buffers.size();
            return m_buffers[index];
        }
    }
    // Buffers are made when first needed, so only as many as are really in flight at
    // once take memory (a steady stream keeps two or three of them busy).
    if (bufferCount() >= m_bufferCount)
        return nullptr;
    m_buffers.push_back(std::make_shared<PixelBuffer>(m_width, m_height));
    m_next = 0;
    return m_buffers.back();
}

} // namespace vistrel::vcam
