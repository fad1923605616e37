#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AnyCodable/JSONSerialization.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/detail/APIState.hpp"
#include "support/FakeURLSession.hpp"
#include "support/TemporaryDirectory.hpp"

namespace kivtest {

/// What one completion of a KivAPI operation received, and how often it was called.
template <class Value>
struct Outcome {
  int calls = 0;
  std::optional<Value> value;
  std::optional<zu::Error> error;

  auto completion() {
    return [this](auto received, std::optional<zu::Error> failure) {
      ++calls;
      value = std::move(received);
      error = std::move(failure);
    };
  }
  /// The message of an error the SDK found itself (`invalidResponseData`, code 1002); empty otherwise.
  std::string message() const {
    if (!error || error->code() != 1002 || !error->zuError()) return {};
    return error->zuError()->description().value_or("");
  }
};

using ReportOutcome = Outcome<kiv::KivReport>;
using FileOutcome = Outcome<kiv::KivFile>;
using SuccessOutcome = Outcome<bool>;

/// One networking instance the API asked its networking type for.
struct MadeInstance {
  std::optional<std::string> authToken;
  std::string identifier;
  std::shared_ptr<zu::ZuNetworking> networking;
};

inline zu::Data bytes(std::string_view text) { return {text.begin(), text.end()}; }

inline zutest::Answer json(int status, std::string_view body) {
  return {
      bytes(body), zu::HTTPURLResponse{*zu::URL::fromString("https://service.test/"), status, {}}, {}, {}};
}

inline std::string text(const std::optional<zu::Data>& data) {
  return data ? std::string(data->begin(), data->end()) : std::string();
}

/**
 * KivAPI with every instance made on fake sessions, in a fresh application data folder. The shared session
 * answers with `answer` inside `resume()`, so networked completions run before an operation returns; the
 * background sessions hold their tasks until `deliverHeld()`.
 */
class FakeServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kiv::detail::resetAPIState();
    kiv::KivAPI::set_ZuNetworkingType(
        [this](const std::optional<std::string>& token, const std::string& identifier) {
          auto networking = std::make_shared<zu::ZuNetworking>(token, identifier);
          networking->set_URLSessionType(
              {[this] { return shared; },
               [this, identifier](const zu::URLSessionConfiguration&,
                                  const std::weak_ptr<zu::URLSessionDelegate>& delegate) {
                 return background[identifier] = std::make_shared<zutest::FakeURLSession>(
                            [this](const zu::URLRequest& request) { return answer(request); }, delegate);
               }});
          made.push_back({token, identifier, networking});
          return networking;
        });
  }
  void TearDown() override { kiv::detail::resetAPIState(); }

  /// The requests the shared session was asked for.
  const std::vector<zu::URLRequest>& requests() const { return shared->requests; }
  /// Delivers the held tasks of every background session.
  void deliverHeld() {
    for (auto& [identifier, session] : background) session->deliverHeld();
  }
  /// A file of the media folder with `content`, and its record.
  kiv::KivFile mediaFile(const std::string& name, std::string_view content, double dateTaken = 7.0e8) {
    kiv::KivFile file(name, "jpg", zu::Date(dateTaken));
    testing_support::writeFile(file.fileURL().path(), content);
    return file;
  }

  testing_support::ScopedApplicationData data;
  std::function<zutest::Answer(const zu::URLRequest&)> answer = [](const zu::URLRequest&) {
    return json(200, "{}");
  };
  std::shared_ptr<zutest::FakeURLSession> shared = std::make_shared<zutest::FakeURLSession>(
      [this](const zu::URLRequest& request) { return answer(request); });
  std::map<std::string, std::shared_ptr<zutest::FakeURLSession>> background;
  std::vector<MadeInstance> made;
};

}  // namespace kivtest
