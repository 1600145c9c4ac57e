#pragma once
#include <QString>
#include <gst/gst.h>

namespace vistrel::camera {

// The text of a bus ERROR message (GStreamer's own wording), or "unknown error".
inline QString errorText(GstMessage *message)
{
    GError *error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    QString text = error ? QString::fromUtf8(error->message) : QStringLiteral("unknown error");
    g_clear_error(&error);
    return text;
}

} // namespace vistrel::camera
