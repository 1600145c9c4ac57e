#include "vcam/FourCharCode.h"

#include "core/SystemLog.h"

#include <QTextBoundaryFinder>
#include <QtGlobal>

namespace vistrel::vcam {

namespace {

// User-perceived characters (grapheme clusters), as a person would count them.
int perceivedLength(const QString &text)
{
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    int count = 0;
    while (finder.toNextBoundary() > 0)
        ++count;
    return count;
}

} // namespace

FourCharCode makeFourCharCode(const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    if (perceivedLength(text) != 4 || utf8.size() != 4) {
        consoleLine(QStringLiteral("FourCharCode: Can't initialize with '") + text
                    + QStringLiteral("', only printable ASCII allowed. Setting to '"
                                     "????"
                                     "'."));
        return 0x3F3F3F3F;
    }
    FourCharCode code = 0;
    for (const char byte : utf8)
        code = (code << 8) | static_cast<unsigned char>(byte);
    return code;
}

QString fourCharCodeString(FourCharCode code)
{
    char characters[5] = {};
    for (int i = 0; i < 4; ++i) {
        const auto byte = static_cast<unsigned>((code >> (24 - 8 * i)) & 0xFF);
        if (byte >= 0x80)
            qFatal("FourCharCode 0x%08X has a byte that is not a character", code);
        characters[i] = static_cast<char>(byte);
    }
    return QString::fromLatin1(characters, 4);
}

} // namespace vistrel::vcam
