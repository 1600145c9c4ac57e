#pragma once
#include "core/Platform.h"

#include <functional>

namespace vistrel::test {

// A launcher that records what it was asked to start, and succeeds or fails as told.
class RecordingLauncher final : public Launcher
{
public:
    bool succeed = true;
    QString failure = QStringLiteral("No such file or directory");
    QStringList programs;
    QList<QStringList> argumentLists;
    std::function<void()> onLaunch; // runs at the moment of the start

    bool launchDetached(const QString &program, const QStringList &arguments, QString *error) override
    {
        programs << program;
        argumentLists << arguments;
        if (onLaunch)
            onLaunch();
        if (!succeed && error)
            *error = failure;
        return succeed;
    }
};

} // namespace vistrel::test
