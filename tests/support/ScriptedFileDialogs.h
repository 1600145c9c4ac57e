#pragma once
#include "core/Platform.h"

#include <QPointer>
#include <QTimer>
#include <QWidget>

namespace vistrel::test {

// A file chooser that answers, from the event loop like a real non-blocking dialog,
// with the file the test put in `answer` (or a cancel when it is empty).
class ScriptedFileDialogs final : public FileDialogs
{
public:
    std::optional<QString> answer;
    int shown = 0;

    void chooseMovie(QWidget *parent, std::function<void(std::optional<QString>)> done) override
    {
        ++shown;
        QTimer::singleShot(0, [choice = answer, done = std::move(done)] { done(choice); });
    }
};

} // namespace vistrel::test
