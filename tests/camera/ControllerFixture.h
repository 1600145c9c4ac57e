#pragma once
#include "ColourMovies.h"
#include "ConsoleCapture.h"
#include "ScriptedFileDialogs.h"
#include "TestCameraProvider.h"
#include "TestServices.h"
#include "app/MainWindowController.h"
#include "camera/DeviceMonitorDiscovery.h"
#include "camera/ViewController.h"

#include <QComboBox>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>

inline void PrintTo(const QString &text, std::ostream *out) { *out << '"' << text.toStdString() << '"'; }

namespace vistrel::test {

// The real interface file's controller, with the real device monitor finding the test
// cameras. Onboarding stays pending, so the virtual-camera link is not started.
class ControllerFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        TestCameraProvider::registerOnce();
        env.services.cameraDiscovery = &discovery;
        env.services.fileDialogs = &dialogs;
        MainWindowController *windowController =
            instantiateMainInterface(env.services, QStringLiteral(VISTREL_SOURCE_DIR "/resources/Main.ui"));
        ASSERT_NE(windowController, nullptr);
        window.reset(windowController->window());
        vc = windowController->contentViewController();
        ASSERT_NE(vc, nullptr);
    }

    void startCamera()
    {
        vc->setupDefaultCapture();
        vc->setupCameraControls();
    }

    // Index in the chooser of the n-th device called `name`.
    int indexOf(const QString &name, int occurrence = 0) const
    {
        for (std::size_t i = 0; i < vc->videoDevices.size(); ++i)
            if (vc->videoDevices[i].localizedName == name && occurrence-- == 0)
                return static_cast<int>(i);
        return -1;
    }

    void choose(int index)
    {
        vc->popUpButton->setCurrentIndex(index);
        Q_EMIT vc->popUpButton->activated(index);
    }

    QString pictureColour() const
    {
        if (!vc->currentImage || vc->currentImage->isNull())
            return {};
        const QImage &picture = *vc->currentImage;
        return ColourMovies::nearestColourName(picture.pixel(picture.width() / 2, picture.height() / 2));
    }

    bool waitForColour(const QString &colour, int timeoutMs = 5000)
    {
        return QTest::qWaitFor([&] { return pictureColour() == colour; }, timeoutMs);
    }

    TestServices env;
    camera::DeviceMonitorDiscovery discovery;
    ScriptedFileDialogs dialogs;
    std::unique_ptr<QWidget> window;
    ViewController *vc = nullptr;
};

} // namespace vistrel::test
