#pragma once
#include "core/Platform.h"

namespace vistrel {

class SteadyClock final : public Clock
{
public:
    double now() const override;
};

class MessageBoxAlertPresenter final : public AlertPresenter
{
public:
    int runModal(const AlertSpec &alert) override;
};

class QtFileDialogs final : public FileDialogs
{
public:
    void chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done) override;
};

class ProcessLauncher final : public Launcher
{
public:
    bool launchDetached(const QString &program, const QStringList &arguments, QString *error) override;
};

class DesktopUrlOpener final : public UrlOpener
{
public:
    void openUrl(const QUrl &url) override;
};

class QtApplication final : public Application
{
public:
    void terminate() override;
    void activateIgnoringOtherApps() override;
};

} // namespace vistrel
