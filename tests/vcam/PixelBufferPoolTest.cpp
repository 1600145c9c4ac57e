#include "vcam/PixelBuffer.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <new>
#include <thread>
#include <vector>

// Every operator new of this test program counts on the calling thread, so a test can
// tell that a stretch of its own code allocated nothing. The array and nothrow forms
// of the standard library come through these.
namespace {
thread_local std::size_t t_allocations = 0;
} // namespace

void *operator new(std::size_t size)
{
    ++t_allocations;
    if (void *memory = std::malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

void *operator new(std::size_t size, std::align_val_t alignment)
{
    ++t_allocations;
    const auto align = static_cast<std::size_t>(alignment);
    if (void *memory = std::aligned_alloc(align, (size + align - 1) / align * align))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace vistrel::vcam {
namespace {

QRgb pixel(const PixelBuffer &buffer)
{
    return buffer.image().pixel(0, 0);
}

TEST(PixelBufferPoolTest, LendsAtMostItsCountReusesTheLongestFreeFirstAndAllocatesNothingOnceMade)
{
    PixelBufferPool pool(8, 4, codes::pixelFormatBGRA, 3);

    // A free buffer is handed out again before another is made.
    const PixelBuffer *first = pool.createPixelBuffer().get();
    EXPECT_EQ(pool.createPixelBuffer().get(), first);
    EXPECT_EQ(pool.bufferCount(), 1);

    std::vector<std::shared_ptr<PixelBuffer>> held;
    while (auto buffer = pool.createPixelBuffer())
        held.push_back(std::move(buffer));
    ASSERT_EQ(held.size(), 3u); // at most three, then nothing

    // Given back middle, last, first: they come out again in that order.
    const PixelBuffer *released[] = {held[1].get(), held[2].get(), held[0].get()};
    held[1].reset();
    held[2].reset();
    held[0].reset();
    for (const PixelBuffer *expected : released) {
        auto buffer = pool.createPixelBuffer();
        EXPECT_EQ(buffer.get(), expected);
        held.push_back(std::move(buffer));
    }
    held.clear();

    // The frame path: two frames in flight (queue and writer), a new one each tick, and
    // the preview keeping a copy of the latest.
    std::shared_ptr<PixelBuffer> inFlight[2];
    std::shared_ptr<PixelBuffer> preview;
    bool everyTickHadOne = true;
    const std::size_t before = t_allocations;
    for (int tick = 0; tick < 1000; ++tick) {
        auto buffer = pool.createPixelBuffer();
        everyTickHadOne = everyTickHadOne && buffer;
        preview = buffer;
        inFlight[tick % 2] = std::move(buffer);
    }
    const std::size_t allocations = t_allocations - before;
    EXPECT_TRUE(everyTickHadOne);
    EXPECT_EQ(allocations, 0u);
    EXPECT_EQ(pool.bufferCount(), 3);
}

TEST(PixelBufferPoolTest, BuffersComeBackFromOtherThreadsAndOutliveThePool)
{
    // Big enough that its pixels are a mapping of their own: touching them once freed
    // faults rather than reading stale memory.
    auto pool = std::make_unique<PixelBufferPool>(640, 480, codes::pixelFormatBGRA, 1);

    // The writer paints and lets go; its pixels are there for the next taker, who does
    // not wait for the thread to end.
    auto buffer = pool->createPixelBuffer();
    const PixelBuffer *lent = buffer.get();
    std::thread writer([held = std::move(buffer)]() mutable {
        held->image().fill(Qt::red);
        held.reset();
    });
    std::shared_ptr<PixelBuffer> again;
    while (!(again = pool->createPixelBuffer()))
        std::this_thread::yield();
    EXPECT_EQ(again.get(), lent);
    EXPECT_EQ(pixel(*again), qRgb(255, 0, 0));
    writer.join();

    // The pool goes while a buffer is held: the buffer stays whole, and its last holder
    // (here on another thread) frees it.
    pool.reset();
    again->image().fill(Qt::blue);
    EXPECT_EQ(pixel(*again), qRgb(0, 0, 255));
    std::weak_ptr<PixelBuffer> watch = again;
    std::thread([last = std::move(again)]() mutable { last.reset(); }).join();
    EXPECT_TRUE(watch.expired());
}

} // namespace
} // namespace vistrel::vcam
