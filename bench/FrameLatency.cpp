#include "bench/FrameLatency.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <gst/gst.h>
#include <gst/video/video.h>

namespace vistrel::bench {

// --- LatencyHistogram ------------------------------------------------------------

namespace {

constexpr std::chrono::nanoseconds kStep = std::chrono::microseconds(100);
constexpr std::size_t kSteps = 20000; // 2 s, then one step for everything longer

} // namespace

LatencyHistogram::LatencyHistogram() : m_steps(kSteps + 1, 0) {}

void LatencyHistogram::add(std::chrono::nanoseconds latency)
{
    latency = std::max(latency, std::chrono::nanoseconds(0));
    ++m_steps[std::min(static_cast<std::size_t>(latency / kStep), kSteps)];
    ++m_count;
    m_max = std::max(m_max, latency);
}

void LatencyHistogram::clear()
{
    std::fill(m_steps.begin(), m_steps.end(), 0);
    m_count = 0;
    m_max = std::chrono::nanoseconds(0);
}

double LatencyHistogram::quantileMs(double q) const
{
    if (m_count == 0)
        return 0;
    const auto rank = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::ceil(q * m_count)));
    std::uint64_t seen = 0;
    for (std::size_t step = 0; step < m_steps.size(); ++step) {
        seen += m_steps[step];
        if (seen >= rank)
            return std::min(static_cast<double>((step + 1) * kStep.count()) / 1e6, maxMs());
    }
    return maxMs();
}

// --- the number drawn into each camera frame ---------------------------------------

namespace {

constexpr int kBlock = 32;  // block side, in camera pixels
constexpr int kMargin = 32; // from the picture's top and left edges
constexpr int kColumns = 5;
constexpr int kRows = 4;
constexpr int kNumberBits = 16;
constexpr std::uint32_t kNumberMask = (1u << kNumberBits) - 1;
constexpr std::size_t kRingSize = 1024; // 34 s of frames at 30 fps; divides 2^16
static_assert((kNumberMask + 1) % kRingSize == 0);
static_assert(kColumns * kRows == kNumberBits + 4);

std::uint32_t checkBits(std::uint32_t number)
{
    return (number ^ (number >> 4) ^ (number >> 8) ^ (number >> 12) ^ 0x9) & 0xF;
}

// The bits drawn: the number's 16, then 4 check bits, so a picture that carries no number
// (black, white, the app's own pictures) is not read as one.
std::uint32_t code(std::uint64_t number)
{
    const auto low = static_cast<std::uint32_t>(number) & kNumberMask;
    return low | (checkBits(low) << kNumberBits);
}

// The top-left corner of bit `bit`'s block, in camera pixels.
int blockX(int bit)
{
    return kMargin + (bit % kColumns) * kBlock;
}

int blockY(int bit)
{
    return kMargin + (bit / kColumns) * kBlock;
}

bool canNumber(const GstVideoInfo &info)
{
    const GstVideoFormatInfo *format = info.finfo;
    return GST_VIDEO_FORMAT_INFO_IS_YUV(format) && GST_VIDEO_FORMAT_INFO_DEPTH(format, 0) == 8
        && !GST_VIDEO_FORMAT_INFO_IS_TILED(format) && GST_VIDEO_INFO_WIDTH(&info) >= kMargin + kColumns * kBlock
        && GST_VIDEO_INFO_HEIGHT(&info) >= kMargin + kRows * kBlock;
}

// Fills one block with black or white: luma 16 or 235, chroma neutral.
void drawBlock(GstVideoFrame &frame, int x, int y, bool white)
{
    const GstVideoFormatInfo *format = frame.info.finfo;
    const guint components = std::min(GST_VIDEO_FRAME_N_COMPONENTS(&frame), 3u); // alpha stays
    for (guint c = 0; c < components; ++c) {
        const std::uint8_t value = c == 0 ? (white ? 235 : 16) : 128;
        const int x0 = GST_VIDEO_FORMAT_INFO_SCALE_WIDTH(format, c, x);
        const int x1 = GST_VIDEO_FORMAT_INFO_SCALE_WIDTH(format, c, x + kBlock);
        const int y0 = GST_VIDEO_FORMAT_INFO_SCALE_HEIGHT(format, c, y);
        const int y1 = GST_VIDEO_FORMAT_INFO_SCALE_HEIGHT(format, c, y + kBlock);
        auto *data = static_cast<std::uint8_t *>(GST_VIDEO_FRAME_COMP_DATA(&frame, c));
        const int stride = GST_VIDEO_FRAME_COMP_STRIDE(&frame, c);
        const int step = GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, c);
        for (int row = y0; row < y1; ++row) {
            std::uint8_t *pixel = data + static_cast<std::ptrdiff_t>(row) * stride + x0 * step;
            for (int column = x0; column < x1; ++column, pixel += step)
                *pixel = value;
        }
    }
}

} // namespace

// The arrivals, written by the camera's thread and read by the main thread. A slot is
// written again only a ring's length of frames later; its number is cleared while its
// time changes, so a reader never pairs a number with another frame's time.
struct FrameLatency::Numbering
{
    struct Arrival
    {
        std::atomic<std::uint64_t> numberPlusOne{0}; // 0: being written or never
        std::atomic<std::int64_t> nanoseconds{0};    // steady clock
    };
    std::array<Arrival, kRingSize> ring;
    std::atomic<std::uint64_t> numbered{0};

    // The camera thread's own.
    GstVideoInfo info{};
    bool canNumber = false;

    void setCaps(GstCaps *caps) { canNumber = gst_video_info_from_caps(&info, caps) && bench::canNumber(info); }

    void arrived(std::uint64_t number, std::chrono::steady_clock::time_point at)
    {
        Arrival &slot = ring[number % kRingSize];
        slot.numberPlusOne.store(0, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        slot.nanoseconds.store(at.time_since_epoch().count(), std::memory_order_relaxed);
        slot.numberPlusOne.store(number + 1, std::memory_order_release);
        numbered.store(number + 1, std::memory_order_relaxed);
    }

    // The full number and arrival of the frame whose code's number is `low`, if the ring
    // still holds it.
    std::optional<std::pair<std::uint64_t, std::chrono::steady_clock::time_point>> arrival(std::uint32_t low) const
    {
        const Arrival &slot = ring[low % kRingSize];
        const std::uint64_t before = slot.numberPlusOne.load(std::memory_order_acquire);
        const std::int64_t nanoseconds = slot.nanoseconds.load(std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_acquire);
        const std::uint64_t after = slot.numberPlusOne.load(std::memory_order_relaxed);
        if (before == 0 || before != after || ((before - 1) & kNumberMask) != low)
            return std::nullopt;
        return std::pair(before - 1,
                         std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(nanoseconds)));
    }
};

namespace {

// On videotestsrc's source pad, in its thread: each buffer gets the next number.
GstPadProbeReturn numberFrame(GstPad *pad, GstPadProbeInfo *info, gpointer data)
{
    FrameLatency::Numbering &numbering = **static_cast<std::shared_ptr<FrameLatency::Numbering> *>(data);
    if (GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) {
        GstEvent *event = GST_PAD_PROBE_INFO_EVENT(info);
        if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
            GstCaps *caps = nullptr;
            gst_event_parse_caps(event, &caps);
            numbering.setCaps(caps);
        }
        return GST_PAD_PROBE_OK;
    }
    const auto now = std::chrono::steady_clock::now();
    if (!numbering.canNumber) {
        // Attached after the caps went by.
        GstCaps *caps = gst_pad_get_current_caps(pad);
        if (!caps)
            return GST_PAD_PROBE_OK;
        numbering.setCaps(caps);
        gst_caps_unref(caps);
        if (!numbering.canNumber)
            return GST_PAD_PROBE_OK;
    }
    // The pool's buffer is ours alone here, so this copies nothing.
    GstBuffer *buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    GstVideoFrame frame;
    if (!gst_video_frame_map(&frame, &numbering.info, buffer, GST_MAP_WRITE))
        return GST_PAD_PROBE_OK;
    const std::uint64_t number = numbering.numbered.load(std::memory_order_relaxed);
    const std::uint32_t bits = code(number);
    for (int bit = 0; bit < kColumns * kRows; ++bit)
        drawBlock(frame, blockX(bit), blockY(bit), (bits >> bit) & 1);
    gst_video_frame_unmap(&frame);
    numbering.arrived(number, now);
    return GST_PAD_PROBE_OK;
}

GstElement *findTestSource(GstElement *element)
{
    if (!GST_IS_BIN(element)) {
        GstElementFactory *factory = gst_element_get_factory(element);
        return factory && g_strcmp0(GST_OBJECT_NAME(factory), "videotestsrc") == 0
            ? GST_ELEMENT(gst_object_ref(element))
            : nullptr;
    }
    GstIterator *elements = gst_bin_iterate_all_by_element_factory_name(GST_BIN(element), "videotestsrc");
    GValue found = G_VALUE_INIT;
    GstElement *source = nullptr;
    if (elements && gst_iterator_next(elements, &found) == GST_ITERATOR_OK) {
        source = GST_ELEMENT(g_value_dup_object(&found));
        g_value_unset(&found);
    }
    if (elements)
        gst_iterator_free(elements);
    return source;
}

} // namespace

// --- FrameLatency ----------------------------------------------------------------

FrameLatency::FrameLatency(QSize cameraSize) : m_cameraSize(cameraSize), m_numbering(std::make_shared<Numbering>()) {}

FrameLatency::~FrameLatency()
{
    if (m_pad) {
        gst_pad_remove_probe(m_pad, m_probe);
        gst_object_unref(m_pad);
    }
}

bool FrameLatency::attach(GstElement *cameraSource)
{
    if (m_pad || !cameraSource)
        return false;
    GstElement *source = findTestSource(cameraSource);
    if (!source)
        return false;
    m_pad = gst_element_get_static_pad(source, "src");
    gst_object_unref(source);
    if (!m_pad)
        return false;
    // The probe holds the numbering too: the camera's thread may outlive this object.
    m_probe = gst_pad_add_probe(
        m_pad, static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
        numberFrame, new std::shared_ptr<Numbering>(m_numbering),
        [](gpointer data) { delete static_cast<std::shared_ptr<Numbering> *>(data); });
    return m_probe != 0;
}

std::optional<std::uint32_t> FrameLatency::readNumber(const std::uint8_t *yuyv, int width, int height) const
{
    std::uint32_t bits = 0;
    for (int bit = 0; bit < kColumns * kRows; ++bit) {
        // The block's centre, scaled as the whole picture is.
        const int x = (blockX(bit) + kBlock / 2) * width / m_cameraSize.width();
        const int y = (blockY(bit) + kBlock / 2) * height / m_cameraSize.height();
        const std::uint8_t luma = yuyv[(static_cast<std::ptrdiff_t>(y) * width + x) * 2];
        if (luma > 170)
            bits |= 1u << bit;
        else if (luma >= 80)
            return std::nullopt; // neither black nor white: no number here
    }
    const std::uint32_t low = bits & kNumberMask;
    if (code(low) != bits)
        return std::nullopt;
    return low;
}

void FrameLatency::written(const std::uint8_t *yuyv, int width, int height, std::chrono::steady_clock::time_point at)
{
    const std::optional<std::uint32_t> low = readNumber(yuyv, width, height);
    const auto arrival = low ? m_numbering->arrival(*low) : std::nullopt;
    if (!arrival) {
        ++m_unmatched;
        return;
    }
    const auto [number, arrivedAt] = *arrival;
    if (m_lastWritten && number <= *m_lastWritten) {
        ++m_repeated;
        return;
    }
    if (m_lastWritten)
        m_dropped += number - *m_lastWritten - 1;
    m_lastWritten = number;
    m_whole.add(at - arrivedAt);
    m_interval.add(at - arrivedAt);
}

void FrameLatency::nextInterval()
{
    m_interval.clear();
    m_droppedBefore = m_dropped;
}

std::uint64_t FrameLatency::framesNumbered() const
{
    return m_numbering->numbered.load(std::memory_order_relaxed);
}

} // namespace vistrel::bench
