#include "qvreconstruction/logger.h"

#include <ctime>
#include <stdexcept>

namespace {

const char* TagOf(logger_level level)
{
    switch (level) {
    case logger_level::verbose: return "VRB";
    case logger_level::debug: return "DBG";
    case logger_level::info: return "INF";
    case logger_level::warning: return "WRN";
    case logger_level::error: return "ERR";
    case logger_level::critical: return "CRT";
    }
    return "";  // a level outside the table has no tag
}

}  // namespace

Logger::Logger(const std::string& path) : Logger(path.c_str()) {}

Logger::Logger(const char* path)
    : file(path, std::ios::out | std::ios::app),
      out(&file),
      level(logger_level::info),
      lineLevel(logger_level::verbose),
      defaultLineLevel(logger_level::verbose)
{
}

Logger::~Logger()
{
    // A pending message that was never flushed is discarded.
    if (file.is_open()) {
        out->flush();
        file.close();
    }
}

void Logger::set_level(const logger_level& threshold) { level = threshold; }

void Logger::set_default_line_level(const logger_level& lvl) { defaultLineLevel = lvl; }

Logger& Logger::operator<<(const logger_level& lvl)
{
    lineLevel = lvl;
    return *this;
}

Logger& Logger::operator<<(Logger& (*manipulator)(Logger&)) { return manipulator(*this); }

void Logger::flush()
{
    if (static_cast<int32_t>(lineLevel) >= static_cast<int32_t>(level)) {
        const std::string message = str();
        *out << get_time() << " -- [" << TagOf(lineLevel) << "] -- " << message;
        out->flush();
    }
    str(std::string());
    clear();
    lineLevel = defaultLineLevel;
}

std::string Logger::get_time() const
{
    // The re-entrant forms, so that loggers of different threads do not share a buffer.
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char buffer[64];
    const char* text = localtime_r(&now, &local) != nullptr ? asctime_r(&local, buffer) : nullptr;
    if (text == nullptr)
        throw std::logic_error("basic_string: construction from null is not valid");
    std::string result(text);
    if (!result.empty() && result.back() == '\n')
        result.pop_back();
    return result;
}

Logger& Logger::emit(Logger& logger)
{
    logger.flush();
    return logger;
}
