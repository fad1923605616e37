#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "ZuNetworking/URLSession.hpp"

namespace zutest {

/// What the fake server answers to one request.
struct Answer {
  std::optional<zu::Data> data;
  std::optional<zu::HTTPURLResponse> response;
  std::optional<zu::Error> error;
  std::optional<zu::URL> location;  // for downloads
};

/// A session that answers from a lambda. Tasks with completions answer inside `resume()`; tasks for the
/// delegate wait in `held` until `deliverHeld()`, so a test can look at what is pending meanwhile.
class FakeURLSession : public zu::URLSession, public std::enable_shared_from_this<FakeURLSession> {
 public:
  class Task : public zu::URLSessionTask {
   public:
    Task(std::uint64_t id, zu::URLRequest request, std::function<void(Task&)> onResume)
        : URLSessionTask(id, std::move(request)), onResume_(std::move(onResume)) {}
    void resume() override {
      if (auto run = std::exchange(onResume_, nullptr)) run(*this);
    }
    void cancel() override {}
    using URLSessionTask::setResponse;

   private:
    std::function<void(Task&)> onResume_;
  };

  explicit FakeURLSession(std::function<Answer(const zu::URLRequest&)> answer,
                          std::weak_ptr<zu::URLSessionDelegate> delegate = {})
      : answer_(std::move(answer)), delegate_(std::move(delegate)) {}

  const zu::URLSessionConfiguration& configuration() const override { return configuration_; }

  std::shared_ptr<zu::URLSessionTask> dataTask(zu::URLRequest request, DataCompletion completion) override {
    return make(std::move(request), std::move(completion), {});
  }
  std::shared_ptr<zu::URLSessionTask> uploadTask(zu::URLRequest request, zu::URL fromFile,
                                                 DataCompletion completion) override {
    uploadedFiles.push_back(fromFile);
    return make(std::move(request), std::move(completion), {});
  }
  std::shared_ptr<zu::URLSessionTask> downloadTask(zu::URLRequest request,
                                                   DownloadCompletion completion) override {
    return make(std::move(request), {}, std::move(completion));
  }

  void deliverHeld() {
    auto tasks = std::move(held);
    for (auto& [task, answer] : tasks) deliver(*task, answer);
  }

  std::vector<zu::URLRequest> requests;
  std::vector<zu::URL> uploadedFiles;
  std::vector<std::pair<std::shared_ptr<Task>, Answer>> held;

 private:
  std::shared_ptr<Task> make(zu::URLRequest request, DataCompletion data, DownloadCompletion download) {
    auto task =
        std::make_shared<Task>(++lastIdentifier_, std::move(request), [this, data, download](Task& task) {
          requests.push_back(task.originalRequest());
          Answer answer = answer_(task.originalRequest());
          if (answer.response) task.setResponse(*answer.response);
          if (data) return data(answer.data, answer.response, answer.error);
          if (download) return download(answer.location, answer.response, answer.error);
          held.emplace_back(std::static_pointer_cast<Task>(lookup(task)), answer);
        });
    tasks_.push_back(task);
    return task;
  }
  std::shared_ptr<zu::URLSessionTask> lookup(const Task& task) {
    for (auto& candidate : tasks_) {
      if (candidate.get() == &task) return candidate;
    }
    return nullptr;
  }
  void deliver(Task& task, const Answer& answer) {
    auto delegate = delegate_.lock();
    if (answer.data) delegate->didReceive(*this, task, *answer.data);
    if (answer.location) delegate->didFinishDownloadingTo(*this, task, *answer.location);
    delegate->didCompleteWithError(*this, task, answer.error);
  }

  std::function<Answer(const zu::URLRequest&)> answer_;
  std::weak_ptr<zu::URLSessionDelegate> delegate_;
  zu::URLSessionConfiguration configuration_;
  std::uint64_t lastIdentifier_ = 0;
  std::vector<std::shared_ptr<Task>> tasks_;
};

}  // namespace zutest
