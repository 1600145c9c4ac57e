#pragma once
#include "ColourMovies.h"
#include "ConsoleCapture.h"
#include "ScriptedFileDialogs.h"
#include "TestCameraProvider.h"
#include "TestServices.h"
#include "camera/CameraSource.h"
#include "camera/DeviceMonitorDiscovery.h"
#include "ui/MainWindowController.h"
#include "ui/ViewController.h"
#include "vcam/VirtualCameraLink.h"

#include <QComboBox>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>
#include <memory>
#include <ostream>

inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

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
        vc->cameraSource().setupDefaultCapture();
        vc->setupCameraControls();
    }

    // The window's controls, found as the interface file names them.
    QComboBox *chooser() const { return vc->findChild<QComboBox *>(QStringLiteral("popUpButton")); }
    QPushButton *button(const char *name) const { return vc->findChild<QPushButton *>(QLatin1String(name)); }

    // Index in the chooser of the n-th device called `name`.
    int indexOf(const QString &name, int occurrence = 0) const
    {
        const auto &devices = vc->cameraSource().videoDevices();
        for (std::size_t i = 0; i < devices.size(); ++i)
            if (devices[i].localizedName == name && occurrence-- == 0)
                return static_cast<int>(i);
        return -1;
    }

    void choose(int index)
    {
        chooser()->setCurrentIndex(index);
        Q_EMIT chooser()->activated(index);
    }

    // The picture the virtual camera is sent next.
    const std::optional<QImage> &currentImage() const { return vc->link().currentImage(); }

    QString pictureColour() const
    {
        if (!currentImage() || currentImage()->isNull())
            return {};
        const QImage &picture = *currentImage();
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
