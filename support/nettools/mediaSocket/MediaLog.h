// The media transport's log: every line is built in a string stream and
// handed, finished, to the sink set by MORL_MediaSetLogCallback, in the form
// "[LEVEL]file(line)[function]:message".
//
//   MEDIA_LOGW << "memcpy_s failed, secRet: " << ret;
//
// When no sink is set (or the level is DEBUG) the stream expression is not
// evaluated at all, so arguments must not have side effects.
#pragma once

#include <sstream>

enum class MediaLogLevel { Debug, Info, Warn, Error };

// True when a line of this level would reach a sink now.
bool MediaLogWanted(MediaLogLevel level);

// One log line; sent to the sink when the object ends.
class MediaLogLine {
public:
    // `function` is a compiler signature (__PRETTY_FUNCTION__) or a plain
    // "Class::method" text; it is reduced to "Class::method".
    MediaLogLine(MediaLogLevel level, const char* file, int line, const char* function) noexcept;
    ~MediaLogLine();
    MediaLogLine(const MediaLogLine&) = delete;
    MediaLogLine& operator=(const MediaLogLine&) = delete;

    std::ostream& Stream() { return m_stream; }

private:
    MediaLogLevel m_level;
    const char* m_file;
    int m_line;
    const char* m_function;
    std::ostringstream m_stream;
};

// Word of a level as it stands in a line: "DEBUG", "INFO", "WARN", "ERROR".
const char* MediaLogLevelWord(MediaLogLevel level);

// Builds the finished line from its parts; `file` is cut to its last path
// component. Exposed for tests.
std::string FormatMediaLogLine(MediaLogLevel level, const char* file, int line, const char* function,
                               const std::string& message);

#define MEDIA_LOG_FN(level, function)                                                                            \
    if (!MediaLogWanted(level)) {                                                                                \
    } else                                                                                                       \
        MediaLogLine((level), __FILE__, __LINE__, (function)).Stream()

#define MEDIA_LOG(level) MEDIA_LOG_FN(level, __PRETTY_FUNCTION__)
#define MEDIA_LOGE MEDIA_LOG(MediaLogLevel::Error)
#define MEDIA_LOGW MEDIA_LOG(MediaLogLevel::Warn)
#define MEDIA_LOGI MEDIA_LOG(MediaLogLevel::Info)
#define MEDIA_LOGD MEDIA_LOG(MediaLogLevel::Debug)
