// The frame path, stage by stage and whole, on synthetic camera frames:
//   Intake      camera buffer -> picture (decoding, conversion, wrapping), all threads
//   Tick        one frame tick: pool buffer, 1280x720 stretch, enqueue (main thread)
//   BgraToYuyv  the device writer's conversion of one pool buffer
//   FramePath   all of it in the real controller, camera buffer to YUYV, all threads
// CPU time is per frame; items_per_second is frames per CPU second, i.e. the frame
// rate one core sustains.
#include "bench/FramePathHarness.h"
#include "bench/SyntheticCamera.h"
#include "vcam/FrameSize.h"
#include "vcam/PixelBuffer.h"
#include "vcam/VirtualCameraLink.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <QApplication>
#include <QStringList>
#include <benchmark/benchmark.h>
#include <ext/stdio_filebuf.h>
#include <fcntl.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <iostream>
#include <libyuv.h>
#include <map>
#include <unistd.h>
#include <vector>

namespace vistrel::bench {
namespace {

const std::vector<FrameKind> &cameraKinds()
{
    static const std::vector<FrameKind> kinds = [] {
        std::vector<FrameKind> all;
        for (CameraFormat format : {CameraFormat::YUY2, CameraFormat::NV12, CameraFormat::I420, CameraFormat::MJPEG})
            for (auto [width, height] : {std::pair{640, 480}, std::pair{1280, 720}, std::pair{1920, 1080}})
                all.push_back(FrameKind{format, width, height});
        return all;
    }();
    return kinds;
}

// Frames read from a file given on the command line replace the synthetic ones of the
// same kind, so the comparison with other tools runs on the very same pixels.
// Where FramePath leaves its last output frame (--output-frame), if anywhere.
QString &outputFramePath()
{
    static QString path;
    return path;
}

std::map<QString, SamplePtr> &frameOverrides()
{
    static std::map<QString, SamplePtr> overrides;
    return overrides;
}

SamplePtr cameraSample(const FrameKind &kind)
{
    static std::map<QString, SamplePtr> made;
    const QString name = kindName(kind);
    if (auto given = frameOverrides().find(name); given != frameOverrides().end())
        return given->second;
    SamplePtr &sample = made[name];
    if (!sample)
        sample = makeCameraSample(kind);
    return sample;
}

// The picture the intake makes of a 4:2:2 camera frame of this size.
QImage cameraPicture(int width, int height)
{
    const SamplePtr sample = cameraSample(FrameKind{CameraFormat::YUY2, width, height});
    CaptureIntake intake(gst_sample_get_caps(sample.get()));
    return intake.deliver(gst_sample_get_buffer(sample.get()));
}

void countFrames(benchmark::State &state)
{
    state.SetItemsProcessed(state.iterations());
}

void benchIntake(benchmark::State &state, FrameKind kind)
{
    const SamplePtr sample = cameraSample(kind);
    if (!sample)
        return state.SkipWithError("no camera frame");
    CaptureIntake intake(gst_sample_get_caps(sample.get()));
    GstBuffer *frame = gst_sample_get_buffer(sample.get());
    QImage picture = intake.deliver(frame); // caps negotiation happens here, untimed
    if (picture.isNull())
        return state.SkipWithError("the intake made no picture");
    for (auto _ : state) {
        picture = intake.deliver(frame);
        if (picture.isNull())
            return state.SkipWithError("the intake made no picture");
    }
    // The app's pictures: the camera's size, shrunk to the virtual camera's frame if larger.
    if (picture.size() != QSize(kind.width, kind.height).boundedTo(QSize(vcam::kFrameWidth, vcam::kFrameHeight)))
        return state.SkipWithError("the picture does not have the camera's size, bounded by the frame's");
    countFrames(state);
}

// One tick, timed; the simulated reader taking its frame is not Vistrel's work.
bool tickThenConsumeUntimed(benchmark::State &state, LinkedController &link)
{
    if (!link.tick()) {
        state.SkipWithError("the tick sent no frame");
        return false;
    }
    state.PauseTiming();
    link.consumeFrame();
    state.ResumeTiming();
    return true;
}

void benchTick(benchmark::State &state, int width, int height, bool mirror)
{
    const QImage picture = cameraPicture(width, height);
    if (picture.isNull())
        return state.SkipWithError("no camera picture");
    LinkedController link;
    link.controller().link().setCurrentImage(picture);
    link.controller().link().setMirrorCamera(mirror);
    for (auto _ : state) {
        if (!tickThenConsumeUntimed(state, link))
            return;
    }
    countFrames(state);
}

void benchBgraToYuyv(benchmark::State &state)
{
    vcam::PixelBuffer buffer(1280, 720);
    buffer.image().fill(QColor(200, 120, 40));
    std::vector<std::uint8_t> yuyv(vcam::yuyvFrameBytes(buffer.width(), buffer.height()));
    vcam::BgraToYuyvConverter converter;
    for (auto _ : state) {
        converter.convert(buffer, yuyv.data());
        benchmark::DoNotOptimize(yuyv.data());
        benchmark::ClobberMemory();
    }
    countFrames(state);
}

// The floor: only the work no 1080p -> 720p YUYV path can avoid, done with libyuv on
// planes it is handed, one filtered scale and one packing to YUYV (plus the unpacking a
// packed YUYV camera frame needs first), with libyuv's bilinear or box filter. No
// capture, no picture, no pool buffer.
void benchFloor(benchmark::State &state, GstVideoFormat format, libyuv::FilterMode filter)
{
    constexpr int sw = 1920, sh = 1080, dw = vcam::kFrameWidth, dh = vcam::kFrameHeight;
    // The camera frame: a luma ramp with fine vertical stripes and flat chroma.
    std::vector<std::uint8_t> y(sw * sh), u(sw / 2 * sh), v(sw / 2 * sh), yuy2(sw * 2 * sh);
    for (int row = 0; row < sh; ++row)
        for (int col = 0; col < sw; ++col)
            y[row * sw + col] = static_cast<std::uint8_t>(16 + (row / 5 + (col % 3) * 60) % 219);
    std::fill(u.begin(), u.end(), 100);
    std::fill(v.begin(), v.end(), 150);
    libyuv::I422ToYUY2(y.data(), sw, u.data(), sw / 2, v.data(), sw / 2, yuy2.data(), sw * 2, sw, sh);
    std::vector<std::uint8_t> uv(sw * sh / 2);
    libyuv::MergeUVPlane(u.data(), sw / 2, v.data(), sw / 2, uv.data(), sw, sw / 2, sh / 2);

    std::vector<std::uint8_t> dy(dw * dh), du(dw / 2 * dh), dv(dw / 2 * dh), duv(dw * dh / 2);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(dw) * 2 * dh);
    for (auto _ : state) {
        switch (format) {
        case GST_VIDEO_FORMAT_YUY2:
            libyuv::YUY2ToI422(yuy2.data(), sw * 2, y.data(), sw, u.data(), sw / 2, v.data(), sw / 2, sw, sh);
            libyuv::I422Scale(y.data(), sw, u.data(), sw / 2, v.data(), sw / 2, sw, sh, dy.data(), dw, du.data(),
                              dw / 2, dv.data(), dw / 2, dw, dh, filter);
            libyuv::I422ToYUY2(dy.data(), dw, du.data(), dw / 2, dv.data(), dw / 2, out.data(), dw * 2, dw, dh);
            break;
        case GST_VIDEO_FORMAT_NV12:
            libyuv::NV12Scale(y.data(), sw, uv.data(), sw, sw, sh, dy.data(), dw, duv.data(), dw, dw, dh, filter);
            libyuv::SplitUVPlane(duv.data(), dw, du.data(), dw / 2, dv.data(), dw / 2, dw / 2, dh / 2);
            libyuv::I420ToYUY2(dy.data(), dw, du.data(), dw / 2, dv.data(), dw / 2, out.data(), dw * 2, dw, dh);
            break;
        default: // I420
            libyuv::I420Scale(y.data(), sw, u.data(), sw / 2, v.data(), sw / 2, sw, sh, dy.data(), dw, du.data(),
                              dw / 2, dv.data(), dw / 2, dw, dh, filter);
            libyuv::I420ToYUY2(dy.data(), dw, du.data(), dw / 2, dv.data(), dw / 2, out.data(), dw * 2, dw, dh);
            break;
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    countFrames(state);
}

void benchFramePath(benchmark::State &state, FrameKind kind)
{
    const SamplePtr sample = cameraSample(kind);
    if (!sample)
        return state.SkipWithError("no camera frame");
    LinkedController link(LinkedController::FrameWriting::Yuyv);
    if (!link.startCamera(gst_sample_get_caps(sample.get())))
        return state.SkipWithError("the capture session did not start");
    GstBuffer *frame = gst_sample_get_buffer(sample.get());
    if (!link.deliverCameraFrame(frame) || !link.tick())
        return state.SkipWithError("the first frame did not go through");
    link.consumeFrame();
    for (auto _ : state) {
        if (!link.deliverCameraFrame(frame))
            return state.SkipWithError("the camera frame did not become the picture");
        if (!tickThenConsumeUntimed(state, link))
            return;
    }
    countFrames(state);
    if (!outputFramePath().isEmpty() && !link.writeLastFrame(outputFramePath()))
        state.SkipWithError("the output frame could not be written");
}

void registerBenchmarks()
{
    for (const FrameKind &kind : cameraKinds()) {
        const QByteArray name = ("Intake/" + kindName(kind)).toUtf8();
        benchmark::RegisterBenchmark(name.constData(), benchIntake, kind)
            ->MeasureProcessCPUTime()
            ->Unit(benchmark::kMillisecond);
    }
    for (auto [width, height] : {std::pair{640, 480}, std::pair{1280, 720}, std::pair{1920, 1080}}) {
        for (bool mirror : {false, true}) {
            const QByteArray name =
                QStringLiteral("Tick%1/%2x%3").arg(mirror ? "Mirrored" : "").arg(width).arg(height).toUtf8();
            benchmark::RegisterBenchmark(name.constData(), benchTick, width, height, mirror)
                ->Unit(benchmark::kMillisecond);
        }
    }
    benchmark::RegisterBenchmark("BgraToYuyv/1280x720", benchBgraToYuyv)->Unit(benchmark::kMillisecond);
    for (auto [format, formatName] :
         {std::pair{GST_VIDEO_FORMAT_YUY2, "YUY2"}, std::pair{GST_VIDEO_FORMAT_NV12, "NV12"},
          std::pair{GST_VIDEO_FORMAT_I420, "I420"}}) {
        for (auto [filter, filterName] :
             {std::pair{libyuv::kFilterBilinear, "bilinear"}, std::pair{libyuv::kFilterBox, "box"}}) {
            const QByteArray name = QStringLiteral("Floor/%1/1920x1080/%2").arg(formatName, filterName).toUtf8();
            benchmark::RegisterBenchmark(name.constData(), benchFloor, format, filter)->Unit(benchmark::kMillisecond);
        }
    }
    for (const FrameKind &kind : cameraKinds()) {
        const QByteArray name = ("FramePath/" + kindName(kind)).toUtf8();
        benchmark::RegisterBenchmark(name.constData(), benchFramePath, kind)
            ->MeasureProcessCPUTime()
            ->Unit(benchmark::kMillisecond);
    }
}

// --raw-frame=FORMAT:WIDTHxHEIGHT:PATH (FORMAT YUY2, NV12, I420 or MJPEG; for MJPEG the
// file's first JPEG), repeatable, and
// --output-frame=PATH (FramePath writes its last 1280x720 YUYV output frame there).
// Answers false, after saying why, for an argument it cannot use.
bool takeRawFrameArguments(int &argc, char **argv)
{
    const QByteArray prefix = "--raw-frame=";
    const QByteArray outputPrefix = "--output-frame=";
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        const QByteArray argument = argv[i];
        if (argument.startsWith(outputPrefix)) {
            outputFramePath() = QString::fromLocal8Bit(argument.mid(outputPrefix.size()));
            continue;
        }
        if (!argument.startsWith(prefix)) {
            argv[kept++] = argv[i];
            continue;
        }
        const QStringList parts = QString::fromLocal8Bit(argument.mid(prefix.size())).split(QLatin1Char(':'));
        const QStringList size = parts.value(1).split(QLatin1Char('x'));
        std::optional<FrameKind> kind;
        for (const FrameKind &candidate : cameraKinds())
            if (parts.size() >= 3 && parts[0] == QLatin1String(formatName(candidate.format)) && size.size() == 2
                && size[0].toInt() == candidate.width && size[1].toInt() == candidate.height)
                kind = candidate;
        const QString path = parts.mid(2).join(QLatin1Char(':'));
        SamplePtr sample = kind ? readRawFrame(path, *kind) : nullptr;
        if (!sample) {
            fprintf(stderr,
                    "vistrel_bench: cannot use %s (want FORMAT:WIDTHxHEIGHT:PATH with a raw YUY2, NV12 or I420 "
                    "file of at least one frame, or an MJPEG file starting with a whole JPEG, in one of the "
                    "benchmarked sizes)\n",
                    argument.constData());
            return false;
        }
        frameOverrides()[kindName(*kind)] = std::move(sample);
    }
    argc = kept;
    argv[argc] = nullptr;
    return true;
}

// The controller's console lines ("showMessage ...") go to standard output; they
// would interleave with the report. The report keeps the real standard output, the
// program's own lines go to /dev/null.
void keepStandardOutputForTheReport()
{
    std::fflush(stdout);
    const int report = ::dup(STDOUT_FILENO);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (report < 0 || null < 0)
        return;
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
    static __gnu_cxx::stdio_filebuf<char> reportBuffer(report, std::ios::out);
    std::cout.rdbuf(&reportBuffer);
}

} // namespace
} // namespace vistrel::bench

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    gst_init(&argc, &argv);
    QApplication app(argc, argv);
    if (!vistrel::bench::takeRawFrameArguments(argc, argv))
        return 2;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    vistrel::bench::registerBenchmarks();
    vistrel::bench::keepStandardOutputForTheReport();
    benchmark::RunSpecifiedBenchmarks();
    std::cout.flush();
    benchmark::Shutdown();
    return 0;
}
