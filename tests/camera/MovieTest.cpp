// The movie source with real files made at run time: forwards then backwards at each
// end, failed and stalled files back to the camera, stop, and a second file.
#include "ControllerFixture.h"
#include "TestHome.h"

#include "camera/MoviePlayer.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

namespace vistrel::test {
namespace {

const QStringList kH264 = {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"};

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
