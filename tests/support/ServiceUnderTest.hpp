#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "KivSDK/API/KivAPI.hpp"
#include "support/ServiceAddress.hpp"
#include "support/ServiceProcess.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kivtest {

/**
 * The reference service that the end-to-end tests talk to: the CTest fixture's, whose folder the variable
 * KIV_SERVICE_FIXTURE names, or, when the program runs outside CTest, one started for the program alone.
 */
class ServiceEnvironment : public ::testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;
  static const ServiceAddress& address();

 private:
  std::unique_ptr<testing_support::TemporaryDirectory> dir_;
  std::unique_ptr<kiv::service::test::ServiceProcess> own_;
  ServiceAddress address_;
};

/// Makes KivAPI's networking instances reach the test service (with its CA) instead of the SDK's own.
void useTestService();

/// Switches a fault on for a route of the test service: `fault` is its JSON, as kiv-service's README says.
void setFault(const std::string& route, const std::string& fault);
void clearFault(const std::string& route);

/// The outcome of one asynchronous operation, safe to complete from any thread, any number of times.
template <class Value>
class Awaited {
 public:
  auto completion() const {
    return [state = state_](auto value, std::optional<zu::Error> error) {
      std::lock_guard lock(state->mutex);
      ++state->calls;
      state->value = std::move(value);
      state->error = std::move(error);
      state->thread = std::this_thread::get_id();
      state->changed.notify_all();
    };
  }
  /// Whether the completion came within a bound generous enough for a loaded machine.
  bool wait() const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, std::chrono::seconds(90), [&] { return state_->calls > 0; });
  }
  int calls() const { return read(&State::calls); }
  std::optional<Value> value() const { return read(&State::value); }
  std::optional<zu::Error> error() const { return read(&State::error); }
  std::thread::id thread() const { return read(&State::thread); }
  /// The error's text, empty without error.
  std::string errorText() const {
    const auto failure = error();
    return failure ? failure->localizedDescription() : std::string();
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    std::optional<Value> value;
    std::optional<zu::Error> error;
    std::thread::id thread;
  };
  template <class Field>
  Field read(Field State::*field) const {
    std::lock_guard lock(state_->mutex);
    return (*state_).*field;
  }

  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/**
 * KivAPI set up against the test service with its token, in a fresh application data folder. After each
 * test, the folder must hold nothing but the media folder "Documents/Kiv", the PDF folder "Documents/PDFs",
 * the background sessions' journals and the provenance folder (the device key and the statements).
 */
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  /// A file of the media folder with `content`, and its record with its digest.
  kiv::KivFile mediaFile(const std::string& name, std::string_view content, double dateTaken);
  /// `report` sent to the service; fails the test when it is not accepted.
  kiv::KivReport sent(const kiv::KivReport& report);
  /// `file` of `report` uploaded; fails the test when the upload fails.
  kiv::KivFile uploaded(const kiv::KivFile& file, const kiv::KivReport& report);
  /// The report's status after the service has checked its content again.
  kiv::KivReport::ProofStatus checkedStatus(const kiv::KivReport& report);

  testing_support::ScopedApplicationData data;
};

}  // namespace kivtest
