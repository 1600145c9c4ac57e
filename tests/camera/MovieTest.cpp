// The movie source with real files made at run time: forwards then backwards at each
// end, failed and stalled files back to the camera, stop, a second file, and what
// users choose that is not a playable movie.
#include "ControllerFixture.h"
#include "TestHome.h"

#include "camera/MoviePlayer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace vistrel::test {
namespace {

const QStringList kH264 = {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"};

// Opens a named pipe for writing once `go` is called, or by itself after a delay, so
// that code which wrongly waits on the pipe's reading end is let go (the test then
// fails on time instead of hanging). Writes `content` to the first reader; later
// readers, until the writer goes, find the pipe empty.
class PipeWriter
{
public:
    PipeWriter(QString path, QByteArray content, std::chrono::milliseconds delay)
        : m_thread([this, path = std::move(path), content = std::move(content), delay]() mutable {
              {
                  std::unique_lock lock(m_mutex);
                  m_wake.wait_for(lock, delay, [this] { return m_go || m_stop; });
              }
              const QByteArray name = QFile::encodeName(path);
              for (;;) {
                  // Non-blocking: succeeds only while someone has the reading end open.
                  const int fd = ::open(name.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                  if (fd >= 0) {
                      ::fcntl(fd, F_SETFL, 0);
                      for (qsizetype done = 0; done < content.size();) {
                          const ssize_t n = ::write(fd, content.constData() + done, size_t(content.size() - done));
                          if (n <= 0)
                              break;
                          done += n;
                      }
                      ::close(fd);
                      content.clear();
                  }
                  std::unique_lock lock(m_mutex);
                  if (m_wake.wait_for(lock, std::chrono::milliseconds(20), [this] { return m_stop; }))
                      return;
              }
          })
    {
    }
    ~PipeWriter()
    {
        {
            std::lock_guard lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_all();
        m_thread.join();
    }
    void go()
    {
        {
            std::lock_guard lock(m_mutex);
            m_go = true;
        }
        m_wake.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_go = false;
    bool m_stop = false;
    std::thread m_thread;
};

// The longest the event loop went without turning while `busy` was watched.
class LoopWatch
{
public:
    LoopWatch()
    {
        QObject::connect(&m_tick, &QTimer::timeout, [this] {
            m_longest = std::max(m_longest, m_sinceLast.restart());
        });
        m_sinceLast.start();
        m_tick.start(10);
    }
    qint64 longestGapMs()
    {
        m_longest = std::max(m_longest, m_sinceLast.elapsed());
        return m_longest;
    }

private:
    QTimer m_tick;
    QElapsedTimer m_sinceLast;
    qint64 m_longest = 0;
};

class MovieSourceTest : public ControllerFixture
{
protected:
    static void SetUpTestSuite() { s_movies = new QTemporaryDir; }
    static void TearDownTestSuite() { delete s_movies; }

    static QString movie(const QString &name, const QStringList &codec = kH264)
    {
        const QString path = QDir(s_movies->path()).filePath(name);
        return QFile::exists(path) ? path : ColourMovies::make(s_movies->path(), name, codec, 0.5);
    }

    void SetUp() override
    {
        ControllerFixture::SetUp();
        startCamera();
        choose(indexOf(TestCameraProvider::kStudioCameraName, 0));
        ASSERT_TRUE(waitForColour(QStringLiteral("red")));
    }

    // Through the window's "Open Movie…" button and the file chooser.
    void open(const QString &path)
    {
        ASSERT_FALSE(path.isEmpty()) << "ffmpeg could not make the movie";
        dialogs.answer = path;
        const auto previous = vc->playerItem;
        window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
        ASSERT_TRUE(QTest::qWaitFor([&] { return vc->playerItem && vc->playerItem != previous; }, 1000));
    }

    // The movie colours seen, one per run of equal pictures, until `count` runs or the time is up.
    QStringList watchMovieColours(int count, int timeoutMs)
    {
        QStringList runs;
        QTimer sampler;
        QObject::connect(&sampler, &QTimer::timeout, [&] {
            const QString colour = pictureColour();
            if (ColourMovies::kColourOrder.contains(colour) && (runs.isEmpty() || runs.last() != colour))
                runs << colour;
        });
        sampler.start(5);
        (void)QTest::qWaitFor([&] { return runs.size() >= count; }, timeoutMs);
        return runs;
    }

    // Through the window's button like open(), for files that may be refused: waits for
    // a new player item or a new alert.
    void chooseMovie(const QString &path)
    {
        dialogs.answer = path;
        const auto previous = vc->playerItem;
        const auto alerts = env.alerts.shown.size();
        window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
        (void)QTest::qWaitFor(
            [&] { return (vc->playerItem && vc->playerItem != previous) || env.alerts.shown.size() > alerts; }, 3000);
    }

    static inline QTemporaryDir *s_movies = nullptr;
};

// Turns at both ends, and Stop goes back to the camera. The container makes no
// difference to this code; an MP4 going both ways to a real reader is left to the VM lab.
TEST_F(MovieSourceTest, PlaysForwardsThenBackwardsAndStops)
{
    open(movie(QStringLiteral("h264.mkv")));
    EXPECT_EQ(watchMovieColours(6, 6000), (QStringList{"yellow", "magenta", "cyan", "magenta", "yellow", "magenta"}));
    vc->stopVideoBtn->click();
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));
}

// Every unplayable file (cut short, not a movie at all) fails through the pipeline's
// error; a text file named as a movie stands for them all.
TEST_F(MovieSourceTest, AnUnplayableFileReturnsToTheCameraWithinATick)
{
    const QString path = QDir(s_movies->path()).filePath(QStringLiteral("notes.mp4"));
    ASSERT_TRUE(writeFile(path, "These are not the pictures you are looking for.\n"));
    open(path);
    const std::shared_ptr<camera::PlayerItem> item = vc->playerItem;
    // How soon GStreamer gives up is its own affair; what follows is checked.
    ASSERT_TRUE(QTest::qWaitFor([&] { return item->status() == camera::PlayerItemStatus::Failed; }, 10000));
    // The next tick (1/24 s) stops; 500 ms allows a loaded machine (100 ms has been
    // missed) and still fails a source that keeps ticking on a dead movie.
    EXPECT_TRUE(QTest::qWaitFor([&] { return !vc->isPlayingVideo.load(); }, 500));
    EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));
}

// Files that play forwards but cannot turn: a Matroska live recording (the backwards
// seek is refused) and an MPEG transport stream (the seek is taken, then nothing comes).
TEST_F(MovieSourceTest, AnEndThatCannotTurnReturnsToTheCamera)
{
    for (const QString &path : {movie(QStringLiteral("live.mkv"), kH264 + QStringList{"-live", "1"}),
                                movie(QStringLiteral("h264.ts"))}) {
        SCOPED_TRACE(path.toStdString());
        open(path);
        vc->player->setStallTimeout(300);
        EXPECT_EQ(watchMovieColours(3, 3000), (QStringList{"yellow", "magenta", "cyan"}));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !vc->isPlayingVideo.load(); }, 2000));
        EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));
    }
}

// What users really pick. Paths that are not files are refused at once and leave the
// camera on; files GStreamer cannot play go back to the camera and say why; odd names
// and a huge frame play. Nothing may stop the event loop (a pipe waits for a writer
// when opened) and no setting changes.
TEST_F(MovieSourceTest, BadChoicesSayWhyAndKeepTheCamera)
{
    const QDir dir(s_movies->path());
    enum Outcome { Refused, Fails, Plays };
    struct Choice
    {
        QString path;
        Outcome outcome;
        QString says; // part of the alert
    };

    const QString empty = dir.filePath(QStringLiteral("empty.mp4"));
    ASSERT_TRUE(writeFile(empty, {}));
    const QByteArray whole = readFile(movie(QStringLiteral("whole.mp4")));
    ASSERT_FALSE(whole.isEmpty());
    const QString cut = dir.filePath(QStringLiteral("cut.mp4"));
    ASSERT_TRUE(writeFile(cut, whole.left(whole.size() / 2)));
    const QString folder = dir.filePath(QStringLiteral("folder.mkv"));
    ASSERT_TRUE(dir.mkpath(folder));
    const QString pipe = dir.filePath(QStringLiteral("pipe.mkv"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    const QString soundOnly = ColourMovies::ffmpeg(dir.path(), QStringLiteral("sound only.mp4"),
                                                   {"-f", "lavfi", "-i", "sine=d=1", "-c:a", "aac"});
    const QString huge = ColourMovies::ffmpeg(dir.path(), QStringLiteral("huge.mkv"),
                                              {"-f", "lavfi", "-i", "color=c=cyan:s=8000x8000:r=5:d=0.6", "-c:v",
                                               "mjpeg", "-q:v", "10"});
    const QString oddName = dir.filePath(QStringLiteral("it's a \"café\" movie ✓.mkv"));
    ASSERT_TRUE(QFile::copy(movie(QStringLiteral("h264.mkv")), oddName));
    ASSERT_FALSE(soundOnly.isEmpty());
    ASSERT_FALSE(huge.isEmpty());

    env.defaults->setInteger(QStringLiteral("updateCheckerDismissedBuild"), 117);
    env.defaults->sync();
    const QString settingsFile = QDir::homePath() + QStringLiteral("/.config/Vistrel/Vistrel.conf");
    const QByteArray settingsBefore = readFile(settingsFile);
    ASSERT_FALSE(settingsBefore.isEmpty());
    // Whatever GStreamer's reason, the alert names the file and gives one.
    const QString failed = QStringLiteral("cannot be played: ");
    const std::vector<Choice> choices{
        {empty, Fails, failed},
        {cut, Fails, failed},
        {folder, Refused, QStringLiteral("cannot be played: it is a folder.")},
        {pipe, Refused, QStringLiteral("cannot be played: it is a named pipe, a socket or a device, not a file.")},
        {soundOnly, Fails, QStringLiteral("cannot be played: The file has no video track.")},
        {huge, Plays, {}},
        {oddName, Plays, {}},
    };
    for (const Choice &choice : choices) {
        SCOPED_TRACE(choice.path.toStdString());
        ASSERT_TRUE(waitForColour(QStringLiteral("red")));
        const auto alertsBefore = env.alerts.shown.size();
        // A reader left waiting on the pipe is let go after 4 s.
        PipeWriter unblock(pipe, {}, std::chrono::milliseconds(4000));
        LoopWatch loop;
        chooseMovie(choice.path);
        switch (choice.outcome) {
        case Refused:
            EXPECT_EQ(vc->playerItem, nullptr);
            EXPECT_FALSE(vc->isPlayingVideo.load());
            QTest::qWait(200);
            EXPECT_EQ(pictureColour(), QStringLiteral("red"));
            break;
        case Fails:
            // Now and then GStreamer loses the error of a cut MP4 and the pipeline sits
            // there; the player's opening timeout catches that.
            if (vc->player)
                vc->player->setOpenTimeout(1000);
            EXPECT_TRUE(QTest::qWaitFor([&] { return !vc->isPlayingVideo.load(); }, 10000));
            EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));
            break;
        case Plays:
            EXPECT_TRUE(QTest::qWaitFor(
                [&] { return ColourMovies::kColourOrder.contains(pictureColour()); }, 10000));
            vc->stopVideoBtn->click();
            EXPECT_TRUE(waitForColour(QStringLiteral("red")));
            break;
        }
        // A hang check, not a budget: opening the pipe on the main thread would stop the
        // loop until the writer above lets it go.
        EXPECT_LT(loop.longestGapMs(), 2000);
        if (choice.outcome == Plays) {
            EXPECT_EQ(env.alerts.shown.size(), alertsBefore);
        } else {
            EXPECT_EQ(env.alerts.shown.size(), alertsBefore + 1);
            if (env.alerts.shown.size() == alertsBefore)
                continue;
            const AlertSpec &alert = env.alerts.shown.last();
            EXPECT_EQ(alert.title, QStringLiteral("Movie Cannot Be Played"));
            const QString named = QStringLiteral("\u201c%1\u201d ").arg(QFileInfo(choice.path).fileName());
            EXPECT_TRUE(alert.text.startsWith(named + choice.says)) << alert.text.toStdString();
            EXPECT_GT(alert.text.size(), named.size() + failed.size() + 1) << "a reason is given";
        }
    }
    env.defaults->sync();
    EXPECT_EQ(readFile(settingsFile), settingsBefore);
}

// However many files are opened, one 24 Hz tick pulls their pictures.
TEST_F(MovieSourceTest, ThirtyMoviesShareOneFrameTick)
{
    const QString path = movie(QStringLiteral("h264.mkv"));
    for (int i = 0; i < 30; ++i)
        open(path);
    EXPECT_TRUE(QTest::qWaitFor([&] { return ColourMovies::kColourOrder.contains(pictureColour()); }, 5000));
    int movieTicks = 0;
    for (const QTimer *timer : vc->findChildren<QTimer *>())
        movieTicks += timer->interval() == 42 && timer->timerType() == Qt::PreciseTimer;
    EXPECT_EQ(movieTicks, 1);
    vc->stopVideoBtn->click();
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));
}

// A file that is slow to open (here a named pipe whose writer comes late, as a
// stalled network share would be) is opened off the main thread: play, pause and the
// seek return at once, and the opening ends once the data comes.
TEST(MoviePlayerTest, ASlowFileOpensWithoutHoldingTheMainThread)
{
    QTemporaryDir dir;
    const QString source = ColourMovies::make(dir.path(), QStringLiteral("h264.mkv"), kH264);
    ASSERT_FALSE(source.isEmpty());
    const QString pipe = dir.filePath(QStringLiteral("slow.mkv"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    // Comes by itself after 4 s, so code that waits on the pipe fails on time.
    PipeWriter writer(pipe, readFile(source), std::chrono::milliseconds(4000));

    auto item = std::make_shared<camera::PlayerItem>(pipe);
    auto output = std::make_shared<camera::PlayerItemVideoOutput>();
    item->addOutput(output);
    auto player = std::make_unique<camera::MoviePlayer>(item);
    QElapsedTimer calls;
    calls.start();
    player->play();
    player->seekToZero();
    EXPECT_LT(calls.elapsed(), 1000);
    QTest::qWait(100);
    EXPECT_FALSE(player->isOpened());
    EXPECT_EQ(item->status(), camera::PlayerItemStatus::Unknown);

    writer.go();
    EXPECT_TRUE(QTest::qWaitFor([&] { return player->isOpened(); }, 5000));
    calls.restart();
    player->pause();
    player.reset();
    EXPECT_LT(calls.elapsed(), 1000);
}

// Cancelling the chooser changes nothing; a second file replaces the first; Freeze has
// no hold on movie pictures and Stop does not reset it (nor disable itself).
TEST_F(MovieSourceTest, OpenReplaceStopAndFreeze)
{
    dialogs.answer.reset();
    window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
    QTest::qWait(50);
    EXPECT_EQ(dialogs.shown, 1);
    EXPECT_FALSE(vc->stopVideoBtn->isEnabled());

    open(movie(QStringLiteral("h264.mp4")));
    EXPECT_TRUE(vc->stopVideoBtn->isEnabled());
    ASSERT_EQ(watchMovieColours(3, 3000), (QStringList{"yellow", "magenta", "cyan"}));
    // The first file would turn back to magenta; the second starts with yellow.
    open(movie(QStringLiteral("h264.mkv")));
    EXPECT_EQ(watchMovieColours(3, 3000), (QStringList{"cyan", "yellow", "magenta"}));

    vc->freezeButton->click();
    EXPECT_EQ(watchMovieColours(2, 3000).size(), 2); // the movie still moves
    vc->stopVideoBtn->click();
    QTest::qWait(300);
    EXPECT_EQ(vc->freezeButton->text(), QStringLiteral("Unfreeze"));
    EXPECT_NE(pictureColour(), QStringLiteral("red"));
    EXPECT_TRUE(vc->stopVideoBtn->isEnabled());
}

} // namespace
} // namespace vistrel::test
