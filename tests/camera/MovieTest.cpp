// The movie source with real files made at run time: forwards then backwards at each
// end, failed and stalled files back to the camera, stop, and a second file.
#include "ControllerFixture.h"

#include "camera/MoviePlayer.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTimer>

namespace vistrel::test {
namespace {

class MovieSourceTest : public ControllerFixture
{
protected:
    static void SetUpTestSuite() { s_movies = new QTemporaryDir; }
    static void TearDownTestSuite()
    {
        delete s_movies;
        s_movies = nullptr;
    }

    static QString movie(const QString &name, const QStringList &codec, double secondsPerColour = 0.5)
    {
        const QString path = QDir(s_movies->path()).filePath(name);
        if (QFile::exists(path))
            return path;
        return ColourMovies::make(s_movies->path(), name, codec, secondsPerColour);
    }
    static QStringList h264() { return {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"}; }

    void SetUp() override
    {
        ControllerFixture::SetUp();
        startCamera();
        choose(indexOf(TestCameraProvider::kStudioCameraName, 0));
        ASSERT_TRUE(waitForColour(QStringLiteral("red")));
    }

    // Opens the file through the window's "Open Movie…" button and the file chooser.
    void open(const QString &path)
    {
        dialogs.answer = path;
        const auto previous = vc->playerItem;
        window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
        ASSERT_TRUE(QTest::qWaitFor([&] { return vc->playerItem && vc->playerItem != previous; }, 1000));
        EXPECT_TRUE(vc->isPlayingVideo);
    }

    // The movie colours seen, one entry per run of equal pictures, until `count` runs
    // were seen or the time is up.
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
        QTest::qWaitFor([&] { return runs.size() >= count; }, timeoutMs);
        return runs;
    }

    static QTemporaryDir *s_movies;
};

QTemporaryDir *MovieSourceTest::s_movies = nullptr;

struct Format
{
    const char *file;
    QStringList codec;
};

void PrintTo(const Format &format, std::ostream *out) { *out << format.file; }

class PlaysForwardsThenBackwards : public MovieSourceTest, public ::testing::WithParamInterface<Format>
{
};

TEST_P(PlaysForwardsThenBackwards, TurningAtEachEnd)
{
    const QString path = movie(QString::fromLatin1(GetParam().file), GetParam().codec);
    ASSERT_FALSE(path.isEmpty()) << "ffmpeg could not make the movie";
    open(path);
    EXPECT_TRUE(vc->stopVideoBtn->isEnabled());

    const QStringList seen = watchMovieColours(6, 6000);
    EXPECT_EQ(seen, (QStringList{"yellow", "magenta", "cyan", "magenta", "yellow", "magenta"}));
    EXPECT_TRUE(vc->isPlayingVideo);
}

INSTANTIATE_TEST_SUITE_P(
    Containers, PlaysForwardsThenBackwards,
    ::testing::Values(Format{"h264.mov", {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"}},
                      Format{"h264.mp4", {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"}},
                      Format{"mpeg4.avi", {"-c:v", "mpeg4", "-q:v", "3", "-g", "6"}},
                      Format{"h264.mkv", {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-g", "6"}}),
    [](const auto &info) {
        std::string name = info.param.file;
        std::replace(name.begin(), name.end(), '.', '_');
        return name;
    });

TEST_F(MovieSourceTest, UnplayableFilesReturnToTheCameraWithinATick)
{
    // A movie cut in half (its index, written last, is gone) and a text file that only
    // has a movie's name.
    const QString whole = movie(QStringLiteral("whole.mp4"), h264());
    QFile source(whole);
    ASSERT_TRUE(source.open(QIODevice::ReadOnly));
    const QByteArray bytes = source.readAll();
    const QString truncated = QDir(s_movies->path()).filePath(QStringLiteral("truncated.mp4"));
    QFile cut(truncated);
    ASSERT_TRUE(cut.open(QIODevice::WriteOnly));
    cut.write(bytes.left(bytes.size() / 2));
    cut.close();
    const QString text = QDir(s_movies->path()).filePath(QStringLiteral("notes.mp4"));
    QFile notes(text);
    ASSERT_TRUE(notes.open(QIODevice::WriteOnly));
    notes.write("These are not the pictures you are looking for.\n");
    notes.close();

    for (const QString &path : {truncated, text}) {
        SCOPED_TRACE(path.toStdString());
        open(path);
        const std::shared_ptr<camera::PlayerItem> item = vc->playerItem;
        // How soon GStreamer gives up on the file is its own affair (fast here, seconds on a
        // busy machine); what is checked is what follows.
        ASSERT_TRUE(QTest::qWaitFor([&] { return item->status() == camera::PlayerItemStatus::Failed; }, 10000))
            << "status " << static_cast<int>(item->status()) << ", playing " << vc->isPlayingVideo.load();
        // Failure seen: the next tick (1/24 s) stops, the stop itself is queued.
        EXPECT_TRUE(QTest::qWaitFor([&] { return !vc->isPlayingVideo.load(); }, 2 * 1000 / 24 + 20));
        EXPECT_FALSE(vc->player);
        EXPECT_FALSE(vc->playerItem);
        EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));
    }
}

// Files that play forwards but cannot turn: a Matroska live recording (no index: the
// backwards seek is refused) and an MPEG transport stream (the seek is taken, then
// nothing comes). Both sit at their end and go back to the camera.
TEST_F(MovieSourceTest, AnEndThatCannotTurnReturnsToTheCamera)
{
    const QStringList codec = h264() + QStringList{"-live", "1"};
    for (const QString &path : {movie(QStringLiteral("live.mkv"), codec), movie(QStringLiteral("h264.ts"), h264())}) {
        SCOPED_TRACE(path.toStdString());
        ASSERT_FALSE(path.isEmpty());
        open(path);
        vc->player->setStallTimeout(300);
        EXPECT_EQ(watchMovieColours(3, 3000), (QStringList{"yellow", "magenta", "cyan"}));
        EXPECT_TRUE(QTest::qWaitFor([&] { return !vc->isPlayingVideo.load(); }, 2000));
        EXPECT_FALSE(vc->player);
        EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));
    }
}

TEST_F(MovieSourceTest, StopReturnsToTheCameraAndKeepsFreezeAsItWas)
{
    open(movie(QStringLiteral("h264.mp4"), h264()));
    ASSERT_EQ(watchMovieColours(1, 2000), QStringList{"yellow"});

    vc->stopVideoBtn->click();
    EXPECT_FALSE(vc->isPlayingVideo);
    EXPECT_FALSE(vc->player);
    EXPECT_FALSE(vc->itemVideoOutput);
    EXPECT_TRUE(vc->stopVideoBtn->isEnabled());
    EXPECT_TRUE(waitForColour(QStringLiteral("red"), 1000));

    // Freeze has no hold on movie pictures, and stopping does not reset it.
    vc->freezeButton->click();
    open(movie(QStringLiteral("h264.mp4"), h264()));
    EXPECT_EQ(watchMovieColours(2, 3000), (QStringList{"yellow", "magenta"}));
    vc->stopVideoBtn->click();
    QTest::qWait(300);
    EXPECT_TRUE(vc->isFrozen);
    EXPECT_EQ(vc->freezeButton->text(), QStringLiteral("Unfreeze"));
    EXPECT_NE(pictureColour(), QStringLiteral("red"));
}

TEST_F(MovieSourceTest, ASecondFileReplacesTheFirst)
{
    open(movie(QStringLiteral("h264.mp4"), h264()));
    ASSERT_EQ(watchMovieColours(3, 3000), (QStringList{"yellow", "magenta", "cyan"}));
    const std::weak_ptr<camera::MoviePlayer> first = vc->player;

    // The first file would turn back to magenta; the second starts with yellow.
    open(movie(QStringLiteral("h264.mkv"), h264()));
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(watchMovieColours(3, 3000), (QStringList{"cyan", "yellow", "magenta"}));
}

TEST_F(MovieSourceTest, CancellingTheChooserChangesNothing)
{
    dialogs.answer.reset();
    window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
    QTest::qWait(50);
    EXPECT_EQ(dialogs.shown, 1);
    EXPECT_FALSE(vc->isPlayingVideo);
    EXPECT_FALSE(vc->stopVideoBtn->isEnabled());
    EXPECT_EQ(pictureColour(), QStringLiteral("red"));
}

} // namespace
} // namespace vistrel::test
