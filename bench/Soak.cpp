// Runs the real controller and virtual-camera link against the simulated extension for
// a while and samples what it costs: CPU per interval (the synthetic camera's own
// thread shown apart, as a real camera's driver work is not the app's) and resident
// memory. With the gate closed ("sc=0") this is the idle budget; with it open and the
// extension's reader taking frames it is the streaming one. With a camera it also times
// each camera frame from its arrival to the write of its picture into the device (p50,
// p99 and max; p99 per interval too), against a budget on the p99: one 33 ms frame tick
// plus 5 ms of work. The budget is only printed unless --latency-budget-ms asks for it,
// in which case a run that misses it exits with 1.
//
//   vistrel_soak [--seconds=60] [--interval=10] [--gate=closed|open]
//                [--camera=none|WIDTHxHEIGHT] [--reader-ms=33] [--latency-budget-ms=MS]
#include "SimulatedExtension.h"
#include "TestHome.h"
#include "TestServices.h"
#include "bench/FrameLatency.h"
#include "bench/FramePathHarness.h"
#include "bench/SyntheticCamera.h"
#include "ui/MainWindowController.h"
#include "ui/ViewController.h"
#include "vcam/PixelBuffer.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <gst/gst.h>
#include <memory>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace vistrel::bench {
namespace {

struct Options
{
    int seconds = 60;
    int interval = 10;
    bool gateOpen = false;
    QSize camera; // empty: no camera
    int readerMs = 33;
    double latencyBudgetMs = 38; // p99, camera buffer to device write
    bool latencyBudgetChecked = false;
};

bool parse(const QStringList &arguments, Options &options)
{
    static const QRegularExpression pattern(
        QStringLiteral("^--(seconds|interval|gate|camera|reader-ms|latency-budget-ms)=(.+)$"));
    for (const QString &argument : arguments.mid(1)) {
        const QRegularExpressionMatch match = pattern.match(argument);
        if (!match.hasMatch())
            return false;
        const QString name = match.captured(1), value = match.captured(2);
        bool ok = true;
        if (name == QLatin1String("seconds"))
            options.seconds = value.toInt(&ok);
        else if (name == QLatin1String("interval"))
            options.interval = value.toInt(&ok);
        else if (name == QLatin1String("reader-ms"))
            options.readerMs = value.toInt(&ok);
        else if (name == QLatin1String("latency-budget-ms")) {
            options.latencyBudgetMs = value.toDouble(&ok);
            ok = ok && options.latencyBudgetMs > 0;
            options.latencyBudgetChecked = true;
        } else if (name == QLatin1String("gate"))
            ok = (options.gateOpen = value == QLatin1String("open")) || value == QLatin1String("closed");
        else if (value != QLatin1String("none")) {
            const QStringList size = value.split(QLatin1Char('x'));
            options.camera = QSize(size.value(0).toInt(), size.value(1).toInt());
            ok = size.size() == 2 && !options.camera.isEmpty();
        }
        if (!ok || options.seconds <= 0 || options.interval <= 0 || options.readerMs <= 0)
            return false;
    }
    return true;
}

double cpuSeconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// CPU seconds of this process's threads whose name starts with `prefix`.
double threadCpuSeconds(const QString &prefix)
{
    double seconds = 0;
    const long ticks = sysconf(_SC_CLK_TCK);
    for (const QString &task : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(QStringLiteral("/proc/self/task/%1/comm").arg(task));
        QFile stat(QStringLiteral("/proc/self/task/%1/stat").arg(task));
        if (!comm.open(QIODevice::ReadOnly) || !stat.open(QIODevice::ReadOnly))
            continue;
        if (!QString::fromUtf8(comm.readAll()).startsWith(prefix))
            continue;
        // Fields after the parenthesised name: state is 3rd, utime 14th, stime 15th.
        const QByteArray line = stat.readAll();
        const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 12)
            seconds += static_cast<double>(fields[11].toLongLong() + fields[12].toLongLong()) / ticks;
    }
    return seconds;
}

double residentMegabytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? static_cast<double>(fields[1].toLongLong()) * sysconf(_SC_PAGESIZE) / (1024.0 * 1024.0)
                             : 0;
}

class OneCamera final : public camera::DeviceDiscovery
{
public:
    explicit OneCamera(std::unique_ptr<SyntheticCamera> camera) : m_camera(std::move(camera)) {}
    std::vector<camera::CameraDevice> videoDevices() override
    {
        if (!m_camera)
            return {};
        return {m_camera->device()};
    }

private:
    std::unique_ptr<SyntheticCamera> m_camera;
};

// The device writer's side of the latency: each frame written is read for the number of
// the camera frame it was drawn from.
class LatencyWritingQueue final : public vcam::SimpleQueue
{
public:
    LatencyWritingQueue(std::shared_ptr<YuyvWritingQueue> writing, FrameLatency &latency)
        : m_writing(std::move(writing)), m_latency(latency)
    {}
    int count() const override { return m_writing->count(); }
    int capacity() const override { return m_writing->capacity(); }
    vcam::Status enqueue(vcam::SampleBuffer sample) override
    {
        const int width = sample.imageBuffer->width(), height = sample.imageBuffer->height();
        const vcam::Status status = m_writing->enqueue(std::move(sample));
        const auto writtenAt = std::chrono::steady_clock::now();
        if (status == 0)
            m_latency.written(m_writing->lastFrame().data(), width, height, writtenAt);
        return status;
    }

private:
    std::shared_ptr<YuyvWritingQueue> m_writing;
    FrameLatency &m_latency;
};

// The synthetic camera's frames are made by videotestsrc in a thread of its own (the
// queue), so their cost can be told apart from the app's.
constexpr const char *kCameraThreadPrefix = "videotestsrc";
constexpr const char *kReaderThreadName = "camera-reader";

int run(const Options &options)
{
    FrameLatency latency(options.camera); // outlives the queue and the camera that feed it
    std::unique_ptr<SyntheticCamera> camera;
    if (!options.camera.isEmpty()) {
        camera = std::make_unique<SyntheticCamera>(
            QStringLiteral("Synthetic camera"),
            QStringLiteral("videotestsrc is-live=true pattern=ball ! video/x-raw,format=YUY2,width=%1,height=%2,"
                           "framerate=30/1,colorimetry=bt601 ! queue max-size-buffers=2 leaky=downstream")
                .arg(options.camera.width())
                .arg(options.camera.height()));
    }
    SyntheticCamera *const syntheticCamera = camera.get();
    OneCamera discovery(std::move(camera));
    test::SimulatedExtension extension;
    extension.justAnswer = options.gateOpen ? QStringLiteral("sc=1") : QStringLiteral("sc=0");
    // The device writer's YUYV conversion is the app's work too.
    extension.wrapQueue = [&latency](std::shared_ptr<vcam::SimpleQueue> queue) {
        return std::make_shared<LatencyWritingQueue>(std::make_shared<YuyvWritingQueue>(std::move(queue)), latency);
    };
    test::TestServices env;
    env.services.cameraDiscovery = &discovery;
    env.services.virtualCamera = &extension;

    MainWindowController *windowController =
        instantiateMainInterface(env.services, QStringLiteral(VISTREL_SOURCE_DIR "/resources/Main.ui"));
    if (!windowController)
        return 2;
    std::unique_ptr<QWidget> window(windowController->window());
    ViewController *controller = windowController->contentViewController();
    controller->startVirtualCameraLink();
    // The camera's element is made as its capture starts; its frames are numbered from then.
    const auto numberCameraFrames = [&] {
        if (syntheticCamera)
            latency.attach(syntheticCamera->lastSource());
    };
    numberCameraFrames();
    if (extension.queue) {
        // The reader is the consumer's work, not the app's: started from a thread named
        // for it, it inherits that name and is counted apart.
        std::thread([&] {
            pthread_setname_np(pthread_self(), kReaderThreadName);
            extension.queue->startReader(std::chrono::milliseconds(options.readerMs));
        }).join();
    }

    std::printf(
        "# gate %s, camera %s, %d s, reader every %d ms\n", options.gateOpen ? "open (sc=1)" : "closed (sc=0)",
        options.camera.isEmpty()
            ? "none"
            : qPrintable(QStringLiteral("%1x%2 YUYV 30 fps").arg(options.camera.width()).arg(options.camera.height())),
        options.seconds, options.readerMs);
    std::printf("%8s %10s %12s %12s %10s %9s %9s %8s\n", "time s", "app CPU %", "camera CPU %", "reader CPU %",
                "RSS MB", "frames", "p99 ms", "dropped");
    std::fflush(stdout);

    struct Sample
    {
        double wall, process, camera, reader;
    };
    const auto sample = [](double wall) {
        return Sample{wall, cpuSeconds(CLOCK_PROCESS_CPUTIME_ID), threadCpuSeconds(QLatin1String(kCameraThreadPrefix)),
                      threadCpuSeconds(QLatin1String(kReaderThreadName))};
    };
    QElapsedTimer clock;
    clock.start();
    Sample previous = sample(0);
    double firstRss = 0, peakRss = 0, lastRss = 0, appPercentAfterWarmUp = 0;
    int intervals = 0;
    std::optional<double> firstP99, lastP99; // of the first and last intervals that wrote frames

    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        const Sample now = sample(clock.elapsed() / 1000.0);
        const double span = now.wall - previous.wall;
        const double cameraPercent = 100 * (now.camera - previous.camera) / span;
        const double readerPercent = 100 * (now.reader - previous.reader) / span;
        const double appPercent = 100 * (now.process - previous.process) / span - cameraPercent - readerPercent;
        lastRss = residentMegabytes();
        if (++intervals == 1)
            firstRss = lastRss;
        else
            appPercentAfterWarmUp += appPercent; // the first interval holds the start-up
        peakRss = std::max(peakRss, lastRss);
        const LatencyHistogram &written = latency.interval();
        const QByteArray p99 = written.count() > 0 ? QByteArray::number(written.quantileMs(0.99), 'f', 1) : "-";
        if (written.count() > 0) {
            lastP99 = written.quantileMs(0.99);
            if (!firstP99)
                firstP99 = lastP99;
        }
        std::printf("%8.0f %10.2f %12.2f %12.2f %10.1f %9d %9s %8llu\n", now.wall, appPercent, cameraPercent,
                    readerPercent, lastRss, extension.queue ? extension.queue->framesTaken() : 0, p99.constData(),
                    static_cast<unsigned long long>(latency.framesDroppedInInterval()));
        std::fflush(stdout);
        latency.nextInterval();
        numberCameraFrames(); // when the camera had not started yet
        previous = now;
        if (now.wall + options.interval / 2.0 >= options.seconds)
            QCoreApplication::quit();
    });
    sampler.start(options.interval * 1000);
    QCoreApplication::exec();
    if (extension.queue)
        extension.queue->stopReader();

    const double steadyPercent = intervals > 1 ? appPercentAfterWarmUp / (intervals - 1) : 0;
    std::printf("# app CPU after the first interval: %.2f %% of one core\n", steadyPercent);
    std::printf("# RSS: %.1f MB after the first interval, %.1f MB at the end, %.1f MB at most (growth %+.1f MB)\n",
                firstRss, lastRss, peakRss, lastRss - firstRss);
    std::printf("# frames taken by the reader: %d\n", extension.queue ? extension.queue->framesTaken() : 0);
    if (options.camera.isEmpty())
        return 0;

    const LatencyHistogram &whole = latency.whole();
    const bool met = whole.count() > 0 && whole.quantileMs(0.99) <= options.latencyBudgetMs;
    std::printf("# latency from camera buffer to device write over %d frames: p50 %.1f ms, p99 %.1f ms, max %.1f ms "
                "(p99 of the first interval %.1f ms, of the last %.1f ms); budget p99 <= %g ms: %s%s\n",
                whole.count(), whole.quantileMs(0.5), whole.quantileMs(0.99), whole.maxMs(), firstP99.value_or(0),
                lastP99.value_or(0), options.latencyBudgetMs,
                whole.count() == 0 ? "no frame written" : (met ? "met" : "missed"),
                options.latencyBudgetChecked ? "" : " (informational)");
    std::printf("# camera frames never written: %llu of %llu; pictures written again: %llu (counted once); "
                "frames written without a known camera frame: %llu\n",
                static_cast<unsigned long long>(latency.framesDropped()),
                static_cast<unsigned long long>(latency.framesNumbered()),
                static_cast<unsigned long long>(latency.writesRepeated()),
                static_cast<unsigned long long>(latency.writesUnmatched()));
    return options.latencyBudgetChecked && !met ? 1 : 0;
}

} // namespace
} // namespace vistrel::bench

int main(int argc, char **argv)
{
    // Settings and the trace file go to a private HOME, never the user's.
    QTemporaryDir home(QDir::tempPath() + QStringLiteral("/vistrel-soak-home-XXXXXX"));
    if (!home.isValid())
        return 2;
    vistrel::test::useHome(home.path());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    gst_init(&argc, &argv);
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    vistrel::bench::Options options;
    if (!vistrel::bench::parse(QCoreApplication::arguments(), options)) {
        std::fprintf(stderr,
                     "usage: vistrel_soak [--seconds=60] [--interval=10] [--gate=closed|open] "
                     "[--camera=none|WIDTHxHEIGHT] [--reader-ms=33] [--latency-budget-ms=MS]\n");
        return 2;
    }
    return vistrel::bench::run(options);
}
