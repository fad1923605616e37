#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace testing_support {

/// Sets an environment variable for one scope and puts its previous value (or its absence) back. The
/// environment is not thread-safe: change it only while no other thread reads it.
// NOLINTBEGIN(concurrency-mt-unsafe)
class ScopedEnvironment {
 public:
  ScopedEnvironment(std::string name, const std::string& value) : name_(std::move(name)) {
    if (const char* previous = std::getenv(name_.c_str())) previous_ = previous;
    ::setenv(name_.c_str(), value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    previous_ ? ::setenv(name_.c_str(), previous_->c_str(), 1) : ::unsetenv(name_.c_str());
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> previous_;
};
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace testing_support
