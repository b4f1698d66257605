// Log sink of the media transport.
#include "mediaSocket/MediaLog.h"

#include <atomic>
#include <cstring>

#include "commonlib/zeph_commonlib.h"
#include "zeph_nettools/media_socket.h"

namespace {

// One process-wide sink. Atomic so that setting it while media threads log
// is well defined; a line already being finished may still reach the old one.
std::atomic<MediaLogCallback> g_mediaLogCallback{nullptr};

const char* LastPathComponent(const char* file)
{
    if (file == nullptr) {
        return "";
    }
    // Either separator: paths may come from a build on another system. The
    // name keeps its extension ("RingBuffer.cpp").
    const char* cut = file;
    for (const char* p = file; *p != '\0'; ++p) {
        if (*p == '/' || *p == '\\') {
            cut = p + 1;
        }
    }
    return cut;
}

} // namespace

const char* MediaLogLevelWord(MediaLogLevel level)
{
    switch (level) {
    case MediaLogLevel::Debug: return "DEBUG";
    case MediaLogLevel::Info: return "INFO";
    case MediaLogLevel::Warn: return "WARN";
    case MediaLogLevel::Error: return "ERROR";
    }
    return "INFO";
}

bool MediaLogWanted(MediaLogLevel level)
{
    // DEBUG lines are never delivered.
    return level != MediaLogLevel::Debug && g_mediaLogCallback.load(std::memory_order_acquire) != nullptr;
}

std::string FormatMediaLogLine(MediaLogLevel level, const char* file, int line, const char* function,
                               const std::string& message)
{
    char name[160];
    const char* fn = zeph_log_func_name(function, name, sizeof name);
    std::string out;
    out.reserve(64 + message.size());
    out += '[';
    out += MediaLogLevelWord(level);
    out += ']';
    out += LastPathComponent(file);
    out += '(';
    out += std::to_string(line);
    out += ")[";
    out += fn;
    out += "]:";
    out += message;
    return out;
}

MediaLogLine::MediaLogLine(MediaLogLevel level, const char* file, int line, const char* function) noexcept
    : m_level(level), m_file(file), m_line(line), m_function(function)
{
}

MediaLogLine::~MediaLogLine()
{
    if (m_level == MediaLogLevel::Debug) {
        return;
    }
    MediaLogCallback callback = g_mediaLogCallback.load(std::memory_order_acquire);
    if (callback == nullptr) {
        return;
    }
    try {
        const std::string text = FormatMediaLogLine(m_level, m_file, m_line, m_function, m_stream.str());
        callback(text.c_str());
    } catch (...) {
        // A line that cannot be built (out of memory) is lost; logging never
        // takes down the thread that logs.
    }
}

extern "C" ZEPH_API void MORL_MediaSetLogCallback(MediaLogCallback callback)
{
    g_mediaLogCallback.store(callback, std::memory_order_release);
}
