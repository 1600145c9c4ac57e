#include "../camera/ControllerFixture.h"
#include "SimulatedExtension.h"

#include <QElapsedTimer>
#include <set>

namespace vistrel {
namespace {

// The whole link in the running app's objects: the real controller with a real
// (moving) test camera, the link, the simulated virtual camera and a reader.
class StreamingTest : public test::ControllerFixture
{
protected:
    void SetUp() override
    {
        env.services.virtualCamera = &sim;
        ControllerFixture::SetUp();
        vc->startVirtualCameraLink();
        ASSERT_TRUE(sim.queue);
        choose(indexOf(test::TestCameraProvider::kMovingName));
        sim.queue->startReader(std::chrono::milliseconds(1));
        vc->pollStreamState(); // the 2 s poll, now rather than later
        ASSERT_TRUE(vc->needToStream);
    }
    void TearDown() override { sim.queue->stopReader(); }

    // Digests of the frames the reader takes during the next `ms` milliseconds.
    std::vector<std::size_t> framesDuring(int ms)
    {
        const std::size_t before = sim.queue->frameDigests().size();
        QTest::qWait(ms);
        const auto all = sim.queue->frameDigests();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }

    static std::size_t distinct(const std::vector<std::size_t> &frames)
    {
        return std::set<std::size_t>(frames.begin(), frames.end()).size();
    }

    test::SimulatedExtension sim;
};

TEST_F(StreamingTest, CameraPicturesFlowAndFreezeHoldsThemByteIdentical)
{
    // ~30 per second on an idle machine; a loaded test machine gets fewer through.
    const auto live = framesDuring(1000);
    ASSERT_GE(live.size(), 8u);
    EXPECT_GE(distinct(live), 4u);

    vc->toggleFreeze();
    QTest::qWait(100); // a frame already on its way may still differ
    const auto frozen = framesDuring(1000);
    ASSERT_GE(frozen.size(), 8u); // the held picture keeps going out at the tick rate
    EXPECT_EQ(distinct(frozen), 1u);

    // The camera kept running underneath: released, the pictures move at once.
    vc->toggleFreeze();
    const auto again = framesDuring(1000);
    EXPECT_GE(distinct(again), 4u);
}

} // namespace
} // namespace vistrel
