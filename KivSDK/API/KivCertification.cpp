#include "KivSDK/API/KivCertification.hpp"

#include <algorithm>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "KivSDK/API/KivAPI.hpp"

namespace kiv {
namespace {

using Clock = std::chrono::steady_clock;
using Outcome = KivCertification::Outcome;
using Step = KivCertification::Step;

/// How often the service is asked for the report's status while it is pending.
constexpr auto kPollInterval = std::chrono::seconds(1);

/// `error` with its text prefixed by what was being done; domain, code and the rest stay.
zu::Error about(const zu::Error& error, const std::string& doing) {
  zu::Error::UserInfo userInfo = error.userInfo();
  userInfo.set(std::string(zu::Error::localizedDescriptionKey), doing + ": " + error.localizedDescription());
  return zu::Error(error.domain(), error.code(), std::move(userInfo));
}

zu::Error flowError(KivCertification::ErrorCode code, std::string text) {
  return zu::Error(std::string(KivCertification::errorDomain), code,
                   {{std::string(zu::Error::localizedDescriptionKey), std::move(text)}});
}

/// Starts `operation` with a report completion and waits for it; it is called exactly once.
template <class Operation>
std::pair<std::optional<KivReport>, std::optional<zu::Error>> awaitReport(Operation operation) {
  auto answered =
      std::make_shared<std::promise<std::pair<std::optional<KivReport>, std::optional<zu::Error>>>>();
  auto answer = answered->get_future();
  operation([answered](std::optional<KivReport> report, std::optional<zu::Error> error) {
    answered->set_value({std::move(report), std::move(error)});
  });
  return answer.get();
}

Outcome failed(Outcome outcome, Step step, zu::Error error) {
  outcome.failedStep = step;
  outcome.error = std::move(error);
  return outcome;
}

/// The uploads under way: each one's result, and how many are still running.
struct Uploads {
  std::mutex mutex;
  std::condition_variable finished;
  std::size_t running = 0;
  std::vector<std::optional<KivFile>> uploaded;
  std::optional<zu::Error> firstError;
};

/// Uploads the content of every file the service does not hold yet, all at once.
Outcome uploadAll(Outcome outcome, const KivCertification::Options& options) {
  KivReport& report = outcome.report;
  const zu::Date now = zu::Date::now();
  std::vector<std::size_t> chosen;
  for (std::size_t i = 0; i < report.files.size(); ++i) {
    if (report.files[i].hasRemoteFile()) continue;
    chosen.push_back(i);
    report.files[i] = report.files[i].updatingFileUploadAttemptDate(now);
  }
  auto uploads = std::make_shared<Uploads>();
  uploads->uploaded.resize(report.files.size());
  uploads->running = chosen.size();
  const KivReport sending = report;
  for (const std::size_t i : chosen) {
    const KivFile& file = sending.files[i];
    KivAPI::TransferProgress progress;
    if (options.progress) {
      progress = [file, report = options.progress](std::int64_t done, std::int64_t expected) {
        report(file, done, expected);
      };
    }
    KivAPI::uploadContent(
        file, sending,
        [uploads, i, name = file.name + "." + file.ext](std::optional<KivFile> uploaded,
                                                        std::optional<zu::Error> error) {
          std::lock_guard lock(uploads->mutex);
          uploads->uploaded[i] = std::move(uploaded);
          if (error && !uploads->firstError) uploads->firstError = about(*error, "uploading " + name);
          --uploads->running;
          uploads->finished.notify_all();
        },
        std::move(progress));
  }
  std::unique_lock lock(uploads->mutex);
  // Every upload ends: the networking layer gives up on a transfer that stops moving.
  uploads->finished.wait(lock, [&] { return uploads->running == 0; });
  for (const std::size_t i : chosen) {
    if (uploads->uploaded[i]) report.files[i] = report.files[i].merge(*uploads->uploaded[i]);
  }
  if (uploads->firstError) return failed(std::move(outcome), Step::upload, *uploads->firstError);
  return outcome;
}

/// Has the service check the content, then asks for the status until it is final or the time runs out.
Outcome awaitConfirmation(Outcome outcome, const KivCertification::Options& options) {
  const auto deadline = Clock::now() + options.confirmationTimeout;
  for (bool first = true;; first = false) {
    auto [checked, error] = awaitReport([&](KivAPI::ReportCompletion done) {
      if (first) return KivAPI::forceStatusUpdate(outcome.report, std::move(done));
      KivAPI::update(outcome.report, std::move(done));
    });
    if (!checked) return failed(std::move(outcome), Step::confirmation, about(*error, "checking the report"));
    outcome.report = std::move(*checked);
    const auto status = outcome.report.proofStatus();
    if (status == KivReport::ProofStatus::confirmed) return outcome;
    if (status == KivReport::ProofStatus::failed) {
      return failed(std::move(outcome), Step::confirmation,
                    flowError(KivCertification::contentRejected,
                              "the service holds content that does not match its digest: the report failed "
                              "certification"));
    }
    const auto now = Clock::now();
    if (now >= deadline) {
      return failed(std::move(outcome), Step::confirmation,
                    flowError(KivCertification::notConfirmedInTime,
                              "the report is still " + std::string(KivReport::string(status)) + " after " +
                                  std::to_string(options.confirmationTimeout.count()) + " s"));
    }
    std::this_thread::sleep_for(std::min<Clock::duration>(kPollInterval, deadline - now));
  }
}

Outcome run(const KivReport& report, const KivCertification::Options& options) {
  Outcome outcome{report.withCalculatedHash(), std::nullopt, std::nullopt};
  auto [sent, error] = awaitReport([&](KivAPI::ReportCompletion done) {
    KivAPI::send(outcome.report, options.language, std::move(done));
  });
  if (!sent) return failed(std::move(outcome), Step::send, about(*error, "sending the report"));
  outcome.report = outcome.report.merge(*sent);
  outcome = uploadAll(std::move(outcome), options);
  if (outcome.error) return outcome;
  return awaitConfirmation(std::move(outcome), options);
}

}  // namespace

void KivCertification::certify(const KivReport& report, Options options,
                               std::function<void(Outcome)> completion) {
  std::thread([report, options = std::move(options), completion = std::move(completion)] {
    completion(run(report, options));
  }).detach();
}

}  // namespace kiv
