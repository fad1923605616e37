#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "ZuFoundation/RawValue.hpp"

namespace zu {

/**
 * The SDK's console logger. All state is class-wide; nothing prints until the host raises `logLevel`.
 *
 * A line prints when its level is not `none`, is at most `logLevel`, and (for a line that names its class)
 * the class's short name is in `classNamesToInclude` or that list is empty. Lines read
 * "[Zu] (<tag>) <class>: <message>" and go to standard output, or to the sink a host or test installs.
 *
 * @code
 * zu::ZuLogger::setLogLevel(zu::ZuLogger::LogLevel::debug);
 * zu::ZuLogger::log("Ready", &typeid(*this), zu::ZuLogger::LogLevel::info);  // "[Zu] (I) Uploader: Ready"
 * @endcode
 *
 * Callers never pass secrets (the "Authorization" header, tokens) in a message.
 *
 * @par Thread Safety
 * All operations may be called from any thread. Settings are guarded by a mutex; a line is written with one
 * call, so lines from different threads never interleave inside a line.
 */
class ZuLogger {
 public:
  enum class LogLevel { none = 0, error = 1, warning = 2, info = 3, debug = 4 };
  /// Receives each printed line, without its line feed.
  using Sink = std::function<void(std::string_view line)>;

  static LogLevel logLevel();
  static void setLogLevel(LogLevel level);
  static std::vector<std::string> classNamesToInclude();
  static void setClassNamesToInclude(std::vector<std::string> names);
  /// Sends lines to `sink` instead of standard output; an empty sink restores standard output. The sink is
  /// called outside the logger's lock, possibly from several threads at once.
  static void setSink(Sink sink);

  /// The tag printed for a level ("E", "W", "I", "D"); empty for `none`.
  static std::string_view tag(LogLevel level);
  /// The short name of a type: its name without namespaces, module prefixes or template arguments.
  static std::string className(const std::type_info& type);

  /// Logs `message` from the class `fromClass` (null for none, printed as "NoClass") at `level`.
  static void log(std::string_view message, const std::type_info* fromClass, LogLevel level);
  /// The filter and writer behind `log`.
  static void _printToConsole(std::string_view message, const std::type_info* fromClass, LogLevel level);
};

template <>
struct RawValueRange<ZuLogger::LogLevel> {
  static constexpr int first = 0;
  static constexpr int last = 4;
};

}  // namespace zu
