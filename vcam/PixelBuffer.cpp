#include "vcam/PixelBuffer.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdlib>
#include <mutex>
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

// One buffer of the pool, with room for the shared_ptr control block of the time it is
// out: the counts, the deleter and the allocator below.
struct PixelBufferPool::Slot
{
    static constexpr std::size_t kControlBlockBytes = 64;

    Slot(int width, int height) : buffer(width, height) {}

    PixelBuffer buffer;
    alignas(std::max_align_t) std::byte controlBlock[kControlBlockBytes];
};

// What a buffer that is out needs, also after the pool is gone: the buffers themselves
// and the free list they go back to.
struct PixelBufferPool::Shared
{
    explicit Shared(std::size_t capacity) : freeRing(capacity) { slots.reserve(capacity); }

    // Grows on the pool's thread only; the buffers are freed with the last holder of this.
    std::vector<std::unique_ptr<Slot>> slots;

    // Free slots in the order they came back, the longest free at freeHead. There are
    // never more free slots than made ones, so the ring never overflows.
    std::mutex mutex;
    std::vector<Slot *> freeRing;
    std::size_t freeHead = 0;
    std::size_t freeCount = 0;

    void giveBack(Slot *slot)
    {
        const std::lock_guard lock(mutex);
        freeRing[(freeHead + freeCount) % freeRing.size()] = slot;
        ++freeCount;
    }

    Slot *takeLongestFree()
    {
        const std::lock_guard lock(mutex);
        if (freeCount == 0)
            return nullptr;
        Slot *slot = freeRing[freeHead];
        freeHead = (freeHead + 1) % freeRing.size();
        --freeCount;
        return slot;
    }
};

// Gives the control block of a buffer that is out its slot's storage, and puts the slot
// back on the free list when the standard library hands that storage back: after the
// last shared and weak reference, so a weak_ptr still looking at the block keeps the
// buffer out. The copy the control block keeps holds the shared state, so the storage
// and the list are there for as long as the buffer is out.
template<class T>
class PixelBufferPool::SlotAllocator
{
public:
    using value_type = T;

    SlotAllocator(std::shared_ptr<Shared> shared, Slot *slot) : m_shared(std::move(shared)), m_slot(slot) {}
    template<class U>
    SlotAllocator(const SlotAllocator<U> &other) : m_shared(other.m_shared), m_slot(other.m_slot)
    {}

    T *allocate(std::size_t count)
    {
        static_assert(sizeof(T) <= Slot::kControlBlockBytes && alignof(T) <= alignof(std::max_align_t),
                      "a slot has no room for the standard library's control block");
        assert(count == 1);
        (void)count;
        return reinterpret_cast<T *>(m_slot->controlBlock);
    }

    void deallocate(T *, std::size_t) noexcept { m_shared->giveBack(m_slot); }

    template<class U>
    bool operator==(const SlotAllocator<U> &other) const
    {
        return m_slot == other.m_slot;
    }

private:
    template<class>
    friend class SlotAllocator;

    std::shared_ptr<Shared> m_shared;
    Slot *m_slot;
};

PixelBufferPool::PixelBufferPool(int width, int height, FourCharCode pixelFormat, int bufferCount)
    : m_pixelFormat(pixelFormat), m_width(width), m_height(height),
      m_shared(std::make_shared<Shared>(static_cast<std::size_t>(std::max(bufferCount, 0))))
{}

int PixelBufferPool::bufferCount() const
{
    return static_cast<int>(m_shared->slots.size());
}

std::shared_ptr<PixelBuffer> PixelBufferPool::createPixelBuffer()
{
    Slot *slot = m_shared->takeLongestFree();
    if (!slot) {
        // Buffers are made when first needed, so only as many as are really in flight
        // at once take memory (a steady stream keeps two or three of them busy).
        if (m_shared->slots.size() >= m_shared->freeRing.size())
            return nullptr;
        slot = m_shared->slots.emplace_back(std::make_unique<Slot>(m_width, m_height)).get();
    }
    // The slot owns the buffer; letting go of the last reference only returns the slot.
    return std::shared_ptr<PixelBuffer>(
        &slot->buffer, [](PixelBuffer *) {}, SlotAllocator<PixelBuffer>(m_shared, slot));
}

} // namespace vistrel::vcam
