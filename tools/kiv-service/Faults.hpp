#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace httplib {
struct Request;
struct Response;
}  // namespace httplib

namespace kiv::service {

/// One way of misbehaving on purpose, for the SDK's reliability tests.
struct Fault {
  enum class Kind {
    delay,     ///< wait `milliseconds`, then answer normally
    stall,     ///< say nothing for `milliseconds` (default ten minutes), then drop the connection
    reset,     ///< send the headers and half the body, then reset the connection
    truncate,  ///< a complete answer whose body is the first half of the real one
    nonJson,   ///< an HTML body instead of JSON, status unchanged
    status,    ///< answer `status` with {"detail": "Injected fault."}
    scalar,    ///< the body is the JSON scalar `true`
    fileName,  ///< every "file_name" in the answer becomes `text` ("../../x", "a/b", "")
  };
  Kind kind = Kind::delay;
  std::chrono::milliseconds duration{0};
  int status = 500;
  std::string text;
  int times = 0;  ///< how many requests it hits before it clears itself; 0: until cleared

  /// Reads {"kind": ..., "ms": ..., "status": ..., "text": ..., "times": ...}; nothing when malformed.
  static std::optional<Fault> fromJson(const nlohmann::json& object);
  /// Reads the command-line form KIND[:ARG], e.g. "delay:500", "status:503", "file-name:../../x".
  static std::optional<Fault> fromText(std::string_view text);
  nlohmann::json toJson() const;
};

/**
 * The faults switched on per route (names such as "create", "get", "put"; "*" hits every route), changeable
 * at run time. A route asks `take` once per request; the fault it gets is applied by `before` (ahead of the
 * handler) and `after` (to the finished answer).
 *
 * @par Thread Safety
 * All members may be called from any thread. `shutdown` wakes every request that is waiting in a fault.
 */
class Faults {
 public:
  /// Whether `name` is a route that faults can be set on.
  static bool isRoute(std::string_view name);

  void set(const std::string& route, Fault fault);
  void clear(const std::string& route);
  nlohmann::json toJson() const;

  /// The fault for this request of `route`, counting it against the fault's `times`.
  std::optional<Fault> take(const std::string& route);

  /// Waits out a delay or stall; a stall then drops the connection and answers false (the handler must not
  /// run).
  bool before(const Fault& fault, const httplib::Request& request);
  void after(const Fault& fault, const httplib::Request& request, httplib::Response& response);

  void shutdown();

 private:
  /// Waits up to `duration`; false when woken by shutdown or by the fault being cleared.
  bool wait(std::chrono::milliseconds duration);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, Fault> faults_;
  unsigned generation_ = 0;
  bool stopping_ = false;
};

}  // namespace kiv::service
