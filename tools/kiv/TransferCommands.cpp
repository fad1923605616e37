// kiv upload and kiv download: the content of a report's files, to and from the service, with progress.
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ProgressBoard.hpp"
#include "ReportStore.hpp"
#include "ServiceCommands.hpp"
#include "Waiter.hpp"
#include "ZuDate/ZuDate.hpp"

namespace kivcli {
namespace {

/// The outcome of one file's transfer, as printed.
struct Outcome {
  std::string name;
  std::string result;
  std::string detail;
};

/// The transfers of the chosen files of a report, all at once, each drawn on a progress board.
class Transfers {
 public:
  Transfers(const Context& context, const std::string& what, const std::vector<kiv::KivFile>& files,
            std::vector<std::size_t> chosen)
      : waiter_(context, what), chosen_(std::move(chosen)) {
    std::vector<std::string> labels;
    std::vector<std::int64_t> sizes;
    labels.reserve(chosen_.size());
    sizes.reserve(chosen_.size());
    for (const std::size_t i : chosen_) {
      labels.push_back(fileName(files[i]));
      std::error_code error;
      const auto size = std::filesystem::file_size(files[i].fileURL().path(), error);
      sizes.push_back(error ? 0 : static_cast<std::int64_t>(size));
    }
    board_ = std::make_shared<ProgressBoard>(std::move(labels), std::move(sizes), context.showsProgress());
  }

  /// `completion`, counted: `run` returns once every one has run.
  template <class Completion>
  auto track(Completion completion) {
    return waiter_.track(std::move(completion));
  }
  /// Calls `start(index, progress)` for every chosen file, then waits for the tracked completions.
  template <class Start>
  void run(Start start) {
    for (std::size_t row = 0; row < chosen_.size(); ++row) {
      start(chosen_[row],
            [board = board_, row, alive = waiter_.signOfLife()](std::int64_t done, std::int64_t expected) {
              alive();
              board->update(row, done, expected);
            });
    }
    waiter_.wait();
    board_->finish();
  }

 private:
  Waiter waiter_;
  std::vector<std::size_t> chosen_;
  std::shared_ptr<ProgressBoard> board_;
};

/// Every file's outcome so far, and the indices of the files to transfer.
struct Selection {
  std::vector<Outcome> outcomes;
  std::vector<std::size_t> chosen;
};

/**
 * Sorts a report's files: `verdict` answers the outcome of a file that is not transferred (already done,
 * impossible, held back), nothing for one to transfer.
 */
template <class Verdict>
Selection choose(const std::vector<kiv::KivFile>& files, Verdict verdict) {
  std::vector<Outcome> outcomes(files.size());
  std::vector<std::size_t> chosen;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::optional<Outcome> outcome = verdict(files[i]);
    outcomes[i] = outcome.value_or(Outcome{fileName(files[i]), "", ""});
    if (!outcome) chosen.push_back(i);
  }
  return {std::move(outcomes), std::move(chosen)};
}

/// Prints the outcomes and fails, naming the files that did not make it, unless all are `succeeded`.
void finish(const Context& context, const kiv::KivReport& report, const std::vector<Outcome>& outcomes,
            const std::string& succeeded, const std::string& advice) {
  zu::AnyCodable::Array files;
  std::string text;
  std::string problems;
  for (const Outcome& outcome : outcomes) {
    files.emplace_back(zu::AnyCodable::Dictionary{
        {"name", outcome.name}, {"result", outcome.result}, {"detail", outcome.detail}});
    text += "  " + outcome.result + "  " + outcome.name +
            (outcome.detail.empty() ? "" : ": " + outcome.detail) + "\n";
    if (outcome.result != succeeded && outcome.result != "done before") {
      problems += (problems.empty() ? "" : "; ") + outcome.name + " " + outcome.result +
                  (outcome.detail.empty() ? "" : " (" + outcome.detail + ")");
    }
  }
  context.print({{"report", reportSummary(report)}, {"files", std::move(files)}}, report.name + ":\n" + text);
  if (!problems.empty()) fail(report.name + ": " + problems + advice);
}

}  // namespace

void uploadFiles(const Context& context, const TransferOptions& options) {
  const ReportStore store = ReportStore::load();
  kiv::KivReport report = sentReport(store, options.report);
  const zu::Date now = zu::Date::now();
  Selection selection = choose(report.files, [&](const kiv::KivFile& file) -> std::optional<Outcome> {
    if (file.hasRemoteFile()) return Outcome{fileName(file), "done before", ""};
    if (!file.hasLocalFile()) return Outcome{fileName(file), "missing", "not on this device"};
    if (options.force || file.canAttemptFileUpload(now)) return std::nullopt;
    const zu::Date tried = *file._lastFileUploadAttemptDate;
    const zu::Date next =
        tried.addingTimeInterval(kiv::KivFile::_Const::Values::minimumTimeIntervalBetweenFileUploadRequest);
    return Outcome{fileName(file), "throttled",
                   "tried at " + zu::stringWithAPIFormat(tried, zu::DateFormatterStyle::api) +
                       ", next attempt after " + zu::stringWithAPIFormat(next, zu::DateFormatterStyle::api)};
  });
  for (const std::size_t i : selection.chosen)
    report.files[i] = report.files[i].updatingFileUploadAttemptDate(now);
  if (!selection.chosen.empty()) {
    context.connect();
    // Completions change `report` while uploads are still being started from this copy.
    const kiv::KivReport sending = report;
    Transfers transfers(context, "uploading the files of " + report.name, sending.files, selection.chosen);
    transfers.run([&](std::size_t i, kiv::KivAPI::TransferProgress progress) {
      kiv::KivAPI::uploadContent(
          sending.files[i], sending,
          transfers.track([&, i](std::optional<kiv::KivFile> uploaded, std::optional<zu::Error> error) {
            if (uploaded) {
              report.files[i] = report.files[i].merge(*uploaded);
              selection.outcomes[i].result = "uploaded";
            } else {
              selection.outcomes[i] = {selection.outcomes[i].name, "failed", error->localizedDescription()};
            }
          }),
          std::move(progress));
    });
  }
  // The attempt dates are kept too, failed attempts included: they hold back the next try.
  ReportStore::save(report);
  finish(context, report, selection.outcomes, "uploaded",
         "; uploads of a file are tried once in 30 minutes, --force tries again now");
}

void downloadFiles(const Context& context, const TransferOptions& options) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport& report = store.find(options.report);
  Selection selection = choose(report.files, [](const kiv::KivFile& file) -> std::optional<Outcome> {
    if (file.hasLocalFile()) return Outcome{fileName(file), "done before", ""};
    if (!file.hasRemoteFile())
      return Outcome{fileName(file), "missing", "neither on this device nor uploaded"};
    return std::nullopt;
  });
  if (!selection.chosen.empty()) {
    context.connect(false);
    Transfers transfers(context, "downloading the files of " + report.name, report.files, selection.chosen);
    transfers.run([&](std::size_t i, kiv::KivAPI::TransferProgress progress) {
      kiv::KivAPI::downloadContent(report.files[i],
                                   transfers.track([&, i](bool, std::optional<zu::Error> error) {
                                     selection.outcomes[i].result = error ? "failed" : "downloaded";
                                     if (error) selection.outcomes[i].detail = error->localizedDescription();
                                   }),
                                   std::move(progress));
    });
  }
  finish(context, report, selection.outcomes, "downloaded",
         "; kiv verify compares the content with its digests");
}

}  // namespace kivcli
