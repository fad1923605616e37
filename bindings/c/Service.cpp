// The certification service through C: set-up, the report and content operations, the whole certification
// flow, statements and newsletters. Each C completion is wrapped once, so that it runs exactly once whichever
// way the operation ends.
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KivSDK/API/KivAPI.hpp"
#include "KivSDK/API/KivCertification.hpp"
#include "KivSDK/API/KivUserProperties.hpp"
#include "KivSDK/Provenance/KivProvenance.hpp"
#include "detail/Boundary.hpp"

using namespace kiv::detail::capi;  // NOLINT(google-build-using-namespace): the boundary's vocabulary

namespace {

// A C completion and its user data, called at most once however many paths lead to it.
template <class Callback>
class Once {
 public:
  Once(Callback callback, void* userData) : state_(std::make_shared<State>(callback, userData)) {}

  template <class... Arguments>
  void operator()(Arguments... arguments) const {
    if (!state_->called.exchange(true)) state_->callback(arguments..., state_->userData);
  }

 private:
  struct State {
    State(Callback c, void* u) : callback(c), userData(u) {}
    Callback callback;
    void* userData;
    std::atomic<bool> called{false};
  };
  std::shared_ptr<State> state_;
};

// The C form of an operation's failure: its error, or, when the SDK gave none, that none was given.
CError errorOf(const std::optional<zu::Error>& error) {
  if (error) return CError(*error);
  return {KIV_ERROR_INTERNAL, "the operation failed without saying why", "KivSDKErrorDomain", 0};
}

void fail(const Once<kiv_report_callback>& done, const kiv_error* error) { done(nullptr, error); }
void fail(const Once<kiv_file_callback>& done, const kiv_error* error) { done(nullptr, error); }
void fail(const Once<kiv_done_callback>& done, const kiv_error* error) { done(0, error); }

// Runs `answer` (which calls `done`) on an SDK thread; a failure on the way still reaches `done`, once.
template <class Callback, class Answer>
void answerOnce(const Once<Callback>& done, Answer&& answer) noexcept {
  try {
    std::forward<Answer>(answer)();
  } catch (...) {
    try {
      fail(done, currentError()->get());
    } catch (...) {
      fail(done, nullptr);  // not even the error could be made: the completion still learns of the failure
    }
  }
}

/**
 * Starts an operation with `start(done)`: without completion nothing runs; when `start` throws (bad
 * arguments), `done` receives the failure now, on the calling thread, and the call answers it too.
 */
template <class Callback, class Start>
kiv_status startOperation(Callback completion, void* userData, Start&& start) noexcept {
  if (completion == nullptr) return guarded([] { throw ArgumentError("completion is NULL"); });
  const Once<Callback> done(completion, userData);
  const kiv_status status = guarded([&] { std::forward<Start>(start)(done); });
  if (status != KIV_OK) fail(done, kiv_last_error());
  return status;
}

template <class Record, class Handle, class Callback>
auto recordAnswer(Once<Callback> done) {
  return [done](std::optional<Record> record, const std::optional<zu::Error>& error) {
    answerOnce(done, [&] {
      if (!record) return fail(done, errorOf(error).get());
      const Handle lent{std::move(*record)};
      done(&lent, nullptr);
    });
  };
}

auto reportAnswer(const Once<kiv_report_callback>& done) {
  return recordAnswer<kiv::KivReport, kiv_report>(done);
}

auto successAnswer(const Once<kiv_done_callback>& done) {
  return [done](bool success, std::optional<zu::Error> error) {
    answerOnce(done, [&] {
      if (error) return done(0, CError(*error).get());
      done(success ? 1 : 0, nullptr);
    });
  };
}

// Progress of `fileName`'s transfer for C; nothing when the caller wants none.
kiv::KivAPI::TransferProgress progressOf(kiv_progress_callback progress, std::string fileName,
                                         void* userData) {
  if (progress == nullptr) return {};
  return [progress, fileName = std::move(fileName), userData](std::int64_t done, std::int64_t expected) {
    progress(fileName.c_str(), done, expected, userData);
  };
}

std::string fileNameOf(const kiv::KivFile& file) { return file.name + "." + file.ext; }

std::vector<zu::ZuMailList> mailLists(const kiv_mail_list* lists, size_t count) {
  if (lists == nullptr && count > 0) throw ArgumentError("lists is NULL");
  std::vector<zu::ZuMailList> result;
  result.reserve(count);
  for (size_t index = 0; index < count; ++index) {
    const std::string what = "lists[" + std::to_string(index) + "]";
    result.emplace_back(utf8(lists[index].name, (what + ".name").c_str()),
                        optionalUtf8(lists[index].description, (what + ".description").c_str()).value_or(""),
                        lists[index].subscribed != 0);
  }
  return result;
}

}  // namespace

extern "C" {

kiv_status kiv_setup(const char* token) {
  return guarded([&] { kiv::KivAPI::setup(utf8(token, "token")); });
}

kiv_status kiv_use_service(const char* base_url, const char* ca_file) {
  return guarded([&] {
    kiv::KivAPI::set_ZuNetworkingType(take(
        kiv::KivAPI::redirectedNetworkingType(utf8(base_url, "base_url"), optionalUtf8(ca_file, "ca_file"))));
  });
}

kiv_status kiv_send(const kiv_report* report, const char* language, kiv_report_callback completion,
                    void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_report_callback>& done) {
    kiv::KivAPI::send(valueOf(report), utf8(language, "language"), reportAnswer(done));
  });
}

kiv_status kiv_update_status(const kiv_report* report, kiv_report_callback completion, void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_report_callback>& done) {
    kiv::KivAPI::update(valueOf(report), reportAnswer(done));
  });
}

kiv_status kiv_force_status_update(const kiv_report* report, kiv_report_callback completion,
                                   void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_report_callback>& done) {
    kiv::KivAPI::forceStatusUpdate(valueOf(report), reportAnswer(done));
  });
}

kiv_status kiv_upload_content(const kiv_file* file, const kiv_report* report, kiv_progress_callback progress,
                              kiv_file_callback completion, void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_file_callback>& done) {
    const kiv::KivFile& record = valueOf(file);
    kiv::KivAPI::uploadContent(record, valueOf(report), recordAnswer<kiv::KivFile, kiv_file>(done),
                               progressOf(progress, fileNameOf(record), user_data));
  });
}

kiv_status kiv_download_content(const kiv_file* file, kiv_progress_callback progress,
                                kiv_done_callback completion, void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_done_callback>& done) {
    const kiv::KivFile& record = valueOf(file);
    kiv::KivAPI::downloadContent(record, successAnswer(done),
                                 progressOf(progress, fileNameOf(record), user_data));
  });
}

kiv_status kiv_generate_pdf(const kiv_report* report, const char* language, kiv_done_callback completion,
                            void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_done_callback>& done) {
    kiv::KivAPI::generatePDF(valueOf(report), utf8(language, "language"), successAnswer(done));
  });
}

kiv_status kiv_certify(const kiv_report* report, const char* language, int timeout_seconds,
                       kiv_progress_callback progress, kiv_certify_callback completion, void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_certify_callback>& done) {
    if (timeout_seconds <= 0) throw ArgumentError("timeout_seconds must be positive");
    kiv::KivCertification::Options options;
    options.language = utf8(language, "language");
    options.confirmationTimeout = std::chrono::seconds(timeout_seconds);
    if (progress != nullptr) {
      options.progress = [progress, user_data](const kiv::KivFile& file, std::int64_t sent,
                                               std::int64_t all) {
        progress(fileNameOf(file).c_str(), sent, all, user_data);
      };
    }
    kiv::KivCertification::certify(valueOf(report), std::move(options),
                                   [done](kiv::KivCertification::Outcome outcome) {
                                     answerOnce(done, [&] {
                                       const kiv_report lent{std::move(outcome.report)};
                                       if (!outcome.error) return done(&lent, nullptr);
                                       done(&lent, CError(*outcome.error).get());
                                     });
                                   });
  });
}

kiv_status kiv_send_statements(const kiv_report* report, kiv_done_callback completion, void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_done_callback>& done) {
    kiv::KivProvenance::sendStatements(valueOf(report),
                                       [done](const auto& receipts, const std::optional<zu::Error>& error) {
                                         successAnswer(done)(receipts.has_value(), error);
                                       });
  });
}

kiv_status kiv_update_newsletters(const char* email, const char* phone, const kiv_mail_list* lists,
                                  size_t count, const char* language, kiv_done_callback completion,
                                  void* user_data) {
  return startOperation(completion, user_data, [&](const Once<kiv_done_callback>& done) {
    const kiv::KivUserProperties properties(utf8(email, "email"), optionalUtf8(phone, "phone"),
                                            mailLists(lists, count));
    kiv::KivAPI::updateNewsletters(properties, utf8(language, "language"), successAnswer(done));
  });
}

}  // extern "C"
