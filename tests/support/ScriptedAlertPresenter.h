#pragma once
#include "core/Platform.h"

#include <QList>
#include <deque>

namespace vistrel::test {

// Records every alert and answers with the scripted button indexes, in order
// (the first button when the script has run out).
class ScriptedAlertPresenter final : public AlertPresenter
{
public:
    std::deque<int> answers;
    QList<AlertSpec> shown;

    int runModal(const AlertSpec &alert) override
    {
        shown << alert;
        if (answers.empty())
            return 0;
        const int answer = answers.front();
        answers.pop_front();
        return answer;
    }
};

} // namespace vistrel::test
