#include "ZuLogger/ZuLogger.hpp"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <utility>

#include "ZuFoundation/internal/TypeName.hpp"

namespace zu {
namespace {

constexpr std::string_view kNoClass = "NoClass";

struct Settings {
  std::mutex mutex;
  ZuLogger::LogLevel level = ZuLogger::LogLevel::none;
  std::vector<std::string> classNames;
  std::shared_ptr<const ZuLogger::Sink> sink;
};

Settings& settings() {
  // Never destroyed: other static destructors may still log while the process exits.
  static auto* instance = new Settings;
  return *instance;
}

// The last "::"- or "."-separated piece outside template arguments, without the arguments themselves.
std::string shortName(std::string_view name) {
  std::string result;
  int depth = 0;
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    if (c == '<') ++depth;
    if (depth == 0) {
      if (c == '.') {
        result.clear();
      } else if (c == ':' && i + 1 < name.size() && name[i + 1] == ':') {
        result.clear();
        ++i;
      } else {
        result += c;
      }
    }
    if (c == '>') --depth;
  }
  return result;
}

void write(const std::string& line, const std::shared_ptr<const ZuLogger::Sink>& sink) {
  if (sink) {
    (*sink)(line);
    return;
  }
  const std::string withFeed = line + "\n";
  // A console that is gone cannot be told so; the line is dropped.
  (void)std::fwrite(withFeed.data(), 1, withFeed.size(), stdout);
  (void)std::fflush(stdout);
}

}  // namespace

ZuLogger::LogLevel ZuLogger::logLevel() {
  std::lock_guard lock(settings().mutex);
  return settings().level;
}

void ZuLogger::setLogLevel(LogLevel level) {
  std::lock_guard lock(settings().mutex);
  settings().level = level;
}

std::vector<std::string> ZuLogger::classNamesToInclude() {
  std::lock_guard lock(settings().mutex);
  return settings().classNames;
}

void ZuLogger::setClassNamesToInclude(std::vector<std::string> names) {
  std::lock_guard lock(settings().mutex);
  settings().classNames = std::move(names);
}

void ZuLogger::setSink(Sink sink) {
  auto shared = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  std::lock_guard lock(settings().mutex);
  settings().sink = std::move(shared);
}

std::string_view ZuLogger::tag(LogLevel level) {
  switch (level) {
    case LogLevel::error:
      return "E";
    case LogLevel::warning:
      return "W";
    case LogLevel::info:
      return "I";
    case LogLevel::debug:
      return "D";
    case LogLevel::none:
      break;
  }
  return {};
}

std::string ZuLogger::className(const std::type_info& type) { return shortName(detail::typeName(type)); }

void ZuLogger::log(std::string_view message, const std::type_info* fromClass, LogLevel level) {
  _printToConsole(message, fromClass, level);
}

void ZuLogger::_printToConsole(std::string_view message, const std::type_info* fromClass, LogLevel level) {
  // The level is checked before the name is worked out, so silent lines cost no demangling.
  if (level <= LogLevel::none || logLevel() < level) return;
  const std::string name = fromClass ? className(*fromClass) : std::string(kNoClass);
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard lock(settings().mutex);
    const auto& names = settings().classNames;
    // Lines without a class are never narrowed by the list.
    if (fromClass && !names.empty() && std::find(names.begin(), names.end(), name) == names.end()) return;
    sink = settings().sink;
  }
  std::string line = "[Zu] (";
  line.append(tag(level)).append(") ").append(name).append(": ").append(message);
  write(line, sink);
}

}  // namespace zu
