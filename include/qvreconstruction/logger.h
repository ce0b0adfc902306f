// A stream-style logger: build a message with <<, tag it with a level, and flush()
// appends it to the log file as one time-stamped line:
//   Sun Nov 15 11:29:02 2026 -- [INF] -- depth ready
//
//   Logger log("app.log");
//   log << logger_level::info << "depth ready\n" << Logger::emit;
//
// Messages below the threshold (default info) are dropped at flush. A logger
// belongs to one thread at a time.
#ifndef QVRECONSTRUCTION_LOGGER_H
#define QVRECONSTRUCTION_LOGGER_H

#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>

#include "qvreconstruction/export.h"

enum class logger_level : int32_t {
    verbose = 0,
    debug = 1,
    info = 2,
    warning = 3,
    error = 4,
    critical = 5,
};

class QV_EXPORT Logger : public std::ostringstream {
public:
    explicit Logger(const std::string& path);
    explicit Logger(const char* path);
    ~Logger() override;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void set_level(const logger_level& level);
    void set_default_line_level(const logger_level& level);

    // Sets the level of the message under construction.
    Logger& operator<<(const logger_level& level);
    // Applies a manipulator such as Logger::emit.
    Logger& operator<<(Logger& (*manipulator)(Logger&));

    // Ordinary insertions append to the message; they return the logger so that
    // a chain can end in a level or a Logger manipulator.
    template <typename T>
    Logger& operator<<(const T& value)
    {
        static_cast<std::ostream&>(*this) << value;
        return *this;
    }
    Logger& operator<<(std::ostream& (*manipulator)(std::ostream&))
    {
        manipulator(*this);
        return *this;
    }

    // Writes the message as one line if its level reaches the threshold, then
    // starts a new message at the default line level. Adds no line feed.
    void flush();

    // Local time in asctime form without its trailing line feed.
    std::string get_time() const;

    // Manipulator: flushes the message.
    static Logger& emit(Logger& logger);

private:
    std::ofstream file;
    std::ostream* out;
    logger_level level;
    logger_level lineLevel;
    logger_level defaultLineLevel;
};

#endif  // QVRECONSTRUCTION_LOGGER_H
