#pragma once
#include "core/Platform.h"

#include <QList>

namespace vistrel::test {

class RecordingUrlOpener final : public UrlOpener
{
public:
    QList<QUrl> opened;
    void openUrl(const QUrl &url) override { opened << url; }
};

} // namespace vistrel::test
