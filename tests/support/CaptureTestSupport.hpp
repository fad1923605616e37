#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KivMediaCaptureAndPlayViewController/core/KivMediaCaptureAndPlayViewControllerDelegate.hpp"
#include "KivMediaCaptureAndPlayViewController/core/TimerSource.hpp"

namespace testing_support {

using Controller = zu::KivMediaCaptureAndPlayViewController;

/// An executor whose tasks wait until the test runs them, on the test's thread.
class ManualQueue {
 public:
  zu::CapturePlatform::Executor executor() {
    return [this](std::function<void()> task) { tasks_.push_back(std::move(task)); };
  }
  /// Runs tasks, including those they post, until none is left; how many ran.
  int runAll() {
    int count = 0;
    for (; !tasks_.empty(); ++count) {
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      task();
    }
    return count;
  }
  bool empty() const { return tasks_.empty(); }

 private:
  std::deque<std::function<void()>> tasks_;
};

/// Timers that fire when the test says so.
class ManualTimerSource final : public zu::TimerSource {
 public:
  struct Scheduled {
    double interval = 0;
    std::function<void()> block;
    bool valid = true;
  };

  std::unique_ptr<zu::Timer> scheduledRepeatingTimer(double interval, std::function<void()> block) override {
    timers_.push_back(std::make_shared<Scheduled>(Scheduled{interval, std::move(block)}));
    return std::make_unique<Handle>(timers_.back());
  }
  /// Fires every valid timer once.
  void fire() {
    for (const auto& timer : std::vector(timers_)) {
      if (timer->valid) timer->block();
    }
  }
  int validCount() const {
    int count = 0;
    for (const auto& timer : timers_) count += timer->valid ? 1 : 0;
    return count;
  }
  const std::vector<std::shared_ptr<Scheduled>>& timers() const { return timers_; }

 private:
  struct Handle final : zu::Timer {
    explicit Handle(std::shared_ptr<Scheduled> timer) : timer(std::move(timer)) {}
    ~Handle() override { invalidate(); }
    void invalidate() override { timer->valid = false; }
    std::shared_ptr<Scheduled> timer;
  };
  std::vector<std::shared_ptr<Scheduled>> timers_;
};

/// A host that records what the screen tells it and answers deletion questions from a table.
class RecordingDelegate final : public zu::KivMediaCaptureAndPlayViewControllerDelegate {
 public:
  struct Dismissal {
    Controller::DismissReason reason;
    std::optional<zu::URL> fileURL;
  };

  bool mediaCaptureAndPlayViewControllerCanDeleteFileAt(Controller&, const zu::URL& fileURL) override {
    ++deletionQuestions[fileURL.absoluteString()];
    return canDelete;
  }
  void mediaCaptureAndPlayViewControllerDidDeleteFileAt(Controller&, const zu::URL& fileURL) override {
    deleted.push_back(fileURL);
  }
  void mediaCaptureAndPlayViewControllerDidDismissWith(Controller&, Controller::DismissReason reason,
                                                       const std::optional<zu::URL>& fileURL) override {
    dismissals.push_back({reason, fileURL});
  }
  void mediaCaptureAndPlayViewControllerDidFailWith(Controller&, const zu::SetupError& error) override {
    failures.push_back(error);
  }

  /// The answer to every deletion question.
  bool canDelete = true;
  std::map<std::string, int> deletionQuestions;
  std::vector<zu::URL> deleted;
  std::vector<Dismissal> dismissals;
  std::vector<zu::SetupError> failures;
};

}  // namespace testing_support
